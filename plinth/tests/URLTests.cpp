// File URLs from Windows and POSIX paths, and back.
#include "PlinthTest.h"

#include <vector>

using namespace PlinthTest;

namespace {

struct Round {
    char const * fPath;
    bool fIsDirectory;
    char const * fURL;
    char const * fBack;
};

}

TEST (URL, WindowsPathsBecomeFileURLsAndComeBack)
{
    NoLeaks noLeaks;
    std::vector<Round> cases {
        { "C:\\Users\\me\\file.plist", false, "file:///C:/Users/me/file.plist", "C:\\Users\\me\\file.plist" },
        { "C:\\Program Files\\Tolvane", true, "file:///C:/Program%20Files/Tolvane/", "C:\\Program Files\\Tolvane" },
        { "C:\\", true, "file:///C:/", "C:\\" },
        { "C:", true, "file:///C:/", "C:\\" },
        { "d:/mixed\\separators", false, "file:///d:/mixed/separators", "d:\\mixed\\separators" },
        { "\\\\server\\share\\x y.txt", false, "file://server/share/x%20y.txt", "\\\\server\\share\\x y.txt" },
        { "relative\\name", false, "relative/name", "relative\\name" },
        { "\\\\?\\C:\\long", false, "file:///C:/long", "C:\\long" },
        { "\\\\?\\UNC\\server\\share", true, "file://server/share/", "\\\\server\\share" },
        { "C:\\dir\\", false, "file:///C:/dir", "C:\\dir" },
        { u8"C:\\\u00E4%#?", false, "file:///C:/%C3%A4%25%23%3F", u8"C:\\\u00E4%#?" },
    };
    for (Round const & c : cases) {
        Owned<PLStringRef> path (CreateString (c.fPath));
        Owned<PLURLRef> url (PLURLCreateWithFileSystemPath (kPLAllocatorDefault, path, kPLURLWindowsPathStyle, c.fIsDirectory));
        ASSERT_NE (url.Get (), nullptr) << c.fPath;
        EXPECT_EQ (UTF8 (PLURLGetString (url)), c.fURL);
        EXPECT_EQ (PLURLHasDirectoryPath (url), c.fIsDirectory) << c.fPath;
        Owned<PLStringRef> back (PLURLCopyFileSystemPath (url, kPLURLWindowsPathStyle));
        EXPECT_EQ (UTF8 (back), c.fBack);
    }
}

TEST (URL, POSIXPathsAndRefusals)
{
    NoLeaks noLeaks;
    Owned<PLStringRef> path (CreateString ("/tmp/a b"));
    Owned<PLURLRef> url (PLURLCreateWithFileSystemPath (kPLAllocatorDefault, path, kPLURLPOSIXPathStyle, false));
    EXPECT_EQ (UTF8 (PLURLGetString (url)), "file:///tmp/a%20b");
    Owned<PLStringRef> back (PLURLCopyFileSystemPath (url, kPLURLPOSIXPathStyle));
    EXPECT_EQ (UTF8 (back), "/tmp/a b");
    Owned<PLStringRef> asWindows (PLURLCopyFileSystemPath (url, kPLURLWindowsPathStyle));
    EXPECT_EQ (UTF8 (asWindows), "\\tmp\\a b");
    EXPECT_EQ (PLURLCreateWithFileSystemPath (kPLAllocatorDefault, PLSTR (""), kPLURLWindowsPathStyle, false), nullptr);
    EXPECT_EQ (PLURLCreateWithFileSystemPath (kPLAllocatorDefault, path, PLURLPathStyle (1), false), nullptr);
    Owned<PLStringRef> lone (CreateString (std::u16string (u"C:\\\xD800")));
    EXPECT_EQ (PLURLCreateWithFileSystemPath (kPLAllocatorDefault, lone, kPLURLWindowsPathStyle, false), nullptr);

    Owned<PLURLRef> same (PLURLCreateWithString (kPLAllocatorDefault, PLSTR ("file:///tmp/a%20b"), nullptr));
    EXPECT_TRUE (PLEqual (same, url));
    Owned<PLURLRef> relative (PLURLCreateWithString (kPLAllocatorDefault, PLSTR ("c.txt"), url));
    EXPECT_EQ (UTF8 (PLURLGetString (relative)), "file:///tmp/c.txt");
    EXPECT_EQ (PLURLCreateWithString (kPLAllocatorDefault, PLSTR ("http://host/x"), nullptr), nullptr);
    EXPECT_EQ (PLURLCreateWithString (kPLAllocatorDefault, PLSTR ("file:///bad%2"), nullptr), nullptr);
}
