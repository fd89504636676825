// Comparison flags and search.
#include "PlinthTest.h"

using namespace PlinthTest;

TEST (Compare, FlagsDecideTheOrder)
{
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
    EXPECT_EQ (PLStringCompareWithOptions (s, hello, PLRangeMake (2, 5), kCase), 0);
    EXPECT_EQ (PLStringCompareWithOptions (s, hello, PLRangeMake (2, 4), kCase), -1);
    EXPECT_EQ (PLStringCompare (nullptr, hello, 0), -1);
    EXPECT_EQ (PLStringCompare (hello, nullptr, 0), 1);
    EXPECT_EQ (PLStringCompare (nullptr, nullptr, 0), 0);
}

TEST (Compare, FindHonoursCaseDirectionAndAnchor)
{
    NoLeaks noLeaks;
    Owned<PLStringRef> s (CreateString ("abcABCabc")), what (CreateString ("ABC"));
    const struct { PLRange fRange; PLOptionFlags fFlags; PLIndex fFound; } cases [] = {
        { PLRangeMake (0, 9), 0, 3 }, { PLRangeMake (0, 9), kPLCompareCaseInsensitive, 0 },
        { PLRangeMake (0, 9), kPLCompareCaseInsensitive | kPLCompareBackwards, 6 }, { PLRangeMake (0, 9), kPLCompareAnchored, -1 },
        { PLRangeMake (3, 6), kPLCompareAnchored, 3 }, { PLRangeMake (0, 6), kPLCompareAnchored | kPLCompareBackwards, 3 },
    };
    for (auto const & c : cases) {
        PLRange found = PLRangeMake (-1, -1);
        bool ok = PLStringFindWithOptions (s, what, c.fRange, c.fFlags, &found);
        EXPECT_EQ (ok ? found.location : -1, c.fFound) << c.fFlags;
    }
    PLRange found;
    EXPECT_FALSE (PLStringFindWithOptions (s, PLSTR (""), PLRangeMake (0, 9), 0, &found));
}
