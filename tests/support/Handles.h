// Open kernel handles of this process, for leak checks. GetProcessHandleCount can't serve: Wine
// always reports 0. Every handle value is probed instead; valid ones answer GetHandleInformation.
// The first C++ throw of a process makes the runtime open handles that stay: throw once before
// the first count.
#ifndef SKERRY_TEST_HANDLES
#define SKERRY_TEST_HANDLES

namespace SkerryTest {

unsigned long OpenHandleCount ();

}

#endif
