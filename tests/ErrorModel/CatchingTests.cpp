// The five Throw functions and the catching tools: what each kind logs when thrown, and what one
// ladder of seven kinds makes of it as a Description and as a logged line.
#include <LibSkerry/Exceptions>

#include "ChildProcess.h"
#include "Expect.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <regex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

using namespace Skerry::Exceptions;
using Strings = std::vector<std::string>;

namespace {

// One line per frame: a right-aligned module, the address and the symbol text.
bool WellFormedTrace (const std::string & trace)
{
    static const std::regex kLine (" *[^ ]+ 0x[0-9A-F]{8} .+");
    std::string::size_type column = trace.find (" 0x"), start = 0, end;
    for (; (end = trace.find ('\n', start)) != std::string::npos; start = end + 1) {
        std::string line = trace.substr (start, end - start);
        if (! std::regex_match (line, kLine) || line.find (" 0x") != column)
            return false;
    }
    return start == trace.size () && start > 0;
}

struct Caught {
    Description fDescription;
    long fResult;
    Strings fLines;    // what the throw and the catch logged
};

template <typename Raise>
Caught CatchWith (Raise raise)
{
    SkerryTest::ScopedJotLog log;
    try {
        raise ();
    } catch (...) {
        // Braced members are made in order: the log is read after the catch has logged.
        return Caught {Description (), LogAndTranslateFunc ("Catcher", "CatchSource", 77), log.Messages ()};
    }
    throw std::logic_error ("nothing thrown");
}

}

// A line of -1 keeps its bit pattern: signed in the code kinds' lines, unsigned in String's.
TEST (Catching, EachKindHasItsClause)
{
    const long kFail = long (0x80004005);
    // What the code kinds log as thrown and as caught.
    auto thrown = [] (const std::string & what, const char * line) {
        return "Thrower: throwing exception due to " + what + " on line " + line + " of file ThrowSource"; };
    auto logged = [] (const std::string & what, const char * line) { return "Catcher: caught " + what + " exception on line "
        "77 of file CatchSource;\nthrown from function Thrower on line " + line + " of file ThrowSource; stack trace:\n"; };
    const struct { void (* fRaise) (); std::string fDescribed; long fResult, fTranslated; std::string fThrown, fCaught; } cases [] = {
        { [] { ThrowStringFunc ("Thrower", "ThrowSource", -1, "broken"); }, "String|broken|Thrower|ThrowSource|4294967295",
          kFail, kFail, "Thrower: throwing exception from line 4294967295 of file ThrowSource: broken",
          "Catcher: caught String exception on line 77 of file CatchSource;\nthrown from function Thrower on line 4294967295 of "
          "file ThrowSource:\n\tbroken\nstack trace:\n" },
        { [] { ThrowSkerryErrorFunc ("Thrower", "ThrowSource", 13, 18); }, "Skerry||Thrower|ThrowSource|13", kFail, kFail,
          thrown ("Skerry error 18", "13"), logged ("Skerry error 18", "13") },
        { [] { ThrowWin32ErrorFunc ("Thrower", "ThrowSource", 14, 2); }, "Win32||Thrower|ThrowSource|14", long (0x80070002),
          long (0x80070002), thrown ("Win32 error 2", "14"), logged ("Win32 error 2", "14") },
        { [] { ThrowErrnoFunc ("Thrower", "ThrowSource", -1, 22); }, "Errno||Thrower|ThrowSource|4294967295", kFail, kFail,
          thrown ("errno 22", "-1"), logged ("errno 22", "4294967295") },
        { [] { ThrowHRESULTFunc ("Thrower", "ThrowSource", 16, long (0x80004002)); }, "COM||Thrower|ThrowSource|16",
          long (0x80004002), long (0x80004002), thrown ("HRESULT 0x80004002", "16"), logged ("HRESULT 0x80004002", "16") },
        { [] { throw std::runtime_error ("out of luck"); }, "std|out of luck|||0", kFail, kFail, "",
          "Catcher: caught standard exception \"out of luck\" on line 77 of file CatchSource" },
        { [] { throw 42; }, "unknown||||0", kFail, long (0x8000FFFF), "", "Catcher: caught unknown exception on line 77 of file CatchSource" },
    };
    for (const auto & c : cases) {
        Caught caught = CatchWith (c.fRaise);
        const Description & d = caught.fDescription;
        bool traced = ! c.fThrown.empty ();
        EXPECT_EQ (d.fType + "|" + d.fMessage + "|" + d.fFunction + "|" + d.fFile + "|" + std::to_string (d.fLine), c.fDescribed);
        EXPECT_EQ (d.fResult, c.fResult) << c.fDescribed;
        EXPECT_EQ (caught.fResult, c.fTranslated) << c.fDescribed;
        EXPECT_EQ (caught.fLines, traced ? Strings ({ c.fThrown, c.fCaught + d.fStackTrace }) : Strings ({ c.fCaught }));
        EXPECT_EQ (WellFormedTrace (d.fStackTrace), traced) << d.fStackTrace;
    }
    // A Win32 code translates by its sign: a positive one into the Win32 facility (its low 16
    // bits), a negative one as it is, and 0 as success.
    const std::pair<unsigned long, long> codes [] = { { 0, 0 }, { 0x12345, long (0x80072345) }, { 0x80070057, long (0x80070057) },
        { 0xFFFFFFFF, long (0xFFFFFFFF) } };
    for (const auto & c : codes) {
        Caught caught = CatchWith ([&] { ThrowWin32ErrorFunc ("F", "S", 1, c.first); });
        EXPECT_EQ (caught.fDescription.fResult, c.second) << c.first;
        EXPECT_EQ (caught.fResult, c.second) << c.first;
    }
}

TEST (Catching, ThreadsDescribeAtTheSameTime)
{
    SkerryTest::ScopedJotLog log;
    const int kThreads = 4, kRounds = 50;
    std::atomic<int> bad {0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t)
        threads.emplace_back ([&, t] {
            for (int i = 0; i < kRounds; ++i)
                try {
                    ThrowWin32ErrorFunc ("Worker", "Threads", t, unsigned (i));
                } catch (...) {
                    Description description;
                    bad += LogAndTranslateFunc ("Handler", "Threads", t) != HRESULTFromWin32 (unsigned (i))
                        || description.fLine != unsigned (t) || ! WellFormedTrace (description.fStackTrace);
                }
        });
    for (std::thread & thread : threads)
        thread.join ();
    EXPECT_EQ (bad.load (), 0);
    Strings lines = log.Messages ();
    EXPECT_EQ (std::count_if (lines.begin (), lines.end (), [] (const std::string & line) {
        return line.compare (0, 16, "Handler: caught ") == 0 && WellFormedTrace (line.substr (line.find ("stack trace:\n") + 13));
    }), kThreads * kRounds);
    EXPECT_EQ (lines.size (), 2u * kThreads * kRounds);
}

// Outside a handler there is nothing to describe: an assertion, where a bare re-raise would end
// the process (hence a child of its own).
TEST (InChild, CatchingToolsOutsideAHandler)
{
    SkerryTest::ExpectAssertion ([] { Description outside; }, "assertion failed: std::current_exception ()",
        "Skerry::Exceptions::Description::Description", "Exceptions");
    SkerryTest::ExpectAssertion ([] { LogAndTranslateFunc ("Test", "Test", 1); },
        "assertion failed: std::current_exception ()", "Skerry::Exceptions::LogAndTranslateFunc", "Exceptions");
}
