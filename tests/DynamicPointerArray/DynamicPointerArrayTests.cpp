// The pointer arrays: every platform call failing, the release step's failure out of the
// platform's enumeration, every block released exactly once (counted at the library's calls to
// free), the "DPA" log lines, and the typed array under load.
#include <LibSkerry/DynamicPointerArray>

#include "ChildProcess.h"
#include "Expect.h"
#include "Interposer.h"
#include "JotLog.h"

#include <gtest/gtest.h>

#include <commctrl.h>

#include <set>
#include <cstdlib>
#include <regex>

using SkerryTest::Failure;

namespace {

// A typed array with its protected parts in reach.
struct Probe : Skerry::DynamicPointerArray<int> {
    explicit Probe (std::initializer_list<int> values, int growth = kDefaultGrowth) : DynamicPointerArray (growth)
    {
        for (int value : values)
            Append (value);
    }
    int PlatformCount () const { return DPA_GetPtrCount (dpa); }
    std::vector<void *> Blocks () { std::vector<void *> b; for (int & value : *this) b.push_back (&value); return b; }
    using DynamicPointerArray::InsertBlock;
    using DynamicPointerArray::DeleteHelper;
    using DynamicPointerArray::dpa;
};

// The library's calls to free are recorded, and their blocks held back until the test ends, so
// that no address comes back from the heap while releases are counted by address.
template <typename Released>
struct HeldBlocks {
    const Released & fReleased;
    std::multiset<void *> Freed () const
    {
        std::multiset<void *> freed;
        for (const auto & call : fReleased.CallArguments ())
            freed.insert (std::get<0> (call));
        return freed;
    }
    // How often each of `blocks` was released.
    std::vector<long> Times (const std::vector<void *> & blocks) const
    {
        std::multiset<void *> freed = Freed ();
        std::vector<long> times;
        for (void * block : blocks)
            times.push_back (long (freed.count (block)));
        return times;
    }
    ~HeldBlocks ()
    {
        std::multiset<void *> freed = Freed ();
        for (auto block = freed.begin (); block != freed.end (); block = freed.upper_bound (*block))
            std::free (*block);
    }
};

#define RECORD_RELEASES(variable) \
    SKERRY_INTERPOSE (variable##Calls, "msvcrt.dll", free); \
    variable##Calls.Replace ([] (void *) {}); \
    HeldBlocks<decltype (variable##Calls)> variable { variable##Calls }

const std::vector<long> kOnceEach (3, 1);

}

// Each platform call refused: kind, code, function and source name, and what the array holds
// afterwards. The growth reaches the platform unchecked.
TEST (DynamicPointerArray, PlatformFailures)
{
    RECORD_RELEASES (released);
    std::vector<void *> blocks;
    {
        SKERRY_INTERPOSE (create, "COMCTL32.dll", DPA_Create);
        Probe unchecked ({}, -5);
        EXPECT_EQ (std::get<0> (create.CallArguments () [0]), -5);
        create.Fail (NULL, 0);
        EXPECT_EQ (Failure ([] { Probe array ({}); }),
            "Skerry 10 | Skerry::DynamicPointerArrayBase::DynamicPointerArrayBase | LibSkerry/DynamicPointerArray");
        SKERRY_INTERPOSE (destroy, "COMCTL32.dll", DPA_Destroy);
        destroy.Replace ([&] (HDPA array) { destroy.Original (array); return FALSE; });
        EXPECT_EQ (Failure ([&] { blocks = Probe ({ 1, 2, 3 }).Blocks (); }),
            "Skerry 11 | Skerry::DynamicPointerArrayBase::~DynamicPointerArrayBase | LibSkerry/DynamicPointerArray");
        EXPECT_EQ (released.Times (blocks), kOnceEach);
    }
    // A failed DPA_DeleteAllPtrs leaves an empty array, and nothing is released twice.
    {
        Probe array ({ 1, 2, 3 });
        blocks = array.Blocks ();
        SKERRY_INTERPOSE (deleteAll, "COMCTL32.dll", DPA_DeleteAllPtrs);
        deleteAll.Fail (FALSE, 0);
        EXPECT_EQ (Failure ([&] { array.Clear (); }), "Skerry 13 | Skerry::DynamicPointerArrayBase::Clear | DynamicPointerArray");
        EXPECT_EQ (array.Count (), 0u);
        EXPECT_EQ (array.PlatformCount (), 0);
    }
    EXPECT_EQ (released.Times (blocks), kOnceEach);

    // A refused insertion releases its block; a refused removal changes nothing.
    Probe array ({ 7 });
    {
        SKERRY_INTERPOSE (insert, "COMCTL32.dll", DPA_InsertPtr);
        insert.Fail (-1, 0);
        SKERRY_INTERPOSE (remove, "COMCTL32.dll", DPA_DeletePtr);
        remove.Fail (NULL, 0);
        EXPECT_EQ (Failure ([&] { array.Append (8); }), "DPA_InsertPtr failed | Skerry::DynamicPointerArrayBase::InsertBlock | DynamicPointerArray");
        EXPECT_EQ (released.Times ({ std::get<2> (insert.CallArguments () [0]) }), std::vector<long> { 1 });
        EXPECT_EQ (Failure ([&] { array.Remove (0); }), "DPA_DeletePtr failed | Skerry::DynamicPointerArrayBase::DeleteBlock | DynamicPointerArray");
    }
    EXPECT_EQ (array.Count (), 1u);
    EXPECT_EQ (array [0], 7);
    EXPECT_EQ (Failure ([&] { array [1]; }), "assertion failed: index < count | Skerry::DynamicPointerArrayBase::Block | DynamicPointerArray");
    EXPECT_EQ (Failure ([&] { array.Remove (1); }), "assertion failed: index < count | Skerry::DynamicPointerArrayBase::DeleteBlock | DynamicPointerArray");
    EXPECT_EQ (Failure ([&] { array.Insert (2, 0); }), "assertion failed: index <= count | Skerry::DynamicPointerArrayBase::InsertBlock | DynamicPointerArray");
    EXPECT_EQ (SkerryTest::RunInChild ("EnumCallbackLookupFails").fExitCode, 0u);
}

// The enumeration's callback is looked up by ordinal on the first release of the process; a failed
// lookup raises, and the next release looks again.
TEST (InChild, EnumCallbackLookupFails)
{
    Probe array ({ 1 });
    {
        SKERRY_INTERPOSE (lookup, "KERNEL32.dll", GetProcAddress);
        lookup.Fail (NULL, ERROR_PROC_NOT_FOUND);
        EXPECT_EQ (Failure ([&] { array.Clear (); }), "Win32 127 | DPA_EnumCallback | DynamicPointerArray");
        EXPECT_EQ (reinterpret_cast<ULONG_PTR> (std::get<1> (lookup.CallArguments () [0])), 385u);
    }
    array.Clear ();
    EXPECT_EQ (array.Count (), 0u);
}

// The release step's assertions come out of the platform's enumeration whole, with the process
// alive; counted null entries pass without a call to free, and an empty array calls nothing.
TEST (DynamicPointerArray, ReleaseStep)
{
    RECORD_RELEASES (released);
    SKERRY_INTERPOSE (deleteAll, "COMCTL32.dll", DPA_DeleteAllPtrs);
    Probe * array = new Probe ({ 1, 2 });
    std::vector<void *> blocks = array->Blocks ();
    blocks.push_back (std::malloc (sizeof (int)));
    ::DPA_InsertPtr (array->dpa, DA_LAST, blocks.back ());   // not counted
    const char * const kUncounted = "assertion failed: dpaCPP->count | Skerry::DynamicPointerArrayBase::DeleteHelper | DynamicPointerArray";
    EXPECT_EQ (Failure ([&] { array->Clear (); }), kUncounted);
    // The entries stand, the counted ones released: the destructor meets the same failure first.
    EXPECT_EQ (array->PlatformCount (), 3);
    EXPECT_EQ (Failure ([&] { delete array; }), kUncounted);
    EXPECT_EQ (released.Times (blocks), (std::vector<long> { 1, 1, 0 }));
    std::free (blocks.back ());
    EXPECT_EQ (Failure ([] { Probe::DeleteHelper (NULL, NULL); }),
        "assertion failed: dpaCPP | Skerry::DynamicPointerArrayBase::DeleteHelper | DynamicPointerArray");

    Probe filled ({});
    filled.Clear ();
    EXPECT_EQ (deleteAll.Calls (), 0u);
    filled.InsertBlock (0, NULL);
    filled.Clear ();
    EXPECT_EQ (deleteAll.Calls (), 1u);
    EXPECT_EQ (filled.Count (), 0u);
    EXPECT_EQ (released.Times ({ NULL }), std::vector<long> { 0 });
    filled.Append (2);
    EXPECT_EQ (filled [0], 2);
}

// A destructor that fails while another exception unwinds logs its failure, and the other
// exception goes on.
TEST (DynamicPointerArray, DestroyFailsWhileUnwinding)
{
    SkerryTest::ScopedJotLog log;
    SKERRY_INTERPOSE (destroy, "COMCTL32.dll", DPA_Destroy);
    destroy.Replace ([&] (HDPA array) { destroy.Original (array); return FALSE; });
    EXPECT_EQ (Failure ([] { Probe array ({ 1 }); Skerry::Exceptions::ThrowSkerryErrorFunc ("Unwinding", "Test", 1, 4); }),
        "Skerry 4 | Unwinding | Test");
    std::vector<std::string> lines = log.Messages ();
    ASSERT_EQ (lines.size (), 2u);
    EXPECT_TRUE (std::regex_match (lines [1], std::regex ("Skerry::DynamicPointerArrayBase::~DynamicPointerArrayBase: not throwing "
        "exception due to Skerry error 11 on line [0-9]+ of file LibSkerry/DynamicPointerArray while another exception is unwinding")))
        << lines [1];
}

TEST (DynamicPointerArray, LogLines)
{
    SkerryTest::ScopedJotLog log;
    Skerry::DPA_LogFunc ("%u blocks in %s", 3u, "points");
    Skerry::DPA_LogFunc ("cleared");
    EXPECT_EQ (log.Messages ("DPA"), (std::vector<std::string> { "3 blocks in points", "cleared" }));
    EXPECT_EQ (log.Records () [0].fLevel, 5);
    EXPECT_FALSE (log.Records () [0].fIdent.has_value ());
}

// 100,000 insertions and removals, at the ends and inside, with the platform's count checked on
// the way and every block released once.
TEST (DynamicPointerArray, TypedArrayUnderLoad)
{
    const unsigned kCount = 100000;
    RECORD_RELEASES (released);
    std::vector<void *> blocks;
    {
        Probe array ({});
        for (unsigned i = 0; i < kCount; ++i)
            array.Append (int (i));
        EXPECT_EQ (array.Insert (kCount / 2, -1), kCount / 2);
        EXPECT_EQ (array.Insert (0, -2), 0u);
        blocks = array.Blocks ();
        long long sum = 0;
        for (const int & value : static_cast<const Probe &> (array))
            sum += value;
        EXPECT_EQ (sum, (long long) kCount * (kCount - 1) / 2 - 3);
        array.Remove (kCount / 2 + 1);
        array.Remove (0);
        while (array.size () > kCount / 2)
            array.Remove (array.size () - 1);
        EXPECT_EQ (array.PlatformCount (), int (kCount / 2));
        EXPECT_EQ (array [kCount / 2 - 1], int (kCount / 2 - 1));
    }
    EXPECT_EQ (released.Times (blocks), std::vector<long> (kCount + 2, 1));
}
