// A write stream replaces its file whole or not at all: a shorter property list over a longer file
// leaves no tail, a property list that can't be written and a write that fails leave the old file
// as it was, a missing directory is no more made than a file in it, and no sibling stays behind.
#include "PlinthTest.h"

#include <filesystem>

#ifdef _WIN32
#include "Interposer.h"
#endif

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
    Owned<PLDataRef> expected (PLPropertyListCreateData (kPLAllocatorDefault, good, kPLPropertyListBinaryFormat, 0, nullptr));
    std::string bytes (reinterpret_cast<char const *> (PLDataGetBytePtr (expected)), std::size_t (PLDataGetLength (expected)));
    EXPECT_EQ (ScratchPreferences::ReadFile (path), bytes);   // no tail of the longer file

    // A value that no property list holds: nothing is written, and the good file stays.
    Owned<PLMutableDictionaryRef> bad (PLDictionaryCreateMutableCopy (kPLAllocatorDefault, 0, good));
    PLDictionarySetValue (bad, PLSTR ("url"), Owned<PLURLRef> (FileURL (path)));
    EXPECT_EQ (WriteFile (path, bad), 0);
    EXPECT_EQ (ScratchPreferences::ReadFile (path), bytes);
#ifdef _WIN32
    {
        // The disk fills up half-way.
        SKERRY_INTERPOSE_IN (writeFile, L"Plinth.dll", "KERNEL32.dll", WriteFile);
        writeFile.Fail (FALSE, ERROR_DISK_FULL);
        EXPECT_EQ (WriteFile (path, good), 0);
    }
    EXPECT_EQ (ScratchPreferences::ReadFile (path), bytes);
#endif
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
