// Strings: decoding of each encoding (and refusal of invalid bytes), encoding back with loss bytes
// and byte-order marks, no-copy creation, substrings.
#include "PlinthTest.h"

#include <vector>

using namespace PlinthTest;

namespace {

PLStringRef FromBytes (std::vector<uint8_t> const & bytes, PLStringEncoding encoding, bool external = false)
{
    return PLStringCreateWithBytes (kPLAllocatorDefault, bytes.data (), PLIndex (bytes.size ()), encoding, external);
}

std::vector<uint8_t> Bytes (PLDataRef data)
{
    return std::vector<uint8_t> (PLDataGetBytePtr (data), PLDataGetBytePtr (data) + PLDataGetLength (data));
}

}

TEST (String, EachEncodingDecodes)
{
    NoLeaks noLeaks;
    struct Case { std::vector<uint8_t> fBytes; PLStringEncoding fEncoding; bool fExternal; std::u16string fUnits; };
    std::vector<Case> cases {
        { { 'a', 'Z', 0 }, kPLStringEncodingASCII, false, std::u16string (u"aZ\0", 3) },
        { { 0xC3, 0xA4, 0xE2, 0x82, 0xAC, 0xF0, 0x9F, 0x98, 0x80 }, kPLStringEncodingUTF8, false, u"\u00E4\u20AC\U0001F600" },
        { { 0xEF, 0xBB, 0xBF, 'x' }, kPLStringEncodingUTF8, true, u"x" },
        { { 0xEF, 0xBB, 0xBF, 'x' }, kPLStringEncodingUTF8, false, u"\uFEFFx" },
        { { 0x80, 0xE4, 0xFF }, kPLStringEncodingISOLatin1, false, u"\u0080\u00E4\u00FF" },
        { { 0x80, 0x9F, 0xE4 }, kPLStringEncodingWindowsLatin1, false, u"\u20AC\u0178\u00E4" },
        { { 0xFF, 0xFE, 'a', 0, 0x34, 0x12 }, kPLStringEncodingUTF16, true, u"a\u1234" },
        { { 0xFE, 0xFF, 0, 'a', 0x12, 0x34 }, kPLStringEncodingUTF16, true, u"a\u1234" },
        { { 0, 'a', 0x12, 0x34 }, kPLStringEncodingUTF16, true, u"a\u1234" },   // no mark: big-endian
        { { 'a', 0, 0x34, 0x12 }, kPLStringEncodingUTF16, false, u"a\u1234" },  // host order (little-endian)
        { { 0, 'a' }, kPLStringEncodingUTF16BE, false, u"a" },
        { { 0xFF, 0xFE, 'a', 0 }, kPLStringEncodingUTF16LE, true, u"\uFEFFa" },   // explicit order: a mark is text
        { {}, kPLStringEncodingUTF8, false, u"" },
    };
    for (Case const & c : cases) {
        Owned<PLStringRef> s (FromBytes (c.fBytes, c.fEncoding, c.fExternal));
        ASSERT_NE (s.Get (), nullptr) << std::hex << c.fEncoding;
        EXPECT_EQ (Units (s), c.fUnits) << std::hex << c.fEncoding;
    }
}

TEST (String, InvalidBytesAndUnknownEncodingsGiveNull)
{
    NoLeaks noLeaks;
    std::vector<std::pair<std::vector<uint8_t>, PLStringEncoding>> cases {
        { { 'a', 0x80 }, kPLStringEncodingASCII },
        { { 0xC0, 0x80 }, kPLStringEncodingUTF8 },               // overlong
        { { 0xED, 0xA0, 0x80 }, kPLStringEncodingUTF8 },         // an encoded surrogate
        { { 0xF4, 0x90, 0x80, 0x80 }, kPLStringEncodingUTF8 },   // beyond U+10FFFF
        { { 0xE2, 0x82 }, kPLStringEncodingUTF8 },               // cut short
        { { 0x80, 'a' }, kPLStringEncodingUTF8 },                // a lone continuation
        { { 0x81 }, kPLStringEncodingWindowsLatin1 },            // undefined there
        { { 'a', 0, 'b' }, kPLStringEncodingUTF16 },             // odd length
        { { 'a' }, 0x0C000100 },                                  // unknown
    };
    for (auto const & c : cases)
        EXPECT_EQ (FromBytes (c.first, c.second), nullptr) << std::hex << c.second;
    for (PLIndex length : { 1, -1 })
        EXPECT_EQ (PLStringCreateWithBytes (kPLAllocatorDefault, nullptr, length, kPLStringEncodingASCII, false), nullptr);
    EXPECT_EQ (PLStringCreateWithCharacters (kPLAllocatorDefault, nullptr, -1), nullptr);
    EXPECT_FALSE (PLStringIsEncodingAvailable (0x0C000100));
}

TEST (String, EncodingWritesMarksAndLossBytes)
{
    NoLeaks noLeaks;
    Owned<PLStringRef> s (CreateString (u8"a\u00E4\u20AC\U0001F600"));
    Owned<PLDataRef> utf16 (PLStringCreateExternalRepresentation (kPLAllocatorDefault, s, kPLStringEncodingUTF16, 0));
    EXPECT_EQ (Bytes (utf16), (std::vector<uint8_t> { 0xFF, 0xFE, 'a', 0, 0xE4, 0, 0xAC, 0x20, 0x3D, 0xD8, 0x00, 0xDE }));
    Owned<PLStringRef> back (PLStringCreateFromExternalRepresentation (kPLAllocatorDefault, utf16, kPLStringEncodingUTF16));
    EXPECT_TRUE (PLEqual (back, s));
    Owned<PLDataRef> utf8 (PLStringCreateExternalRepresentation (kPLAllocatorDefault, s, kPLStringEncodingUTF8, 0));
    EXPECT_EQ (Bytes (utf8), (std::vector<uint8_t> { 'a', 0xC3, 0xA4, 0xE2, 0x82, 0xAC, 0xF0, 0x9F, 0x98, 0x80 }));
    Owned<PLDataRef> latin (PLStringCreateExternalRepresentation (kPLAllocatorDefault, s, kPLStringEncodingWindowsLatin1, '?'));
    EXPECT_EQ (Bytes (latin), (std::vector<uint8_t> { 'a', 0xE4, 0x80, '?', '?' }));
    EXPECT_EQ (PLStringCreateExternalRepresentation (kPLAllocatorDefault, s, kPLStringEncodingASCII, 0), nullptr);

    // Conversion stops at the first character the buffer can't take whole.
    uint8_t buffer [4];
    PLIndex used = -1;
    EXPECT_EQ (PLStringGetBytes (s, PLRangeMake (0, 5), kPLStringEncodingUTF8, 0, false, buffer, 4, &used), 2);
    EXPECT_EQ (used, 3);
    Owned<PLStringRef> lone (CreateString (std::u16string (u"a\xD800")));
    EXPECT_EQ (PLStringGetBytes (lone, PLRangeMake (0, 2), kPLStringEncodingUTF8, 0, false, nullptr, 0, &used), 1);
    EXPECT_EQ (PLStringGetMaximumSizeForEncoding (10, kPLStringEncodingUTF8), 30);
}

TEST (String, CStringsNoCopySubstringsAndCharacters)
{
    NoLeaks noLeaks;
    char buffer [8];
    Owned<PLStringRef> ascii (CreateString ("C:\\sym")), wide (CreateString (u8"\u00E4"));
    EXPECT_TRUE (PLStringGetCString (ascii, buffer, 7, kPLStringEncodingASCII));
    EXPECT_STREQ (buffer, "C:\\sym");
    // Whole and terminated, or nothing: no room for the zero, or a character the encoding lacks.
    EXPECT_FALSE (PLStringGetCString (ascii, buffer, 6, kPLStringEncodingASCII) || *buffer);
    EXPECT_FALSE (PLStringGetCString (wide, buffer, 8, kPLStringEncodingASCII) || *buffer);
    EXPECT_TRUE (PLStringGetCString (wide, buffer, 8, kPLStringEncodingUTF8));
    EXPECT_STREQ (buffer, "\xC3\xA4");
    EXPECT_FALSE (PLStringGetCString (wide, buffer, 8, kPLStringEncodingUTF16));
    EXPECT_FALSE (PLStringGetCString (nullptr, buffer, 8, kPLStringEncodingASCII));

    // No-copy units are read in place, and freed with the string only when given to an allocator
    // (the sanitizer's leak and double-free checks watch this natively).
    PLUniChar units [] = { 'a', 'b' };
    Owned<PLStringRef> borrowed (PLStringCreateWithCharactersNoCopy (kPLAllocatorDefault, units, 2, kPLAllocatorNull));
    Owned<PLStringRef> copy (PLStringCreateWithCharacters (kPLAllocatorDefault, units, 2));
    units [0] = 'z';
    EXPECT_EQ (Units (borrowed) + Units (copy), u"zbab");
    PLUniChar * owned = static_cast<PLUniChar *> (std::malloc (2 * sizeof (PLUniChar)));
    owned [0] = 'o';
    owned [1] = 'k';
    Owned<PLStringRef> adopted (PLStringCreateWithCharactersNoCopy (kPLAllocatorDefault, owned, 2, kPLAllocatorDefault));
    EXPECT_EQ (Units (adopted), u"ok");

    Owned<PLStringRef> s (CreateString ("abcdef"));
    EXPECT_EQ (Units (Owned<PLStringRef> (PLStringCreateWithSubstring (kPLAllocatorDefault, s, PLRangeMake (2, 3)))), u"cde");
    EXPECT_EQ (Units (Owned<PLStringRef> (PLStringCreateWithSubstring (kPLAllocatorDefault, s, PLRangeMake (6, 0)))), u"");
    EXPECT_EQ (PLStringCreateWithSubstring (kPLAllocatorDefault, s, PLRangeMake (4, 3)), nullptr);
    EXPECT_EQ (PLStringCreateWithSubstring (kPLAllocatorDefault, s, PLRangeMake (-1, 2)), nullptr);
    EXPECT_EQ (PLStringGetCharacterAtIndex (s, 5), u'f');
    EXPECT_EQ (PLStringGetCharacterAtIndex (s, 6), 0);
    PLUniChar untouched [2] = { 'x', 'x' };
    PLStringGetCharacters (s, PLRangeMake (5, 2), untouched);
    EXPECT_EQ (untouched [0], u'x');
    EXPECT_TRUE (PLStringHasPrefix (s, PLSTR ("abc")) && PLStringHasSuffix (s, PLSTR ("def")));
    EXPECT_FALSE (PLStringHasSuffix (s, PLSTR ("abcdefg")));
    // Operations of strings answer something harmless for other kinds.
    EXPECT_EQ (PLStringGetLength (static_cast<PLStringRef> (static_cast<void const *> (kPLBooleanTrue))), 0);
    EXPECT_EQ (PLStringGetLength (nullptr), 0);
}
