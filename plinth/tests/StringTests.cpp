// Strings: decoding of each encoding (and refusal of invalid bytes), encoding back with loss bytes
// and byte-order marks, no-copy creation, substrings; comparison flags and search; formatting with
// the printf conversions, their widths and lengths, and %@, %S, %C.
#include "PlinthTest.h"

#include <cstdarg>
#include <vector>

using namespace PlinthTest;

namespace {

std::string Format (char const * format, ...)
{
    va_list arguments;
    va_start (arguments, format);
    Owned<PLStringRef> formatString (CreateString (format));
    Owned<PLStringRef> result (PLStringCreateWithFormatAndArguments (kPLAllocatorDefault, nullptr, formatString, arguments));
    va_end (arguments);
    EXPECT_NE (result.Get (), nullptr);
    return UTF8 (result);
}

}

TEST (String, EachEncodingDecodesOrRefuses)
{
    NoLeaks noLeaks;
    PLStringEncoding const kUTF8 = kPLStringEncodingUTF8, kUTF16 = kPLStringEncodingUTF16;
    struct Case { std::vector<uint8_t> fBytes; PLStringEncoding fEncoding; bool fExternal; std::u16string fUnits; };
    std::vector<Case> cases {
        { { 'a', 'Z', 0 }, kPLStringEncodingASCII, false, std::u16string (u"aZ\0", 3) },
        { { 0xC3, 0xA4, 0xE2, 0x82, 0xAC, 0xF0, 0x9F, 0x98, 0x80 }, kUTF8, false, u"\u00E4\u20AC\U0001F600" },
        { { 0xEF, 0xBB, 0xBF, 'x' }, kUTF8, true, u"x" },
        { { 0xEF, 0xBB, 0xBF, 'x' }, kUTF8, false, u"\uFEFFx" },
        { { 0x80, 0xE4, 0xFF }, kPLStringEncodingISOLatin1, false, u"\u0080\u00E4\u00FF" },
        { { 0x80, 0x9F, 0xE4 }, kPLStringEncodingWindowsLatin1, false, u"\u20AC\u0178\u00E4" },
        { { 0xFF, 0xFE, 'a', 0, 0x34, 0x12 }, kUTF16, true, u"a\u1234" },
        { { 0xFE, 0xFF, 0, 'a', 0x12, 0x34 }, kUTF16, true, u"a\u1234" },
        { { 0, 'a', 0x12, 0x34 }, kUTF16, true, u"a\u1234" },   // no mark: big-endian
        { { 'a', 0, 0x34, 0x12 }, kUTF16, false, u"a\u1234" },  // host order (little-endian)
        { { 0, 'a' }, kPLStringEncodingUTF16BE, false, u"a" },
        { { 0xFF, 0xFE, 'a', 0 }, kPLStringEncodingUTF16LE, true, u"\uFEFFa" },   // explicit order: a mark is text
        { {}, kUTF8, false, u"" },
        { { 'a', 0x80 }, kPLStringEncodingASCII, false, u"(null)" },
        { { 0xC0, 0x80 }, kUTF8, false, u"(null)" },               // overlong
        { { 0xED, 0xA0, 0x80 }, kUTF8, false, u"(null)" },         // an encoded surrogate
        { { 0xF4, 0x90, 0x80, 0x80 }, kUTF8, false, u"(null)" },   // beyond U+10FFFF
        { { 0xE2, 0x82 }, kUTF8, false, u"(null)" },               // cut short
        { { 0x80, 'a' }, kUTF8, false, u"(null)" },                // a lone continuation
        { { 0x81 }, kPLStringEncodingWindowsLatin1, false, u"(null)" },   // undefined there
        { { 'a', 0, 'b' }, kUTF16, false, u"(null)" },             // odd length
        { { 'a' }, 0x0C000100, false, u"(null)" },                  // unknown
    };
    for (Case const & c : cases) {
        Owned<PLStringRef> s (PLStringCreateWithBytes (kPLAllocatorDefault, c.fBytes.data (), PLIndex (c.fBytes.size ()), c.fEncoding,
            c.fExternal));
        EXPECT_EQ (s.Get () == nullptr ? u"(null)" : Units (s), c.fUnits) << std::hex << c.fEncoding << " " << &c - cases.data ();
    }
    for (PLIndex length : { 1, -1 })
        EXPECT_EQ (PLStringCreateWithBytes (kPLAllocatorDefault, nullptr, length, kPLStringEncodingASCII, false), nullptr);
    EXPECT_EQ (PLStringCreateWithCharacters (kPLAllocatorDefault, nullptr, -1), nullptr);
    EXPECT_FALSE (PLStringIsEncodingAvailable (0x0C000100));
}

TEST (String, EncodingWritesMarksAndLossBytes)
{
    NoLeaks noLeaks;
    Owned<PLStringRef> s (CreateString (u8"a\u00E4\u20AC\U0001F600"));
    auto encoded = [&] (PLStringEncoding encoding, uint8_t loss) {
        Owned<PLDataRef> data (PLStringCreateExternalRepresentation (kPLAllocatorDefault, s, encoding, loss));
        return data.Get () == nullptr ? std::vector<uint8_t> { 0 }
            : std::vector<uint8_t> (PLDataGetBytePtr (data), PLDataGetBytePtr (data) + PLDataGetLength (data));
    };
    EXPECT_EQ (encoded (kPLStringEncodingUTF16, 0), (std::vector<uint8_t> { 0xFF, 0xFE, 'a', 0, 0xE4, 0, 0xAC, 0x20, 0x3D, 0xD8, 0x00, 0xDE }));
    EXPECT_EQ (encoded (kPLStringEncodingUTF8, 0), (std::vector<uint8_t> { 'a', 0xC3, 0xA4, 0xE2, 0x82, 0xAC, 0xF0, 0x9F, 0x98, 0x80 }));
    EXPECT_EQ (encoded (kPLStringEncodingWindowsLatin1, '?'), (std::vector<uint8_t> { 'a', 0xE4, 0x80, '?', '?' }));
    EXPECT_EQ (encoded (kPLStringEncodingASCII, 0), std::vector<uint8_t> { 0 });   // nothing without loss bytes
    Owned<PLDataRef> utf16 (PLStringCreateExternalRepresentation (kPLAllocatorDefault, s, kPLStringEncodingUTF16, 0));
    EXPECT_TRUE (PLEqual (Owned<PLStringRef> (PLStringCreateFromExternalRepresentation (kPLAllocatorDefault, utf16,
        kPLStringEncodingUTF16)), s));

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
    EXPECT_TRUE (PLStringGetCString (ascii, buffer, 7, kPLStringEncodingASCII) && std::string (buffer) == "C:\\sym");
    // Whole and terminated, or nothing: no room for the zero, or a character the encoding lacks.
    EXPECT_FALSE (PLStringGetCString (ascii, buffer, 6, kPLStringEncodingASCII) || *buffer);
    EXPECT_FALSE (PLStringGetCString (wide, buffer, 8, kPLStringEncodingASCII) || *buffer);
    EXPECT_TRUE (PLStringGetCString (wide, buffer, 8, kPLStringEncodingUTF8) && std::string (buffer) == "\xC3\xA4");
    EXPECT_FALSE (PLStringGetCString (wide, buffer, 8, kPLStringEncodingUTF16) || PLStringGetCString (nullptr, buffer, 8, kPLStringEncodingASCII));

    // No-copy units are read in place, and freed with the string only when given to an allocator
    // (the sanitizer's leak and double-free checks watch this natively).
    PLUniChar units [] = { 'a', 'b' };
    Owned<PLStringRef> borrowed (PLStringCreateWithCharactersNoCopy (kPLAllocatorDefault, units, 2, kPLAllocatorNull));
    Owned<PLStringRef> copy (PLStringCreateWithCharacters (kPLAllocatorDefault, units, 2));
    units [0] = 'z';
    EXPECT_EQ (Units (borrowed) + Units (copy), u"zbab");
    PLUniChar * owned = static_cast<PLUniChar *> (std::malloc (2 * sizeof (PLUniChar)));
    owned [0] = 'o', owned [1] = 'k';
    EXPECT_EQ (Units (Owned<PLStringRef> (PLStringCreateWithCharactersNoCopy (kPLAllocatorDefault, owned, 2, kPLAllocatorDefault))), u"ok");

    Owned<PLStringRef> s (CreateString ("abcdef"));
    auto substring = [&] (PLIndex start, PLIndex length) -> std::u16string {
        Owned<PLStringRef> part (PLStringCreateWithSubstring (kPLAllocatorDefault, s, PLRangeMake (start, length)));
        return part.Get () == nullptr ? u"(null)" : Units (part);
    };
    EXPECT_EQ (substring (2, 3) + u"|" + substring (6, 0) + u"|" + substring (4, 3) + u"|" + substring (-1, 2), u"cde||(null)|(null)");
    EXPECT_TRUE (PLStringGetCharacterAtIndex (s, 5) == u'f' && PLStringGetCharacterAtIndex (s, 6) == 0);
    PLUniChar untouched [2] = { 'x', 'x' };
    PLStringGetCharacters (s, PLRangeMake (5, 2), untouched);
    EXPECT_EQ (untouched [0], u'x');
    EXPECT_TRUE (PLStringHasPrefix (s, PLSTR ("abc")) && PLStringHasSuffix (s, PLSTR ("def")) && ! PLStringHasSuffix (s, PLSTR ("abcdefg")));
    // Operations of strings answer something harmless for other kinds.
    EXPECT_EQ (PLStringGetLength (static_cast<PLStringRef> (static_cast<void const *> (kPLBooleanTrue))) + PLStringGetLength (nullptr), 0);
}

TEST (Compare, FlagsDecideTheOrderAndTheSearch)
{
    NoLeaks noLeaks;
    PLOptionFlags const kCase = kPLCompareCaseInsensitive, kBack = kPLCompareBackwards, kNumber = kPLCompareNumerically,
        kForced = kPLCompareForcedOrdering;
    const struct { char const * fX, * fY; PLOptionFlags fFlags; int fOrder; } cases [] = {
        // Literal order is by unit.
        { "abc", "abc", 0, 0 }, { "abc", "abd", 0, -1 }, { "ab", "abc", 0, -1 }, { "", "", 0, 0 }, { "B", "a", 0, -1 },
        { "a", "A", 0, 1 }, { u8"\u00E4", "z", 0, 1 }, { "x", "x", kPLCompareAnchored, 0 },
        // Case folding covers the alphabetic scripts, final sigma and full-width letters included.
        { "Hello", "hELLO", kCase, 0 }, { "B", "a", kCase, 1 }, { "a", "b", kCase, -1 },
        { u8"\u00C4RGER", u8"\u00E4rger", kCase, 0 }, { u8"\u0394\u03A3", u8"\u03B4\u03C2", kCase, 0 },
        { u8"\u041C\u0418\u0420", u8"\u043C\u0438\u0440", kCase, 0 }, { u8"\u0150", u8"\u0151", kCase, 0 },
        { u8"\uFF21", u8"\uFF41", kCase, 0 },
        { "ba", "ab", kBack, -1 }, { "xa", "a", kBack, 1 },   // read from the end
        { "file2", "file10", 0, 1 }, { "file2", "file10", kNumber, -1 }, { "v1.10.3", "v1.9.12", kNumber, 1 },
        { "file010", "file10", kNumber, 0 },
        // Equal under the other flags but not identical: forced ordering decides by units.
        { "file010", "file10", kNumber | kForced, -1 }, { "A", "a", kCase | kForced, -1 }, { "a", "A", kCase | kForced, 1 },
        { "same", "same", kCase | kForced, 0 },
        // The flags the library uses for equality: equal characters are equal, any other difference is not.
        { "same", "same", 0x204, 0 }, { "same", "Same", 0x204, 1 },
    };
    for (auto const & c : cases) {
        Owned<PLStringRef> x (CreateString (c.fX)), y (CreateString (c.fY));
        EXPECT_EQ (PLStringCompare (x, y, c.fFlags), c.fOrder) << c.fX << " " << c.fY << " " << c.fFlags;
    }
    Owned<PLStringRef> s (CreateString ("xxHELLOyy")), hello (CreateString ("hello"));
    // Within a range; and null before every string.
    EXPECT_EQ ((std::vector<int> { PLStringCompareWithOptions (s, hello, PLRangeMake (2, 5), kCase),
        PLStringCompareWithOptions (s, hello, PLRangeMake (2, 4), kCase), PLStringCompare (nullptr, hello, 0),
        PLStringCompare (hello, nullptr, 0), PLStringCompare (nullptr, nullptr, 0) }), (std::vector<int> { 0, -1, -1, 1, 0 }));
    Owned<PLStringRef> text (CreateString ("abcABCabc"));
    const struct { PLRange fRange; PLOptionFlags fFlags; PLIndex fFound; PLStringRef fWhat = PLSTR ("ABC"); } searches [] = {
        { PLRangeMake (0, 9), 0, 3 }, { PLRangeMake (0, 9), kCase, 0 }, { PLRangeMake (0, 9), kCase | kBack, 6 },
        { PLRangeMake (0, 9), kPLCompareAnchored, -1 }, { PLRangeMake (3, 6), kPLCompareAnchored, 3 },
        { PLRangeMake (0, 6), kPLCompareAnchored | kBack, 3 }, { PLRangeMake (0, 9), 0, -1, PLSTR ("") } };   // "" is nowhere
    for (auto const & c : searches) {
        PLRange found = PLRangeMake (-1, -1);
        bool ok = PLStringFindWithOptions (text, c.fWhat, c.fRange, c.fFlags, &found);
        EXPECT_EQ (ok ? found.location : -1, c.fFound) << c.fFlags;
    }
}

TEST (Format, ConversionsFollowPrintfAndObjectsTheirDescriptions)
{
    NoLeaks noLeaks;
    EXPECT_EQ (Format ("%d|%5d|%-5d|%05d|%+d|%u|%X|%#o|100%%|%c", -7, 42, 42, 42, 3, 4000000000u, 255u, 8u, 'x'),
        "-7|   42|42   |00042|+3|4000000000|FF|010|100%|x");
    EXPECT_EQ (Format ("%ld %lu %lld %llx", -5l, 7ul, -1234567890123ll, 0x1234567890abcdefull),
        "-5 7 -1234567890123 1234567890abcdef");
    EXPECT_EQ (Format ("%hd %hhu %zu", 70000, 300, std::size_t (9)), "4464 44 9");
    EXPECT_EQ (Format ("%.2f %8.3e %g %*d %.*f", 3.14159, 12345.678, 0.0001, 4, 7, 1, 2.26), "3.14 1.235e+04 0.0001    7 2.3");
    EXPECT_EQ (Format ("[%s] [%6s] [%-6s] [%.2s]", "abc", "abc", "abc", "abc"), "[abc] [   abc] [abc   ] [ab]");
    EXPECT_EQ (Format ("%s|%s", u8"\u00E4", "\xE4"), u8"\u00E4|\u00E4");   // not UTF-8: read as Latin-1
    EXPECT_EQ (Format ("%@ and %@", PLSTR ("text"), Owned<PLNumberRef> (Integer (12)).Get ()), "text and 12");
    EXPECT_EQ (Format ("%@ %s", nullptr, static_cast<char const *> (nullptr)), "(null) (null)");
    EXPECT_EQ (Format ("%S|%ls|%C", u"wide", u"\u20AC", int (u'\u00DF')), u8"wide|\u20AC|\u00DF");
    // What is no conversion stays as written.
    EXPECT_EQ (Format ("%4@| %y %n and 5%", PLSTR ("ab")), "  ab| %y %n and 5%");
    EXPECT_EQ (UTF8 (Owned<PLStringRef> (PLStringCreateWithFormat (kPLAllocatorDefault, nullptr, PLSTR ("%d-%d"), 1, 2))), "1-2");
    EXPECT_EQ (PLStringCreateWithFormat (kPLAllocatorDefault, nullptr, nullptr), nullptr);
}
