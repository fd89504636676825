// Throwing: the site and assertion forms, the copies of String exceptions and their failures, and
// the per-thread throw guard: throws from handlers and from other threads go through; a nested
// throw, or a slot that can't be written, ends the process with its fatal line. What each kind
// logs: CatchingTests.
#include <LibSkerry/Exceptions>

#include "ChildProcess.h"
#include "Expect.h"
#include "Interposer.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <functional>
#include <regex>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>

using namespace Skerry::Exceptions;
using SkerryTest::Caught;
using SkerryTest::Expect;

TEST (Throw, SiteAndAssertionFormsReportTheNamedSite)
{
    const char kFile [] = "tests/ErrorModel/ThrowTests.cpp";
    SkerryTest::ScopedJotLog log;
    std::string s = "abc";
    unsigned assertLine = 0, throwLine = 0;
    String assertion = Expect<String> ([&] {
        SKERRY_SITE ("Skerry::Example::Check");
        assertLine = __LINE__ + 1;
        SKERRY_ASSERT (s.length ( ) == std::string::size_type (s.length ( ) + 1));
    }, "Skerry::Example::Check", kFile);
    EXPECT_STREQ (assertion.fMessage, "assertion failed: s.length ( ) == std::string::size_type (s.length ( ) + 1)");
    Win32 thrown = Expect<Win32> ([&] {
        SKERRY_SITE ("ConstructKey");
        throwLine = __LINE__ + 1;
        SKERRY_THROW_WIN32 (5);
    }, "ConstructKey", kFile);
    EXPECT_EQ (std::make_pair (assertion.fLine, thrown.fLine), std::make_pair (assertLine, throwLine));
    // A true condition costs nothing and says nothing.
    SKERRY_SITE ("Quiet");
    SKERRY_ASSERT (s.size () == 3);
    EXPECT_EQ (log.Messages (), (std::vector<std::string> { "Skerry::Example::Check: throwing exception from line "
        + std::to_string (assertLine) + " of file " + kFile + ": " + assertion.fMessage,
        "ConstructKey: throwing exception due to Win32 error 5 on line " + std::to_string (throwLine) + " of file " + kFile }));
    for (const SkerryTest::JotRecord & record : log.Records ())
        EXPECT_TRUE (! record.fIdent && record.fLevel == 5);
}

TEST (StringException, CopiesOwnTheirMessagesAndReleaseEachOnce)
{
    char buffer [] = "temporary";
    String a ("F", "S", 1, buffer);
    std::strcpy (buffer, "changed");       // the message was duplicated, not stored
    EXPECT_STREQ (a.fMessage, "temporary");
    SKERRY_INTERPOSE (freeCalls, "msvcrt.dll", free);
    {
        String b (a);
        String c ("G", "T", 2, "other");
        c = b;
        EXPECT_TRUE (b.fMessage != a.fMessage && c.fMessage != b.fMessage);
        EXPECT_EQ (c.fMessage + std::string ("|") + c.fFunction + "|" + std::to_string (c.fLine), "temporary|F|1");
        EXPECT_EQ (static_cast<const Skerry::StackTrace &> (c), static_cast<const Skerry::StackTrace &> (a));
        c = c;
        EXPECT_STREQ (c.fMessage, "temporary");
    }
    // "other" on assignment, then b's and c's copies: three distinct blocks, none twice.
    std::set<void *> freed;
    for (const auto & call : freeCalls.CallArguments ())
        freed.insert (std::get<0> (call));
    EXPECT_EQ (std::make_tuple (freeCalls.Calls (), freed.size (), freed.count (a.fMessage)), std::make_tuple (3u, 3u, 0u));
}

TEST (StringException, DuplicationFailuresRaiseStandardExceptions)
{
    auto what = [] (const std::function<void ()> & raise) { return std::string (Caught<std::runtime_error> (raise).what ()); };
    const char kNew [] = "unable to duplicate string for new String exception";
    EXPECT_EQ (what ([] { ThrowStringFunc ("F", "S", 1, nullptr); }), kNew);
    String original ("F", "S", 1, "text"), target ("G", "T", 2, "kept");
    SKERRY_INTERPOSE (duplicate, "msvcrt.dll", _strdup);
    duplicate.Fail (nullptr, ERROR_NOT_ENOUGH_MEMORY, 3);
    EXPECT_EQ (what ([&] { String copy (original); }), "unable to duplicate string for copy of String exception");
    EXPECT_EQ (what ([&] { target = original; }), "unable to duplicate string for copy of String exception");
    EXPECT_STREQ (target.fMessage, "kept");    // a failed assignment changes nothing
    EXPECT_EQ (what ([] { ThrowStringFunc ("F", "S", 1, "text"); }), kNew);
    // The guard was left by unwinding: the next throw goes through.
    EXPECT_STREQ (Caught<String> ([] { ThrowStringFunc ("F", "S", 1, "again"); }).fMessage, "again");
}

// The guard is clear before a handler runs, so a handler may throw, again and again. The guard is
// the thread's own: while the first thread stops right after it has entered it, a second throws
// and catches, then the first goes on.
TEST (Guard, HandlersAndOtherThreadsMayThrow)
{
    for (int round = 0; round < 2; ++round)
        EXPECT_STREQ (Caught<String> ([] {
            try {
                ThrowWin32ErrorFunc ("Inner", "S", 1, 5);
            } catch (const Win32 &) {
                ThrowStringFunc ("Handler", "S", 2, "rethrown");
            }
        }).fMessage, "rethrown");
    DWORD first = ::GetCurrentThreadId ();
    std::atomic<bool> secondCaught {false};
    SKERRY_INTERPOSE (slot, "KERNEL32.dll", TlsSetValue);
    slot.Replace ([&] (DWORD index, LPVOID value) {
        BOOL result = slot.Original (index, value);
        if (::GetCurrentThreadId () == first && value != NULL)
            std::thread ([&] {
                secondCaught = std::string (Caught<String> ([] { ThrowStringFunc ("Second", "S", 2, "second"); }).fMessage) == "second";
            }).join ();
        return result;
    });
    EXPECT_STREQ (Caught<String> ([] { ThrowStringFunc ("First", "S", 1, "first"); }).fMessage, "first");
    EXPECT_TRUE (secondCaught.load ());
}

TEST (InChild, GuardEntryFails)
{
    SKERRY_INTERPOSE (slot, "KERNEL32.dll", TlsSetValue);
    slot.Fail (FALSE, ERROR_ACCESS_DENIED);
    ThrowWin32ErrorFunc ("Child", "Scenario", 1, 2);
}

TEST (InChild, GuardExitFails)
{
    SKERRY_INTERPOSE (slot, "KERNEL32.dll", TlsSetValue);
    slot.Fail (FALSE, ERROR_INVALID_HANDLE, 1, 1);
    ThrowHRESULTFunc ("Child", "Scenario", 1, long (0x80004005));
}

TEST (InChild, CaptureLookupFails)
{
    SKERRY_INTERPOSE (lookup, "KERNEL32.dll", GetProcAddress);
    lookup.Fail (nullptr, ERROR_PROC_NOT_FOUND);
    ThrowStringFunc ("Child", "Scenario", 1, "outer");
}

TEST (InChild, SlotAllocationFails)
{
    SKERRY_INTERPOSE (alloc, "KERNEL32.dll", TlsAlloc);
    // A lasting shortage: every throw becomes the report of the failed allocation, and the
    // reports themselves go unguarded rather than asking again without end.
    alloc.Fail (TLS_OUT_OF_INDEXES, ERROR_NOT_ENOUGH_MEMORY, 1000);
    for (int i = 0; i < 2; ++i) {     // function and file: the log line says them
        Win32 e = Caught<Win32> ([] { ThrowStringFunc ("Child", "Scenario", 1, "lasting"); });
        EXPECT_TRUE (e.fCode == 8 && ! e.empty ());
    }
    EXPECT_EQ (alloc.Calls (), 4u);
    // A passing shortage: the report finds a slot and is guarded as usual; the slot stays.
    alloc.Fail (TLS_OUT_OF_INDEXES, ERROR_NO_SYSTEM_RESOURCES, 1);
    EXPECT_EQ (Caught<Win32> ([] { ThrowStringFunc ("Child", "Scenario", 2, "passing"); }).fCode, 1450ul);
    EXPECT_STREQ (Caught<String> ([] { ThrowStringFunc ("Child", "Scenario", 3, "normal"); }).fMessage, "normal");
    EXPECT_EQ (alloc.Calls (), 6u);
}

// Every scenario of this suite that runs in a child: how it ends, and for the guard's own
// failures, the lines it logs on the way.
TEST (ChildScenarios, EndAsExpected)
{
    const std::string report = "ThrowInProgress::GetThreadLocalStorageIndex: throwing exception due to Win32 error "
        "(8|1450) on line [0-9]+ of file Exceptions";
    const struct { const char * fScenario; unsigned long fExitCode; std::vector<std::string> fLines; } cases [] = {
        { "GuardEntryFails", 1, { "Child: throwing exception due to Win32 error 2 on line 1 of file Scenario",
            "Skerry::Exceptions::ThrowWin32ErrorFunc: fatal error: could not announce throw is in progress due to Win32 error 5" } },
        { "GuardExitFails", 1, { "Child: throwing exception due to HRESULT 0x80004005 on line 1 of file Scenario",
            "Skerry::Exceptions::ThrowHRESULTFunc: fatal error: could not announce throw is no longer in progress due to "
            "Win32 error 6" } },
        { "CaptureLookupFails", 1, { "Child: throwing exception from line 1 of file Scenario: outer",
            "RtlCaptureStackBackTrace: throwing exception due to Win32 error 127 on line [0-9]+ of file StackTrace",
            "Skerry::Exceptions::ThrowWin32ErrorFunc: fatal error: attempt to throw from "
            "Skerry::Exceptions::ThrowWin32ErrorFunc during throw from Skerry::Exceptions::ThrowStringFunc" } },
        // A failed slot allocation becomes a Win32 exception.
        { "SlotAllocationFails", 0, { "Child: throwing exception from line 1 of file Scenario: lasting", report,
            "Child: throwing exception from line 1 of file Scenario: lasting", report,
            "Child: throwing exception from line 2 of file Scenario: passing", report,
            "Child: throwing exception from line 3 of file Scenario: normal" } },
        { "CatchingToolsOutsideAHandler", 0, {} }, { "CaptureThroughStandIn", 0, {} },
        { "StartUpFailuresAreRepeated", 0, {} }, { "SingletonRace", 0, {} },
    };
    for (const auto & c : cases) {
        SkerryTest::ChildResult child = SkerryTest::RunInChild (c.fScenario);
        EXPECT_EQ (child.fExitCode, c.fExitCode) << c.fScenario;
        if (c.fLines.empty ())
            continue;
        std::vector<std::string> lines = child.Messages ();
        ASSERT_EQ (lines.size (), c.fLines.size ()) << c.fScenario << ": " << ::testing::PrintToString (lines);
        for (size_t i = 0; i < lines.size (); ++i)
            EXPECT_TRUE (std::regex_match (lines [i], std::regex (c.fLines [i]))) << lines [i];
    }
}
