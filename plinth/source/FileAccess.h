// Files as the streams use them: opened by path for reading, or created (or emptied) for
// writing, read and written in blocks, closed. PlatformWindows.cpp and PlatformPosix.cpp have
// the rest of the platform; these are FileAccessWindows.cpp and FileAccessPosix.cpp.
#ifndef PLINTH_FILE_ACCESS_H
#define PLINTH_FILE_ACCESS_H

#include "Internal.h"

namespace Plinth {

struct PlatformFile;

// The path style of the platform's file URLs.
PLURLPathStyle PlatformPathStyle ();
// Null when the file can't be opened.
PlatformFile * PlatformOpenFile (PLStringRef path, bool forWriting);
// The bytes read, 0 at the end, -1 on failure.
PLIndex PlatformReadFile (PlatformFile * file, uint8_t * buffer, PLIndex length);
// True when all of `length` was written.
bool PlatformWriteFile (PlatformFile * file, uint8_t const * buffer, PLIndex length);
// True when the file closed cleanly (everything written reached it).
bool PlatformCloseFile (PlatformFile * file);

#ifdef _WIN32
// A terminated copy of a string's units, freed by the caller (PlatformWindows.cpp).
wchar_t * CopyTerminated (PLStringRef string);
#endif

}

#endif
