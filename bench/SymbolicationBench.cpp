// The text of a stack trace: a warm Symbolicate against the bare debug-help lookups it is made
// of, over the same addresses, and the one-time cost of the first Symbolicate of a process.
#include <LibSkerry/FormattedString>
#include <LibSkerry/StackTrace>

#include "Harness.h"

#include <windows.h>
#include <dbghelp.h>

#include <vector>

namespace {

volatile unsigned sSink;

// What Symbolicate asks debug-help for each frame: the module record and the symbol.
void RawLookups (HANDLE process, const std::vector<void *> & addresses)
{
    for (void * address : addresses) {
        DWORD64 target = DWORD64 (LONG64 (LONG_PTR (address)));
        unsigned char moduleRecord [sizeof (IMAGEHLP_MODULE64)] = {};
        IMAGEHLP_MODULE64 * module = reinterpret_cast<IMAGEHLP_MODULE64 *> (moduleRecord);
        module->SizeOfStruct = 1672;
        sSink = sSink + ::SymGetModuleInfo64 (process, target, module);
        unsigned char symbolRecord [88 + 1024] = {};
        SYMBOL_INFO * symbol = reinterpret_cast<SYMBOL_INFO *> (symbolRecord);
        symbol->SizeOfStruct = 88;
        symbol->MaxNameLen = 1024;
        sSink = sSink + ::SymFromAddr (process, target, NULL, symbol);
    }
}

}

int main ()
{
    Skerry::StackTrace trace;
    SkerryBench::AtDepth (25, [&] { trace = Skerry::StackTrace (); });
    trace.resize (20);

    LARGE_INTEGER frequency, start, stop;
    ::QueryPerformanceFrequency (&frequency);
    ::QueryPerformanceCounter (&start);
    sSink = sSink + unsigned (trace.Symbolicate ().size ());
    ::QueryPerformanceCounter (&stop);
    double first = double (stop.QuadPart - start.QuadPart) * 1e9 / double (frequency.QuadPart);

    // The raw lookups get a debug-help session of their own, set up as the library sets up its.
    HANDLE process = NULL;
    ::DuplicateHandle (::GetCurrentProcess (), ::GetCurrentProcess (), ::GetCurrentProcess (), &process, 0, FALSE,
        DUPLICATE_SAME_ACCESS);
    char directory [MAX_PATH];
    DWORD length = ::GetModuleFileNameA (NULL, directory, MAX_PATH);
    while (length > 0 && directory [length - 1] != '\\')
        --length;
    directory [length] = '\0';
    ::SymInitialize (process, directory, TRUE);
    ::SymSetOptions (0x80000A04);

    SkerryBench::Options options;
    options.fOperationsPerBatch = 20;
    double warm = SkerryBench::Median ([&] { sSink = sSink + unsigned (trace.Symbolicate ().size ()); }, options);
    double raw = SkerryBench::Median ([&] { RawLookups (process, trace); }, options);
    // Each line is printed through the C runtime's formatter, which on its own costs a good part
    // of what the lookups cost.
    std::string text = trace.Symbolicate ();
    double lines = SkerryBench::Median ([&] {
        for (int i = 0; i < 20; ++i) {
            Skerry::FormattedStringTemplate<char> line ("%*s 0x%p %s\n", 19, "SymbolicationBench.exe", trace [i],
                "AtDepth<main()::<lambda()> >+0x1F");
            sSink = sSink + line.fCount;
        }
    }, options);
    SkerryBench::Header ("Symbolication, 20 frames");
    SkerryBench::Report ("warm Symbolicate vs SymGetModuleInfo64 + SymFromAddr", warm, raw, 1.3);
    SkerryBench::Breakdown ("of which 20 lines through FormattedStringTemplate", lines, raw);
    std::printf ("first Symbolicate of the process, debug-help start-up included: %.1f ms\n", first / 1e6);
    return 0;
}
