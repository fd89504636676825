// Comparison flags and search.
#include "PlinthTest.h"

using namespace PlinthTest;

namespace {

int Compare (char const * x, char const * y, PLOptionFlags flags)
{
    Owned<PLStringRef> a (CreateString (x)), b (CreateString (y));
    return PLStringCompare (a, b, flags);
}

}

TEST (Compare, LiteralOrderIsByUnit)
{
    EXPECT_EQ (Compare ("abc", "abc", 0), 0);
    EXPECT_EQ (Compare ("abc", "abd", 0), -1);
    EXPECT_EQ (Compare ("abd", "abc", 0), 1);
    EXPECT_EQ (Compare ("ab", "abc", 0), -1);
    EXPECT_EQ (Compare ("", "", 0), 0);
    EXPECT_EQ (Compare ("B", "a", 0), -1);
    EXPECT_EQ (Compare ("a", "A", 0), 1);
    EXPECT_EQ (Compare (u8"\u00E4", "z", 0), 1);
}

TEST (Compare, CaseInsensitiveFoldsTheAlphabeticScripts)
{
    EXPECT_EQ (Compare ("Hello", "hELLO", kPLCompareCaseInsensitive), 0);
    EXPECT_EQ (Compare ("B", "a", kPLCompareCaseInsensitive), 1);
    EXPECT_EQ (Compare (u8"\u00C4RGER", u8"\u00E4rger", kPLCompareCaseInsensitive), 0);
    EXPECT_EQ (Compare (u8"\u0394\u03A3", u8"\u03B4\u03C2", kPLCompareCaseInsensitive), 0);   // final sigma
    EXPECT_EQ (Compare (u8"\u041C\u0418\u0420", u8"\u043C\u0438\u0440", kPLCompareCaseInsensitive), 0);
    EXPECT_EQ (Compare (u8"\u0150", u8"\u0151", kPLCompareCaseInsensitive), 0);
    EXPECT_EQ (Compare (u8"\uFF21", u8"\uFF41", kPLCompareCaseInsensitive), 0);
    EXPECT_EQ (Compare ("a", "b", kPLCompareCaseInsensitive), -1);
}

TEST (Compare, BackwardsNumericAndForcedOrdering)
{
    EXPECT_EQ (Compare ("ab", "cb", 0), -1);
    EXPECT_EQ (Compare ("ba", "ab", kPLCompareBackwards), -1);   // read from the end: a < b
    EXPECT_EQ (Compare ("xa", "a", kPLCompareBackwards), 1);
    EXPECT_EQ (Compare ("file2", "file10", 0), 1);
    EXPECT_EQ (Compare ("file2", "file10", kPLCompareNumerically), -1);
    EXPECT_EQ (Compare ("v1.10.3", "v1.9.12", kPLCompareNumerically), 1);
    EXPECT_EQ (Compare ("file010", "file10", kPLCompareNumerically), 0);
    // Equal under the other flags but not identical: forced ordering decides by units.
    EXPECT_EQ (Compare ("file010", "file10", kPLCompareNumerically | kPLCompareForcedOrdering), -1);
    EXPECT_EQ (Compare ("A", "a", kPLCompareCaseInsensitive | kPLCompareForcedOrdering), -1);
    EXPECT_EQ (Compare ("a", "A", kPLCompareCaseInsensitive | kPLCompareForcedOrdering), 1);
    EXPECT_EQ (Compare ("same", "same", kPLCompareCaseInsensitive | kPLCompareForcedOrdering), 0);
    // The flags the library uses for equality: equal characters are equal, any other difference is not.
    EXPECT_EQ (Compare ("same", "same", 0x204), 0);
    EXPECT_NE (Compare ("same", "Same", 0x204), 0);
    EXPECT_EQ (Compare ("x", "x", kPLCompareAnchored), 0);
}

TEST (Compare, RangesAndNulls)
{
    NoLeaks noLeaks;
    Owned<PLStringRef> s (CreateString ("xxHELLOyy")), hello (CreateString ("hello"));
    EXPECT_EQ (PLStringCompareWithOptions (s, hello, PLRangeMake (2, 5), kPLCompareCaseInsensitive), 0);
    EXPECT_EQ (PLStringCompareWithOptions (s, hello, PLRangeMake (2, 4), kPLCompareCaseInsensitive), -1);
    EXPECT_EQ (PLStringCompare (nullptr, hello, 0), -1);
    EXPECT_EQ (PLStringCompare (hello, nullptr, 0), 1);
    EXPECT_EQ (PLStringCompare (nullptr, nullptr, 0), 0);
}

TEST (Compare, FindHonoursCaseDirectionAndAnchor)
{
    NoLeaks noLeaks;
    Owned<PLStringRef> s (CreateString ("abcABCabc")), what (CreateString ("ABC"));
    PLRange all = PLRangeMake (0, 9);
    PLRange found = PLRangeMake (-1, -1);
    EXPECT_TRUE (PLStringFindWithOptions (s, what, all, 0, &found));
    EXPECT_EQ (found.location, 3);
    EXPECT_TRUE (PLStringFindWithOptions (s, what, all, kPLCompareCaseInsensitive, &found));
    EXPECT_EQ (found.location, 0);
    EXPECT_TRUE (PLStringFindWithOptions (s, what, all, kPLCompareCaseInsensitive | kPLCompareBackwards, &found));
    EXPECT_EQ (found.location, 6);
    EXPECT_FALSE (PLStringFindWithOptions (s, what, all, kPLCompareAnchored, &found));
    EXPECT_TRUE (PLStringFindWithOptions (s, what, PLRangeMake (3, 6), kPLCompareAnchored, &found));
    EXPECT_EQ (found.location, 3);
    EXPECT_TRUE (PLStringFindWithOptions (s, what, PLRangeMake (0, 6), kPLCompareAnchored | kPLCompareBackwards, &found));
    EXPECT_EQ (found.location, 3);
    EXPECT_FALSE (PLStringFindWithOptions (s, PLSTR (""), all, 0, &found));
}
