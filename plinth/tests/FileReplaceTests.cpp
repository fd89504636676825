// A write stream replaces its file whole or not at all: a shorter property list over a longer file
// leaves no tail, one that can't be written leaves the old file as it was (a write that fails is
// LibSkerry's test, through Plinth.dll's imports), nothing appears before the close, a missing
// directory is not made, and no sibling stays behind.
#include "PlinthTest.h"

#include <filesystem>

using namespace PlinthTest;

namespace {

// Writes `value` to `path` through a stream in the binary format; what PLPropertyListWrite gave.
PLIndex WriteFile (std::string const & path, PLTypeRef value)
{
    Owned<PLWriteStreamRef> stream (PLWriteStreamCreateWithFile (kPLAllocatorDefault, Owned<PLURLRef> (FileURL (path))));
    EXPECT_TRUE (PLWriteStreamOpen (stream));
    EXPECT_FALSE (std::filesystem::exists (path) && ScratchPreferences::ReadFile (path).empty ());
    return PLPropertyListWrite (value, stream, kPLPropertyListBinaryFormat, 0, nullptr);
}

}

TEST (FileReplace, WholeOrNotAtAll)
{
    ScratchPreferences scratch;
    NoLeaks noLeaks;
    std::string path = scratch.File ("settings.plist"), missing = scratch.Directory () + "/missing";
    ScratchPreferences::WriteFile (path, std::string (4096, 'x'));
    ASSERT_GT (WriteFile (path, PLSTR ("v")), 0);
    std::string bytes = ScratchPreferences::ReadFile (path);
    EXPECT_TRUE (bytes.size () < 100 && bytes.substr (0, 8) == "bplist00");   // no tail of the longer file
    EXPECT_EQ (WriteFile (path, Owned<PLURLRef> (FileURL (path))), 0);   // no property list holds a URL
    EXPECT_EQ (ScratchPreferences::ReadFile (path), bytes);
    Owned<PLWriteStreamRef> nowhere (PLWriteStreamCreateWithFile (kPLAllocatorDefault, Owned<PLURLRef> (FileURL (missing + "/x"))));
    EXPECT_FALSE (PLWriteStreamOpen (nowhere));
    EXPECT_FALSE (std::filesystem::exists (missing));
    EXPECT_EQ (std::distance (std::filesystem::directory_iterator (scratch.Directory ()), std::filesystem::directory_iterator ()), 1);
}
