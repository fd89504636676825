// URLs of Windows paths, dictionaries in property-list files and property lists in data: each call
// of Plinth failing with its text, holding nothing, and leaving a good file as it was. What Write
// writes is read by plistlib and plist-tool after this suite (PropertyListFileInterop.cmake).
#include <LibSkerry/Plinth>

#include "Expect.h"
#include "Handles.h"
#include "Interposer.h"
#include "PlinthTest.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>

using namespace Skerry;
using PlinthTest::NoLeaks;
using SkerryTest::Failure;

namespace {

const std::string kNull = "Skerry 3 | Skerry::PlinthObject::PlinthObject | Plinth";

std::string Contents (const std::wstring & path)
{
    std::ifstream file (std::filesystem::path (path), std::ios::binary);
    return std::string (std::istreambuf_iterator<char> (file), std::istreambuf_iterator<char> ());
}

// Every kind that a property list holds, nested, as a user might write it by hand.
const char kEveryKind [] = "<plist version=\"1.0\"><dict><key>array</key><array><string>item</string><true/></array>"
    "<key>data</key><data>AAEC</data><key>date</key><date>2001-01-02T00:00:00Z</date><key>integer</key>"
    "<integer>-1234567890123</integer><key>real</key><real>2.5</real><key>string</key><string>\xF0\x9F\x98\x80 "
    "\xC3\xBC</string><key>nested</key><dict><key>\xC3\xA9t\xC3\xA9 \xE6\x97\xA5\xE6\x9C\xAC</key><false/></dict></dict></plist>";

PlinthMutableDictionary EveryKind ()
{
    return PlinthData (sizeof kEveryKind - 1, kEveryKind, false).GetPropertyList (kPLPropertyListMutableContainers);
}

// A fresh directory: made before the handles are counted, removed after.
class PropertyListFiles : public SkerryTest::HandleLeakTest {
protected:
    PropertyListFiles () { std::filesystem::remove_all (fDirectory); std::filesystem::create_directory (fDirectory); }
    ~PropertyListFiles () override { std::filesystem::remove_all (fDirectory); }

    std::wstring fDirectory = (std::filesystem::temp_directory_path () / L"PropertyListFiles \u00e9\u65e5").wstring ();
};

}

TEST (PlinthURL, EveryFormOfPathAndEveryFailure)
{
    NoLeaks noLeaks;
    const struct { const wchar_t * fPath; const char * fURL; } cases [] = {
        { L"C:\\Program Files\\x.plist", "file:///C:/Program%20Files/x.plist" },
        { L"\\\\server\\share\\x.plist", "file://server/share/x.plist" },
        { L"\\\\?\\C:\\x.plist", "file:///C:/x.plist" },
        { L"\\\\?\\UNC\\server\\share\\x.plist", "file://server/share/x.plist" },
        { L"C:\\\u00e9\u65e5\U0001F600.plist", "file:///C:/%C3%A9%E6%97%A5%F0%9F%98%80.plist" } };
    for (const auto & c : cases) {
        PlinthURL url (c.fPath, false);
        EXPECT_EQ (ANSIStringFromPlinth (PLURLGetString (url.Raw ()), 65001), c.fURL);
        EXPECT_FALSE (PLURLHasDirectoryPath (url.Raw ()));
    }
    std::filesystem::path temporary = std::filesystem::temp_directory_path ();
    EXPECT_TRUE (PLURLHasDirectoryPath (PlinthURL (temporary.wstring ()).Raw ()));
    SkerryTest::ExpectFailures ({
        { [&] { PlinthURL url ((temporary / L"missing.plist").wstring ()); }, "file system object does not exist | ConstructURL | Plinth" },
        { [&] { PlinthURL url ((temporary / L"missing\\x").wstring ()); }, "Win32 3 | Skerry::Miscellany::FileSystemObjectExists | Utilities" },
        { [&] { PlinthURL url (L"", false); }, "PLURLCreateWithFileSystemPath failed | ConstructURL | Plinth" },
        { SKERRY_FAILING ("Plinth.dll", PLStringCreateWithCharacters, (nullptr, 0), PlinthURL url (L"x", false)), kNull } });
}

// What is written reads back equal, whatever the path; the file is Plinth's binary format.
TEST_F (PropertyListFiles, EveryKindRoundTripsAtEveryPath)
{
    NoLeaks noLeaks;
    PlinthMutableDictionary every = EveryKind ();
    const std::wstring paths [] = { fDirectory + L"\\\u00e9t\u00e9 \U0001F600.plist",
        L"\\\\?\\" + fDirectory + L"\\" + std::wstring (240, L'n') + L".plist" };
    for (const std::wstring & path : paths) {
        every.Write (PlinthURL (path, false));
        EXPECT_EQ (Contents (path).substr (0, 8), "bplist00");
        EXPECT_TRUE (PlinthDictionary (PlinthURL (path)) == every);
        PlinthMutableDictionary (PlinthURL (path)).SetValue (PlinthString (L"more"), PlinthString (L"x"));
    }
    PlinthMutableDictionary ().Write (PlinthURL (paths [0], false));   // shorter: no tail of the longer file
    EXPECT_EQ (PlinthDictionary (PlinthURL (paths [0])).Count (), 0);
    EXPECT_TRUE (PlinthDictionary (PlinthData (every, 100).GetPropertyList (kPLPropertyListImmutable)) == every);
    // One left for plistlib and plist-tool to read.
    std::filesystem::create_directories (SKERRY_INTEROP_DIRECTORY);
    every.Write (PlinthURL ((std::filesystem::path (SKERRY_INTEROP_DIRECTORY) / "written.plist").wstring (), false));
}

TEST_F (PropertyListFiles, EveryFailureWithItsTextHoldingNothing)
{
    NoLeaks noLeaks;
    PlinthMutableDictionary every = EveryKind ();
    std::wstring good = fDirectory + L"\\good.plist";
    every.Write (PlinthURL (good, false));
    const std::string kept = Contents (good);
    std::ofstream (std::filesystem::path (fDirectory + L"\\array.plist"), std::ios::binary)
        << "<plist version=\"1.0\"><array><string>a</string></array></plist>";
    std::ofstream (std::filesystem::path (fDirectory + L"\\truncated.plist"), std::ios::binary) << kept.substr (0, kept.size () - 10);
    PlinthMutableDictionary unwritable;
    unwritable.SetValue (PlinthString (L"url"), PlinthURL (good, false));
    const std::string kWrite = " | WritePropertyListToFile | Plinth", kRead = " | ReadPropertyListFromStream | Plinth";
    auto read = [&] (const wchar_t * name) { return [=] { PlinthDictionary d (PlinthURL (fDirectory + name, false)); }; };
    PlinthURL other (fDirectory + L"\\other.plist", false);
    SkerryTest::ExpectFailures ({
        { SKERRY_FAILING ("Plinth.dll", PLWriteStreamCreateWithFile, (nullptr, 0), every.Write (other)), "PLWriteStreamCreateWithFile failed" + kWrite },
        { SKERRY_FAILING ("Plinth.dll", PLWriteStreamOpen, (0, 0), every.Write (other)), "PLWriteStreamOpen failed" + kWrite },
        { SKERRY_FAILING ("Plinth.dll", PLPropertyListWrite, (0, 0), every.Write (other)), "PLPropertyListWrite failed" + kWrite },
        { SKERRY_FAILING ("Plinth.dll", PLReadStreamCreateWithFile, (nullptr, 0), read (L"\\good.plist") ()), "PLReadStreamCreateWithFile failed" + kRead },
        { SKERRY_FAILING ("Plinth.dll", PLReadStreamOpen, (0, 0), read (L"\\good.plist") ()), "PLReadStreamOpen failed" + kRead },
        { SKERRY_FAILING ("Plinth.dll", PLPropertyListCreateWithStream, (nullptr, 0), read (L"\\good.plist") ()), "PLPropertyListCreateWithStream failed" + kRead },
        { read (L"\\missing.plist"), "PLReadStreamOpen failed" + kRead },
        { read (L"\\truncated.plist"), "PLPropertyListCreateWithStream failed" + kRead },
        { read (L"\\array.plist"), "property list is not dictionary | ConstructDictionaryFromURL | Plinth" },
        { [&] { every.Write (PlinthURL (fDirectory + L"\\missing\\x.plist", false)); }, "PLWriteStreamOpen failed" + kWrite },
        // A good file stays as it was when what replaces it can't be written, or the disk fills up.
        { [&] { unwritable.Write (PlinthURL (good, false)); }, "PLPropertyListWrite failed" + kWrite },
        { [&] { SKERRY_INTERPOSE_IN (full, L"Plinth.dll", "KERNEL32.dll", WriteFile); full.Fail (FALSE, ERROR_DISK_FULL);
              every.Write (PlinthURL (good, false)); }, "PLPropertyListWrite failed" + kWrite },
        { [&] { PlinthData d (unwritable, 200); }, kNull },
        { [&] { PlinthData (4, "junk", false).GetPropertyList (0); }, kNull },
        { [&] { PlinthData d (4, "junk", false); PLRelease (d.Detach ()); d.GetPropertyList (0); },
          "assertion failed: fObject | Skerry::PlinthData::GetPropertyList | LibSkerry/Plinth" } });
    EXPECT_EQ (Contents (good), kept);
    EXPECT_FALSE (std::filesystem::exists (fDirectory + L"\\missing"));
    // Nothing left beside the files: no sibling of a failed write.
    EXPECT_EQ (std::distance (std::filesystem::directory_iterator (fDirectory), std::filesystem::directory_iterator ()), 4);
}
