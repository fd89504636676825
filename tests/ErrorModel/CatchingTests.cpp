// The catching tools: one ladder of seven kinds, as a Description and as a logged line.
#include <LibSkerry/Exceptions>

#include "JotLog.h"

#include <gtest/gtest.h>

#include <atomic>
#include <regex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

using namespace Skerry::Exceptions;

namespace {

// One line per frame: a right-aligned module, the address and the symbol text.
const std::regex kTraceLine (" *[^ ]+ 0x[0-9A-F]{8} [^\n]+\n");

bool WellFormedTrace (const std::string & trace)
{
    std::string rest = trace;
    std::smatch match;
    if (rest.empty ())
        return false;
    std::string::size_type column = std::string::npos;
    while (! rest.empty ()) {
        if (! std::regex_search (rest, match, kTraceLine, std::regex_constants::match_continuous))
            return false;
        std::string::size_type address = match.str ().find (" 0x");
        if (column != std::string::npos && address != column)
            return false;
        column = address;
        rest = match.suffix ();
    }
    return true;
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
    }
    catch (...) {
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
    Caught text = CatchWith ([] { ThrowStringFunc ("Thrower", "ThrowSource", 12, "broken"); });
    EXPECT_EQ (text.fDescription.fType, "String");
    EXPECT_EQ (text.fDescription.fResult, long (0x80004005));
    EXPECT_EQ (text.fResult, long (0x80004005));
    EXPECT_EQ (text.fDescription.fMessage, "broken");
    EXPECT_EQ (text.fDescription.fFunction, "Thrower");
    EXPECT_EQ (text.fDescription.fFile, "ThrowSource");
    EXPECT_EQ (text.fDescription.fLine, 12u);
    EXPECT_TRUE (WellFormedTrace (text.fDescription.fStackTrace)) << text.fDescription.fStackTrace;
    EXPECT_EQ (text.fLine, "Catcher: caught String exception on line 77 of file CatchSource;\nthrown from function "
        "Thrower on line 12 of file ThrowSource:\n\tbroken\nstack trace:\n" + text.fDescription.fStackTrace);

    Caught skerry = CatchWith ([] { ThrowSkerryErrorFunc ("Thrower", "ThrowSource", 13, 18); });
    EXPECT_EQ (skerry.fDescription.fType, "Skerry");
    EXPECT_EQ (skerry.fResult, long (0x80004005));
    EXPECT_EQ (skerry.fDescription.fMessage, "");
    EXPECT_EQ (skerry.fLine, "Catcher: caught Skerry error 18 exception on line 77 of file CatchSource;\nthrown from "
        "function Thrower on line 13 of file ThrowSource; stack trace:\n" + skerry.fDescription.fStackTrace);

    Caught win32 = CatchWith ([] { ThrowWin32ErrorFunc ("Thrower", "ThrowSource", 14, 2); });
    EXPECT_EQ (win32.fDescription.fType, "Win32");
    EXPECT_EQ (win32.fDescription.fResult, long (0x80070002));
    EXPECT_EQ (win32.fResult, long (0x80070002));
    EXPECT_EQ (win32.fLine, "Catcher: caught Win32 error 2 exception on line 77 of file CatchSource;\nthrown from "
        "function Thrower on line 14 of file ThrowSource; stack trace:\n" + win32.fDescription.fStackTrace);

    Caught error = CatchWith ([] { ThrowErrnoFunc ("Thrower", "ThrowSource", -1, 22); });
    EXPECT_EQ (error.fDescription.fType, "Errno");
    EXPECT_EQ (error.fResult, long (0x80004005));
    EXPECT_EQ (error.fLine, "Catcher: caught errno 22 exception on line 77 of file CatchSource;\nthrown from "
        "function Thrower on line 4294967295 of file ThrowSource; stack trace:\n" + error.fDescription.fStackTrace);

    Caught com = CatchWith ([] { ThrowHRESULTFunc ("Thrower", "ThrowSource", 16, long (0x80004002)); });
    EXPECT_EQ (com.fDescription.fType, "COM");
    EXPECT_EQ (com.fDescription.fResult, long (0x80004002));
    EXPECT_EQ (com.fResult, long (0x80004002));
    EXPECT_EQ (com.fLine, "Catcher: caught HRESULT 0x80004002 exception on line 77 of file CatchSource;\nthrown from "
        "function Thrower on line 16 of file ThrowSource; stack trace:\n" + com.fDescription.fStackTrace);

    Caught standard = CatchWith ([] { throw std::runtime_error ("out of luck"); });
    EXPECT_EQ (standard.fDescription.fType, "std");
    EXPECT_EQ (standard.fDescription.fMessage, "out of luck");
    EXPECT_EQ (standard.fDescription.fFunction, "");
    EXPECT_EQ (standard.fDescription.fLine, 0u);
    EXPECT_EQ (standard.fDescription.fStackTrace, "");
    EXPECT_EQ (standard.fResult, long (0x80004005));
    EXPECT_EQ (standard.fLine, "Catcher: caught standard exception \"out of luck\" on line 77 of file CatchSource");

    Caught unknown = CatchWith ([] { throw 42; });
    EXPECT_EQ (unknown.fDescription.fType, "unknown");
    EXPECT_EQ (unknown.fDescription.fResult, long (0x80004005));
    EXPECT_EQ (unknown.fResult, long (0x8000FFFF));
    EXPECT_EQ (unknown.fLine, "Catcher: caught unknown exception on line 77 of file CatchSource");
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
    EXPECT_EQ (assigned.fType, "Win32");
    EXPECT_EQ (assigned.fStackTrace, "(no frames found)");
    EXPECT_EQ (caught.fDescription.fType, "Win32");
}

TEST (Catching, ThreadsDescribeAtTheSameTime)
{
    SkerryTest::ScopedJotLog log;
    const int kThreads = 8, kRounds = 100;
    std::atomic<int> bad {0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t)
        threads.emplace_back ([&, t] {
            for (int i = 0; i < kRounds; ++i)
                try {
                    ThrowWin32ErrorFunc ("Worker", "Threads", t, unsigned (i));
                }
                catch (...) {
                    Description description;
                    if (LogAndTranslateFunc ("Handler", "Threads", t) != HRESULTFromWin32 (unsigned (i))
                            || description.fLine != unsigned (t) || ! WellFormedTrace (description.fStackTrace))
                        ++bad;
                }
        });
    for (std::thread & thread : threads)
        thread.join ();
    EXPECT_EQ (bad.load (), 0);
    std::vector<std::string> lines = log.Messages ();
    int caughtLines = 0;
    for (const std::string & line : lines)
        if (line.compare (0, 16, "Handler: caught ") == 0) {
            ++caughtLines;
            std::string::size_type trace = line.find ("stack trace:\n");
            EXPECT_TRUE (trace != std::string::npos && WellFormedTrace (line.substr (trace + 13))) << line;
        }
    EXPECT_EQ (caughtLines, kThreads * kRounds);
    EXPECT_EQ (lines.size (), 2u * kThreads * kRounds);
}
