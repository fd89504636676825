// Numbers, booleans, dates and data.
#include "PlinthTest.h"

#include <cmath>

using namespace PlinthTest;

TEST (Number, ValuesConvertAndSayWhetherAnythingWasLost)
{
    NoLeaks noLeaks;
    int32_t small = -5, narrow = 0;
    int64_t large = 5000000000ll, wide = 0;
    double real = 2.5, d = 0, nan = std::nan ("");
    Owned<PLNumberRef> a (PLNumberCreate (kPLAllocatorDefault, kPLNumberSInt32Type, &small));
    Owned<PLNumberRef> b (PLNumberCreate (kPLAllocatorDefault, kPLNumberSInt64Type, &large));
    Owned<PLNumberRef> c (PLNumberCreate (kPLAllocatorDefault, kPLNumberDoubleType, &real));
    EXPECT_EQ (PLNumberGetType (a), kPLNumberSInt64Type);
    EXPECT_TRUE (PLNumberIsFloatType (c));
    EXPECT_TRUE (PLNumberGetValue (a, kPLNumberSInt32Type, &narrow) && narrow == -5);
    EXPECT_FALSE (PLNumberGetValue (b, kPLNumberSInt32Type, &narrow));
    EXPECT_EQ (narrow, INT32_MAX);
    EXPECT_FALSE (PLNumberGetValue (c, kPLNumberSInt64Type, &wide));
    EXPECT_EQ (wide, 2);
    EXPECT_TRUE (PLNumberGetValue (b, kPLNumberFloat64Type, &d) && d == 5e9);
    EXPECT_EQ (PLNumberCompare (a, c, nullptr), kPLCompareLessThan);
    EXPECT_EQ (PLNumberCompare (b, c, nullptr), kPLCompareGreaterThan);
    EXPECT_EQ (PLNumberCreate (kPLAllocatorDefault, PLNumberType (99), &small), nullptr);
    Owned<PLNumberRef> n1 (PLNumberCreate (kPLAllocatorDefault, kPLNumberFloat64Type, &nan));
    Owned<PLNumberRef> n2 (PLNumberCreate (kPLAllocatorDefault, kPLNumberFloat64Type, &nan));
    EXPECT_TRUE (PLEqual (n1, n2) && PLHash (n1) == PLHash (n2));   // so that a NaN key can be found again
    EXPECT_TRUE (PLBooleanGetValue (kPLBooleanTrue));
    EXPECT_FALSE (PLBooleanGetValue (kPLBooleanFalse) || PLBooleanGetValue (nullptr));
}

TEST (Date, TimesFromTheReferenceDate)
{
    NoLeaks noLeaks;
    for (auto c : { std::make_pair (0.0, "2001-01-01 00:00:00 +0000"), std::make_pair (731245384.75, "2024-03-04 11:43:04 +0000"),
                    std::make_pair (-978307200.0, "1970-01-01 00:00:00 +0000") }) {
        Owned<PLDateRef> date (PLDateCreate (kPLAllocatorDefault, c.first));
        EXPECT_EQ (UTF8 (Owned<PLStringRef> (PLCopyDescription (date))), c.second);
        EXPECT_EQ (PLDateGetAbsoluteTime (date), c.first);
    }
    EXPECT_GT (PLAbsoluteTimeGetCurrent (), 700000000.0);
}

TEST (Data, CopiesBorrowsAndGrows)
{
    NoLeaks noLeaks;
    uint8_t bytes [] = { 1, 2, 3 };
    Owned<PLDataRef> copy (PLDataCreate (kPLAllocatorDefault, bytes, 3));
    Owned<PLDataRef> borrowed (PLDataCreateWithBytesNoCopy (kPLAllocatorDefault, bytes, 3, kPLAllocatorNull));
    bytes [0] = 9;
    EXPECT_EQ (PLDataGetBytePtr (copy) [0], 1);
    EXPECT_EQ (PLDataGetBytePtr (borrowed), bytes);
    EXPECT_EQ (PLDataGetMutableBytePtr (const_cast<PLMutableDataRef> (copy.Get ())), nullptr);
    EXPECT_EQ (PLDataGetLength (Owned<PLDataRef> (PLDataCreate (kPLAllocatorDefault, nullptr, 0))), 0);
    EXPECT_EQ (PLDataCreate (kPLAllocatorDefault, nullptr, 1), nullptr);
    EXPECT_EQ (PLDataCreate (kPLAllocatorDefault, bytes, -1), nullptr);
    Owned<PLMutableDataRef> growing (PLDataCreateMutable (kPLAllocatorDefault, 0));
    for (int i = 0; i < 1000; ++i)
        PLDataAppendBytes (growing, bytes, 3);
    EXPECT_EQ (PLDataGetLength (growing), 3000);
    EXPECT_EQ (PLDataGetBytePtr (growing) [2999], 3);
    PLDataSetLength (growing, 3002);
    EXPECT_EQ (PLDataGetBytePtr (growing) [3001], 0);
    uint8_t part [2];
    PLDataGetBytes (growing, PLRangeMake (2998, 2), part);
    EXPECT_EQ (part [0], 2);
    EXPECT_TRUE (PLEqual (copy, Owned<PLDataRef> (PLDataCreateCopy (kPLAllocatorDefault, copy))));
}
