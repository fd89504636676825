// File URLs from Windows and POSIX paths, and back.
#include "PlinthTest.h"

using namespace PlinthTest;

TEST (URL, PathsBecomeFileURLsAndComeBack)
{
    NoLeaks noLeaks;
    const struct {
        char const * fPath;
        bool fIsDirectory;
        char const * fURL, * fBack;
        PLURLPathStyle fStyle = kPLURLWindowsPathStyle;
    } cases [] = {
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
        { "/tmp/a b", false, "file:///tmp/a%20b", "/tmp/a b", kPLURLPOSIXPathStyle },
    };
    for (auto const & c : cases) {
        Owned<PLURLRef> url (PLURLCreateWithFileSystemPath (kPLAllocatorDefault, Owned<PLStringRef> (CreateString (c.fPath)), c.fStyle,
            c.fIsDirectory));
        ASSERT_NE (url.Get (), nullptr) << c.fPath;
        EXPECT_EQ (UTF8 (PLURLGetString (url)) + " " + UTF8 (Owned<PLStringRef> (PLURLCopyFileSystemPath (url, c.fStyle))),
            c.fURL + std::string (" ") + c.fBack);
        EXPECT_EQ (PLURLHasDirectoryPath (url), c.fIsDirectory) << c.fPath;
    }

    // A POSIX path read as a Windows one; refused paths and URLs.
    Owned<PLStringRef> path (CreateString ("/tmp/a b"));
    Owned<PLURLRef> url (PLURLCreateWithFileSystemPath (kPLAllocatorDefault, path, kPLURLPOSIXPathStyle, false));
    EXPECT_EQ (UTF8 (Owned<PLStringRef> (PLURLCopyFileSystemPath (url, kPLURLWindowsPathStyle))), "\\tmp\\a b");
    EXPECT_EQ (PLURLCreateWithFileSystemPath (kPLAllocatorDefault, PLSTR (""), kPLURLWindowsPathStyle, false), nullptr);
    EXPECT_EQ (PLURLCreateWithFileSystemPath (kPLAllocatorDefault, path, PLURLPathStyle (1), false), nullptr);
    Owned<PLStringRef> lone (CreateString (std::u16string (u"C:\\\xD800")));
    EXPECT_EQ (PLURLCreateWithFileSystemPath (kPLAllocatorDefault, lone, kPLURLWindowsPathStyle, false), nullptr);

    EXPECT_TRUE (PLEqual (Owned<PLURLRef> (PLURLCreateWithString (kPLAllocatorDefault, PLSTR ("file:///tmp/a%20b"), nullptr)), url));
    EXPECT_EQ (UTF8 (PLURLGetString (Owned<PLURLRef> (PLURLCreateWithString (kPLAllocatorDefault, PLSTR ("c.txt"), url)))),
        "file:///tmp/c.txt");
    EXPECT_EQ (PLURLCreateWithString (kPLAllocatorDefault, PLSTR ("http://host/x"), nullptr), nullptr);
    EXPECT_EQ (PLURLCreateWithString (kPLAllocatorDefault, PLSTR ("file:///bad%2"), nullptr), nullptr);
}
