// Handle, Event, Overlapped and Mutex: ownership, the failure of every platform call and the
// failure order of assignment, real kernel objects across threads. Every test ends with the
// handles it found open.
#include <LibSkerry/Utilities>

#include "Expect.h"
#include "Handles.h"
#include "Interposer.h"
#include "JotLog.h"

#include <gtest/gtest.h>

#include <functional>
#include <regex>
#include <thread>

using namespace Skerry;
using SkerryTest::ExpectAssertion;

namespace {

class Kernel : public SkerryTest::HandleLeakTest {};

Event NewEvent () { return Event (true, false); }

Event NoEvent ()
{
    Event event = NewEvent ();
    ::CloseHandle (event.Detach ());
    return event;
}

// Whether another thread can take the mutex of `name` at once.
bool FreeElsewhere (const wchar_t * name)
{
    bool free = false;
    std::thread ([&] {
        Mutex other (false, name);
        if ((free = other.Wait (0)))
            other.Release ();
    }).join ();
    return free;
}

}

// Where nothing is owned or nothing changes, no platform call is made; copies own duplicates.
TEST_F (Kernel, HandleOwnership)
{
    Event original = NewEvent ();
    SKERRY_INTERPOSE (duplicate, "KERNEL32.dll", DuplicateHandle);
    SKERRY_INTERPOSE (close, "KERNEL32.dll", CloseHandle);
    {
        Handle borrowed (static_cast<void *> (original)), copy (borrowed);
        EXPECT_FALSE (borrowed);
        ExpectAssertion ([&] { (void) static_cast<void *> (borrowed); }, "assertion failed: !fInvalid",
            "Skerry::Handle::operator void *", "Utilities");
        copy = borrowed;
        copy = copy;
        original = original;
    }
    EXPECT_EQ (duplicate.Calls () + close.Calls (), 0u);

    Event copy = original;
    EXPECT_NE (static_cast<void *> (copy), static_cast<void *> (original));
    std::thread ([&] { copy.Set (); }).join ();
    EXPECT_EQ (::WaitForSingleObject (original, 0), WAIT_OBJECT_0);
    void * detached = nullptr;
    {
        Handle taken (original, ::GetCurrentProcess ());
        taken = copy;
        detached = taken.Detach ();
        EXPECT_FALSE (taken);
    }
    copy = NoEvent ();
    EXPECT_FALSE (copy);
    EXPECT_EQ (duplicate.Calls (), 3u);
    EXPECT_EQ (close.Calls (), 2u);    // taken's first duplicate, copy's own
    ::CloseHandle (detached);
}

// hEvent names the object's own duplicate, in copies and after assignment too. Results of real
// reads: MiscellanyTests.
TEST_F (Kernel, Overlapped)
{
    Overlapped first (NewEvent ());
    first.Offset = 7, first.Internal = 9;
    Overlapped copy (first), assigned (NewEvent ()), empty (NoEvent ());
    assigned = first;
    for (Overlapped * o : { &first, &copy, &assigned })
        EXPECT_EQ (o->hEvent, static_cast<void *> (*o));
    EXPECT_EQ (copy.Offset + assigned.Internal, 16ul);
    assigned.Recycle ();
    EXPECT_EQ (assigned.hEvent, static_cast<void *> (assigned));
    EXPECT_EQ (assigned.Offset + assigned.Internal, 0ul);
    EXPECT_EQ (empty.hEvent, nullptr);
    ExpectAssertion ([&] { empty.GetResult (nullptr, nullptr, true); }, "assertion failed: hEvent",
        "Skerry::Overlapped::GetResult", "Utilities");
}

TEST_F (Kernel, MutexStates)
{
    const wchar_t name [] = L"Local\\SkerryMutexTest";
    SKERRY_INTERPOSE (release, "KERNEL32.dll", ReleaseMutex);
    SKERRY_INTERPOSE (wait, "KERNEL32.dll", WaitForSingleObject);
    DWORD seen = 0;
    wait.Replace ([&] (HANDLE h, DWORD timeout) { return seen = wait.Original (h, timeout); });
    {
        Mutex unnamed;
        EXPECT_TRUE (unnamed.Created () && unnamed.Owned ());
    }
    Mutex observer (false, name);
    EXPECT_TRUE (observer.Created () && ! observer.Owned ());
    {
        Mutex owner (true, name);    // exists already: neither created nor owned by this object
        EXPECT_FALSE (owner.Created () || owner.Owned ());
        EXPECT_TRUE (owner.Wait (INFINITE));
        EXPECT_FALSE (FreeElsewhere (name));
    }
    EXPECT_TRUE (FreeElsewhere (name));
    ExpectAssertion ([&] { observer.Release (); }, "assertion failed: fOwned", "Skerry::Mutex::Release", "Utilities");
    EXPECT_EQ (release.Calls (), 3u);    // none for the assertion
    std::thread ([&] {    // ends holding the mutex: abandons it
        HANDLE h = ::CreateMutexW (nullptr, FALSE, name);
        ::WaitForSingleObject (h, INFINITE);
        ::CloseHandle (h);
    }).join ();
    EXPECT_TRUE (observer.Wait (0));
    EXPECT_EQ (seen, WAIT_ABANDONED);
    ExpectAssertion ([&] { observer.Wait (0); }, "assertion failed: !fOwned", "Skerry::Mutex::Wait", "Utilities");
}

// Every failed platform call raises Win32 with its code from its function; an assignment that
// fails leaves the target with the handle it had, whichever of its calls failed.
TEST_F (Kernel, PlatformFailures)
{
    SKERRY_INTERPOSE (duplicate, "KERNEL32.dll", DuplicateHandle);
    SKERRY_INTERPOSE (close, "KERNEL32.dll", CloseHandle);
    SKERRY_INTERPOSE (createEvent, "KERNEL32.dll", CreateEventW);
    SKERRY_INTERPOSE (set, "KERNEL32.dll", SetEvent);
    SKERRY_INTERPOSE (reset, "KERNEL32.dll", ResetEvent);
    SKERRY_INTERPOSE (createMutex, "KERNEL32.dll", CreateMutexW);
    SKERRY_INTERPOSE (wait, "KERNEL32.dll", WaitForSingleObject);
    SKERRY_INTERPOSE (release, "KERNEL32.dll", ReleaseMutex);
    Event source = NewEvent (), target = NewEvent ();
    void * kept = target;
    Mutex mutex (false), other (false);
    Overlapped overlapped (NewEvent ());
    unsigned calls = 0;
    const struct { std::function<void ()> fArrange, fAct; std::string fFailure; } cases [] = {
        { [&] { duplicate.Fail (FALSE, 8); }, [&] { Event copy (source); }, "Win32 8 | Skerry::Handle::Handle" },
        { [&] { duplicate.Fail (FALSE, 8); }, [&] { Handle copy (source, ::GetCurrentProcess ()); }, "Win32 8 | Skerry::Handle::Handle" },
        { [&] { duplicate.Fail (FALSE, 8); }, [&] { target = source; }, "Win32 8 | Skerry::Handle::operator =" },
        // The target's close fails: its code, and the temporary is closed.
        { [&] { close.Fail (FALSE, 6); }, [&] { target = source; }, "Win32 6 | Skerry::Handle::operator =" },
        // The temporary's close fails as well: its code.
        { [&] { close.Replace ([&] (HANDLE h) { ::SetLastError (++calls == 1 ? 6 : (close.Original (h), 7)); return FALSE; }); },
          [&] { target = source; }, "Win32 7 | Skerry::Handle::operator =" },
        { [&] { close.Replace (nullptr); close.Fail (FALSE, 5); }, [&] { target = NoEvent (); }, "Win32 5 | Skerry::Handle::operator =" },
        { [&] { createEvent.Fail (nullptr, 8); }, [] { NewEvent (); }, "Win32 8 | Skerry::Event::Event" },
        { [&] { set.Fail (FALSE, 6); }, [&] { target.Set (); }, "Win32 6 | Skerry::Event::Set" },
        { [&] { reset.Fail (FALSE, 5); }, [&] { target.Reset (); }, "Win32 5 | Skerry::Event::Reset" },
        { [&] { createMutex.Fail (nullptr, 5); }, [] { Mutex m; }, "Win32 5 | Skerry::Mutex::Mutex" },
        { [&] { wait.Fail (WAIT_FAILED, 6); }, [&] { mutex.Wait (0); }, "Win32 6 | Skerry::Mutex::Wait" },
        { [&] { ASSERT_TRUE (mutex.Wait (0)); release.Fail (FALSE, 288); }, [&] { mutex.Release (); }, "Win32 288 | Skerry::Mutex::Release" },
        // A success with an unexpected last error, and wait results that can't be or mustn't be.
        { [&] { createMutex.Replace ([&] (LPSECURITY_ATTRIBUTES a, BOOL owner, LPCWSTR name) {
                    HANDLE h = createMutex.Original (a, owner, name);
                    ::SetLastError (ERROR_INVALID_PARAMETER);
                    return h;
                }); },
          [] { Mutex m (false); }, "assertion failed: ERROR_SUCCESS == lastError | Skerry::Mutex::Mutex" },
        { [&] { createMutex.Replace (nullptr); wait.Fail (WAIT_IO_COMPLETION, 0); }, [&] { other.Wait (0); },
          "assertion failed: WAIT_ABANDONED == wfsoResult || WAIT_OBJECT_0 == wfsoResult | Skerry::Mutex::Wait" },
        { [&] { wait.Fail (WAIT_FAILED, 6); }, [&] { overlapped.GetResult (nullptr, nullptr, true); },
          "assertion failed: WAIT_OBJECT_0 == wfsoResult | Skerry::Overlapped::GetResult" },
        // Destructors raise, unless another exception is unwinding: then they log.
        { [&] { close.Fail (FALSE, 6); }, [] { Event dying = NewEvent (); }, "Win32 6 | Skerry::Handle::~Handle" },
    };
    for (const auto & c : cases) {
        c.fArrange ();
        EXPECT_EQ (SkerryTest::Failure (c.fAct), c.fFailure + " | Utilities");
    }
    EXPECT_TRUE (close.Original (std::get<0> (close.CallArguments ().back ())));
    EXPECT_EQ (static_cast<void *> (target), kept);
    EXPECT_EQ (::WaitForSingleObject (kept, 0), WAIT_TIMEOUT);
    EXPECT_TRUE (mutex.Owned ());
    wait.Fail (WAIT_TIMEOUT, 0);
    EXPECT_FALSE (other.Wait (INFINITE) || other.Owned ());
    const struct { std::function<void ()> fArrange; const char * fFunction; unsigned long fCode; } unwinding [] = {
        { [&] { Mutex held; release.Fail (FALSE, 288); throw 1; }, "Skerry::Mutex::~Mutex", 288 },
        { [&] { Event dying = NewEvent (); close.Fail (FALSE, 6); throw 42; }, "Skerry::Handle::~Handle", 6 } };
    for (const auto & u : unwinding) {
        SkerryTest::ScopedJotLog log;
        EXPECT_THROW (u.fArrange (), int);
        std::vector<std::string> lines = log.Messages ();
        EXPECT_TRUE (lines.size () == 1 && std::regex_match (lines [0], std::regex (std::string (u.fFunction)
            + ": not throwing exception due to Win32 error " + std::to_string (u.fCode) + " on line [0-9]+ of file Utilities"
            " while another exception is unwinding"))) << ::testing::PrintToString (lines);
    }
    EXPECT_TRUE (close.Original (std::get<0> (close.CallArguments ().back ())));
}
