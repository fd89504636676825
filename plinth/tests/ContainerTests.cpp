// Dictionaries, sets and arrays: who holds what, replacement, removal, the callbacks of each word,
// and large tables checked against a model.
#include "PlinthTest.h"

#include <map>
#include <random>
#include <vector>

using namespace PlinthTest;

namespace {

PLMutableDictionaryRef NewDictionary (PLDictionaryKeyCallBacks const * keys = &kPLTypeDictionaryKeyCallBacks)
{
    return PLDictionaryCreateMutable (kPLAllocatorDefault, 0, keys, &kPLTypeDictionaryValueCallBacks);
}

}

TEST (Dictionary, HoldsItsOwnCountsAndReplacesEqualKeys)
{
    NoLeaks noLeaks;
    Owned<PLMutableDictionaryRef> d (NewDictionary ());
    Owned<PLStringRef> key (CreateString ("key")), sameKey (CreateString ("key"));
    Owned<PLStringRef> first (CreateString ("first")), second (CreateString ("second"));
    PLDictionarySetValue (d, key, first);
    EXPECT_EQ (PLDictionaryGetValue (d, sameKey), first.Get ());   // Get lends
    EXPECT_EQ (PLGetRetainCount (key) + PLGetRetainCount (first), 4);
    PLDictionarySetValue (d, sameKey, second);   // an equal key: the entry is replaced, key and value
    EXPECT_EQ (PLDictionaryGetCount (d), 1);
    EXPECT_EQ (PLGetRetainCount (key) + PLGetRetainCount (first) + PLGetRetainCount (sameKey), 4);
    PLDictionarySetValue (d, sameKey, second);   // the same entry again changes no count
    EXPECT_EQ (PLGetRetainCount (second), 2);
    PLDictionaryRemoveValue (d, key);
    PLDictionaryRemoveValue (d, key);   // absent: nothing happens
    EXPECT_EQ (PLDictionaryGetCount (d), 0);
    EXPECT_EQ (PLGetRetainCount (sameKey) + PLGetRetainCount (second), 2);

    // Null keys and immutable dictionaries change nothing; Add keeps a present value.
    PLDictionarySetValue (d, nullptr, PLSTR ("v"));
    EXPECT_FALSE (PLDictionaryGetCount (d) || PLDictionaryContainsKey (d, nullptr));
    void const * keys [] = { PLSTR ("a") }, * values [] = { PLSTR ("b") };
    Owned<PLDictionaryRef> fixed (PLDictionaryCreate (kPLAllocatorDefault, keys, values, 1,
        &kPLTypeDictionaryKeyCallBacks, &kPLTypeDictionaryValueCallBacks));
    PLDictionarySetValue (const_cast<PLMutableDictionaryRef> (fixed.Get ()), PLSTR ("c"), PLSTR ("d"));
    PLDictionaryRemoveAllValues (const_cast<PLMutableDictionaryRef> (fixed.Get ()));
    EXPECT_EQ (PLDictionaryGetCount (fixed), 1);
    Owned<PLMutableDictionaryRef> copy (PLDictionaryCreateMutableCopy (kPLAllocatorDefault, 0, fixed));
    EXPECT_TRUE (PLEqual (copy, fixed));
    PLDictionarySetValue (copy, PLSTR ("c"), PLSTR ("d"));
    PLDictionaryAddValue (copy, PLSTR ("c"), PLSTR ("e"));
    EXPECT_FALSE (PLEqual (copy, fixed));
    EXPECT_TRUE (PLDictionaryContainsValue (copy, PLSTR ("d")) && ! PLDictionaryContainsValue (copy, PLSTR ("e")));
}

TEST (Dictionary, EqualityAndHashWordsAreTheCallersToReplace)
{
    NoLeaks noLeaks;
    // The library's case-insensitive keys keep words 1 to 4 and replace 5 and 6.
    PLDictionaryKeyCallBacks callBacks = kPLTypeDictionaryKeyCallBacks;
    callBacks.equal = [] (void const * x, void const * y) -> PLBoolean {
        return PLStringCompare (static_cast<PLStringRef> (x), static_cast<PLStringRef> (y), kPLCompareCaseInsensitive) == 0;
    };
    callBacks.hash = [] (void const * value) { return PLHashCode (PLStringGetLength (static_cast<PLStringRef> (value))); };
    Owned<PLMutableDictionaryRef> d (NewDictionary (&callBacks));
    Owned<PLStringRef> lower (CreateString ("path")), upper (CreateString ("PATH"));
    PLDictionarySetValue (d, lower, kPLBooleanTrue);
    PLDictionarySetValue (d, upper, kPLBooleanFalse);
    EXPECT_EQ (PLDictionaryGetCount (d), 1);
    EXPECT_EQ (PLDictionaryGetValue (d, lower), kPLBooleanFalse);
    PLDictionaryRemoveValue (d, lower);
    EXPECT_EQ (PLDictionaryGetCount (d), 0);
    // No callbacks at all: pointers, neither retained nor compared by contents.
    Owned<PLMutableDictionaryRef> raw (PLDictionaryCreateMutable (kPLAllocatorDefault, 0, nullptr, nullptr));
    PLDictionarySetValue (raw, lower, upper);
    EXPECT_EQ (PLGetRetainCount (lower), 1);
    EXPECT_FALSE (PLDictionaryContainsKey (raw, PLSTR ("path")));
    EXPECT_EQ (PLDictionaryGetValue (raw, lower), upper.Get ());
}

TEST (Set, MembershipAndCounts)
{
    NoLeaks noLeaks;
    Owned<PLStringRef> a (CreateString ("a")), a2 (CreateString ("a")), b (CreateString ("b"));
    void const * members [] = { a.Get (), b.Get (), a2.Get () };
    Owned<PLSetRef> set (PLSetCreate (kPLAllocatorDefault, members, 3, &kPLTypeSetCallBacks));
    EXPECT_EQ (PLSetGetCount (set), 2);
    EXPECT_EQ (PLGetRetainCount (a2), 1);   // equal to a member: not added
    EXPECT_TRUE (PLSetContainsValue (set, a2) && PLSetGetValue (set, a2) == a.Get ());
    EXPECT_FALSE (PLSetContainsValue (set, PLSTR ("c")) || PLSetContainsValue (set, nullptr) || PLSetContainsValue (nullptr, a));
    Owned<PLMutableSetRef> mutableSet (PLSetCreateMutableCopy (kPLAllocatorDefault, 0, set));
    PLSetRemoveValue (mutableSet, a2);
    PLSetAddValue (mutableSet, PLSTR ("c"));
    PLSetAddValue (mutableSet, nullptr);
    EXPECT_EQ (PLSetGetCount (mutableSet), 2);
    EXPECT_EQ (PLGetRetainCount (a), 2);
    PLSetAddValue (const_cast<PLMutableSetRef> (set.Get ()), PLSTR ("z"));
    EXPECT_EQ (PLSetGetCount (set), 2);
}

TEST (Array, OrderAndCounts)
{
    NoLeaks noLeaks;
    Owned<PLMutableArrayRef> array (PLArrayCreateMutable (kPLAllocatorDefault, 0, &kPLTypeArrayCallBacks));
    Owned<PLStringRef> x (CreateString ("x")), y (CreateString ("y"));
    PLArrayAppendValue (array, x);
    PLArrayAppendValue (array, y);
    PLArrayInsertValueAtIndex (array, 0, y);
    EXPECT_EQ (PLGetRetainCount (y), 3);
    EXPECT_TRUE (PLArrayGetValueAtIndex (array, 0) == y.Get () && PLArrayGetValueAtIndex (array, 3) == nullptr);
    EXPECT_EQ (PLArrayGetFirstIndexOfValue (array, PLRangeMake (0, 3), PLSTR ("x")), 1);
    PLArraySetValueAtIndex (array, 0, x);
    EXPECT_EQ (PLGetRetainCount (y), 2);
    PLArrayRemoveValueAtIndex (array, 0);
    PLArrayRemoveValueAtIndex (array, 7);
    EXPECT_EQ (PLGetRetainCount (x), 2);
    Owned<PLArrayRef> copy (PLArrayCreateCopy (kPLAllocatorDefault, array));
    EXPECT_TRUE (PLEqual (copy, array));
    PLArrayAppendValue (const_cast<PLMutableArrayRef> (copy.Get ()), x);
    EXPECT_EQ (PLArrayGetCount (copy), 2);
    PLArrayRemoveAllValues (array);
    EXPECT_EQ (PLGetRetainCount (x), 2);
}

// Keys added and removed at random, in tables made for two: dictionaries and sets agree with a
// model, also when 64 hashes are all the keys have (long runs of equal hashes, displaced and shifted
// back), arrays keep every value, and each key is held once by each container.
TEST (Containers, OutgrowTheirRoomAndAgreeWithAModel)
{
    NoLeaks noLeaks;
    Owned<PLMutableDictionaryRef> d (PLDictionaryCreateMutable (kPLAllocatorDefault, 2, &kPLTypeDictionaryKeyCallBacks,
        &kPLTypeDictionaryValueCallBacks));
    PLDictionaryKeyCallBacks clusteredKeys = kPLTypeDictionaryKeyCallBacks;
    clusteredKeys.hash = [] (void const * key) { return PLHash (key) & 0x3F; };
    Owned<PLMutableDictionaryRef> clustered (NewDictionary (&clusteredKeys));
    Owned<PLMutableSetRef> s (PLSetCreateMutable (kPLAllocatorDefault, 2, &kPLTypeSetCallBacks));
    Owned<PLMutableArrayRef> a (PLArrayCreateMutable (kPLAllocatorDefault, 2, &kPLTypeArrayCallBacks));
    std::map<int, int> model;
    std::mt19937 random (7);
    std::vector<PLStringRef> keys;
    int appended = 0, lastAppended = -1;
    for (int i = 0; i < 4000; ++i)
        keys.push_back (CreateString (("key" + std::to_string (i)).c_str ()));
    for (int step = 0; step < 60000; ++step) {
        int k = int (random () % keys.size ()), v = int (random () % 1000);
        Owned<PLNumberRef> value (Integer (v));
        if (random () % 3 == 0)
            model.erase (k), PLDictionaryRemoveValue (d, keys [k]), PLSetRemoveValue (s, keys [k]),
                PLDictionaryRemoveValue (clustered, keys [k]);
        else
            model [k] = v, PLDictionarySetValue (d, keys [k], value), PLDictionarySetValue (clustered, keys [k], value), PLSetAddValue (s, keys [k]), PLArrayAppendValue (a, value),
                ++appended, lastAppended = v;
    }
    ASSERT_EQ (PLDictionaryGetCount (d), PLIndex (model.size ()));
    EXPECT_EQ (PLSetGetCount (s), PLIndex (model.size ()));
    for (std::size_t k = 0; k < keys.size (); ++k) {
        int stored = -1;
        PLNumberGetValue (static_cast<PLNumberRef> (PLDictionaryGetValue (d, keys [k])), kPLNumberSInt32Type, &stored);
        EXPECT_EQ (stored, model.count (int (k)) ? model [int (k)] : -1) << k;
        EXPECT_EQ (PLDictionaryGetValue (clustered, keys [k]), PLDictionaryGetValue (d, keys [k])) << k;
        EXPECT_EQ (PLGetRetainCount (keys [k]), model.count (int (k)) ? 4 : 1) << k;
    }
    int last = -1;
    ASSERT_EQ (PLArrayGetCount (a), appended);
    PLNumberGetValue (static_cast<PLNumberRef> (PLArrayGetValueAtIndex (a, appended - 1)), kPLNumberSInt32Type, &last);
    EXPECT_EQ (last, lastAppended);
    PLDictionaryRemoveAllValues (d);
    PLDictionaryRemoveAllValues (clustered);
    PLSetRemoveAllValues (s);
    for (PLStringRef key : keys) {
        EXPECT_EQ (PLGetRetainCount (key), 1);
        PLRelease (key);
    }
}
