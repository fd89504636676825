// Scenarios that must run in a process of their own: the fatal paths, which end the process with
// _exit (1), and anything that depends on process-wide first use (the throw guard's slot, the
// capture function). A scenario is an ordinary test in the suite InChild, which the suite's main
// leaves out of normal runs; RunInChild starts this executable again for that one test, with
// JOT_LOG_FILE naming a fresh log, and gives back the exit status and the log's records. A child
// whose own checks fail exits with kChildTestFailed, never to be mistaken for the library's 1.
#ifndef SKERRY_TEST_CHILD_PROCESS
#define SKERRY_TEST_CHILD_PROCESS

#include "JotLog.h"

#include <windows.h>

#include <string>
#include <vector>

namespace SkerryTest {

const unsigned long kChildTestFailed = 3;

struct ChildResult {
    unsigned long fExitCode = 0;
    std::vector<JotRecord> fLog;
    std::vector<std::string> Messages () const { return SkerryTest::Messages (fLog); }
};

ChildResult RunInChild (const char * testName);

// Starts the scenario and returns at once, for a parent that works alongside it; the caller
// closes the handles. Raises std::runtime_error when the process can't be started.
PROCESS_INFORMATION StartInChild (const char * testName);

// Called by main: true when this process is a child, after adjusting the test filter either way.
bool PrepareChildFilter (int argc, char ** argv);

// The directory of this test program, with its trailing separator.
std::wstring ProgramDirectory ();

}

#endif
