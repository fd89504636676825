// Mutex: who created it, who holds it, abandonment, and every failure of the platform.
#include <LibSkerry/Utilities>

#include "Expect.h"
#include "Handles.h"
#include "Interposer.h"
#include "JotLog.h"

#include <gtest/gtest.h>

#include <thread>

using Skerry::Mutex;
using Skerry::Exceptions::Win32;
using SkerryTest::Expect;
using SkerryTest::ExpectAssertion;

namespace {

class MutexTest : public SkerryTest::HandleLeakTest {};

const wchar_t kName [] = L"Local\\SkerryMutexTest";

// Whether another thread can take the mutex of `name` at once.
bool FreeElsewhere (const wchar_t * name)
{
    bool free = false;
    std::thread ([&] {
        Mutex other (false, name);
        free = other.Wait (0);
        if (free)
            other.Release ();
    }).join ();
    return free;
}

}

TEST_F (MutexTest, CreatedAndOwned)
{
    SKERRY_INTERPOSE (release, "KERNEL32.dll", ReleaseMutex);
    {
        Mutex unnamed;
        EXPECT_TRUE (unnamed.Created () && unnamed.Owned ());
    }
    EXPECT_EQ (release.Calls (), 1u);
    Mutex observer (false, kName);
    EXPECT_TRUE (observer.Created ());
    EXPECT_FALSE (observer.Owned ());
    {
        Mutex owner (true, kName);    // exists already: neither created nor owned by this object
        EXPECT_FALSE (owner.Created () || owner.Owned ());
        EXPECT_TRUE (owner.Wait (INFINITE));
        EXPECT_FALSE (FreeElsewhere (kName));
    }
    EXPECT_TRUE (FreeElsewhere (kName));
    EXPECT_EQ (release.Calls (), 3u);
    ExpectAssertion ([&] { observer.Release (); }, "assertion failed: fOwned", "Skerry::Mutex::Release", "Utilities");
    EXPECT_EQ (release.Calls (), 3u);
    EXPECT_TRUE (observer.Wait (INFINITE));
    ExpectAssertion ([&] { observer.Wait (0); }, "assertion failed: !fOwned", "Skerry::Mutex::Wait", "Utilities");
}

// A thread that ends holding the mutex abandons it; the next Wait takes it all the same.
TEST_F (MutexTest, AbandonedCountsAsAcquired)
{
    Mutex mutex (false, kName);
    std::thread ([] {
        HANDLE held = ::CreateMutexW (nullptr, TRUE, kName);
        ::CloseHandle (held);
    }).join ();
    EXPECT_TRUE (mutex.Wait (0));
    EXPECT_TRUE (mutex.Owned ());
}

TEST_F (MutexTest, PlatformFailures)
{
    SKERRY_INTERPOSE (create, "KERNEL32.dll", CreateMutexW);
    SKERRY_INTERPOSE (wait, "KERNEL32.dll", WaitForSingleObject);
    SKERRY_INTERPOSE (release, "KERNEL32.dll", ReleaseMutex);
    create.Fail (nullptr, ERROR_ACCESS_DENIED);
    EXPECT_EQ (Expect<Win32> ([] { Mutex m; }, "Skerry::Mutex::Mutex", "Utilities").fCode, 5ul);
    // A success with an unexpected last error: the handle it gave is closed.
    create.Replace ([&] (LPSECURITY_ATTRIBUTES a, BOOL owner, LPCWSTR name) {
        HANDLE h = create.Original (a, owner, name);
        ::SetLastError (ERROR_INVALID_PARAMETER);
        return h;
    });
    ExpectAssertion ([] { Mutex m (false); }, "assertion failed: ERROR_SUCCESS == lastError", "Skerry::Mutex::Mutex",
        "Utilities");
    create.Replace (nullptr);

    Mutex mutex (false);
    wait.Fail (WAIT_FAILED, ERROR_INVALID_HANDLE);
    EXPECT_EQ (Expect<Win32> ([&] { mutex.Wait (0); }, "Skerry::Mutex::Wait", "Utilities").fCode, 6ul);
    wait.Fail (WAIT_IO_COMPLETION, 0);
    ExpectAssertion ([&] { mutex.Wait (0); }, "assertion failed: WAIT_ABANDONED == wfsoResult || WAIT_OBJECT_0 == wfsoResult",
        "Skerry::Mutex::Wait", "Utilities");
    EXPECT_FALSE (mutex.Owned ());

    ASSERT_TRUE (mutex.Wait (0));
    release.Fail (FALSE, ERROR_NOT_OWNER);
    EXPECT_EQ (Expect<Win32> ([&] { mutex.Release (); }, "Skerry::Mutex::Release", "Utilities").fCode, 288ul);
    EXPECT_TRUE (mutex.Owned ());

    // Given back by the destructor; while an exception unwinds, a failure there is logged.
    SkerryTest::ScopedJotLog log;
    release.Fail (FALSE, ERROR_NOT_OWNER);
    try {
        Mutex held;
        throw 1;
    }
    catch (int) {
    }
    ASSERT_EQ (log.Messages ().size (), 1u);
    EXPECT_EQ (log.Messages () [0].find ("Skerry::Mutex::~Mutex: not throwing exception due to Win32 error 288 on line "), 0u);
}
