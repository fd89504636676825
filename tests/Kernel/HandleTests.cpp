// Handle, Event and Overlapped: ownership, copying, the failure order of assignment, and real
// kernel objects across threads and pipes.
#include <LibSkerry/Utilities>

#include "Expect.h"
#include "Handles.h"
#include "Interposer.h"
#include "JotLog.h"

#include <gtest/gtest.h>

#include <regex>
#include <thread>

using Skerry::Event;
using Skerry::Handle;
using Skerry::Overlapped;
using Skerry::Exceptions::String;
using Skerry::Exceptions::Win32;
using SkerryTest::Expect;
using SkerryTest::ExpectAssertion;

namespace {

const char kAssign [] = "Skerry::Handle::operator =";

class HandleTest : public SkerryTest::HandleLeakTest {};
class OverlappedTest : public SkerryTest::HandleLeakTest {};

// A handle of the library's family that owns a new event.
Event NewEvent ()
{
    return Event (true, false);
}

// One that owns nothing.
Event NoEvent ()
{
    Event event = NewEvent ();
    ::CloseHandle (event.Detach ());
    return event;
}

}

// Where nothing is owned or nothing changes, no platform call is made at all.
TEST_F (HandleTest, NoCallWhereNothingChanges)
{
    Event event = NewEvent ();
    void * raw = event;
    SKERRY_INTERPOSE (duplicate, "KERNEL32.dll", DuplicateHandle);
    SKERRY_INTERPOSE (close, "KERNEL32.dll", CloseHandle);
    {
        Handle borrowed (raw);
        EXPECT_FALSE (borrowed);
        ExpectAssertion ([&] { (void) static_cast<void *> (borrowed); }, "assertion failed: !fInvalid",
            "Skerry::Handle::operator void *", "Utilities");
        Handle copy (borrowed), other (borrowed);
        copy = other;
        copy = copy;
        event = event;
        EXPECT_FALSE (copy);
    }
    EXPECT_EQ (duplicate.Calls () + close.Calls (), 0u);

    Event detached = event;
    void * mine = detached.Detach ();
    EXPECT_FALSE (detached);
    EXPECT_NE (mine, raw);
    EXPECT_EQ (duplicate.Calls (), 1u);
    ::CloseHandle (mine);
}

// A copy owns a duplicate on the same kernel object, and assigning nothing closes the target's.
TEST_F (HandleTest, CopiesOwnDuplicates)
{
    Event original = NewEvent ();
    Event copy = original;
    EXPECT_NE (static_cast<void *> (copy), static_cast<void *> (original));
    std::thread waker ([&] { copy.Set (); });
    EXPECT_EQ (::WaitForSingleObject (original, 5000), WAIT_OBJECT_0);
    waker.join ();

    Handle taken (original, ::GetCurrentProcess ());
    EXPECT_TRUE (taken);
    copy = NoEvent ();
    EXPECT_FALSE (copy);
    taken = original;
    EXPECT_EQ (::WaitForSingleObject (taken, 0), WAIT_OBJECT_0);
}

// Every failed copy, assignment and close raises with the right code and function, and leaves
// the target with the handle it had.
TEST_F (HandleTest, FailuresRaiseAndChangeNothing)
{
    Event source = NewEvent (), target = NewEvent ();
    void * kept = target;
    SKERRY_INTERPOSE (duplicate, "KERNEL32.dll", DuplicateHandle);
    SKERRY_INTERPOSE (close, "KERNEL32.dll", CloseHandle);

    duplicate.Fail (FALSE, ERROR_NOT_ENOUGH_MEMORY, 2);
    EXPECT_EQ (Expect<Win32> ([&] { Event copy (source); }, "Skerry::Handle::Handle", "Utilities").fCode, 8ul);
    EXPECT_EQ (Expect<Win32> ([&] { target = source; }, kAssign, "Utilities").fCode, 8ul);

    close.Fail (FALSE, 6);    // the target's close fails: its code, and the temporary is closed
    EXPECT_EQ (Expect<Win32> ([&] { target = source; }, kAssign, "Utilities").fCode, 6ul);
    unsigned calls = 0;       // the temporary's close fails as well: its code
    close.Replace ([&] (HANDLE h) {
        if (calls++ > 0)
            close.Original (h);
        ::SetLastError (calls == 1 ? 6 : 7);
        return FALSE;
    });
    EXPECT_EQ (Expect<Win32> ([&] { target = source; }, kAssign, "Utilities").fCode, 7ul);
    close.Replace (nullptr);
    close.Fail (FALSE, ERROR_ACCESS_DENIED);
    EXPECT_EQ (Expect<Win32> ([&] { target = NoEvent (); }, kAssign, "Utilities").fCode, 5ul);
    EXPECT_TRUE (target);
    EXPECT_EQ (static_cast<void *> (target), kept);
    EXPECT_EQ (::WaitForSingleObject (kept, 0), WAIT_TIMEOUT);

    close.Fail (FALSE, ERROR_INVALID_HANDLE);
    EXPECT_EQ (Expect<Win32> ([] { Event dying = NewEvent (); }, "Skerry::Handle::~Handle", "Utilities").fCode, 6ul);
    void * leftOver = std::get<0> (close.CallArguments ().back ());
    EXPECT_TRUE (close.Original (leftOver));
}

// A close that fails while another exception unwinds is logged, and the first exception goes on.
TEST_F (HandleTest, CloseFailureWhileUnwindingIsLogged)
{
    SkerryTest::ScopedJotLog log;
    SKERRY_INTERPOSE (close, "KERNEL32.dll", CloseHandle);
    void * leftOver = nullptr;
    try {
        Event dying = NewEvent ();
        leftOver = dying;
        close.Fail (FALSE, ERROR_INVALID_HANDLE);
        throw 42;
    }
    catch (int value) {
        EXPECT_EQ (value, 42);
    }
    std::vector<std::string> lines = log.Messages ();
    ASSERT_EQ (lines.size (), 1u);
    EXPECT_TRUE (std::regex_match (lines [0], std::regex ("Skerry::Handle::~Handle: not throwing exception due to "
        "Win32 error 6 on line [0-9]+ of file Utilities while another exception is unwinding"))) << lines [0];
    EXPECT_TRUE (close.Original (leftOver));
}

TEST_F (HandleTest, EventFailures)
{
    SKERRY_INTERPOSE (create, "KERNEL32.dll", CreateEventW);
    SKERRY_INTERPOSE (set, "KERNEL32.dll", SetEvent);
    SKERRY_INTERPOSE (reset, "KERNEL32.dll", ResetEvent);
    create.Fail (nullptr, ERROR_NOT_ENOUGH_MEMORY);
    EXPECT_EQ (Expect<Win32> ([] { NewEvent (); }, "Skerry::Event::Event", "Utilities").fCode, 8ul);
    Event event = NewEvent ();
    set.Fail (FALSE, 6);
    reset.Fail (FALSE, 5);
    EXPECT_EQ (Expect<Win32> ([&] { event.Set (); }, "Skerry::Event::Set", "Utilities").fCode, 6ul);
    EXPECT_EQ (Expect<Win32> ([&] { event.Reset (); }, "Skerry::Event::Reset", "Utilities").fCode, 5ul);
}

// hEvent names the object's own duplicate, in copies and after assignment too.
TEST_F (OverlappedTest, OwnsItsEvent)
{
    Event event = NewEvent ();
    Overlapped first (event);
    EXPECT_EQ (first.hEvent, static_cast<void *> (first));
    EXPECT_NE (first.hEvent, static_cast<void *> (event));
    first.Offset = 7, first.Internal = 9;
    Overlapped copy (first);
    EXPECT_EQ (copy.hEvent, static_cast<void *> (copy));
    EXPECT_EQ (copy.Offset, 7ul);
    Overlapped assigned (NewEvent ());
    assigned = first;
    EXPECT_EQ (assigned.hEvent, static_cast<void *> (assigned));
    EXPECT_EQ (assigned.Internal, 9ul);
    assigned.Recycle ();
    EXPECT_EQ (assigned.hEvent, static_cast<void *> (assigned));
    EXPECT_EQ (assigned.Offset + assigned.Internal, 0ul);

    Overlapped empty (NoEvent ());
    EXPECT_EQ (empty.hEvent, nullptr);
    ExpectAssertion ([&] { empty.GetResult (nullptr, nullptr, true); }, "assertion failed: hEvent",
        "Skerry::Overlapped::GetResult", "Utilities");
    SKERRY_INTERPOSE (wait, "KERNEL32.dll", WaitForSingleObject);
    wait.Fail (WAIT_FAILED, 6);
    ExpectAssertion ([&] { first.GetResult (nullptr, nullptr, true); }, "assertion failed: WAIT_OBJECT_0 == wfsoResult",
        "Skerry::Overlapped::GetResult", "Utilities");
}

// An overlapped read on a pipe: incomplete while it runs, then its result after the wait.
TEST_F (OverlappedTest, ReadsAPipe)
{
    const wchar_t name [] = L"\\\\.\\pipe\\SkerryOverlappedTest";
    HANDLE server = ::CreateNamedPipeW (name, PIPE_ACCESS_INBOUND | FILE_FLAG_OVERLAPPED, 0, 1, 64, 64, 0, nullptr);
    HANDLE client = ::CreateFileW (name, GENERIC_WRITE, 0, nullptr, OPEN_EXISTING, 0, nullptr);
    ASSERT_NE (client, INVALID_HANDLE_VALUE);
    Overlapped reading (NewEvent ());
    char buffer [16];
    EXPECT_FALSE (::ReadFile (server, buffer, sizeof buffer, nullptr, &reading));
    EXPECT_EQ (::GetLastError (), DWORD (ERROR_IO_PENDING));
    unsigned long bytes = 0;
    EXPECT_EQ (reading.GetResult (server, &bytes, false), 996ul);
    DWORD written = 0;
    ::WriteFile (client, "skerry", 6, &written, nullptr);
    EXPECT_EQ (reading.GetResult (server, &bytes, true), 0ul);
    EXPECT_EQ (bytes, 6ul);
    ::CloseHandle (client);
    ::CloseHandle (server);
}
