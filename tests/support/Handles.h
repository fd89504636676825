// Open kernel handles of this process, for leak checks. GetProcessHandleCount can't serve: Wine
// always reports 0. Every handle value is probed instead; valid ones answer GetHandleInformation.
// The first C++ throw of a process makes the runtime open handles that stay, and so do the first
// thread, the first named kernel object and the first use of GoogleTest's trace stack:
// HandleLeakTest does each once before its first count.
#ifndef SKERRY_TEST_HANDLES
#define SKERRY_TEST_HANDLES

#include <gtest/gtest.h>

namespace SkerryTest {

unsigned long OpenHandleCount ();

// A fixture whose tests fail when they end with more or fewer handles open than they found.
class HandleLeakTest : public ::testing::Test {
protected:
    void SetUp () override;
    void TearDown () override;

private:
    unsigned long fOpenBefore = 0;
};

}

#endif
