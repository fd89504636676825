// Property lists: what plistlib wrote reads into equal values in both formats and every width;
// every hostile input fails with its reason and leaves nothing alive; what can't be written is
// refused; read options decide mutability; streams that can't open or write fail cleanly.
#include "PlinthTest.h"

#include <sstream>
#include <vector>

#ifdef _WIN32
#include "Interposer.h"
#endif

using namespace PlinthTest;

namespace {

std::string Data (std::string const & name)
{
    return ScratchPreferences::ReadFile (std::string (PLINTH_TEST_DATA) + "/" + name);
}

std::vector<std::string> Lines (std::string const & name)
{
    std::vector<std::string> lines;
    std::istringstream text (Data (name));
    for (std::string line; std::getline (text, line);)
        lines.push_back (line);
    return lines;
}

// The bytes of `value` in `format`, or "(null)" and the reason.
std::string Write (PLTypeRef value, PLPropertyListFormat format, std::string * reason = nullptr)
{
    PLStringRef error = nullptr;
    Owned<PLDataRef> data (PLPropertyListCreateData (kPLAllocatorDefault, value, format, 0, &error));
    std::string text = Reason (error);
    if (reason != nullptr)
        *reason = text;
    return data.Get () == nullptr ? "(null)"
        : std::string (reinterpret_cast<char const *> (PLDataGetBytePtr (data)), std::size_t (PLDataGetLength (data)));
}

template <typename Ref = PLTypeRef>
Ref ValueOf (PLTypeRef dictionary, char const * key)
{
    return static_cast<Ref> (PLDictionaryGetValue (static_cast<PLDictionaryRef> (dictionary), Owned<PLStringRef> (CreateString (key))));
}

}

TEST (PropertyListCorpus, WhatPlistlibWroteReadsIntoEqualValuesInEveryFormatAndWidth)
{
    NoLeaks noLeaks;
    std::vector<std::string> files = Lines ("plistlib/index.txt");
    ASSERT_GT (files.size (), 150u);
    for (std::string const & file : files) {
        std::string reason;
        PLPropertyListFormat format = PLPropertyListFormat (0);
        Owned<PLTypeRef> value (Parse (Data ("plistlib/" + file), 0, &reason, &format));
        ASSERT_NE (value.Get (), nullptr) << file << ": " << reason;
        EXPECT_EQ (format, file.find (".xml") != std::string::npos ? kPLPropertyListXMLFormat : kPLPropertyListBinaryFormat);
        // Each other encoding of the same value (XML, other widths) reads into an equal one.
        std::string name = file.substr (0, file.find ('.'));
        if (file == name + ".binary" || name.find ("micro") != std::string::npos)
            continue;
        Owned<PLTypeRef> binary (Parse (Data ("plistlib/" + name + ".binary"), 0));
        EXPECT_TRUE (PLEqual (value, binary)) << file;   // NaN equals NaN in Plinth
    }
    // The native test Interop has plistlib check every value; these are the ones that a 32-bit
    // build could get wrong while both formats still agree.
    Owned<PLTypeRef> every (Parse (Data ("plistlib/dict_every_type.xml"), 0)), first (Parse (Data ("plistlib/date_first.xml"), 0));
    uint64_t big = 0;
    int64_t integer = 0;
    EXPECT_EQ (PLNumberGetType (ValueOf<PLNumberRef> (every, "big")), kPLNumberUInt64Type);
    EXPECT_TRUE (PLNumberGetValue (ValueOf<PLNumberRef> (every, "big"), kPLNumberUInt64Type, &big) && big == UINT64_MAX);
    EXPECT_TRUE (PLNumberGetValue (ValueOf<PLNumberRef> (every, "integer"), kPLNumberSInt64Type, &integer) && integer == -42);
    EXPECT_EQ (PLDateGetAbsoluteTime (ValueOf<PLDateRef> (every, "date")), 731245384.0);
    EXPECT_EQ (PLDateGetAbsoluteTime (static_cast<PLDateRef> (first.Get ())), -63113904000.0);
}

TEST (PropertyListCorpus, XMLInUTF16AndLatin1ReadsAsInUTF8)
{
    NoLeaks noLeaks;
    std::string utf8 = "<?xml version=\"1.0\"?><plist><string>Gr\xC3\xBC\xC3\x9F\xC3\xA9 \xF0\x9F\x98\x80</string></plist>";
    // UTF-16LE with its mark: every character as its units, the emoji as a surrogate pair.
    std::string utf16 = "\xFF\xFE";
    for (char16_t unit : Units (Owned<PLStringRef> (CreateString (utf8.c_str ()))))
        utf16 += std::string { char (unit & 0xFF), char (unit >> 8) };
    Owned<PLTypeRef> expected (Parse (utf8, 0)), fromUTF16 (Parse (utf16, 0));
    EXPECT_TRUE (expected.Get () != nullptr && PLEqual (fromUTF16, expected));
    std::string latin1 = "<?xml version=\"1.0\" encoding=\"ISO-8859-1\"?><plist><string>Gr\xFC\xDF\xE9</string></plist>";
    Owned<PLTypeRef> fromLatin1 (Parse (latin1, 0));
    EXPECT_EQ (Units (static_cast<PLStringRef> (fromLatin1.Get ())), u"Gr\u00FC\u00DF\u00E9");
}

TEST (PropertyListHardening, EveryHostileInputFailsWithItsReasonAndLeavesNothing)
{
    std::vector<std::string> lines = Lines ("hostile/index.txt");
    ASSERT_GT (lines.size (), 80u);
    for (std::string const & line : lines) {
        std::size_t bar = line.find ('|');
        std::string file = line.substr (0, bar), expected = line.substr (line.find ('|', bar + 1) + 1), reason;
        NoLeaks noLeaks;
        Owned<PLTypeRef> value (Parse (Data ("hostile/" + file), PLOptionFlags (std::stoul (line.substr (bar + 1))), &reason));
        EXPECT_EQ (value.Get (), nullptr) << file;
        EXPECT_EQ (reason.substr (0, expected.size ()), expected) << file;
    }
}

TEST (PropertyListHardening, ReasonsNameTheByteAndSharedObjectsStaySharedWhenImmutable)
{
    NoLeaks noLeaks;
    std::string reason;
    Owned<PLTypeRef> none (Parse (Data ("hostile/reference-outside.binary"), 0, &reason));
    EXPECT_EQ (reason, "binary property list: reference outside the object count (at byte 9)");
    // Object i an array of object i+1 twice, the last true: a tree of 2^(n+1)-1 objects, shared
    // when immutable while its indented lines cost at most 1 MiB + 32 per byte of input: 983,041
    // at 15 levels, 2,097,153 at 16 (2^60 is refused in both ways: index.txt).
    auto doubling = [] (int levels) {
        std::string out = "bplist00", table, trailer (32, '\0');
        for (int i = 0; i <= levels; ++i) {
            table += char (out.size ());
            out += i < levels ? std::string { '\xA2', char (i + 1), char (i + 1) } : std::string ("\x09");
        }
        trailer [6] = trailer [7] = 1, trailer [15] = char (levels + 1), trailer [31] = char (out.size ());
        return out + table + trailer;
    };
    Owned<PLTypeRef> shared (Parse (doubling (15), kPLPropertyListImmutable, &reason));
    ASSERT_NE (shared.Get (), nullptr) << reason;
    PLArrayRef top = static_cast<PLArrayRef> (shared.Get ());
    EXPECT_EQ (PLArrayGetValueAtIndex (top, 0), PLArrayGetValueAtIndex (top, 1));
    EXPECT_EQ (Parse (doubling (16), kPLPropertyListImmutable, &reason), nullptr);
    EXPECT_EQ (reason, "binary property list: shared objects expand beyond 1 MiB + 32 times the input's size (at byte 9)");
    // Empty containers read immutable are one object, mutable ones each their own.
    Owned<PLArrayRef> empties (static_cast<PLArrayRef> (Parse ("<plist><array><dict/><array/><dict/><array/></array></plist>", 0)));
    Owned<PLArrayRef> copies (static_cast<PLArrayRef> (Parse ("<plist><array><dict/><dict/></array></plist>", 1)));
    EXPECT_TRUE (PLArrayGetValueAtIndex (empties, 0) == PLArrayGetValueAtIndex (empties, 2) && PLArrayGetValueAtIndex (empties, 1)
        == PLArrayGetValueAtIndex (empties, 3) && PLArrayGetValueAtIndex (copies, 0) != PLArrayGetValueAtIndex (copies, 1));
    // Nesting as deep as allowed reads; the limit is the same when writing.
    std::string arrays = "<true/>";
    for (int i = 0; i < 512; ++i)
        arrays = "<array>" + arrays + "</array>";
    Owned<PLTypeRef> nested (Parse ("<plist>" + arrays + "</plist>", 0, &reason));
    ASSERT_NE (nested.Get (), nullptr) << reason;
    EXPECT_NE (Write (nested, kPLPropertyListBinaryFormat), "(null)");
    Owned<PLMutableArrayRef> outer (PLArrayCreateMutable (kPLAllocatorDefault, 0, &kPLTypeArrayCallBacks));
    PLArrayAppendValue (outer, nested);
    EXPECT_EQ (Write (outer, kPLPropertyListXMLFormat, &reason), "(null)");
    EXPECT_EQ (reason, "XML property list: containers nested too deeply (or holding themselves)");
}

TEST (PropertyListWriting, WhatNoFormatCanHoldIsRefusedWithAReason)
{
    NoLeaks noLeaks;
    Owned<PLMutableArrayRef> cycle (PLArrayCreateMutable (kPLAllocatorDefault, 0, &kPLTypeArrayCallBacks));
    PLArrayAppendValue (cycle, cycle);
    Owned<PLMutableDictionaryRef> numberKey (PLDictionaryCreateMutable (kPLAllocatorDefault, 0,
        &kPLTypeDictionaryKeyCallBacks, &kPLTypeDictionaryValueCallBacks));
    Owned<PLNumberRef> number (Integer (1));
    PLDictionarySetValue (numberKey, number, number);
    Owned<PLDateRef> late (PLDateCreate (kPLAllocatorDefault, 252423993600.0));
    Owned<PLStringRef> lone (CreateString (std::u16string (1, char16_t (0xD800)))), control (CreateString ("a\x01"));
    Owned<PLURLRef> url (PLURLCreateWithFileSystemPath (kPLAllocatorDefault, PLSTR ("a"), kPLURLPOSIXPathStyle, false));
    PLPropertyListFormat const kBinary = kPLPropertyListBinaryFormat, kXML = kPLPropertyListXMLFormat;
    const struct { PLTypeRef fValue; int fFormat; char const * fReason; } cases [] = {
        { cycle, kBinary, "binary property list: a container that holds itself" },
        { numberKey, kXML, "XML property list: a dictionary key that is not a string" },
        { late, kBinary, "binary property list: a date outside years 1 to 9999" },
        { lone, kBinary, "binary property list: a string with an unpaired surrogate" },
        // A control character fits the binary format, not XML.
        { control, kXML, "XML property list: a string with a character that XML cannot hold" },
        { url, kBinary, "binary property list: an object of a kind that property lists cannot hold" },
        { number, 300, "binary property list: unknown format" },
    };
    for (auto const & c : cases) {
        std::string reason;
        EXPECT_EQ (Write (c.fValue, PLPropertyListFormat (c.fFormat), &reason), "(null)");
        EXPECT_EQ (reason, c.fReason);
    }
    PLArrayRemoveAllValues (cycle);
    EXPECT_NE (Write (control, kBinary), "(null)");
    EXPECT_FALSE (PLPropertyListIsValid (url, kXML));
    // CR survives XML as a reference.
    Owned<PLStringRef> cr (CreateString ("a\r\nb"));
    std::string xml = Write (cr, kXML);
    EXPECT_NE (xml.find ("<string>a&#13;\nb</string>"), std::string::npos);
    EXPECT_TRUE (PLEqual (Owned<PLTypeRef> (Parse (xml, 0)), cr));
}

TEST (PropertyListOptions, ContainersAndLeavesAreMutableAsAsked)
{
    NoLeaks noLeaks;
    std::string file = Data ("plistlib/data_nested.binary");
    for (PLOptionFlags options : { 0, 1, 2 }) {
        Owned<PLTypeRef> top (Parse (file, options));
        auto dictionary = const_cast<PLMutableDictionaryRef> (static_cast<PLDictionaryRef> (top.Get ()));
        auto array = const_cast<PLMutableArrayRef> (ValueOf<PLArrayRef> (dictionary, "b"));
        auto data = const_cast<PLMutableDataRef> (static_cast<PLDataRef> (PLArrayGetValueAtIndex (array, 0)));
        PLDictionarySetValue (dictionary, PLSTR ("new"), kPLBooleanTrue);
        PLArrayAppendValue (array, kPLBooleanTrue);
        EXPECT_EQ (PLDictionaryGetCount (dictionary), options == 0 ? 2 : 3);
        EXPECT_EQ (PLArrayGetCount (array), options == 0 ? 1 : 2);
        EXPECT_EQ (PLDataGetMutableBytePtr (data) != nullptr, options == 2);
    }
    std::string reason;
    EXPECT_EQ (Parse (file, 3, &reason), nullptr);
    EXPECT_EQ (reason, "property list: unknown read options");
}

TEST (PropertyListStreams, FilesRoundTripAndFailingStreamsFailCleanly)
{
    ScratchPreferences scratch;
    NoLeaks noLeaks;
    std::string every = Data ("plistlib/dict_every_type.binary");
    Owned<PLTypeRef> value (Parse (every, 0));
    Owned<PLURLRef> url (FileURL (scratch.File ("every.plist")));
    {
        Owned<PLWriteStreamRef> stream (PLWriteStreamCreateWithFile (kPLAllocatorDefault, url));
        EXPECT_EQ (PLPropertyListWrite (value, stream, kPLPropertyListBinaryFormat, 0, nullptr), 0);   // not open
        ASSERT_TRUE (PLWriteStreamOpen (stream));
        EXPECT_FALSE (PLWriteStreamOpen (stream));
        EXPECT_EQ (std::size_t (PLPropertyListWrite (value, stream, kPLPropertyListBinaryFormat, 0, nullptr)), every.size ());
    }   // the release closes the file
    EXPECT_EQ (ScratchPreferences::ReadFile (scratch.File ("every.plist")), every);
    for (PLIndex length : { 0, 100 }) {    // a length that cuts the stream short leaves the trailer out
        Owned<PLReadStreamRef> stream (PLReadStreamCreateWithFile (kPLAllocatorDefault, url));
        ASSERT_TRUE (PLReadStreamOpen (stream));
        PLPropertyListFormat format = kPLPropertyListXMLFormat;
        Owned<PLTypeRef> back (PLPropertyListCreateWithStream (kPLAllocatorDefault, stream, length, 0, &format, nullptr));
        EXPECT_TRUE (length == 0 ? PLEqual (back, value) && format == kPLPropertyListBinaryFormat : back.Get () == nullptr);
        PLReadStreamClose (stream);
        PLStringRef error = nullptr;
        EXPECT_EQ (PLPropertyListCreateWithStream (kPLAllocatorDefault, stream, 0, 0, nullptr, &error), nullptr);
        EXPECT_EQ (Reason (error), "property list: the stream can't be read");
    }
    Owned<PLURLRef> missing (FileURL (scratch.File ("missing.plist"))), directory (FileURL (scratch.Directory (), true));
    EXPECT_FALSE (PLReadStreamOpen (Owned<PLReadStreamRef> (PLReadStreamCreateWithFile (kPLAllocatorDefault, missing))));
    EXPECT_FALSE (PLWriteStreamOpen (Owned<PLWriteStreamRef> (PLWriteStreamCreateWithFile (kPLAllocatorDefault, directory))));
    EXPECT_EQ (PLReadStreamCreateWithFile (kPLAllocatorDefault, reinterpret_cast<PLURLRef> (PLSTR ("x"))), nullptr);
    // A stream that shows neither format in its first bytes is refused there, not read to its end.
#ifdef _WIN32
    ScratchPreferences::WriteFile (scratch.File ("junk"), std::string (300000, 'x'));
    Owned<PLURLRef> junk (FileURL (scratch.File ("junk")));
    SKERRY_INTERPOSE_IN (readFile, L"Plinth.dll", "KERNEL32.dll", ReadFile);
#else
    Owned<PLURLRef> junk (FileURL ("/dev/zero"));   // endless
#endif
    Owned<PLReadStreamRef> junkStream (PLReadStreamCreateWithFile (kPLAllocatorDefault, junk));
    ASSERT_TRUE (PLReadStreamOpen (junkStream));
    PLStringRef junkError = nullptr;
    EXPECT_EQ (PLPropertyListCreateWithStream (kPLAllocatorDefault, junkStream, 0, 0, nullptr, &junkError), nullptr);
    EXPECT_EQ (Reason (junkError), "property list: neither a binary (bplist00) nor an XML property list (at byte 0)");
#ifdef _WIN32
    EXPECT_EQ (readFile.Calls (), 1u);
#endif

    // A write that fails gives zero, and the stream writes nothing more.
#ifdef _WIN32
    Owned<PLURLRef> full (FileURL (scratch.File ("failing.plist")));
    SKERRY_INTERPOSE_IN (writeFile, L"Plinth.dll", "KERNEL32.dll", WriteFile);
    writeFile.Fail (FALSE, ERROR_DISK_FULL);
#else
    Owned<PLURLRef> full (FileURL ("/dev/full"));   // a device that is always full
#endif
    Owned<PLWriteStreamRef> stream (PLWriteStreamCreateWithFile (kPLAllocatorDefault, full));
    ASSERT_TRUE (PLWriteStreamOpen (stream));
    PLStringRef error = nullptr;
    EXPECT_EQ (PLPropertyListWrite (PLSTR ("x"), stream, kPLPropertyListXMLFormat, 0, &error), 0);
    EXPECT_EQ (Reason (error), "property list: the stream can't be written");
    EXPECT_EQ (PLWriteStreamWrite (stream, reinterpret_cast<uint8_t const *> ("x"), 1), -1);
}
