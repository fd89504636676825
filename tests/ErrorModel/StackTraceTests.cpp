// Stack traces: what a capture keeps, seen through a stand-in for the platform's capture function;
// the text of a trace (names, alignment, what a failing debug-help gives); and the start-up of
// debug-help, whose failures the next request repeats from the beginning (a child each, since
// start-up happens once per process).
#include <LibSkerry/Exceptions>
#include <LibSkerry/StackTrace>
#include <LibSkerry/CodePages>

#include <Plinth/Plinth.h>

#include "ChildProcess.h"
#include "Expect.h"
#include "Interposer.h"
#include "Rendezvous.h"

#include <gtest/gtest.h>

#include <dbghelp.h>

#include <cstdint>
#include <cstdio>
#include <regex>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

using Skerry::StackTrace;
using namespace Skerry::Exceptions;

namespace Skerry {
namespace Example {

// A throw as the last statement of its function: the site's return address must still lie
// inside the function for the trace to name it.
__attribute__ ((noinline)) void FailAtTheEnd (int code)
{
    SKERRY_SITE ("Skerry::Example::FailAtTheEnd");
    SKERRY_THROW_WIN32 (unsigned (code));
}

}
}

namespace {

// Stands in for the platform's capture function: records what it is asked, and writes what the
// scenario tells it to.
ULONG sSkip, sCount;
PULONG sHash;
std::vector<void *> sFrames;
bool sWroteSlot61;

USHORT WINAPI FakeCapture (ULONG skip, ULONG count, PVOID * frames, PULONG hash)
{
    sSkip = skip;
    sCount = count;
    sHash = hash;
    sWroteSlot61 = frames [60] != nullptr;
    for (size_t i = 0; i < sFrames.size (); ++i)
        frames [i] = sFrames [i];
    return USHORT (sFrames.size ());
}

std::vector<std::string> Lines (const std::string & text)
{
    std::vector<std::string> lines;
    std::string::size_type start = 0, end;
    while ((end = text.find ('\n', start)) != std::string::npos) {
        lines.push_back (text.substr (start, end - start));
        start = end + 1;
    }
    return lines;
}

// A trace of chosen addresses, and its lines.
StackTrace TraceOf (const std::vector<void *> & addresses)
{
    StackTrace trace;
    trace.assign (addresses.begin (), addresses.end ());
    return trace;
}

std::vector<std::string> LinesOf (const std::vector<void *> & addresses) { return Lines (TraceOf (addresses).Symbolicate ()); }

void * InProgram () { return reinterpret_cast<void *> (&Skerry::Example::FailAtTheEnd); }
void * InLibrary () { return reinterpret_cast<void *> (&ThrowStringFunc); }

const char * const kSDK = "TolvaneApplicationSupportSDK", * kPath = "_NT_SYMBOL_PATH", * kAlternate = "_NT_ALTERNATE_SYMBOL_PATH";

// Sets the variables given and removes the others that start-up reads.
void SetVariables (const std::vector<std::pair<const char *, const char *>> & variables)
{
    for (const char * name : { kSDK, kPath, kAlternate })
        ::SetEnvironmentVariableA (name, NULL);
    for (const auto & v : variables)
        ::SetEnvironmentVariableA (v.first, v.second);
}

}

TEST (InChild, CaptureThroughStandIn)
{
    SKERRY_INTERPOSE (lookup, "KERNEL32.dll", GetProcAddress);
    lookup.Replace ([] (HMODULE, LPCSTR) { return reinterpret_cast<FARPROC> (reinterpret_cast<void *> (&FakeCapture)); });
    sHash = reinterpret_cast<PULONG> (1);
    for (std::uintptr_t i = 1; i <= 60; ++i)
        sFrames.push_back (reinterpret_cast<void *> (i));
    StackTrace full;
    // Wine's capture leaves out one frame of its own accord, and is asked for one less.
    bool wine = ::GetProcAddress (::GetModuleHandleW (L"ntdll"), "wine_get_version") != nullptr;
    EXPECT_EQ (std::make_tuple (sSkip, sCount, sHash, sWroteSlot61), std::make_tuple (wine ? 1ul : 2ul, 60ul, PULONG (), false));
    EXPECT_EQ (static_cast<const std::vector<void *> &> (full), sFrames);
    EXPECT_EQ (full.capacity (), 60u);

    sFrames = {reinterpret_cast<void *> (0x401000), reinterpret_cast<void *> (0x402000), nullptr, nullptr};
    StackTrace shallow;
    EXPECT_TRUE (shallow.size () == 2u && shallow.capacity () == 2u);    // no spare room
    sFrames = {nullptr, reinterpret_cast<void *> (0x401000)};    // only trailing nulls go
    EXPECT_EQ (StackTrace ().size (), 2u);

    sFrames.clear ();
    StackTrace none;
    EXPECT_TRUE (none.empty () && StackTrace (none).empty ());
    EXPECT_EQ (none.Symbolicate (), "(no frames found)");
    // The capture function was looked up once, at the first trace, and Wine with it.
    EXPECT_EQ (lookup.Calls (), 2u);
    EXPECT_STREQ (std::get<1> (lookup.CallArguments () [0]), "RtlCaptureStackBackTrace");
    EXPECT_STREQ (std::get<1> (lookup.CallArguments () [1]), "wine_get_version");
}

TEST (Symbolicate, NamesAndAlignsTheFramesOfTheLibraryAndTheProgram)
{
    Win32 e = SkerryTest::Caught<Win32> ([] { Skerry::Example::FailAtTheEnd (5); });
    std::string text = e.Symbolicate ();
    std::vector<std::string> lines = Lines (text);
    ASSERT_EQ (lines.size (), e.size ()) << text;     // a line for every frame, the last one ended too
    ASSERT_GE (lines.size (), 2u);
    EXPECT_TRUE (std::regex_match (lines [0] + "\n" + lines [1], std::regex (
        " *LibSkerry.dll 0x[0-9A-F]{8} Skerry::Exceptions::ThrowWin32ErrorFunc\\+0x[0-9A-F]+\n"
        " *ErrorModelTests.exe 0x[0-9A-F]{8} Skerry::Example::FailAtTheEnd\\+0x[0-9A-F]+"))) << text;
    for (const std::string & line : lines)
        EXPECT_EQ (line.find (" 0x"), lines [0].find (" 0x")) << text;
    // Modules right-aligned to the longest of the trace; one frame: no leading blanks.
    char expected [128];
    std::snprintf (expected, sizeof expected, "ErrorModelTests.exe 0x%08lX Skerry::Example::FailAtTheEnd+0x0",
        static_cast<unsigned long> (reinterpret_cast<std::uintptr_t> (InProgram ())));
    EXPECT_EQ (LinesOf ({InProgram ()}), std::vector<std::string> {expected});
    lines = LinesOf ({InLibrary (), InProgram ()});
    ASSERT_EQ (lines.size (), 2u);
    EXPECT_EQ (lines [0].substr (0, 20) + "|" + lines [1].substr (0, 20), "      LibSkerry.dll |ErrorModelTests.exe ");
}

TEST (Symbolicate, ModuleRecordRefusalsAndFramesWithoutSymbols)
{
    LinesOf ({InLibrary ()});          // debug-help is up before the interposer
    SKERRY_INTERPOSE (module, "dbghelp.dll", SymGetModuleInfo64);
    // An older debug-help refuses the record: the module reads "OldDbgHelp" and takes part in the
    // width like any other name.
    module.Fail (FALSE, ERROR_INVALID_PARAMETER, 1, 1);
    std::vector<std::string> lines = LinesOf ({InLibrary (), InLibrary (), InProgram ()});
    ASSERT_EQ (lines.size (), 3u);
    EXPECT_EQ (lines [0].substr (0, 20) + "|" + lines [1].substr (0, 20), "      LibSkerry.dll |         OldDbgHelp ");
    EXPECT_EQ (LinesOf ({InLibrary (), InLibrary ()}) [0].substr (0, 14), "LibSkerry.dll ");
    module.Fail (FALSE, ERROR_INVALID_PARAMETER);
    EXPECT_EQ (LinesOf ({InLibrary (), InLibrary ()}) [1].substr (0, 14), "   OldDbgHelp ");

    // Any other refusal loses the whole text; the lock is released on the way.
    module.Fail (FALSE, ERROR_MOD_NOT_FOUND);
    Win32 e ("F", "S", 1, 2);
    e.assign ({InLibrary (), InProgram ()});
    EXPECT_EQ (e.Symbolicate (), "(symbolication failed)");
    module.Fail (FALSE, ERROR_MOD_NOT_FOUND);
    EXPECT_EQ (SkerryTest::Failure ([&] { e.StackTrace::Symbolicate (); }), "Win32 126 | SymbolicateModule | StackTrace");
    EXPECT_EQ (Lines (e.Symbolicate ()).size (), 2u);
    // A frame in no module at all is such a refusal.
    e.assign ({InLibrary (), nullptr});
    EXPECT_EQ (e.Symbolicate (), "(symbolication failed)");

    // A frame whose symbol isn't found reads as the error.
    SKERRY_INTERPOSE (symbol, "dbghelp.dll", SymFromAddr);
    symbol.Fail (FALSE, ERROR_MOD_NOT_FOUND);
    lines = LinesOf ({InLibrary (), InProgram ()});
    ASSERT_EQ (lines.size (), 2u);
    // Symbols are looked up from the outermost frame in.
    EXPECT_EQ (lines [0].substr (lines [0].find (" 0x") + 12), "Skerry::Exceptions::ThrowStringFunc+0x0");
    EXPECT_EQ (lines [1].substr (lines [1].find (" 0x") + 12), "(error 126)");
    // A failure that leaves the last error as it was, as Wine's does, reads as error 0 rather
    // than as whatever came before.
    symbol.Replace ([] (HANDLE, DWORD64, PDWORD64, PSYMBOL_INFO) { return FALSE; });
    ::SetLastError (ERROR_FILE_NOT_FOUND);
    lines = LinesOf ({InProgram ()});
    EXPECT_EQ (lines [0].substr (lines [0].find (" 0x") + 12), "(error 0)");
}

TEST (InChild, StartUpFailuresAreRepeated)
{
    // This program's directory comes first in every search path.
    const std::string directory = Skerry::ANSIStringFromWide (SkerryTest::ProgramDirectory (), 0);
    SKERRY_INTERPOSE (duplicate, "KERNEL32.dll", DuplicateHandle);
    SKERRY_INTERPOSE (program, "KERNEL32.dll", GetModuleFileNameA);
    SKERRY_INTERPOSE (variable, "KERNEL32.dll", GetEnvironmentVariableA);
    SKERRY_INTERPOSE (initialize, "dbghelp.dll", SymInitialize);
    SKERRY_INTERPOSE (options, "dbghelp.dll", SymSetOptions);
    std::vector<std::string> paths;
    bool refuse = true;
    initialize.Replace ([&] (HANDLE process, PCSTR path, BOOL invade) {
        paths.push_back (path);
        EXPECT_TRUE (invade);
        if (refuse)
            ::SetLastError (ERROR_INVALID_PARAMETER);
        return refuse ? FALSE : initialize.Original (process, path, invade);
    });
    auto failure = [] { return SkerryTest::Failure ([] { TraceOf ({InProgram ()}).StackTrace::Symbolicate (); }); };
    duplicate.Fail (FALSE, ERROR_ACCESS_DENIED);
    EXPECT_EQ (failure (), "Win32 5 | Singleton::Singleton | StackTrace");
    program.Fail (0, ERROR_NOT_ENOUGH_MEMORY);
    EXPECT_EQ (failure (), "Win32 8 | MySymInitialize | StackTrace");
    variable.Fail (0, ERROR_ACCESS_DENIED, 1, 1);
    EXPECT_EQ (failure (), "Win32 5 | MySymInitialize | StackTrace");

    // Each refused start-up reads the environment and assembles the search path anew.
    std::string longValue (300, 'x');
    const struct { std::vector<std::pair<const char *, const char *>> fVariables; std::string fPath; } cases [] = {
        { {}, "" },
        { { { kSDK, "C:\\SDK\\" }, { kPath, "srv*C:\\symbols" }, { kAlternate, longValue.c_str () } },
          ";C:\\SDK\\bin\\;srv*C:\\symbols;" + longValue },
        { { { kSDK, "" }, { kPath, "" }, { kAlternate, "" } }, "" },
        { { { kSDK, "C:\\SDK" }, { kAlternate, "D:\\alt" } }, ";C:\\SDKbin\\;D:\\alt" },
    };
    for (const auto & c : cases) {
        SetVariables (c.fVariables);
        ::SetLastError (ERROR_FILE_NOT_FOUND);
        EXPECT_EQ (failure (), "Win32 87 | MySymInitialize | StackTrace");
        EXPECT_EQ (paths.back (), directory + c.fPath);
    }
    // The preference comes before the variables.
    PLStringRef key = __PLStringMakeConstantString ("TolvaneInternalSymbolServerPath");
    PLPreferencesSetAppValue (key, __PLStringMakeConstantString ("\\\\server\\symbols"), kPLPreferencesCurrentApplication);
    SetVariables ({ { kPath, "C:\\symbols" } });
    refuse = false;
    EXPECT_EQ (TraceOf ({InProgram ()}).Symbolicate ().find ("ErrorModelTests.exe"), 0u);
    PLPreferencesSetAppValue (key, NULL, kPLPreferencesCurrentApplication);
    EXPECT_EQ (paths.back (), directory + ";\\\\server\\symbols;C:\\symbols");
    // Once up, it is never asked again: later changes of the environment change nothing.
    ::SetEnvironmentVariableA (kPath, "C:\\later");
    TraceOf ({InProgram ()}).Symbolicate ();

    // Every attempt started over: a new process handle after the refused one, the path read and
    // assembled again each time, options set only once debug-help was up.
    EXPECT_EQ (std::make_tuple (duplicate.Calls (), program.Calls (), initialize.Calls ()), std::make_tuple (2u, 7u, 5u));
    ASSERT_EQ (options.Calls (), 1u);
    EXPECT_EQ (std::get<0> (options.CallArguments () [0]), 0x80000A04ul);
}

TEST (InChild, SingletonRace)
{
    // Both threads build an instance before either publishes: one is kept, the other is released
    // with its process handle, and both threads get their text.
    SKERRY_INTERPOSE (duplicate, "KERNEL32.dll", DuplicateHandle);
    SKERRY_INTERPOSE (close, "KERNEL32.dll", CloseHandle);
    SkerryTest::Rendezvous bothBuilt (2);
    duplicate.Replace ([&] (HANDLE p, HANDLE h, HANDLE t, LPHANDLE out, DWORD a, BOOL i, DWORD o) {
        BOOL result = duplicate.Original (p, h, t, out, a, i, o);
        bothBuilt.Arrive ();
        return result;
    });
    std::string texts [2];
    std::thread a ([&] { texts [0] = TraceOf ({InProgram ()}).Symbolicate (); });
    std::thread b ([&] { texts [1] = TraceOf ({InProgram ()}).Symbolicate (); });
    a.join ();
    b.join ();
    EXPECT_EQ (std::make_pair (duplicate.Calls (), close.Calls ()), std::make_pair (2u, 1u));
    EXPECT_EQ (texts [0], texts [1]);
    EXPECT_EQ (texts [0].find ("ErrorModelTests.exe"), 0u);
}
