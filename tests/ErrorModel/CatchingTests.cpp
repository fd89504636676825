// The catching tools: one ladder of seven kinds, as a Description and as a logged line.
#include <LibSkerry/Exceptions>

#include "ChildProcess.h"
#include "Expect.h"
#include "JotLog.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <regex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

using namespace Skerry::Exceptions;

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
    std::string fLine;
};

template <typename Raise>
Caught CatchWith (Raise raise)
{
    SkerryTest::ScopedJotLog log;
    try {
        raise ();
    } catch (...) {
        Caught caught {Description (), LogAndTranslateFunc ("Catcher", "CatchSource", 77), ""};
        std::vector<std::string> lines = log.Messages ();
        caught.fLine = lines.empty () ? "" : lines.back ();
        return caught;
    }
    throw std::logic_error ("nothing thrown");
}

}

TEST (Catching, EachKindHasItsClause)
{
    const long kFail = long (0x80004005);
    const struct { void (* fRaise) (); std::string fType, fMessage; long fDescribed, fTranslated; std::string fLine; } cases [] = {
        { [] { ThrowStringFunc ("Thrower", "ThrowSource", 12, "broken"); }, "String", "broken", kFail, kFail,
          "Catcher: caught String exception on line 77 of file CatchSource;\nthrown from function Thrower on line 12 of file "
          "ThrowSource:\n\tbroken\nstack trace:\n" },
        { [] { ThrowSkerryErrorFunc ("Thrower", "ThrowSource", 13, 18); }, "Skerry", "", kFail, kFail,
          "Catcher: caught Skerry error 18 exception on line 77 of file CatchSource;\nthrown from function Thrower on line 13 "
          "of file ThrowSource; stack trace:\n" },
        { [] { ThrowWin32ErrorFunc ("Thrower", "ThrowSource", 14, 2); }, "Win32", "", long (0x80070002), long (0x80070002),
          "Catcher: caught Win32 error 2 exception on line 77 of file CatchSource;\nthrown from function Thrower on line 14 "
          "of file ThrowSource; stack trace:\n" },
        { [] { ThrowErrnoFunc ("Thrower", "ThrowSource", -1, 22); }, "Errno", "", kFail, kFail,
          "Catcher: caught errno 22 exception on line 77 of file CatchSource;\nthrown from function Thrower on line "
          "4294967295 of file ThrowSource; stack trace:\n" },
        { [] { ThrowHRESULTFunc ("Thrower", "ThrowSource", 16, long (0x80004002)); }, "COM", "", long (0x80004002), long (0x80004002),
          "Catcher: caught HRESULT 0x80004002 exception on line 77 of file CatchSource;\nthrown from function Thrower on line 16 "
          "of file ThrowSource; stack trace:\n" },
        { [] { throw std::runtime_error ("out of luck"); }, "std", "out of luck", kFail, kFail,
          "Catcher: caught standard exception \"out of luck\" on line 77 of file CatchSource" },
        { [] { throw 42; }, "unknown", "", kFail, long (0x8000FFFF), "Catcher: caught unknown exception on line 77 of file CatchSource" },
    };
    for (const auto & c : cases) {
        Caught caught = CatchWith (c.fRaise);
        const Description & d = caught.fDescription;
        EXPECT_EQ (d.fType, c.fType);
        EXPECT_EQ (d.fResult, c.fDescribed) << c.fType;
        EXPECT_EQ (caught.fResult, c.fTranslated) << c.fType;
        EXPECT_EQ (caught.fLine, c.fLine + d.fStackTrace);
        bool traced = c.fType != "std" && c.fType != "unknown";
        EXPECT_EQ (WellFormedTrace (d.fStackTrace), traced) << d.fStackTrace;
        EXPECT_EQ (d.fMessage + "|" + d.fFunction + "|" + d.fFile, c.fMessage + (traced ? "|Thrower|ThrowSource" : "||"));
        EXPECT_EQ (d.fLine, c.fType == "String" ? 12u : traced ? d.fLine : 0u);
    }
}

TEST (Catching, Win32CodesTranslateByTheirSign)
{
    const struct { unsigned long fCode; long fResult; } cases [] = {
        {0, 0}, {5, long (0x80070005)}, {0x12345, long (0x80072345)},
        {0x80070057, long (0x80070057)}, {0xFFFFFFFF, long (0xFFFFFFFF)}};
    for (const auto & c : cases) {
        Caught caught = CatchWith ([&] { ThrowWin32ErrorFunc ("F", "S", 1, c.fCode); });
        EXPECT_EQ (caught.fDescription.fResult, c.fResult) << c.fCode;
        EXPECT_EQ (caught.fResult, c.fResult) << c.fCode;
    }
}

TEST (Catching, EmptyTraceAndIndependentCopies)
{
    Win32 empty ("F", "S", 1, 2);
    empty.clear ();
    Caught caught = CatchWith ([&] { throw empty; });
    EXPECT_EQ (caught.fDescription.fStackTrace, "(no frames found)");
    EXPECT_EQ (caught.fLine.substr (caught.fLine.size () - 18), "\n(no frames found)");
    Description copy (caught.fDescription);
    Description assigned = CatchWith ([] { throw 1; }).fDescription;
    assigned = copy;
    copy.fType [0] = 'X';
    copy.fStackTrace.clear ();
    EXPECT_EQ (assigned.fType + assigned.fStackTrace + caught.fDescription.fType, "Win32(no frames found)Win32");
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
    std::vector<std::string> lines = log.Messages ();
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

TEST (Catching, OutsideAHandlerIsAnAssertion)
{
    EXPECT_EQ (SkerryTest::RunInChild ("CatchingToolsOutsideAHandler").fExitCode, 0ul);
}
