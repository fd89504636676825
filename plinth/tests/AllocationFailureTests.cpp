// Allocation failure: each public operation that allocates is run with its Nth allocation made to
// fail, for N = 1, 2, ... until the call makes fewer than N, once with only the Nth failing and once
// with every allocation from the Nth on failing. At every N the call either fails as it says (null,
// false, an error) with nothing left allocated and nothing changed that can be seen, or succeeds
// with the whole result. Natively only: the test replaces the C library's allocator of its own
// process (glibc's documented replacement: malloc, calloc, realloc and free; Plinth asks for no
// aligned blocks), which a Windows DLL's C runtime doesn't allow.
#include "PlinthTest.h"

#include <cerrno>
#include <functional>

extern "C" void * __libc_malloc (std::size_t size);
extern "C" void * __libc_calloc (std::size_t count, std::size_t size);
extern "C" void * __libc_realloc (void * block, std::size_t size);
extern "C" void __libc_free (void * block);

namespace {

// The hook: while armed, allocation number fFailAt fails, and with fFailAfter every later one.
// fBlocks counts the blocks allocated and not yet freed, armed or not.
struct Injection {
    long fCount = 0;
    long fFailAt = 0;
    bool fFailAfter = false;
    bool fFired = false;
    long fBlocks = 0;
} sInjection;

bool Refused ()
{
    if (sInjection.fFailAt == 0)
        return false;
    long n = ++sInjection.fCount;
    bool refused = n == sInjection.fFailAt || (sInjection.fFailAfter && n > sInjection.fFailAt);
    if (refused) {
        sInjection.fFired = true;
        errno = ENOMEM;
    }
    return refused;
}

void * Counted (void * block)
{
    if (block != nullptr)
        __atomic_add_fetch (&sInjection.fBlocks, 1, __ATOMIC_RELAXED);
    return block;
}

void Arm (long failAt, bool failAfter) { sInjection = { 0, failAt, failAfter, false, sInjection.fBlocks }; }

// Disarms; whether an allocation was refused.
bool Disarm ()
{
    sInjection.fFailAt = 0;
    return sInjection.fFired;
}

}

extern "C" {

void * malloc (std::size_t size) { return Refused () ? nullptr : Counted (__libc_malloc (size)); }
void * calloc (std::size_t count, std::size_t size) { return Refused () ? nullptr : Counted (__libc_calloc (count, size)); }
void * realloc (void * block, std::size_t size)
{
    if (block == nullptr)
        return malloc (size);
    return Refused () ? nullptr : __libc_realloc (block, size);
}

void free (void * block)
{
    if (block != nullptr)
        __atomic_sub_fetch (&sInjection.fBlocks, 1, __ATOMIC_RELAXED);
    __libc_free (block);
}

}

using namespace PlinthTest;

namespace {

// One public operation: made ready before each call (not injected), called, and seen afterwards.
struct Operation {
    char const * fName;
    std::function<PLTypeRef ()> fCall;                 // the result, owned; null when the call failed
    std::function<PLTypeRef ()> fVisible = nullptr;    // what the call changes, owned; for calls with effects
    std::function<void ()> fPrepare = [] {};
    bool fKeeps = false;                               // a success keeps memory or objects (grown, pending)
    bool fVoid = false;                                // the call says nothing: what is seen tells
};

// The reason that the calls which give one gave last, held across calls as a caller's scope would.
Owned<PLStringRef> * sError = nullptr;

// The objects and blocks alive, but for that reason (a string is one block).
PLIndex LiveObjects () { return PLDebugGetLiveObjectCount () - (sError->Get () != nullptr ? 1 : 0); }
long LiveBlocks () { return sInjection.fBlocks - (sError->Get () != nullptr ? 1 : 0); }

PLTypeRef Seen (Operation const & operation)
{
    return operation.fVisible ? operation.fVisible () : nullptr;
}

int Failures () { return testing::UnitTest::GetInstance ()->current_test_info ()->result ()->total_part_count (); }

// Stops at the first N that fails a check, which is the one to look at.
void Sweep (Operation const & operation, bool failAfter)
{
    int failures = Failures ();
    operation.fPrepare ();
    Owned<PLTypeRef> expected (operation.fCall ()), expectedSeen (Seen (operation));
    ASSERT_NE (expected.Get (), nullptr) << operation.fName;
    for (long n = 1;; ++n) {
        std::string at = std::string (operation.fName) + (failAfter ? ", every allocation from " : ", allocation ")
            + std::to_string (n);
        operation.fPrepare ();
        Owned<PLTypeRef> before (Seen (operation));
        PLIndex objects = LiveObjects ();
        long blocks = LiveBlocks ();
        PLTypeRef result = nullptr;
        Arm (n, failAfter);
        try {
            result = operation.fCall ();
        }
        catch (...) {
            Disarm ();
            ADD_FAILURE () << at << ": a C++ exception left the call";
            return;
        }
        bool refused = Disarm ();
        EXPECT_TRUE (result == nullptr || PLEqual (result, expected)) << at << ": a part of the result is missing";
        bool failed = result == nullptr;
        PLRelease (result);
        PLIndex objectsLeft = LiveObjects () - objects;
        long blocksLeft = LiveBlocks () - blocks;
        Owned<PLTypeRef> seen (Seen (operation));
        if (operation.fVoid)
            failed = ! PLEqual (seen, expectedSeen);
        if (failed) {
            EXPECT_TRUE (refused) << at << ": failed with memory to spare";
            EXPECT_TRUE (PLEqual (seen, before)) << at << ": failed, and changed what is seen";
            EXPECT_EQ (objectsLeft, 0) << at << ": objects left alive";
            EXPECT_EQ (blocksLeft, 0) << at << ": memory left allocated";
        }
        else {
            EXPECT_TRUE (PLEqual (seen, expectedSeen)) << at << ": succeeded, but not all of it is seen";
            EXPECT_TRUE (operation.fKeeps || (objectsLeft == 0 && blocksLeft == 0)) << at << ": objects or memory left";
        }
        EXPECT_TRUE (refused || n > 1) << at << ": the call allocates nothing";
        if (! refused || Failures () > failures)
            break;
    }
}

// 20 entries of every kind, containers nested and shared among them.
PLDictionaryRef Document ()
{
    uint64_t big = UINT64_MAX;
    Owned<PLTypeRef> leaves [] = { Owned<PLTypeRef> (Integer (-42)), Owned<PLTypeRef> (Real (0.1)),
        Owned<PLTypeRef> (PLDataCreate (nullptr, reinterpret_cast<uint8_t const *> ("\0\1\xFF"), 3)),
        Owned<PLTypeRef> (PLDateCreate (nullptr, 12.5)), Owned<PLTypeRef> (CreateString (u8"Gr\u00FC\u00DFe \U0001F600")),
        Owned<PLTypeRef> (PLNumberCreate (nullptr, kPLNumberUInt64Type, &big)) };
    Owned<PLArrayRef> list (PLArrayCreate (nullptr, reinterpret_cast<void const **> (leaves), 6, &kPLTypeArrayCallBacks));
    PLMutableDictionaryRef document = PLDictionaryCreateMutable (nullptr, 0, &kPLTypeDictionaryKeyCallBacks,
        &kPLTypeDictionaryValueCallBacks);
    for (int i = 0; i < 20; ++i) {
        Owned<PLStringRef> key (CreateString (("key" + std::to_string (i)).c_str ()));
        Owned<PLDictionaryRef> inner (PLDictionaryCreate (nullptr, reinterpret_cast<void const **> (&key),
            reinterpret_cast<void const **> (&leaves [i % 6]), 1, &kPLTypeDictionaryKeyCallBacks, &kPLTypeDictionaryValueCallBacks));
        void const * values [] = { leaves [i % 6].Get (), list.Get (), inner.Get () };
        PLDictionarySetValue (document, key, values [i % 3]);
    }
    return document;
}

PLDictionaryRef FileValues (std::string const & path)
{
    std::string bytes = ScratchPreferences::ReadFile (path);
    Owned<PLDataRef> data (PLDataCreate (nullptr, reinterpret_cast<uint8_t const *> (bytes.data ()), PLIndex (bytes.size ())));
    return static_cast<PLDictionaryRef> (PLPropertyListCreateWithData (nullptr, data, 0, nullptr, nullptr));
}

}

TEST (AllocationFailure, EveryOperationFailsWholeOrSucceedsWhole)
{
    ScratchPreferences scratch;
    NoLeaks noLeaks;
    Owned<PLStringRef> error;
    sError = &error;
    Owned<PLDictionaryRef> document (Document ());
    PLIndex count = PLDictionaryGetCount (document);
    std::vector<void const *> keys (std::size_t (count) * 2);
    PLDictionaryGetKeysAndValues (document, keys.data (), keys.data () + count);
    Owned<PLDataRef> binary (PLPropertyListCreateData (nullptr, document, kPLPropertyListBinaryFormat, 0, nullptr));
    Owned<PLDataRef> xml (PLPropertyListCreateData (nullptr, document, kPLPropertyListXMLFormat, 0, nullptr));
    Owned<PLStringRef> added (CreateString ("added"));
    PLMutableDictionaryRef mutableDictionary = nullptr;
    PLMutableArrayRef mutableArray = nullptr;
    PLStringRef fresh = nullptr;
    // Preferences: a store of 40 values, and a change of one.
    PLStringRef application = PLSTR ("PlinthAllocation");
    for (PLIndex i = 0; i < count * 2; ++i)
        PLPreferencesSetAppValue (Owned<PLStringRef> (PLStringCreateWithFormat (nullptr, nullptr, PLSTR ("stored%d"), int (i))),
            keys [std::size_t (count + i % count)], application);
    ASSERT_TRUE (PLPreferencesAppSynchronize (application));
    int names = 0;
    auto read = [&] (PLDataRef data, PLOptionFlags options) {
        return [&, data, options] { return PLPropertyListCreateWithData (nullptr, data, options, nullptr, error.Out ()); };
    };
    auto write = [&] (PLPropertyListFormat format) {
        return [&, format] { return PLTypeRef (PLPropertyListCreateData (nullptr, document, format, 0, error.Out ())); };
    };
    Operation const operations [] = {
        { "PLDictionaryCreate", [&] { return PLTypeRef (PLDictionaryCreate (nullptr, keys.data (), keys.data () + count, count,
            &kPLTypeDictionaryKeyCallBacks, &kPLTypeDictionaryValueCallBacks)); } },
        { "PLArrayCreate", [&] { return PLTypeRef (PLArrayCreate (nullptr, keys.data (), count * 2, &kPLTypeArrayCallBacks)); } },
        { "PLStringCreateWithCString", [] { return PLTypeRef (CreateString (u8"\u00E4 text")); } },
        { "PLDictionaryCreateMutableCopy", [&] { return PLTypeRef (PLDictionaryCreateMutableCopy (nullptr, 0, document)); } },
        { "PLDictionarySetValue", [&] {
            PLDictionarySetValue (mutableDictionary, added, added);
            return PLDictionaryContainsKey (mutableDictionary, added) ? PLRetain (mutableDictionary) : nullptr;
        }, [&] { return PLTypeRef (PLDictionaryCreateCopy (nullptr, mutableDictionary)); },
        [&] {   // 24 entries fill the table of a copy of 20: the 25th makes it grow
            PLRelease (mutableDictionary);
            mutableDictionary = PLDictionaryCreateMutableCopy (nullptr, 0, document);
            for (char const * extra : { "a", "b", "c", "d" })
                PLDictionarySetValue (mutableDictionary, Owned<PLStringRef> (CreateString (extra)), added);
        }, true },
        { "PLArrayAppendValue", [&] {
            PLArrayAppendValue (mutableArray, added);
            return PLArrayGetCount (mutableArray) > count ? PLRetain (mutableArray) : nullptr;
        }, [&] { return PLTypeRef (PLArrayCreateCopy (nullptr, mutableArray)); },
        [&] {
            PLRelease (mutableArray);
            mutableArray = PLArrayCreateMutableCopy (nullptr, 0, Owned<PLArrayRef> (PLArrayCreate (nullptr, keys.data (),
                count, &kPLTypeArrayCallBacks)));
        }, true },
        { "PLPropertyListCreateWithData binary", read (binary, kPLPropertyListImmutable) },
        { "PLPropertyListCreateWithData binary, mutable containers", read (binary, kPLPropertyListMutableContainers) },
        { "PLPropertyListCreateWithData binary, mutable leaves", read (binary, kPLPropertyListMutableContainersAndLeaves) },
        { "PLPropertyListCreateWithData XML", read (xml, kPLPropertyListImmutable) },
        { "PLPropertyListCreateWithData XML, mutable containers", read (xml, kPLPropertyListMutableContainers) },
        { "PLPropertyListCreateWithData XML, mutable leaves", read (xml, kPLPropertyListMutableContainersAndLeaves) },
        { "PLPropertyListCreateData binary", write (kPLPropertyListBinaryFormat) },
        { "PLPropertyListCreateData XML", write (kPLPropertyListXMLFormat) },
        { "PLCopyDescription", [&] { return PLTypeRef (PLCopyDescription (document)); } },
        { "PLPreferencesCopyAppValue", [&] { return PLPreferencesCopyAppValue (PLSTR ("stored1"), application); } },
        // A new application each time, whose pending record is made by the call.
        { "PLPreferencesSetAppValue", [&] {
            PLPreferencesSetAppValue (PLSTR ("changed"), document, fresh);
            return PLTypeRef (kPLBooleanTrue);
        }, [&] { return PLPreferencesCopyAppValue (PLSTR ("changed"), fresh); },
        [&] {
            PLPreferencesSetAppValue (PLSTR ("changed"), nullptr, fresh);   // no copy stays pending
            PLRelease (fresh);
            fresh = PLStringCreateWithFormat (nullptr, nullptr, PLSTR ("PlinthAllocation%d"), ++names);
        },
        true, true },
        // What the file holds, and that the change is still seen.
        { "PLPreferencesAppSynchronize", [&] { return PLPreferencesAppSynchronize (application) ? kPLBooleanTrue : nullptr; },
        [&] {
            Owned<PLTypeRef> change (PLPreferencesCopyAppValue (PLSTR ("changed"), application));
            Owned<PLDictionaryRef> file (FileValues (scratch.File ("PlinthAllocation.plist")));
            void const * both [] = { file.Get (), change.Get () != nullptr ? change.Get () : kPLBooleanFalse };
            return PLTypeRef (PLArrayCreate (nullptr, both, 2, &kPLTypeArrayCallBacks));
        },
        [&] {
            PLPreferencesSetAppValue (PLSTR ("changed"), nullptr, application);
            ASSERT_TRUE (PLPreferencesAppSynchronize (application));
            PLPreferencesSetAppValue (PLSTR ("changed"), document, application);
        }, true },
    };
    for (Operation const & operation : operations)
        for (bool failAfter : { false, true })
            Sweep (operation, failAfter);
    PLPreferencesSetAppValue (PLSTR ("changed"), nullptr, fresh);
    PLRelease (fresh);
    PLRelease (mutableArray);
    PLRelease (mutableDictionary);
}
