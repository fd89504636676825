#include "Handles.h"

#include <windows.h>

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
    static const bool sThrownOnce = [] {
        try {
            throw 0;
        }
        catch (int) {
        }
        return true;
    } ();
    (void) sThrownOnce;
    fOpenBefore = OpenHandleCount ();
}

void HandleLeakTest::TearDown ()
{
    EXPECT_EQ (OpenHandleCount (), fOpenBefore) << "open handles before and after the test";
}

}
