// The log line of the library's failures, for the sources of LibSkerry.dll: one line to the jot
// facility "Exceptions" at level 5, with a client of its own. Not exported: callers see the lines,
// not the writer.
#ifndef SKERRY_SOURCE_LOG_LINE
#define SKERRY_SOURCE_LOG_LINE

#include <LibSkerry/Linkage>

namespace Skerry {
namespace Exceptions {

void LogFunc (char const * format, ...) SKERRY_PRINTF_FORMAT (1, 2);

}
}

#endif
