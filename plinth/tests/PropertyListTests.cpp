// Property lists: what plistlib wrote reads into equal values in both formats and every width;
// every hostile input fails with its reason and leaves nothing alive; what can't be written is
// refused; read options decide mutability; streams that can't open or write fail cleanly.
#include "PlinthTest.h"

#include <cmath>
#include <fstream>
#include <sstream>
#include <vector>

#ifdef _WIN32
#include "Interposer.h"
#endif

using namespace PlinthTest;

namespace {

std::string DataPath (std::string const & name)
{
    return std::string (PLINTH_TEST_DATA) + "/" + name;
}

std::string FileContents (std::string const & path)
{
    std::ostringstream contents;
    contents << std::ifstream (path, std::ios::binary).rdbuf ();
    return contents.str ();
}

std::vector<std::string> Lines (std::string const & path)
{
    std::vector<std::string> lines;
    std::istringstream text (FileContents (path));
    for (std::string line; std::getline (text, line);)
        lines.push_back (line);
    return lines;
}

PLDataRef CreateData (std::string const & bytes)
{
    return PLDataCreate (kPLAllocatorDefault, reinterpret_cast<uint8_t const *> (bytes.data ()), PLIndex (bytes.size ()));
}

// The value of `bytes`, or null with the reason in `reason`.
PLTypeRef Read (std::string const & bytes, PLOptionFlags options, std::string * reason = nullptr,
    PLPropertyListFormat * format = nullptr)
{
    Owned<PLDataRef> data (CreateData (bytes));
    PLStringRef error = nullptr;
    PLTypeRef value = PLPropertyListCreateWithData (kPLAllocatorDefault, data, options, format, &error);
    if (reason != nullptr)
        *reason = error == nullptr ? "" : UTF8 (error);
    PLRelease (error);
    return value;
}

std::string Write (PLTypeRef value, PLPropertyListFormat format, std::string * reason = nullptr)
{
    PLStringRef error = nullptr;
    Owned<PLDataRef> data (PLPropertyListCreateData (kPLAllocatorDefault, value, format, 0, &error));
    if (reason != nullptr)
        *reason = error == nullptr ? "" : UTF8 (error);
    PLRelease (error);
    return data.Get () == nullptr ? "(null)"
        : std::string (reinterpret_cast<char const *> (PLDataGetBytePtr (data)), std::size_t (PLDataGetLength (data)));
}

PLTypeRef ValueOf (PLDictionaryRef dictionary, char const * key)
{
    Owned<PLStringRef> name (CreateString (key));
    return PLDictionaryGetValue (dictionary, name);
}

PLMutableArrayRef CreateArray ()
{
    return PLArrayCreateMutable (kPLAllocatorDefault, 0, &kPLTypeArrayCallBacks);
}

}

TEST (PropertyListCorpus, WhatPlistlibWroteReadsIntoEqualValuesInEveryFormatAndWidth)
{
    NoLeaks noLeaks;
    std::vector<std::string> files = Lines (DataPath ("plistlib/index.txt"));
    ASSERT_GT (files.size (), 150u);
    for (std::string const & file : files) {
        std::string reason;
        PLPropertyListFormat format = PLPropertyListFormat (0);
        Owned<PLTypeRef> value (Read (FileContents (DataPath ("plistlib/" + file)), 0, &reason, &format));
        ASSERT_NE (value.Get (), nullptr) << file << ": " << reason;
        EXPECT_EQ (format, file.find (".xml") != std::string::npos ? kPLPropertyListXMLFormat : kPLPropertyListBinaryFormat);
        // Each other encoding of the same value (XML, other widths) reads into an equal one.
        std::string name = file.substr (0, file.find ('.'));
        if (file == name + ".binary" || name.find ("micro") != std::string::npos)
            continue;
        Owned<PLTypeRef> binary (Read (FileContents (DataPath ("plistlib/" + name + ".binary")), 0));
        bool sameNaN = name == "real_nan" && PLEqual (value, binary);   // NaN equals NaN in Plinth
        EXPECT_TRUE (PLEqual (value, binary) || sameNaN) << file;
    }
}

TEST (PropertyListCorpus, ValuesAreThoseThatPlistlibWrote)
{
    NoLeaks noLeaks;
    Owned<PLTypeRef> top (Read (FileContents (DataPath ("plistlib/dict_every_type.xml")), 0));
    PLDictionaryRef every = static_cast<PLDictionaryRef> (top.Get ());
    ASSERT_EQ (PLGetTypeID (every), PLDictionaryGetTypeID ());
    uint64_t big = 0;
    EXPECT_EQ (PLNumberGetType (static_cast<PLNumberRef> (ValueOf (every, "big"))), kPLNumberUInt64Type);
    EXPECT_TRUE (PLNumberGetValue (static_cast<PLNumberRef> (ValueOf (every, "big")), kPLNumberUInt64Type, &big));
    EXPECT_EQ (big, UINT64_MAX);
    int64_t integer = 0;
    PLNumberGetValue (static_cast<PLNumberRef> (ValueOf (every, "integer")), kPLNumberSInt64Type, &integer);
    EXPECT_EQ (integer, -42);
    EXPECT_EQ (Units (static_cast<PLStringRef> (ValueOf (every, "unicode"))), u"Grüße \U0001F600");
    EXPECT_EQ (PLDateGetAbsoluteTime (static_cast<PLDateRef> (ValueOf (every, "date"))), 731245384.0);
    PLDataRef data = static_cast<PLDataRef> (ValueOf (every, "data"));
    ASSERT_EQ (PLDataGetLength (data), 4);
    EXPECT_EQ (PLDataGetBytePtr (data) [3], 0xFF);
    EXPECT_EQ (ValueOf (every, "true"), static_cast<PLTypeRef> (kPLBooleanTrue));

    Owned<PLTypeRef> zero (Read (FileContents (DataPath ("plistlib/real_minus_zero.binary")), 0));
    double real = 0;
    PLNumberGetValue (static_cast<PLNumberRef> (zero.Get ()), kPLNumberFloat64Type, &real);
    EXPECT_TRUE (std::signbit (real));
    Owned<PLTypeRef> first (Read (FileContents (DataPath ("plistlib/date_first.xml")), 0));
    EXPECT_EQ (PLDateGetAbsoluteTime (static_cast<PLDateRef> (first.Get ())), -63113904000.0);
}

TEST (PropertyListCorpus, XMLInUTF16AndLatin1ReadsAsInUTF8)
{
    NoLeaks noLeaks;
    std::string utf8 = "<?xml version=\"1.0\"?><plist><string>Gr\xC3\xBC\xC3\x9F\xC3\xA9 \xF0\x9F\x98\x80</string></plist>";
    Owned<PLTypeRef> expected (Read (utf8, 0));
    ASSERT_NE (expected.Get (), nullptr);
    // UTF-16LE with its mark: every character as its units, the emoji as a surrogate pair.
    Owned<PLStringRef> text (CreateString (utf8.c_str ()));
    std::u16string units = Units (text);
    std::string utf16 = "\xFF\xFE";
    for (char16_t unit : units)
        utf16 += std::string { char (unit & 0xFF), char (unit >> 8) };
    Owned<PLTypeRef> fromUTF16 (Read (utf16, 0));
    EXPECT_TRUE (PLEqual (fromUTF16, expected));
    std::string latin1 = "<?xml version=\"1.0\" encoding=\"ISO-8859-1\"?><plist><string>Gr\xFC\xDF\xE9</string></plist>";
    Owned<PLTypeRef> fromLatin1 (Read (latin1, 0));
    EXPECT_EQ (Units (static_cast<PLStringRef> (fromLatin1.Get ())), u"Gr\u00FC\u00DF\u00E9");
}

TEST (PropertyListHardening, EveryHostileInputFailsWithItsReasonAndLeavesNothing)
{
    std::vector<std::string> lines = Lines (DataPath ("hostile/index.txt"));
    ASSERT_GT (lines.size (), 80u);
    for (std::string const & line : lines) {
        std::size_t bar = line.find ('|');
        std::string file = line.substr (0, bar);
        PLOptionFlags options = PLOptionFlags (std::stoul (line.substr (bar + 1)));
        std::string expected = line.substr (line.find ('|', bar + 1) + 1);
        NoLeaks noLeaks;
        std::string reason;
        Owned<PLTypeRef> value (Read (FileContents (DataPath ("hostile/" + file)), options, &reason));
        EXPECT_EQ (value.Get (), nullptr) << file;
        EXPECT_EQ (reason.substr (0, expected.size ()), expected) << file;
    }
}

TEST (PropertyListHardening, ReasonsNameTheByteAndSharedObjectsStaySharedWhenImmutable)
{
    NoLeaks noLeaks;
    std::string reason;
    Owned<PLTypeRef> none (Read (FileContents (DataPath ("hostile/reference-outside.binary")), 0, &reason));
    EXPECT_EQ (reason, "binary property list: reference outside the object count (at byte 9)");
    // 2^60 leaves when copied out, 60 arrays when shared: immutable results share.
    std::string doubling = FileContents (DataPath ("hostile/expansion-60.binary"));
    Owned<PLTypeRef> shared (Read (doubling, kPLPropertyListImmutable, &reason));
    ASSERT_NE (shared.Get (), nullptr) << reason;
    PLArrayRef top = static_cast<PLArrayRef> (shared.Get ());
    EXPECT_EQ (PLArrayGetValueAtIndex (top, 0), PLArrayGetValueAtIndex (top, 1));
    EXPECT_EQ (Read (doubling, kPLPropertyListMutableContainers), nullptr);
    // Nesting as deep as allowed reads; the limit is the same when writing.
    std::string arrays;
    for (int i = 0; i < 512; ++i)
        arrays += "<array>";
    arrays += "<true/>";
    for (int i = 0; i < 512; ++i)
        arrays += "</array>";
    Owned<PLTypeRef> nested (Read ("<plist>" + arrays + "</plist>", 0, &reason));
    ASSERT_NE (nested.Get (), nullptr) << reason;
    EXPECT_NE (Write (nested, kPLPropertyListBinaryFormat), "(null)");
    Owned<PLMutableArrayRef> outer (CreateArray ());
    PLArrayAppendValue (outer, nested);
    EXPECT_EQ (Write (outer, kPLPropertyListXMLFormat, &reason), "(null)");
    EXPECT_EQ (reason, "XML property list: containers nested too deeply (or holding themselves)");
}

TEST (PropertyListWriting, WhatNoFormatCanHoldIsRefusedWithAReason)
{
    NoLeaks noLeaks;
    std::string reason;
    Owned<PLMutableArrayRef> cycle (CreateArray ());
    PLArrayAppendValue (cycle, cycle);
    EXPECT_EQ (Write (cycle, kPLPropertyListBinaryFormat, &reason), "(null)");
    EXPECT_EQ (reason, "binary property list: a container that holds itself");
    PLArrayRemoveAllValues (cycle);

    Owned<PLMutableDictionaryRef> numberKey (PLDictionaryCreateMutable (kPLAllocatorDefault, 0,
        &kPLTypeDictionaryKeyCallBacks, &kPLTypeDictionaryValueCallBacks));
    int32_t one = 1;
    Owned<PLNumberRef> number (PLNumberCreate (kPLAllocatorDefault, kPLNumberSInt32Type, &one));
    PLDictionarySetValue (numberKey, number, number);
    EXPECT_EQ (Write (numberKey, kPLPropertyListXMLFormat, &reason), "(null)");
    EXPECT_EQ (reason, "XML property list: a dictionary key that is not a string");

    Owned<PLDateRef> late (PLDateCreate (kPLAllocatorDefault, 252423993600.0));
    EXPECT_EQ (Write (late, kPLPropertyListBinaryFormat, &reason), "(null)");
    EXPECT_EQ (reason, "binary property list: a date outside years 1 to 9999");

    Owned<PLStringRef> lone (CreateString (std::u16string (1, char16_t (0xD800))));
    EXPECT_EQ (Write (lone, kPLPropertyListBinaryFormat, &reason), "(null)");
    EXPECT_EQ (reason, "binary property list: a string with an unpaired surrogate");
    // A control character fits the binary format, not XML; CR survives XML as a reference.
    Owned<PLStringRef> control (CreateString ("a\x01"));
    EXPECT_NE (Write (control, kPLPropertyListBinaryFormat), "(null)");
    EXPECT_EQ (Write (control, kPLPropertyListXMLFormat, &reason), "(null)");
    EXPECT_EQ (reason, "XML property list: a string with a character that XML cannot hold");
    Owned<PLStringRef> cr (CreateString ("a\r\nb"));
    std::string xml = Write (cr, kPLPropertyListXMLFormat);
    EXPECT_NE (xml.find ("<string>a&#13;\nb</string>"), std::string::npos);
    Owned<PLTypeRef> back (Read (xml, 0));
    EXPECT_TRUE (PLEqual (back, cr));

    Owned<PLURLRef> url (PLURLCreateWithFileSystemPath (kPLAllocatorDefault, PLSTR ("a"), kPLURLPOSIXPathStyle, false));
    EXPECT_EQ (Write (url, kPLPropertyListBinaryFormat, &reason), "(null)");
    EXPECT_EQ (reason, "binary property list: an object of a kind that property lists cannot hold");
    EXPECT_FALSE (PLPropertyListIsValid (url, kPLPropertyListXMLFormat));
    EXPECT_EQ (Write (number, PLPropertyListFormat (300), &reason), "(null)");
    EXPECT_EQ (reason, "binary property list: unknown format");
}

TEST (PropertyListOptions, ContainersAndLeavesAreMutableAsAsked)
{
    NoLeaks noLeaks;
    std::string file = FileContents (DataPath ("plistlib/data_nested.binary"));
    for (PLOptionFlags options : { 0, 1, 2 }) {
        Owned<PLTypeRef> top (Read (file, options));
        PLMutableDictionaryRef dictionary = const_cast<PLMutableDictionaryRef> (static_cast<PLDictionaryRef> (top.Get ()));
        PLMutableArrayRef array = const_cast<PLMutableArrayRef> (static_cast<PLArrayRef> (ValueOf (dictionary, "b")));
        PLMutableDataRef data = const_cast<PLMutableDataRef> (static_cast<PLDataRef> (PLArrayGetValueAtIndex (array, 0)));
        PLDictionarySetValue (dictionary, PLSTR ("new"), kPLBooleanTrue);
        PLArrayAppendValue (array, kPLBooleanTrue);
        EXPECT_EQ (PLDictionaryGetCount (dictionary), options == 0 ? 2 : 3);
        EXPECT_EQ (PLArrayGetCount (array), options == 0 ? 1 : 2);
        EXPECT_EQ (PLDataGetMutableBytePtr (data) != nullptr, options == 2);
    }
    std::string reason;
    EXPECT_EQ (Read (file, 3, &reason), nullptr);
    EXPECT_EQ (reason, "property list: unknown read options");
}

TEST (PropertyListStreams, FilesRoundTripAndFailingStreamsFailCleanly)
{
    ScratchPreferences scratch;
    NoLeaks noLeaks;
    Owned<PLTypeRef> value (Read (FileContents (DataPath ("plistlib/dict_every_type.binary")), 0));
    Owned<PLStringRef> path (CreateString (scratch.File ("every.plist").c_str ()));
#ifdef _WIN32
    PLURLPathStyle style = kPLURLWindowsPathStyle;
#else
    PLURLPathStyle style = kPLURLPOSIXPathStyle;
#endif
    Owned<PLURLRef> url (PLURLCreateWithFileSystemPath (kPLAllocatorDefault, path, style, false));
    {
        Owned<PLWriteStreamRef> stream (PLWriteStreamCreateWithFile (kPLAllocatorDefault, url));
        EXPECT_EQ (PLPropertyListWrite (value, stream, kPLPropertyListBinaryFormat, 0, nullptr), 0);   // not open
        ASSERT_TRUE (PLWriteStreamOpen (stream));
        EXPECT_FALSE (PLWriteStreamOpen (stream));
        PLIndex written = PLPropertyListWrite (value, stream, kPLPropertyListBinaryFormat, 0, nullptr);
        EXPECT_EQ (std::size_t (written), FileContents (DataPath ("plistlib/dict_every_type.binary")).size ());
    }   // the release closes the file
    EXPECT_EQ (FileContents (scratch.File ("every.plist")), FileContents (DataPath ("plistlib/dict_every_type.binary")));
    {
        Owned<PLReadStreamRef> stream (PLReadStreamCreateWithFile (kPLAllocatorDefault, url));
        ASSERT_TRUE (PLReadStreamOpen (stream));
        PLPropertyListFormat format = kPLPropertyListXMLFormat;
        Owned<PLTypeRef> back (PLPropertyListCreateWithStream (kPLAllocatorDefault, stream, 0, 0, &format, nullptr));
        EXPECT_TRUE (PLEqual (back, value));
        EXPECT_EQ (format, kPLPropertyListBinaryFormat);
        PLReadStreamClose (stream);
        PLStringRef error = nullptr;
        EXPECT_EQ (PLPropertyListCreateWithStream (kPLAllocatorDefault, stream, 0, 0, nullptr, &error), nullptr);
        EXPECT_EQ (UTF8 (error), "property list: the stream can't be read");
        PLRelease (error);
    }
    {
        // A length cuts the stream short: the trailer is missing.
        Owned<PLReadStreamRef> stream (PLReadStreamCreateWithFile (kPLAllocatorDefault, url));
        ASSERT_TRUE (PLReadStreamOpen (stream));
        EXPECT_EQ (PLPropertyListCreateWithStream (kPLAllocatorDefault, stream, 100, 0, nullptr, nullptr), nullptr);
    }
    Owned<PLStringRef> missingPath (CreateString (scratch.File ("missing.plist").c_str ()));
    Owned<PLURLRef> missing (PLURLCreateWithFileSystemPath (kPLAllocatorDefault, missingPath, style, false));
    Owned<PLReadStreamRef> unopened (PLReadStreamCreateWithFile (kPLAllocatorDefault, missing));
    EXPECT_FALSE (PLReadStreamOpen (unopened));
    Owned<PLStringRef> directoryPath (CreateString (scratch.Directory ().c_str ()));
    Owned<PLURLRef> directory (PLURLCreateWithFileSystemPath (kPLAllocatorDefault, directoryPath, style, true));
    Owned<PLWriteStreamRef> onDirectory (PLWriteStreamCreateWithFile (kPLAllocatorDefault, directory));
    EXPECT_FALSE (PLWriteStreamOpen (onDirectory));
    EXPECT_EQ (PLReadStreamCreateWithFile (kPLAllocatorDefault, reinterpret_cast<PLURLRef> (path.Get ())), nullptr);
}

TEST (PropertyListStreams, AFailingWriteGivesZero)
{
    NoLeaks noLeaks;
    Owned<PLStringRef> text (CreateString ("x"));
#ifdef _WIN32
    ScratchPreferences scratch;
    Owned<PLStringRef> path (CreateString (scratch.File ("failing.plist").c_str ()));
    Owned<PLURLRef> url (PLURLCreateWithFileSystemPath (kPLAllocatorDefault, path, kPLURLWindowsPathStyle, false));
    SKERRY_INTERPOSE_IN (writeFile, L"Plinth.dll", "KERNEL32.dll", WriteFile);
    writeFile.Fail (FALSE, ERROR_DISK_FULL);
#else
    // A device that is always full.
    Owned<PLURLRef> url (PLURLCreateWithFileSystemPath (kPLAllocatorDefault, PLSTR ("/dev/full"), kPLURLPOSIXPathStyle, false));
#endif
    Owned<PLWriteStreamRef> stream (PLWriteStreamCreateWithFile (kPLAllocatorDefault, url));
    ASSERT_TRUE (PLWriteStreamOpen (stream));
    PLStringRef error = nullptr;
    EXPECT_EQ (PLPropertyListWrite (text, stream, kPLPropertyListXMLFormat, 0, &error), 0);
    EXPECT_EQ (UTF8 (error), "property list: the stream can't be written");
    PLRelease (error);
    // The stream failed: nothing more is written.
    EXPECT_EQ (PLWriteStreamWrite (stream, reinterpret_cast<uint8_t const *> ("x"), 1), -1);
}
