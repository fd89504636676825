// The main of every test suite: GoogleTest, plus the child scenarios of ChildProcess.h.
#include "ChildProcess.h"

#include <gtest/gtest.h>

int main (int argc, char ** argv)
{
    ::testing::InitGoogleTest (&argc, argv);
    bool child = SkerryTest::PrepareChildFilter (argc, argv);
    int status = RUN_ALL_TESTS ();
    if (child && status != 0)
        return int (SkerryTest::kChildTestFailed);
    return status;
}
