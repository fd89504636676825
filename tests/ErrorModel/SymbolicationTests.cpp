// Stack traces as text: names, alignment, and what a failing debug-help gives.
#include <LibSkerry/Exceptions>
#include <LibSkerry/StackTrace>

#include "Expect.h"
#include "Interposer.h"

#include <gtest/gtest.h>

#include <dbghelp.h>

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

using Skerry::StackTrace;
using namespace Skerry::Exceptions;

namespace Skerry {
namespace Example {

__attribute__ ((noinline)) Win32 ThrowFromNamedFunction ()
{
    try {
        ThrowWin32ErrorFunc ("Skerry::Example::ThrowFromNamedFunction", "SymbolicationTests", 1, 5);
    } catch (const Win32 & e) {
        return e;
    }
    return Win32 ("unreached", "", 0, 0);
}

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

// The lines of a trace of chosen addresses.
std::vector<std::string> LinesOf (std::vector<void *> addresses)
{
    StackTrace trace;
    trace.assign (addresses.begin (), addresses.end ());
    return Lines (trace.Symbolicate ());
}

void * InProgram () { return reinterpret_cast<void *> (&Skerry::Example::ThrowFromNamedFunction); }
void * InLibrary () { return reinterpret_cast<void *> (&ThrowStringFunc); }

}

TEST (Symbolicate, NamesTheFramesOfTheLibraryAndTheProgram)
{
    Win32 e = Skerry::Example::ThrowFromNamedFunction ();
    std::string text = e.Symbolicate ();
    std::vector<std::string> lines = Lines (text);
    ASSERT_EQ (lines.size (), e.size ()) << text;     // a line for every frame, the last one ended too
    for (const char * part : { "LibSkerry.dll 0x", " Skerry::Exceptions::ThrowWin32ErrorFunc+0x", "ErrorModelTests.exe 0x",
             " Skerry::Example::ThrowFromNamedFunction+0x" })
        EXPECT_NE (text.find (part), std::string::npos) << part << " in " << text;
    for (const std::string & line : lines)
        EXPECT_EQ (line.find (" 0x"), lines [0].find (" 0x")) << text;
    std::vector<std::string> frames = Lines (SkerryTest::Caught<Win32> ([] { Skerry::Example::FailAtTheEnd (5); }).Symbolicate ());
    ASSERT_GE (frames.size (), 2u);
    EXPECT_NE (frames [0].find (" Skerry::Exceptions::ThrowWin32ErrorFunc+0x"), std::string::npos) << frames [0];
    EXPECT_NE (frames [1].find (" Skerry::Example::FailAtTheEnd+0x"), std::string::npos) << frames [1];
}

TEST (Symbolicate, ModulesAreRightAlignedToTheLongestOfTheTrace)
{
    char expected [128];
    std::snprintf (expected, sizeof expected, "ErrorModelTests.exe 0x%08lX Skerry::Example::ThrowFromNamedFunction+0x0",
        static_cast<unsigned long> (reinterpret_cast<std::uintptr_t> (InProgram ())));
    EXPECT_EQ (LinesOf ({InProgram ()}), std::vector<std::string> {expected});     // one frame: no leading blanks
    std::vector<std::string> lines = LinesOf ({InLibrary (), InProgram ()});
    ASSERT_EQ (lines.size (), 2u);
    EXPECT_EQ (lines [0].substr (0, 20) + "|" + lines [1].substr (0, 20), "      LibSkerry.dll |ErrorModelTests.exe ");
    EXPECT_EQ (LinesOf ({InLibrary ()}) [0].substr (0, 14), "LibSkerry.dll ");
}

TEST (Symbolicate, ModuleRecordRefusals)
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
    EXPECT_EQ (SkerryTest::Expect<Win32> ([&] { e.StackTrace::Symbolicate (); }, "SymbolicateModule", "StackTrace").fCode,
        126ul);
    EXPECT_EQ (Lines (e.Symbolicate ()).size (), 2u);
    // A frame in no module at all is such a refusal.
    e.assign ({InLibrary (), nullptr});
    EXPECT_EQ (e.Symbolicate (), "(symbolication failed)");
}

TEST (Symbolicate, FramesWithoutSymbols)
{
    SKERRY_INTERPOSE (symbol, "dbghelp.dll", SymFromAddr);
    symbol.Fail (FALSE, ERROR_MOD_NOT_FOUND);
    std::vector<std::string> lines = LinesOf ({InLibrary (), InProgram ()});
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
