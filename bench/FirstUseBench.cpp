// What the first description of a process costs: the first Skerry::Exceptions::Description (no
// log destination, a trace of a few frames) against what the platform itself takes to name its
// first address, SymInitialize invading the process and one SymFromAddr. Both are one-time costs,
// so each round starts a fresh process for each side. The cost is the debug-help library reading
// the debug information of every module in the process, which invading loads at once; a last
// figure shows it by loading one module only.
#include <LibSkerry/Exceptions>

#include "Harness.h"

#include <windows.h>
#include <dbghelp.h>

#include <cstring>
#include <string>

namespace {

const unsigned kRounds = 3;
volatile unsigned sSink;

__attribute__ ((noinline)) void Fail ()
{
    Skerry::Exceptions::ThrowWin32ErrorFunc ("FirstUseBench::Fail", "FirstUseBench", 1, 2);
}

// The first Description of this process and the second, in nanoseconds.
int DescribeTwice ()
{
    ::SetEnvironmentVariableW (L"JOT_LOG_FILE", NULL);
    double times [2];
    for (double & time : times) {
        try {
            Fail ();
        }
        catch (...) {
            double start = SkerryBench::Now ();
            Skerry::Exceptions::Description description;
            time = SkerryBench::Now () - start;
            sSink = sSink + unsigned (description.fStackTrace.size ());
        }
    }
    std::printf ("%.0f %.0f\n", times [0], times [1]);
    return 0;
}

// The platform's first name of an address in this program: a debug-help session set up as the
// library sets up its own, then one SymFromAddr. With `invade`, SymInitialize loads every module
// of the process; without, only this program's module is loaded.
int LookUpOnce (bool invade)
{
    HANDLE process = NULL;
    ::DuplicateHandle (::GetCurrentProcess (), ::GetCurrentProcess (), ::GetCurrentProcess (), &process, 0, FALSE,
        DUPLICATE_SAME_ACCESS);
    char path [MAX_PATH];
    DWORD length = ::GetModuleFileNameA (NULL, path, MAX_PATH);
    std::string directory (path, length);
    directory.erase (directory.rfind ('\\') + 1);
    DWORD64 address = DWORD64 (LONG_PTR (reinterpret_cast<void *> (&LookUpOnce)));
    unsigned char record [88 + 1024] = {};
    SYMBOL_INFO * symbol = reinterpret_cast<SYMBOL_INFO *> (record);
    symbol->SizeOfStruct = 88;
    symbol->MaxNameLen = 1024;

    double start = SkerryBench::Now ();
    ::SymInitialize (process, directory.c_str (), invade);
    ::SymSetOptions (0x80000A04);
    if (! invade)
        ::SymLoadModuleEx (process, NULL, path, NULL, DWORD64 (LONG_PTR (::GetModuleHandleW (NULL))), 0, NULL, 0);
    BOOL found = ::SymFromAddr (process, address, NULL, symbol);
    double time = SkerryBench::Now () - start;
    std::printf ("%.0f\n", found ? time : -1.0);
    return 0;
}

}

int main (int argc, char ** argv)
{
    if (argc == 2 && std::strcmp (argv [1], "--describe") == 0)
        return DescribeTwice ();
    if (argc == 2 && std::strcmp (argv [1], "--look-up") == 0)
        return LookUpOnce (true);
    if (argc == 2 && std::strcmp (argv [1], "--look-up-in-one-module") == 0)
        return LookUpOnce (false);

    std::vector<double> first, second, platform, oneModule;
    for (unsigned round = 0; round < kRounds; ++round) {
        std::vector<double> described = SkerryBench::InFreshProcess ("--describe");
        std::vector<double> lookedUp = SkerryBench::InFreshProcess ("--look-up");
        std::vector<double> inOne = SkerryBench::InFreshProcess ("--look-up-in-one-module");
        if (described.size () != 2 || lookedUp.size () != 1 || inOne.size () != 1) {
            std::printf ("FirstUseBench: a fresh process gave no figures\n");
            return 1;
        }
        first.push_back (described [0]);
        second.push_back (described [1]);
        platform.push_back (lookedUp [0]);
        oneModule.push_back (inOne [0]);
    }
    SkerryBench::Header ("First use in a fresh process (median of 3 processes each)");
    SkerryBench::Report ("first Description vs SymInitialize (invade) + lookup", SkerryBench::MedianOf (first),
        SkerryBench::MedianOf (platform), 1.25);
    SkerryBench::Breakdown ("the second Description of the process", SkerryBench::MedianOf (second),
        SkerryBench::MedianOf (platform));
    SkerryBench::Breakdown ("SymInitialize loading this program alone + SymFromAddr", SkerryBench::MedianOf (oneModule),
        SkerryBench::MedianOf (platform));
    std::printf ("first Description: %.0f ms; the platform's first name: %.0f ms\n", SkerryBench::MedianOf (first) / 1e6,
        SkerryBench::MedianOf (platform) / 1e6);
    return 0;
}
