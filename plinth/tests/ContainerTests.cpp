// Dictionaries, sets and arrays: who holds what, replacement, removal, the callbacks of each word,
// and a large table checked against a model.
#include "PlinthTest.h"

#include <random>
#include <unordered_map>
#include <vector>

using namespace PlinthTest;

namespace {

PLMutableDictionaryRef NewDictionary (PLDictionaryKeyCallBacks const * keys = &kPLTypeDictionaryKeyCallBacks)
{
    return PLDictionaryCreateMutable (kPLAllocatorDefault, 0, keys, &kPLTypeDictionaryValueCallBacks);
}

PLBoolean EqualIgnoringCase (void const * x, void const * y)
{
    return PLStringCompare (static_cast<PLStringRef> (x), static_cast<PLStringRef> (y), kPLCompareCaseInsensitive) == 0;
}

PLHashCode HashOfLength (void const * value)
{
    return PLHashCode (PLStringGetLength (static_cast<PLStringRef> (value)));
}

}

TEST (Dictionary, HoldsItsOwnCountsAndReplacesEqualKeys)
{
    NoLeaks noLeaks;
    Owned<PLMutableDictionaryRef> d (NewDictionary ());
    Owned<PLStringRef> key (CreateString ("key")), sameKey (CreateString ("key"));
    Owned<PLStringRef> first (CreateString ("first")), second (CreateString ("second"));
    PLDictionarySetValue (d, key, first);
    EXPECT_EQ (PLGetRetainCount (key), 2);
    EXPECT_EQ (PLGetRetainCount (first), 2);
    EXPECT_EQ (PLDictionaryGetCount (d), 1);
    EXPECT_EQ (PLDictionaryGetValue (d, sameKey), first.Get ());
    EXPECT_EQ (PLGetRetainCount (first), 2);   // Get lends

    PLDictionarySetValue (d, sameKey, second);   // an equal key: the entry is replaced, key and value
    EXPECT_EQ (PLDictionaryGetCount (d), 1);
    EXPECT_EQ (PLGetRetainCount (key), 1);
    EXPECT_EQ (PLGetRetainCount (first), 1);
    EXPECT_EQ (PLGetRetainCount (sameKey), 2);
    void const * keys [1];
    void const * values [1];
    PLDictionaryGetKeysAndValues (d, keys, values);
    EXPECT_EQ (keys [0], sameKey.Get ());
    EXPECT_EQ (values [0], second.Get ());

    PLDictionarySetValue (d, sameKey, second);   // the same entry again changes no count
    EXPECT_EQ (PLGetRetainCount (second), 2);
    PLDictionaryRemoveValue (d, key);
    EXPECT_EQ (PLDictionaryGetCount (d), 0);
    EXPECT_EQ (PLGetRetainCount (sameKey), 1);
    EXPECT_EQ (PLGetRetainCount (second), 1);
    PLDictionaryRemoveValue (d, key);   // absent: nothing happens
    EXPECT_FALSE (PLDictionaryContainsKey (d, key));
    EXPECT_EQ (PLDictionaryGetValue (d, key), nullptr);
}

TEST (Dictionary, NullKeysAndImmutableDictionariesChangeNothing)
{
    NoLeaks noLeaks;
    Owned<PLMutableDictionaryRef> d (NewDictionary ());
    PLDictionarySetValue (d, nullptr, PLSTR ("v"));
    EXPECT_EQ (PLDictionaryGetCount (d), 0);
    EXPECT_FALSE (PLDictionaryContainsKey (d, nullptr));
    void const * keys [] = { PLSTR ("a") };
    void const * values [] = { PLSTR ("b") };
    Owned<PLDictionaryRef> fixed (PLDictionaryCreate (kPLAllocatorDefault, keys, values, 1,
        &kPLTypeDictionaryKeyCallBacks, &kPLTypeDictionaryValueCallBacks));
    PLDictionarySetValue (const_cast<PLMutableDictionaryRef> (fixed.Get ()), PLSTR ("c"), PLSTR ("d"));
    PLDictionaryRemoveAllValues (const_cast<PLMutableDictionaryRef> (fixed.Get ()));
    EXPECT_EQ (PLDictionaryGetCount (fixed), 1);
    Owned<PLMutableDictionaryRef> copy (PLDictionaryCreateMutableCopy (kPLAllocatorDefault, 0, fixed));
    EXPECT_TRUE (PLEqual (copy, fixed));
    PLDictionarySetValue (copy, PLSTR ("c"), PLSTR ("d"));
    EXPECT_FALSE (PLEqual (copy, fixed));
    EXPECT_TRUE (PLDictionaryContainsValue (copy, PLSTR ("d")));
    PLDictionaryAddValue (copy, PLSTR ("c"), PLSTR ("e"));   // present: Add keeps the old value
    EXPECT_EQ (PLDictionaryGetValue (copy, PLSTR ("c")), PLSTR ("d"));
    PLDictionaryRemoveAllValues (copy);
    EXPECT_EQ (PLDictionaryGetCount (copy), 0);
}

TEST (Dictionary, EqualityAndHashWordsAreTheCallersToReplace)
{
    NoLeaks noLeaks;
    // The library's case-insensitive keys keep words 1 to 4 and replace 5 and 6.
    PLDictionaryKeyCallBacks callBacks = kPLTypeDictionaryKeyCallBacks;
    callBacks.equal = EqualIgnoringCase;
    callBacks.hash = HashOfLength;
    Owned<PLMutableDictionaryRef> d (NewDictionary (&callBacks));
    Owned<PLStringRef> lower (CreateString ("path")), upper (CreateString ("PATH"));
    PLDictionarySetValue (d, lower, kPLBooleanTrue);
    EXPECT_TRUE (PLDictionaryContainsKey (d, upper));
    PLDictionarySetValue (d, upper, kPLBooleanFalse);
    EXPECT_EQ (PLDictionaryGetCount (d), 1);
    EXPECT_EQ (PLDictionaryGetValue (d, lower), kPLBooleanFalse);
    PLDictionaryRemoveValue (d, lower);
    EXPECT_EQ (PLDictionaryGetCount (d), 0);

    // No callbacks at all: pointers, neither retained nor compared by contents.
    Owned<PLMutableDictionaryRef> raw (PLDictionaryCreateMutable (kPLAllocatorDefault, 0, nullptr, nullptr));
    Owned<PLStringRef> other (CreateString ("path"));
    PLDictionarySetValue (raw, lower, upper);
    EXPECT_EQ (PLGetRetainCount (lower), 1);
    EXPECT_FALSE (PLDictionaryContainsKey (raw, other));
    EXPECT_EQ (PLDictionaryGetValue (raw, lower), upper.Get ());
}

TEST (Dictionary, LargeTablesAgreeWithAModel)
{
    NoLeaks noLeaks;
    Owned<PLMutableDictionaryRef> d (NewDictionary ());
    std::unordered_map<int, int> model;
    std::mt19937 random (7);
    std::vector<PLStringRef> keys;
    for (int i = 0; i < 4000; ++i) {
        std::string text = "key" + std::to_string (i);
        keys.push_back (CreateString (text.c_str ()));
    }
    for (int step = 0; step < 60000; ++step) {
        int k = int (random () % keys.size ());
        int v = int (random () % 1000);
        if (random () % 3 == 0) {
            PLDictionaryRemoveValue (d, keys [k]);
            model.erase (k);
        }
        else {
            Owned<PLNumberRef> value (PLNumberCreate (kPLAllocatorDefault, kPLNumberSInt32Type, &v));
            PLDictionarySetValue (d, keys [k], value);
            model [k] = v;
        }
    }
    ASSERT_EQ (PLDictionaryGetCount (d), PLIndex (model.size ()));
    for (std::size_t k = 0; k < keys.size (); ++k) {
        PLNumberRef value = static_cast<PLNumberRef> (PLDictionaryGetValue (d, keys [k]));
        auto found = model.find (int (k));
        ASSERT_EQ (value != nullptr, found != model.end ()) << k;
        int stored = 0;
        if (value != nullptr) {
            PLNumberGetValue (value, kPLNumberSInt32Type, &stored);
            EXPECT_EQ (stored, found->second);
        }
    }
    PLDictionaryRemoveAllValues (d);
    for (PLStringRef key : keys) {
        EXPECT_EQ (PLGetRetainCount (key), 1);
        PLRelease (key);
    }
}

TEST (Set, MembershipAndCounts)
{
    NoLeaks noLeaks;
    Owned<PLStringRef> a (CreateString ("a")), a2 (CreateString ("a")), b (CreateString ("b"));
    void const * members [] = { a.Get (), b.Get (), a2.Get () };
    Owned<PLSetRef> set (PLSetCreate (kPLAllocatorDefault, members, 3, &kPLTypeSetCallBacks));
    EXPECT_EQ (PLSetGetCount (set), 2);
    EXPECT_EQ (PLGetRetainCount (a), 2);
    EXPECT_EQ (PLGetRetainCount (a2), 1);   // equal to a member: not added
    EXPECT_TRUE (PLSetContainsValue (set, a2));
    EXPECT_FALSE (PLSetContainsValue (set, PLSTR ("c")));
    EXPECT_FALSE (PLSetContainsValue (set, nullptr));
    EXPECT_FALSE (PLSetContainsValue (nullptr, a));
    EXPECT_EQ (PLSetGetValue (set, a2), a.Get ());
    Owned<PLMutableSetRef> mutableSet (PLSetCreateMutableCopy (kPLAllocatorDefault, 0, set));
    PLSetRemoveValue (mutableSet, a2);
    PLSetAddValue (mutableSet, PLSTR ("c"));
    PLSetAddValue (mutableSet, nullptr);
    EXPECT_EQ (PLSetGetCount (mutableSet), 2);
    EXPECT_EQ (PLGetRetainCount (a), 2);
    EXPECT_FALSE (PLEqual (set, mutableSet));
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
    EXPECT_EQ (PLArrayGetCount (array), 3);
    EXPECT_EQ (PLGetRetainCount (y), 3);
    EXPECT_EQ (PLArrayGetValueAtIndex (array, 0), y.Get ());
    EXPECT_EQ (PLArrayGetValueAtIndex (array, 3), nullptr);
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
    EXPECT_FALSE (PLArrayContainsValue (array, PLRangeMake (0, 0), x));
}

TEST (Containers, OutgrowTheRoomTheyAreMadeWith)
{
    NoLeaks noLeaks;
    Owned<PLMutableDictionaryRef> d (PLDictionaryCreateMutable (kPLAllocatorDefault, 2, &kPLTypeDictionaryKeyCallBacks,
        &kPLTypeDictionaryValueCallBacks));
    Owned<PLMutableSetRef> s (PLSetCreateMutable (kPLAllocatorDefault, 2, &kPLTypeSetCallBacks));
    Owned<PLMutableArrayRef> a (PLArrayCreateMutable (kPLAllocatorDefault, 2, &kPLTypeArrayCallBacks));
    std::vector<PLStringRef> keys;
    for (int round = 0; round < 2; ++round) {
        for (int i = 0; i < 40; ++i) {
            keys.push_back (CreateString (("k" + std::to_string (i)).c_str ()));
            PLDictionarySetValue (d, keys.back (), keys.back ());
            PLSetAddValue (s, keys.back ());
            PLArrayAppendValue (a, keys.back ());
        }
        for (int i = 0; i < 40; i += 2) {
            PLDictionaryRemoveValue (d, keys [std::size_t (round * 40 + i)]);
            PLSetRemoveValue (s, keys [std::size_t (round * 40 + i)]);
        }
        EXPECT_EQ (PLDictionaryGetCount (d), 20);
        EXPECT_EQ (PLSetGetCount (s), 20);
        EXPECT_EQ (PLArrayGetCount (a), 40);
        for (int i = 0; i < 40; ++i)
            EXPECT_EQ (PLDictionaryContainsKey (d, keys [std::size_t (round * 40 + i)]) != 0, i % 2 == 1) << i;
        PLDictionaryRemoveAllValues (d);
        PLSetRemoveAllValues (s);
        PLArrayRemoveAllValues (a);
    }
    for (PLStringRef key : keys) {
        EXPECT_EQ (PLGetRetainCount (key), 1);
        PLRelease (key);
    }
}
