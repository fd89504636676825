// The object model: counts, immortals, kinds, equality and hashing, descriptions, allocators.
#include "PlinthTest.h"

#include <algorithm>
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
    EXPECT_EQ (UTF8 (constant), "immortal text");
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
    Owned<PLDataRef> data (PLDataCreate (kPLAllocatorDefault, reinterpret_cast<uint8_t const *> ("\x01\xab\x00\x10\xff"), 5));
    void const * values [] = { PLSTR ("a"), number.Get () }, * keys [] = { PLSTR ("k") };
    Owned<PLArrayRef> array (PLArrayCreate (kPLAllocatorDefault, values, 2, &kPLTypeArrayCallBacks));
    Owned<PLDictionaryRef> dictionary (PLDictionaryCreate (kPLAllocatorDefault, keys, values, 1,
        &kPLTypeDictionaryKeyCallBacks, &kPLTypeDictionaryValueCallBacks));
    std::vector<std::pair<PLTypeRef, std::string>> cases {
        { number, "42" }, { real, "0.5" }, { kPLBooleanTrue, "true" }, { kPLBooleanFalse, "false" },
        { data, "<01ab0010 ff>" }, { array, "(\n    a,\n    42\n)" }, { dictionary, "{\n    k = a;\n}" },
        { nullptr, "(null)" }, { kPLAllocatorNull, "<PLAllocator null>" } };
    for (auto const & c : cases)
        EXPECT_EQ (UTF8 (Owned<PLStringRef> (PLCopyDescription (c.first))), c.second);

    Owned<PLStringRef> s (PLStringCreateWithCString (nullptr, "x", kPLStringEncodingASCII));
    EXPECT_TRUE (PLGetAllocator (s) == kPLAllocatorDefault && PLGetAllocator (nullptr) == nullptr);
    // The null allocator makes nothing.
    EXPECT_EQ (PLStringCreateWithCString (kPLAllocatorNull, "x", kPLStringEncodingASCII), nullptr);
    EXPECT_EQ (PLDataCreate (kPLAllocatorNull, nullptr, 0), nullptr);
    EXPECT_EQ (PLDictionaryCreateMutable (kPLAllocatorNull, 0, nullptr, nullptr), nullptr);
}
