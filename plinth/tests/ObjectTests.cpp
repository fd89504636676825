// The object model: counts, immortals, kinds, equality and hashing, descriptions, allocators.
#include "PlinthTest.h"

#include <string>
#include <thread>
#include <vector>

using namespace PlinthTest;

TEST (Object, RetainAndReleaseCountAndTheLastReleaseFrees)
{
    PLIndex before = PLDebugGetLiveObjectCount ();
    PLStringRef s = CreateString ("counted");
    EXPECT_EQ (PLDebugGetLiveObjectCount (), before + 1);
    EXPECT_EQ (PLGetRetainCount (s), 1);
    EXPECT_EQ (PLRetain (s), s);
    EXPECT_EQ (PLGetRetainCount (s), 2);
    PLRelease (s);
    EXPECT_EQ (PLGetRetainCount (s), 1);
    PLRelease (s);
    EXPECT_EQ (PLDebugGetLiveObjectCount (), before);
    EXPECT_EQ (PLRetain (nullptr), nullptr);
    PLRelease (nullptr);
    EXPECT_EQ (PLGetRetainCount (nullptr), 0);
}

TEST (Object, CountsAreAtomicAcrossThreads)
{
    NoLeaks noLeaks;
    PLStringRef s = CreateString ("shared");
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back ([s] {
            for (int i = 0; i < 100000; ++i) {
                PLRetain (s);
                PLRelease (s);
            }
        });
    for (std::thread & thread : threads)
        thread.join ();
    EXPECT_EQ (PLGetRetainCount (s), 1);
    PLRelease (s);
}

TEST (Object, ImmortalsIgnoreCountsAndAreNotLive)
{
    NoLeaks noLeaks;
    PLStringRef constant = PLSTR ("immortal text");
    EXPECT_EQ (constant, __PLStringMakeConstantString ("immortal text"));
    EXPECT_EQ (UTF8 (constant), "immortal text");
    for (PLTypeRef immortal : { PLTypeRef (constant), PLTypeRef (kPLBooleanTrue), PLTypeRef (kPLBooleanFalse),
                                PLTypeRef (kPLAllocatorDefault), PLTypeRef (kPLAllocatorNull),
                                PLTypeRef (kPLPreferencesCurrentApplication) }) {
        EXPECT_EQ (PLGetRetainCount (immortal), 0x7FFFFFFF);
        PLRelease (immortal);
        PLRelease (immortal);
        PLRetain (immortal);
        EXPECT_EQ (PLGetRetainCount (immortal), 0x7FFFFFFF);
    }
    EXPECT_EQ (__PLStringMakeConstantString (nullptr), nullptr);

    // Threads interning the same new texts at once get one object per text.
    std::vector<PLStringRef> seen [4];
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back ([&seen, t] {
            for (int i = 0; i < 500; ++i)
                seen [t].push_back (__PLStringMakeConstantString (("constant " + std::to_string (i)).c_str ()));
        });
    for (std::thread & thread : threads)
        thread.join ();
    for (int t = 1; t < 4; ++t)
        EXPECT_EQ (seen [t], seen [0]);
}

TEST (Object, KindsHaveDistinctNumbersAndNames)
{
    std::vector<PLTypeID> kinds { PLAllocatorGetTypeID (), PLStringGetTypeID (), PLDataGetTypeID (),
        PLArrayGetTypeID (), PLDictionaryGetTypeID (), PLSetGetTypeID (), PLNumberGetTypeID (), PLBooleanGetTypeID (),
        PLDateGetTypeID (), PLURLGetTypeID () };
    for (std::size_t i = 0; i < kinds.size (); ++i)
        for (std::size_t j = i + 1; j < kinds.size (); ++j)
            EXPECT_NE (kinds [i], kinds [j]);
    EXPECT_EQ (PLGetTypeID (PLSTR ("x")), PLStringGetTypeID ());
    EXPECT_EQ (PLGetTypeID (kPLBooleanTrue), PLBooleanGetTypeID ());
    EXPECT_EQ (PLGetTypeID (kPLAllocatorNull), PLAllocatorGetTypeID ());
    EXPECT_EQ (PLGetTypeID (nullptr), PLTypeID (kPLNotATypeID));
    Owned<PLStringRef> name (PLCopyTypeIDDescription (PLDictionaryGetTypeID ()));
    EXPECT_EQ (UTF8 (name), "PLDictionary");
    EXPECT_EQ (PLCopyTypeIDDescription (999), nullptr);
}

TEST (Object, EqualityAndHashFollowContents)
{
    NoLeaks noLeaks;
    Owned<PLStringRef> a (CreateString ("same")), b (CreateString ("same")), c (CreateString ("other"));
    EXPECT_TRUE (PLEqual (a, b));
    EXPECT_EQ (PLHash (a), PLHash (b));
    EXPECT_FALSE (PLEqual (a, c));
    EXPECT_TRUE (PLEqual (nullptr, nullptr));
    EXPECT_FALSE (PLEqual (a, nullptr));
    EXPECT_FALSE (PLEqual (nullptr, a));
    EXPECT_EQ (PLHash (nullptr), 0ul);
    int64_t three = 3;
    double threeReal = 3.0;
    Owned<PLNumberRef> integer (PLNumberCreate (kPLAllocatorDefault, kPLNumberSInt64Type, &three));
    Owned<PLNumberRef> real (PLNumberCreate (kPLAllocatorDefault, kPLNumberFloat64Type, &threeReal));
    EXPECT_TRUE (PLEqual (integer, real));
    EXPECT_EQ (PLHash (integer), PLHash (real));
    Owned<PLDataRef> data (PLDataCreate (kPLAllocatorDefault, reinterpret_cast<uint8_t const *> ("same"), 4));
    EXPECT_FALSE (PLEqual (a, data));   // another kind, whatever the bytes
}

TEST (Object, DescriptionsAreReadable)
{
    NoLeaks noLeaks;
    int64_t answer = 42;
    double half = 0.5;
    Owned<PLNumberRef> number (PLNumberCreate (kPLAllocatorDefault, kPLNumberSInt64Type, &answer));
    Owned<PLNumberRef> real (PLNumberCreate (kPLAllocatorDefault, kPLNumberFloat64Type, &half));
    Owned<PLDataRef> data (PLDataCreate (kPLAllocatorDefault, reinterpret_cast<uint8_t const *> ("\x01\xab\x00\x10\xff"), 5));
    void const * values [] = { PLSTR ("a"), number.Get () };
    Owned<PLArrayRef> array (PLArrayCreate (kPLAllocatorDefault, values, 2, &kPLTypeArrayCallBacks));
    void const * keys [] = { PLSTR ("k") };
    Owned<PLDictionaryRef> dictionary (PLDictionaryCreate (kPLAllocatorDefault, keys, values, 1,
        &kPLTypeDictionaryKeyCallBacks, &kPLTypeDictionaryValueCallBacks));
    std::vector<std::pair<PLTypeRef, std::string>> cases {
        { number, "42" }, { real, "0.5" }, { kPLBooleanTrue, "true" }, { kPLBooleanFalse, "false" },
        { data, "<01ab0010 ff>" }, { array, "(\n    a,\n    42\n)" }, { dictionary, "{\n    k = a;\n}" },
        { nullptr, "(null)" }, { kPLAllocatorNull, "<PLAllocator null>" } };
    for (auto const & c : cases) {
        Owned<PLStringRef> description (PLCopyDescription (c.first));
        EXPECT_EQ (UTF8 (description), c.second);
    }
}

TEST (Object, AllocatorsAreKeptAndTheNullOneMakesNothing)
{
    NoLeaks noLeaks;
    Owned<PLStringRef> s (PLStringCreateWithCString (nullptr, "x", kPLStringEncodingASCII));
    EXPECT_EQ (PLGetAllocator (s), kPLAllocatorDefault);
    EXPECT_EQ (PLGetAllocator (PLSTR ("x")), kPLAllocatorDefault);
    EXPECT_EQ (PLGetAllocator (nullptr), nullptr);
    EXPECT_EQ (PLStringCreateWithCString (kPLAllocatorNull, "x", kPLStringEncodingASCII), nullptr);
    EXPECT_EQ (PLDataCreate (kPLAllocatorNull, nullptr, 0), nullptr);
    EXPECT_EQ (PLDictionaryCreateMutable (kPLAllocatorNull, 0, nullptr, nullptr), nullptr);
}
