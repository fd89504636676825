// Each public operation that allocates, with its Nth allocation (or every one from the Nth) refused
// for N = 1, 2, ...: it fails as it says, leaving nothing allocated or changed, or succeeds whole.
// Natively only: glibc lets a process replace its allocator, a Windows DLL's runtime doesn't.
#include "PlinthTest.h"

#include <cerrno>
#include <functional>

using namespace PlinthTest;

extern "C" void * __libc_malloc (std::size_t size);
extern "C" void * __libc_calloc (std::size_t count, std::size_t size);
extern "C" void * __libc_realloc (void * block, std::size_t size);
extern "C" void __libc_free (void * block);

namespace {

// While fFailAt is set, allocation number fFailAt is refused, and with fFailAfter every later one.
// fBlocks counts the blocks allocated and not yet freed, armed or not.
struct Injection { long fCount = 0, fFailAt = 0; bool fFailAfter = false; long fBlocks = 0; } sInjection;

bool Refused ()
{
    long n = ++sInjection.fCount;
    bool refused = sInjection.fFailAt != 0 && (n == sInjection.fFailAt || (sInjection.fFailAfter && n > sInjection.fFailAt));
    if (refused)
        errno = ENOMEM;   // as glibc's own does: the C library's callers look at it
    return refused;
}

void * Counted (void * block) { sInjection.fBlocks += block != nullptr ? 1 : 0; return block; }

// One public operation: made ready before each call (not injected), called, and seen afterwards.
struct Operation {
    char const * fName;
    std::function<PLTypeRef ()> fCall;                                  // the result, owned; null when it failed
    std::function<PLTypeRef ()> fSeen = [] { return PLTypeRef (); };    // what the call changes, owned
    std::function<void ()> fPrepare = [] {};
    bool fKeeps = false;    // a success keeps memory or objects (grown, pending)
    bool fVoid = false;     // the call says nothing: what is seen tells
};

// The reason that the calls which give one gave last, held across calls as a caller's scope would.
Owned<PLStringRef> sError;

// The live objects and blocks, but for that reason (one object, one block).
std::pair<long, long> Held ()
{
    long reason = sError.Get () != nullptr ? 1 : 0;
    return { long (PLDebugGetLiveObjectCount ()) - reason, sInjection.fBlocks - reason };
}

int Failures () { return testing::UnitTest::GetInstance ()->current_test_info ()->result ()->total_part_count (); }

// Stops at the first N that fails a check, which is the one to look at.
void Sweep (Operation const & operation, bool failAfter)
{
    int failures = Failures ();
    operation.fPrepare ();
    Owned<PLTypeRef> expected (operation.fCall ()), expectedSeen (operation.fSeen ());
    ASSERT_NE (expected.Get (), nullptr) << operation.fName;
    for (long n = 1; Failures () == failures; ++n) {
        SCOPED_TRACE (operation.fName + std::string (failAfter ? ", every allocation from " : ", allocation ") + std::to_string (n));
        operation.fPrepare ();
        Owned<PLTypeRef> before (operation.fSeen ());
        std::pair<long, long> held = Held ();
        PLTypeRef result = nullptr;
        bool thrown = false;
        sInjection = { 0, n, failAfter, sInjection.fBlocks };
        try {
            result = operation.fCall ();
        }
        catch (...) {
            thrown = true;
        }
        sInjection.fFailAt = 0;
        bool refused = sInjection.fCount >= n;
        EXPECT_FALSE (thrown) << "a C++ exception left the call";
        EXPECT_TRUE (result == nullptr || PLEqual (result, expected)) << "a part of the result is missing";
        bool failed = result == nullptr;
        PLRelease (result);
        bool clean = Held () == held;
        Owned<PLTypeRef> seen (operation.fSeen ());
        if (operation.fVoid)
            failed = ! PLEqual (seen, expectedSeen);
        EXPECT_TRUE (! failed || refused) << "failed with memory to spare";
        EXPECT_TRUE (PLEqual (seen, failed ? before : expectedSeen))
            << (failed ? "failed, and changed what is seen" : "succeeded, but not all of it is seen");
        EXPECT_TRUE (clean || (! failed && operation.fKeeps)) << "objects or memory left";
        EXPECT_TRUE (refused || n > 1) << "the call allocates nothing";
        if (! refused)
            break;
    }
}

// 24 entries of every kind, containers nested.
PLDictionaryRef Document ()
{
    std::string text = "<plist><dict>";
    char const * values [] = { "<integer>-42</integer>", "<real>0.1</real>", "<data>AAH/</data>", "<date>2001-01-01T00:00:12Z</date>",
        u8"<string>Gr\u00FC\u00DFe \U0001F600</string>", "<integer>18446744073709551615</integer>",
        "<array><true/><string>x</string><array/></array>", "<dict><key>k</key><array><real>1</real></array></dict>" };
    for (int i = 0; i < 24; ++i)
        text += "<key>key" + std::to_string (i) + "</key>" + values [i % 8];
    return static_cast<PLDictionaryRef> (Parse (text + "</dict></plist>"));
}

}

extern "C" {

void * malloc (std::size_t size) { return Refused () ? nullptr : Counted (__libc_malloc (size)); }
void * calloc (std::size_t count, std::size_t size) { return Refused () ? nullptr : Counted (__libc_calloc (count, size)); }
void * realloc (void * block, std::size_t size) { return block == nullptr ? malloc (size) : Refused () ? nullptr : __libc_realloc (block, size); }

void free (void * block) { sInjection.fBlocks -= block != nullptr ? 1 : 0; __libc_free (block); }

}

TEST (AllocationFailure, EveryOperationFailsWholeOrSucceedsWhole)
{
    ScratchPreferences scratch;
    NoLeaks noLeaks;
    Owned<PLDictionaryRef> document (Document ());
    PLIndex count = PLDictionaryGetCount (document);
    std::vector<void const *> keys (std::size_t (count) * 2);
    PLDictionaryGetKeysAndValues (document, keys.data (), keys.data () + count);
    Owned<PLDataRef> binary (PLPropertyListCreateData (nullptr, document, kPLPropertyListBinaryFormat, 0, nullptr));
    Owned<PLDataRef> xml (PLPropertyListCreateData (nullptr, document, kPLPropertyListXMLFormat, 0, nullptr));
    Owned<PLStringRef> added (CreateString ("added"));
    Owned<PLMutableDictionaryRef> dictionary;
    Owned<PLMutableArrayRef> array;
    Owned<PLStringRef> fresh;
    int names = 0;
    PLStringRef application = PLSTR ("PlinthAllocation");   // a store of the document's 24 values
    for (PLIndex i = 0; i < count; ++i)
        PLPreferencesSetAppValue (static_cast<PLStringRef> (keys [std::size_t (i)]), keys [std::size_t (count + i)], application);
    ASSERT_TRUE (PLPreferencesAppSynchronize (application));
    auto read = [&] (PLDataRef data, PLOptionFlags options) {
        return [&, data, options] { return PLPropertyListCreateWithData (nullptr, data, options, nullptr, sError.Out ()); };
    };
    auto write = [&] (PLPropertyListFormat format) {
        return [&, format] { return PLTypeRef (PLPropertyListCreateData (nullptr, document, format, 0, sError.Out ())); };
    };
    auto effect = [] (std::function<void ()> call) {   // a call that says nothing
        return [call] { call (); return PLTypeRef (kPLBooleanTrue); };
    };
    Operation const operations [] = {
        { "PLDictionarySetValue", effect ([&] { PLDictionarySetValue (dictionary, added, added); }),
        [&] { return PLTypeRef (PLDictionaryCreateCopy (nullptr, dictionary)); }, [&] {   // the 25th entry grows its table
            *dictionary.Out () = PLDictionaryCreateMutableCopy (nullptr, 0, document);
        }, true, true },
        { "PLArrayAppendValue", effect ([&] { PLArrayAppendValue (array, added); }),
        [&] { return PLTypeRef (PLArrayCreateCopy (nullptr, array)); }, [&] {
            *array.Out () = PLArrayCreateMutableCopy (nullptr, 0, Owned<PLArrayRef> (PLArrayCreate (nullptr, keys.data (), count,
                &kPLTypeArrayCallBacks)));
        }, true, true },
        { "PLPropertyListCreateWithData binary", read (binary, kPLPropertyListImmutable) },
        { "PLPropertyListCreateWithData binary, mutable leaves", read (binary, kPLPropertyListMutableContainersAndLeaves) },
        { "PLPropertyListCreateWithData XML", read (xml, kPLPropertyListImmutable) },
        { "PLPropertyListCreateWithData XML, mutable leaves", read (xml, kPLPropertyListMutableContainersAndLeaves) },
        { "PLPropertyListCreateData binary", write (kPLPropertyListBinaryFormat) },
        { "PLPropertyListCreateData XML", write (kPLPropertyListXMLFormat) },
        { "PLCopyDescription", [&] { return PLTypeRef (PLCopyDescription (document)); } },
        { "PLPreferencesSetAppValue", effect ([&] { PLPreferencesSetAppValue (PLSTR ("changed"), document, fresh); }),
        [&] { return PLPreferencesCopyAppValue (PLSTR ("changed"), fresh); }, [&] {   // a new application: the call makes its record
            PLPreferencesSetAppValue (PLSTR ("changed"), nullptr, fresh);   // no copy stays pending
            *fresh.Out () = PLStringCreateWithFormat (nullptr, nullptr, PLSTR ("PlinthAllocation%d"), ++names);
        }, true, true },
        { "PLPreferencesAppSynchronize", [&] { return PLPreferencesAppSynchronize (application) ? kPLBooleanTrue : nullptr; },
        [&] {   // what the file holds, and that the change is still seen
            Owned<PLTypeRef> file (Parse (ScratchPreferences::ReadFile (scratch.File ("PlinthAllocation.plist"))));
            Owned<PLTypeRef> change (PLPreferencesCopyAppValue (PLSTR ("changed"), application));
            void const * both [] = { file.Get (), change.Get () != nullptr ? change.Get () : kPLBooleanFalse };
            return PLTypeRef (PLArrayCreate (nullptr, both, 2, &kPLTypeArrayCallBacks));
        }, [&] {
            PLPreferencesSetAppValue (PLSTR ("changed"), nullptr, application);
            ASSERT_TRUE (PLPreferencesAppSynchronize (application));
            PLPreferencesSetAppValue (PLSTR ("changed"), document, application);
        }, true },
    };
    for (Operation const & operation : operations)
        for (bool failAfter : { false, true })
            Sweep (operation, failAfter);
    sError.Out ();   // releases the last reason
    PLPreferencesSetAppValue (PLSTR ("changed"), nullptr, fresh);
}
