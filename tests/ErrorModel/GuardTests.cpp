// The per-thread throw guard: throws in a row, throws from handlers and from other threads go
// through; a nested throw, or a slot that can't be written, ends the process with its fatal line.
#include <LibSkerry/Exceptions>

#include "ChildProcess.h"
#include "Interposer.h"
#include "JotLog.h"

#include <gtest/gtest.h>

#include <atomic>
#include <regex>
#include <string>
#include <thread>
#include <vector>

using namespace Skerry::Exceptions;

// Threads that throw at the same time: Catching.ThreadsDescribeAtTheSameTime.
TEST (Guard, HandlersMayThrowAgain)
{
    for (int round = 0; round < 2; ++round) {
        try {
            try {
                ThrowWin32ErrorFunc ("Inner", "S", 1, 5);
            } catch (const Win32 &) {
                ThrowStringFunc ("Handler", "S", 2, "rethrown");   // the guard is clear before a handler runs
            }
        } catch (const String & e) {
            EXPECT_STREQ (e.fMessage, "rethrown");
        }
    }
}

TEST (Guard, AnotherThreadThrowsWhileThisOneIsInsideTheGuard)
{
    // The first thread stops right after it has entered the guard; the second throws and catches
    // in the meantime, then the first goes on.
    try { ThrowWin32ErrorFunc ("Warm", "S", 0, 0); } catch (const Win32 &) {}
    DWORD first = ::GetCurrentThreadId ();
    std::atomic<bool> secondCaught {false};
    SKERRY_INTERPOSE (slot, "KERNEL32.dll", TlsSetValue);
    slot.Replace ([&] (DWORD index, LPVOID value) {
        BOOL result = slot.Original (index, value);
        if (::GetCurrentThreadId () == first && value != NULL)
            std::thread ([&] {
                try { ThrowStringFunc ("Second", "S", 2, "second"); }
                catch (const String & e) { secondCaught = std::string (e.fMessage) == "second"; }
            }).join ();
        return result;
    });
    try {
        ThrowStringFunc ("First", "S", 1, "first");
    } catch (const String & e) {
        EXPECT_STREQ (e.fMessage, "first");
    }
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
    for (int i = 0; i < 2; ++i)
        try {
            ThrowStringFunc ("Child", "Scenario", 1, "lasting");
        } catch (const Win32 & e) {     // function and file: the log line says them
            EXPECT_EQ (e.fCode, 8ul);
            EXPECT_FALSE (e.empty ());
        }
    EXPECT_EQ (alloc.Calls (), 4u);
    // A passing shortage: the report finds a slot and is guarded as usual; the slot stays.
    alloc.Fail (TLS_OUT_OF_INDEXES, ERROR_NO_SYSTEM_RESOURCES, 1);
    try {
        ThrowStringFunc ("Child", "Scenario", 2, "passing");
    } catch (const Win32 & e) {
        EXPECT_EQ (e.fCode, 1450ul);
    }
    try {
        ThrowStringFunc ("Child", "Scenario", 3, "normal");
    } catch (const String & e) {
        EXPECT_STREQ (e.fMessage, "normal");
    }
    EXPECT_EQ (alloc.Calls (), 6u);
}

TEST (Guard, FailuresOfTheGuardItself)
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
    };
    for (const auto & c : cases) {
        SkerryTest::ChildResult child = SkerryTest::RunInChild (c.fScenario);
        EXPECT_EQ (child.fExitCode, c.fExitCode) << c.fScenario;
        std::vector<std::string> lines = child.Messages ();
        ASSERT_EQ (lines.size (), c.fLines.size ()) << c.fScenario;
        for (size_t i = 0; i < lines.size (); ++i)
            EXPECT_TRUE (std::regex_match (lines [i], std::regex (c.fLines [i]))) << lines [i];
    }
}
