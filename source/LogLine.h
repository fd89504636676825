// The log lines of the library, for the sources of LibSkerry.dll: one line to a jot facility at
// level 5, with a client of its own. LogFunc writes the library's failures to "Exceptions". Not
// exported: callers see the lines, not the writer.
#ifndef SKERRY_SOURCE_LOG_LINE
#define SKERRY_SOURCE_LOG_LINE

#include <LibSkerry/Linkage>

#include <cstdarg>

namespace Skerry {
namespace Exceptions {

void LogFunc (char const * format, ...) SKERRY_PRINTF_FORMAT (1, 2);
void LogLineTo (char const * facility, char const * format, va_list arguments) SKERRY_PRINTF_FORMAT (2, 0);

}
}

#endif
