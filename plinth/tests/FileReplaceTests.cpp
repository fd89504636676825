// A write stream replaces its file whole or not at all: a shorter property list over a longer file
// leaves no tail, a property list that can't be written leaves the old file as it was (a write that
// fails is LibSkerry's test, through Plinth.dll's imports), a missing directory is no more made
// than a file in it, and no sibling stays behind.
#include "PlinthTest.h"

#include <filesystem>

using namespace PlinthTest;

namespace {

std::size_t FileCount (std::string const & directory)
{
    std::size_t count = 0;
    for (auto const & entry : std::filesystem::directory_iterator (directory))
        count += entry.is_regular_file () ? 1 : 0;
    return count;
}

PLURLRef FileURL (std::string const & path)
{
#ifdef _WIN32
    PLURLPathStyle style = kPLURLWindowsPathStyle;
#else
    PLURLPathStyle style = kPLURLPOSIXPathStyle;
#endif
    return PLURLCreateWithFileSystemPath (kPLAllocatorDefault, Owned<PLStringRef> (CreateString (path.c_str ())), style,
        false);
}

// Writes `value` through a stream on `path` in the binary format; what PLPropertyListWrite gave.
PLIndex WriteFile (std::string const & path, PLTypeRef value)
{
    Owned<PLWriteStreamRef> stream (PLWriteStreamCreateWithFile (kPLAllocatorDefault, Owned<PLURLRef> (FileURL (path))));
    EXPECT_TRUE (PLWriteStreamOpen (stream));
    return PLPropertyListWrite (value, stream, kPLPropertyListBinaryFormat, 0, nullptr);
}

}

TEST (FileReplace, WholeOrNotAtAll)
{
    ScratchPreferences scratch;
    NoLeaks noLeaks;
    std::string path = scratch.File ("settings.plist");
    ScratchPreferences::WriteFile (path, std::string (4096, 'x'));
    Owned<PLMutableDictionaryRef> good (PLDictionaryCreateMutable (kPLAllocatorDefault, 0, &kPLTypeDictionaryKeyCallBacks,
        &kPLTypeDictionaryValueCallBacks));
    PLDictionarySetValue (good, PLSTR ("k"), PLSTR ("v"));
    ASSERT_GT (WriteFile (path, good), 0);
    std::string bytes = ScratchPreferences::ReadFile (path);
    EXPECT_TRUE (bytes.size () < 100 && bytes.substr (0, 8) == "bplist00");   // no tail of the longer file

    // A value that no property list holds: nothing is written, and the good file stays.
    Owned<PLMutableDictionaryRef> bad (PLDictionaryCreateMutableCopy (kPLAllocatorDefault, 0, good));
    PLDictionarySetValue (bad, PLSTR ("url"), Owned<PLURLRef> (FileURL (path)));
    EXPECT_EQ (WriteFile (path, bad), 0);
    EXPECT_EQ (ScratchPreferences::ReadFile (path), bytes);
    // An open stream released with nothing written leaves an empty file, as opening one always did.
    std::string empty = scratch.File ("empty.plist");
    {
        Owned<PLWriteStreamRef> stream (PLWriteStreamCreateWithFile (kPLAllocatorDefault, Owned<PLURLRef> (FileURL (empty))));
        ASSERT_TRUE (PLWriteStreamOpen (stream));
        EXPECT_FALSE (std::filesystem::exists (empty));   // not before the close
    }
    EXPECT_EQ (ScratchPreferences::ReadFile (empty), "");
    std::string missing = scratch.Directory () + "/missing";
    Owned<PLWriteStreamRef> nowhere (PLWriteStreamCreateWithFile (kPLAllocatorDefault,
        Owned<PLURLRef> (FileURL (missing + "/settings.plist"))));
    EXPECT_FALSE (PLWriteStreamOpen (nowhere));
    EXPECT_FALSE (std::filesystem::exists (missing));
    EXPECT_EQ (FileCount (scratch.Directory ()), 2u);   // no sibling left
}
