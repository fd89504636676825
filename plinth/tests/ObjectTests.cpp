// The object model: counts, immortals, kinds, equality and hashing, descriptions (dates' too),
// allocators; and the values: numbers, booleans, dates and data.
#include "PlinthTest.h"

#include <cmath>
#include <thread>
#include <vector>

using namespace PlinthTest;

namespace {

// Runs `work` on four threads at once.
template <typename Work>
void OnFourThreads (Work work)
{
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back (work, t);
    for (std::thread & thread : threads)
        thread.join ();
}

}

TEST (Object, CountsAreAtomicAndTheLastReleaseFrees)
{
    PLIndex before = PLDebugGetLiveObjectCount ();
    PLStringRef s = CreateString ("counted");
    EXPECT_EQ (PLDebugGetLiveObjectCount (), before + 1);
    EXPECT_EQ (PLRetain (s), s);
    OnFourThreads ([s] (int) {
        for (int i = 0; i < 100000; ++i)
            PLRelease (PLRetain (s));
    });
    EXPECT_EQ (PLGetRetainCount (s), 2);
    PLRelease (s);
    PLRelease (s);
    EXPECT_EQ (PLDebugGetLiveObjectCount (), before);
    EXPECT_EQ (PLRetain (nullptr), nullptr);
    PLRelease (nullptr);
    EXPECT_EQ (PLGetRetainCount (nullptr), 0);
}

TEST (Object, ImmortalsIgnoreCountsAndAreNotLive)
{
    NoLeaks noLeaks;
    PLStringRef constant = PLSTR ("immortal text");
    EXPECT_EQ (constant, __PLStringMakeConstantString ("immortal text"));
    for (PLTypeRef immortal : { PLTypeRef (constant), PLTypeRef (kPLBooleanTrue), PLTypeRef (kPLAllocatorNull),
                                PLTypeRef (kPLAllocatorDefault), PLTypeRef (kPLPreferencesCurrentApplication) }) {
        PLRelease (immortal);
        PLRelease (immortal);
        EXPECT_EQ (PLGetRetainCount (PLRetain (immortal)), 0x7FFFFFFF);
    }
    EXPECT_EQ (__PLStringMakeConstantString (nullptr), nullptr);
    // Threads interning the same new texts at once get one object per text.
    std::vector<PLStringRef> seen [4];
    OnFourThreads ([&seen] (int t) {
        for (int i = 0; i < 500; ++i)
            seen [t].push_back (__PLStringMakeConstantString (("constant " + std::to_string (i)).c_str ()));
    });
    for (int t = 1; t < 4; ++t)
        EXPECT_EQ (seen [t], seen [0]);
}

TEST (Object, KindsEqualityAndHash)
{
    NoLeaks noLeaks;
    EXPECT_EQ (PLGetTypeID (nullptr), PLTypeID (kPLNotATypeID));
    EXPECT_EQ (UTF8 (Owned<PLStringRef> (PLCopyTypeIDDescription (PLDictionaryGetTypeID ()))), "PLDictionary");
    EXPECT_EQ (PLCopyTypeIDDescription (999), nullptr);
    Owned<PLStringRef> a (CreateString ("same")), b (CreateString ("same"));
    EXPECT_TRUE (PLEqual (a, b) && PLHash (a) == PLHash (b));
    EXPECT_FALSE (PLEqual (a, PLSTR ("other")) || PLEqual (a, nullptr) || PLEqual (nullptr, a));
    EXPECT_TRUE (PLEqual (nullptr, nullptr) && PLHash (nullptr) == 0);
    // Numbers are equal by value whatever their type; other kinds are never equal, whatever the bytes.
    Owned<PLNumberRef> integer (Integer (3)), real (Real (3.0));
    EXPECT_TRUE (PLEqual (integer, real) && PLHash (integer) == PLHash (real));
    Owned<PLDataRef> data (PLDataCreate (kPLAllocatorDefault, reinterpret_cast<uint8_t const *> ("same"), 4));
    EXPECT_FALSE (PLEqual (a, data));
}

TEST (Object, DescriptionsAndAllocators)
{
    NoLeaks noLeaks;
    Owned<PLNumberRef> number (Integer (42)), real (Real (0.5));
    Owned<PLDateRef> date (PLDateCreate (kPLAllocatorDefault, 731245384.75)), epoch (PLDateCreate (kPLAllocatorDefault, -978307200.0));
    Owned<PLDataRef> data (PLDataCreate (kPLAllocatorDefault, reinterpret_cast<uint8_t const *> ("\x01\xab\x00\x10\xff"), 5));
    void const * values [] = { PLSTR ("a"), number.Get () }, * keys [] = { PLSTR ("k") };
    Owned<PLArrayRef> array (PLArrayCreate (kPLAllocatorDefault, values, 2, &kPLTypeArrayCallBacks));
    Owned<PLDictionaryRef> dictionary (PLDictionaryCreate (kPLAllocatorDefault, keys, values, 1,
        &kPLTypeDictionaryKeyCallBacks, &kPLTypeDictionaryValueCallBacks));
    std::vector<std::pair<PLTypeRef, std::string>> cases {
        { number, "42" }, { real, "0.5" }, { kPLBooleanTrue, "true" }, { kPLBooleanFalse, "false" },
        { data, "<01ab0010 ff>" }, { array, "(\n    a,\n    42\n)" }, { dictionary, "{\n    k = a;\n}" },
        { date, "2024-03-04 11:43:04 +0000" }, { epoch, "1970-01-01 00:00:00 +0000" }, { nullptr, "(null)" },
        { kPLAllocatorNull, "<PLAllocator null>" } };
    for (auto const & c : cases)
        EXPECT_EQ (UTF8 (Owned<PLStringRef> (PLCopyDescription (c.first))), c.second);

    Owned<PLStringRef> s (PLStringCreateWithCString (nullptr, "x", kPLStringEncodingASCII));
    EXPECT_TRUE (PLGetAllocator (s) == kPLAllocatorDefault && PLGetAllocator (nullptr) == nullptr);
    // The null allocator makes nothing.
    EXPECT_TRUE (PLStringCreateWithCString (kPLAllocatorNull, "x", kPLStringEncodingASCII) == nullptr
        && PLDataCreate (kPLAllocatorNull, nullptr, 0) == nullptr && PLDictionaryCreateMutable (kPLAllocatorNull, 0, nullptr, nullptr) == nullptr);
}

TEST (Number, ValuesConvertAndSayWhetherAnythingWasLost)
{
    NoLeaks noLeaks;
    int32_t small = -5, narrow = 0;
    int64_t wide = 0;
    double real = 2.5, d = 0;
    Owned<PLNumberRef> a (PLNumberCreate (kPLAllocatorDefault, kPLNumberSInt32Type, &small)), b (Integer (5000000000ll));
    Owned<PLNumberRef> c (PLNumberCreate (kPLAllocatorDefault, kPLNumberDoubleType, &real));
    EXPECT_TRUE (PLNumberGetType (a) == kPLNumberSInt64Type && PLNumberIsFloatType (c));
    EXPECT_TRUE (PLNumberGetValue (a, kPLNumberSInt32Type, &narrow) && narrow == -5);
    // A value that doesn't fit comes out clamped or cut, and says so.
    EXPECT_FALSE (PLNumberGetValue (b, kPLNumberSInt32Type, &narrow) || narrow != INT32_MAX);
    EXPECT_FALSE (PLNumberGetValue (c, kPLNumberSInt64Type, &wide) || wide != 2);
    EXPECT_TRUE (PLNumberGetValue (b, kPLNumberFloat64Type, &d) && d == 5e9);
    EXPECT_EQ (PLNumberCompare (a, c, nullptr), kPLCompareLessThan);
    EXPECT_EQ (PLNumberCompare (b, c, nullptr), kPLCompareGreaterThan);
    EXPECT_EQ (PLNumberCreate (kPLAllocatorDefault, PLNumberType (99), &small), nullptr);
    Owned<PLNumberRef> n1 (Real (std::nan (""))), n2 (Real (std::nan ("")));
    EXPECT_TRUE (PLEqual (n1, n2) && PLHash (n1) == PLHash (n2));   // so that a NaN key can be found again
    // Every byte of data counts in its hash, and a date of -0.0 is the one of 0.0.
    uint8_t block [100] = {};
    Owned<PLDataRef> d1 (PLDataCreate (kPLAllocatorDefault, block, 100));
    block [99] = 1;
    Owned<PLDataRef> d2 (PLDataCreate (kPLAllocatorDefault, block, 100));
    EXPECT_TRUE (PLHash (d1) != PLHash (d2) && PLHash (Owned<PLDateRef> (PLDateCreate (kPLAllocatorDefault, 0.0)))
        == PLHash (Owned<PLDateRef> (PLDateCreate (kPLAllocatorDefault, -0.0))));
    EXPECT_TRUE (PLBooleanGetValue (kPLBooleanTrue) && ! PLBooleanGetValue (kPLBooleanFalse) && ! PLBooleanGetValue (nullptr));
    PLAbsoluteTime now = PLAbsoluteTimeGetCurrent ();   // counted from 2001 (until 2048), not 1970
    EXPECT_TRUE (now > 7e8 && now < 1.5e9) << now;
}

TEST (Data, CopiesBorrowsAndGrows)
{
    NoLeaks noLeaks;
    uint8_t bytes [] = { 1, 2, 3 };
    Owned<PLDataRef> copy (PLDataCreate (kPLAllocatorDefault, bytes, 3));
    Owned<PLDataRef> borrowed (PLDataCreateWithBytesNoCopy (kPLAllocatorDefault, bytes, 3, kPLAllocatorNull));
    bytes [0] = 9;
    EXPECT_TRUE (PLDataGetBytePtr (copy) [0] == 1 && PLDataGetBytePtr (borrowed) == bytes);
    EXPECT_EQ (PLDataGetMutableBytePtr (const_cast<PLMutableDataRef> (copy.Get ())), nullptr);
    EXPECT_EQ (PLDataGetLength (Owned<PLDataRef> (PLDataCreate (kPLAllocatorDefault, nullptr, 0))), 0);
    EXPECT_TRUE (PLDataCreate (kPLAllocatorDefault, nullptr, 1) == nullptr && PLDataCreate (kPLAllocatorDefault, bytes, -1) == nullptr);
    Owned<PLMutableDataRef> growing (PLDataCreateMutable (kPLAllocatorDefault, 0));
    for (int i = 0; i < 1000; ++i)
        PLDataAppendBytes (growing, bytes, 3);
    EXPECT_TRUE (PLDataGetLength (growing) == 3000 && PLDataGetBytePtr (growing) [2999] == 3);
    PLDataSetLength (growing, 3002);
    EXPECT_EQ (PLDataGetBytePtr (growing) [3001], 0);
    uint8_t part [2];
    PLDataGetBytes (growing, PLRangeMake (2998, 2), part);
    EXPECT_EQ (part [0], 2);
    EXPECT_TRUE (PLEqual (copy, Owned<PLDataRef> (PLDataCreateCopy (kPLAllocatorDefault, copy))));
}
