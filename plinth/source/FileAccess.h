// Files as the streams use them: opened by path for reading, or made for writing, read and
// written in blocks, closed. PlatformWindows.cpp and PlatformPosix.cpp have the rest of the
// platform; these are FileAccessWindows.cpp and FileAccessPosix.cpp.
//
// A file opened for writing is a sibling of `path`, a new file in the same directory, so that the
// file at `path` is replaced whole or not at all: closing with `keep` moves the sibling over it in
// one rename, and closing without removes the sibling and leaves `path` as it was. A reader never
// sees a torn or an empty file, and a shorter file over a longer one leaves no tail. On Windows the
// move waits a moment while another process has the file open. What isn't a
// regular file or a directory (a device, a pipe) can't be replaced, and is written in place.
#ifndef PLINTH_FILE_ACCESS_H
#define PLINTH_FILE_ACCESS_H

#include "Internal.h"

namespace Plinth {

struct PlatformFile;

// The path style of the platform's file URLs.
PLURLPathStyle PlatformPathStyle ();
// Null when the file can't be opened: for writing also when `path` is a directory or read-only,
// or its directory doesn't exist (none is made).
PlatformFile * PlatformOpenFile (PLStringRef path, bool forWriting);
// The bytes read, 0 at the end, -1 on failure.
PLIndex PlatformReadFile (PlatformFile * file, uint8_t * buffer, PLIndex length);
// True when all of `length` was written.
bool PlatformWriteFile (PlatformFile * file, uint8_t const * buffer, PLIndex length);
// True when the file closed cleanly (everything written reached it). A file opened for writing
// takes the place of the one at its path only when `keep` is true and everything before went well;
// otherwise what was at the path stays. `keep` means nothing to a file opened for reading.
bool PlatformCloseFile (PlatformFile * file, bool keep);

#ifdef _WIN32
// A terminated copy of a string's units, freed by the caller (PlatformWindows.cpp).
wchar_t * CopyTerminated (PLStringRef string);
// Another process may hold a file open for a moment in a way that refuses what this one asks (a
// scanner, a backup, a reader that doesn't share deletion): after such a failure, `error`, this
// pauses and gives true, so that the caller tries again, until a second in all has been waited.
// `waited` counts it, from 0.
bool WaitWhileShared (unsigned long error, unsigned & waited);
#endif

}

#endif
