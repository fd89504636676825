// Calls of each printf-style entry of the library, compiled (not run) by the test FormatChecking.
// With CALL 0, the formats the library's own texts use, which must draw no warning; with CALL n,
// the n-th entry given an argument that its format doesn't read, which must draw one.
#include <LibSkerry/FormattedString>

#include <jot.h>

#include "LogLine.h"

void Calls (unsigned __int64 wide, unsigned long code, long result, int line)
{
#if CALL == 0
    Skerry::FormattedStringTemplate<char> text ("%*s 0x%p %s (error %lu) %I64X", 12, "kernel32.dll", &wide, "Sleep",
        code, wide);
    ::jot_log (NULL, NULL, 5, "%s: HRESULT 0x%08X on line %d, %I64u bytes", "f", unsigned (result), line, wide);
    Skerry::Exceptions::LogFunc ("%s: Win32 error %lu on line %d of file %s", "f", code, line, "Exceptions");
#elif CALL == 1
    Skerry::FormattedStringTemplate<char> text ("%lu", wide);
#elif CALL == 2
    ::jot_log (NULL, NULL, 5, "%I64X", code);
#elif CALL == 3
    Skerry::Exceptions::LogFunc ("HRESULT 0x%08X", result);
#endif
}
