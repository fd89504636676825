// plist-tool's files: read whole, and written whole so that no reader ever sees half of one.
//
// "-" names standard input or output. A file is replaced by writing a temporary file in its
// directory and moving it over the file: rename on POSIX (through a symbolic link, to the file it
// names; the old file's permissions kept), ReplaceFileW on Windows (which keeps the old file's
// attributes and security), MoveFileExW for a new file. A failure removes the temporary file and
// leaves the old one as it was.
#ifndef PLIST_TOOL_FILES_H
#define PLIST_TOOL_FILES_H

#include "Values.h"

#include <string>

namespace PlistTool {

// A file named on the command line: its text as UTF-8 and as the platform gave it (UTF-16 on
// Windows), which opens it.
struct Argument {
    std::string fText;
    PLStringRef fString;
};

bool IsStandardStream (Argument const & file);
// The file's name in messages: "(standard input)" for "-".
std::string InputName (Argument const & file);

// The whole file or standard input. Throws Failure.
std::string ReadAll (Argument const & file);
// Standard output, or the file replaced whole. Throws Failure naming the file.
void WriteAll (Argument const & file, std::string const & bytes);

}

#endif
