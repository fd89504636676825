#include "Handles.h"

#include <windows.h>

#include <thread>

namespace SkerryTest {

unsigned long OpenHandleCount ()
{
    unsigned long count = 0;
    for (UINT_PTR value = 4; value < 0x10000; value += 4) {
        DWORD flags = 0;
        if (::GetHandleInformation (reinterpret_cast<HANDLE> (value), &flags))
            ++count;
    }
    return count;
}

void HandleLeakTest::SetUp ()
{
    // What opens handles for good at its first use: a throw, a thread, a named kernel object (the
    // directory of named objects stays open), GoogleTest's trace stack.
    static const bool sPrimed = [] {
        try {
            throw 0;
        }
        catch (int) {
        }
        std::thread ([] {}).join ();
        ::CloseHandle (::CreateEventW (nullptr, FALSE, FALSE, L"Local\\SkerryHandleCountPrimer"));
        SCOPED_TRACE ("");
        return true;
    } ();
    (void) sPrimed;
    fOpenBefore = OpenHandleCount ();
}

void HandleLeakTest::TearDown ()
{
    EXPECT_EQ (OpenHandleCount (), fOpenBefore) << "open handles before and after the test";
}

}
