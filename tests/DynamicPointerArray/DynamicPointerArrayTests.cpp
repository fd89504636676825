// The pointer arrays: every platform call failing, the release step's failure out of the
// platform's enumeration, every block released exactly once, the "DPA" log lines, and the typed
// array under load. Blocks are counted where they are released: the library's calls to free.
#include <LibSkerry/DynamicPointerArray>

#include "ChildProcess.h"
#include "Expect.h"
#include "Interposer.h"
#include "JotLog.h"

#include <gtest/gtest.h>

#include <windows.h>
#include <commctrl.h>

#include <algorithm>
#include <cstdlib>
#include <regex>
#include <vector>

using Skerry::DynamicPointerArray;
using SkerryTest::Failure;

namespace {

// A typed array with its protected parts in reach.
class Probe : public DynamicPointerArray<int> {
public:
    explicit Probe (std::initializer_list<int> values, int growth = kDefaultGrowth) : DynamicPointerArray (growth)
    {
        for (int value : values)
            Append (value);
    }
    int PlatformCount () const { return DPA_GetPtrCount (dpa); }
    void AppendNull () { InsertBlock (count, NULL); }
    // An entry that the count doesn't include, inserted by the test itself.
    void AppendUncounted (void * block) { ::DPA_InsertPtr (dpa, DA_LAST, block); }
    std::vector<void *> Blocks () const
    {
        std::vector<void *> blocks;
        for (unsigned i = 0; i < count; ++i)
            blocks.push_back (Block (i));
        return blocks;
    }
    static int Release (void * block, DynamicPointerArrayBase * array) { return DeleteHelper (block, array); }
};

// How often each of `blocks` went to the library's free.
template <typename Released>
std::vector<long> TimesReleased (const Released & released, const std::vector<void *> & blocks)
{
    std::vector<void *> freed;
    for (const auto & call : released.CallArguments ())
        freed.push_back (std::get<0> (call));
    std::sort (freed.begin (), freed.end ());
    std::vector<long> times;
    for (void * block : blocks) {
        auto same = std::equal_range (freed.begin (), freed.end (), block);
        times.push_back (long (same.second - same.first));
    }
    return times;
}

// Gives back, at the end of a test, the blocks that the library released meanwhile.
template <typename Released>
class HeldBlocks {
public:
    explicit HeldBlocks (const Released & released) : fReleased (released) {}
    ~HeldBlocks ()
    {
        std::vector<void *> blocks;
        for (const auto & call : fReleased.CallArguments ())
            blocks.push_back (std::get<0> (call));
        std::sort (blocks.begin (), blocks.end ());
        std::for_each (blocks.begin (), std::unique (blocks.begin (), blocks.end ()), std::free);
    }

private:
    const Released & fReleased;
};

// Records the library's calls to free and holds the blocks back until the test ends, so that no
// address comes back from the heap while the test counts releases by address.
#define RECORD_RELEASES(variable) \
    SKERRY_INTERPOSE (variable, "msvcrt.dll", free); \
    variable.Replace ([] (void *) {}); \
    HeldBlocks variable##Held (variable)

const std::vector<long> kOnceEach (3, 1);

}

// Each platform call refused: the failure's kind, code, function and source name, and what the
// array holds afterwards. The growth reaches the platform unchecked.
TEST (DynamicPointerArray, PlatformFailures)
{
    RECORD_RELEASES (released);
    {
        SKERRY_INTERPOSE (create, "COMCTL32.dll", DPA_Create);
        Probe unchecked ({}, -5);
        EXPECT_EQ (std::get<0> (create.CallArguments () [0]), -5);
        create.Fail (NULL, 0);
        EXPECT_EQ (Failure ([] { Probe array ({}); }),
            "Skerry 10 | Skerry::DynamicPointerArrayBase::DynamicPointerArrayBase | LibSkerry/DynamicPointerArray");
    }
    std::vector<void *> blocks;
    {
        SKERRY_INTERPOSE (destroy, "COMCTL32.dll", DPA_Destroy);
        destroy.Replace ([&] (HDPA array) { destroy.Original (array); return FALSE; });
        EXPECT_EQ (Failure ([&] {
            Probe array ({ 1, 2, 3 });
            blocks = array.Blocks ();
        }), "Skerry 11 | Skerry::DynamicPointerArrayBase::~DynamicPointerArrayBase | LibSkerry/DynamicPointerArray");
    }
    EXPECT_EQ (TimesReleased (released, blocks), kOnceEach);

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
    EXPECT_EQ (TimesReleased (released, blocks), kOnceEach);

    // A refused insertion releases its block; a refused removal changes nothing.
    Probe array ({ 7 });
    {
        SKERRY_INTERPOSE (insert, "COMCTL32.dll", DPA_InsertPtr);
        insert.Fail (-1, 0);
        EXPECT_EQ (Failure ([&] { array.Append (8); }),
            "DPA_InsertPtr failed | Skerry::DynamicPointerArrayBase::InsertBlock | DynamicPointerArray");
        EXPECT_EQ (TimesReleased (released, { std::get<2> (insert.CallArguments () [0]) }), std::vector<long> { 1 });
        SKERRY_INTERPOSE (remove, "COMCTL32.dll", DPA_DeletePtr);
        remove.Fail (NULL, 0);
        EXPECT_EQ (Failure ([&] { array.Remove (0); }),
            "DPA_DeletePtr failed | Skerry::DynamicPointerArrayBase::DeleteBlock | DynamicPointerArray");
    }
    EXPECT_EQ (array.Count (), 1u);
    EXPECT_EQ (array [0], 7);
    EXPECT_EQ (Failure ([&] { array [1]; }), "assertion failed: index < count | Skerry::DynamicPointerArrayBase::Block | DynamicPointerArray");
    EXPECT_EQ (Failure ([&] { array.Remove (1); }),
        "assertion failed: index < count | Skerry::DynamicPointerArrayBase::DeleteBlock | DynamicPointerArray");
    EXPECT_EQ (Failure ([&] { array.Insert (2, 0); }),
        "assertion failed: index <= count | Skerry::DynamicPointerArrayBase::InsertBlock | DynamicPointerArray");

    EXPECT_EQ (SkerryTest::RunInChild ("EnumCallbackLookupFails").fExitCode, 0u);
}

// The enumeration's callback is looked up once, on the first release: a failed lookup raises, and
// the next release looks again.
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
    void * uncounted = std::malloc (sizeof (int));
    array->AppendUncounted (uncounted);
    const char * const kUncounted = "assertion failed: dpaCPP->count | Skerry::DynamicPointerArrayBase::DeleteHelper | DynamicPointerArray";
    Skerry::Exceptions::String e = SkerryTest::Caught<Skerry::Exceptions::String> ([&] { array->Clear (); });
    EXPECT_EQ (std::string (e.fMessage) + " | " + e.fFunction + " | " + e.fFile, kUncounted);
    EXPECT_FALSE (e.empty ());
    // The entries stand, the counted ones released: the destructor meets the same failure first.
    EXPECT_EQ (array->PlatformCount (), 3);
    EXPECT_EQ (Failure ([&] { delete array; }), kUncounted);
    blocks.push_back (uncounted);
    EXPECT_EQ (TimesReleased (released, blocks), (std::vector<long> { 1, 1, 0 }));
    EXPECT_EQ (Failure ([] { Probe::Release (NULL, NULL); }),
        "assertion failed: dpaCPP | Skerry::DynamicPointerArrayBase::DeleteHelper | DynamicPointerArray");

    Probe filled ({});
    filled.Clear ();
    EXPECT_EQ (deleteAll.Calls (), 0u);
    filled.Append (1);
    filled.AppendNull ();
    filled.Clear ();
    EXPECT_EQ (deleteAll.Calls (), 1u);
    EXPECT_EQ (filled.Count (), 0u);
    EXPECT_EQ (TimesReleased (released, { NULL }), std::vector<long> { 0 });
    filled.Append (2);
    EXPECT_EQ (filled [0], 2);
    std::free (uncounted);
}

// A destructor that fails while another exception unwinds logs its failure, and the other
// exception goes on.
TEST (DynamicPointerArray, DestroyFailsWhileUnwinding)
{
    SkerryTest::ScopedJotLog log;
    SKERRY_INTERPOSE (destroy, "COMCTL32.dll", DPA_Destroy);
    destroy.Replace ([&] (HDPA array) { destroy.Original (array); return FALSE; });
    try {
        Probe array ({ 1 });
        Skerry::Exceptions::ThrowSkerryErrorFunc ("Unwinding", "Test", 1, 4);
    }
    catch (const Skerry::Exceptions::Skerry & e) {
        EXPECT_EQ (e.fCode, 4u);
    }
    std::vector<std::string> lines = log.Messages ();
    ASSERT_EQ (lines.size (), 2u);
    EXPECT_TRUE (std::regex_match (lines [1], std::regex ("Skerry::DynamicPointerArrayBase::~DynamicPointerArrayBase: not "
        "throwing exception due to Skerry error 11 on line [0-9]+ of file LibSkerry/DynamicPointerArray while another "
        "exception is unwinding"))) << lines [1];
}

TEST (DynamicPointerArray, LogLines)
{
    SkerryTest::ScopedJotLog log;
    Skerry::DPA_LogFunc ("%u blocks in %s", 3u, "points");
    Skerry::DPA_LogFunc ("cleared");
    std::vector<SkerryTest::JotRecord> records = log.Records ();
    ASSERT_EQ (records.size (), 2u);
    EXPECT_FALSE (records [0].fIdent.has_value ());
    EXPECT_EQ (records [0].fFacility, "DPA");
    EXPECT_EQ (records [0].fLevel, 5);
    EXPECT_EQ (log.Messages ("DPA"), (std::vector<std::string> { "3 blocks in points", "cleared" }));
}

// 100,000 insertions and removals, at the ends and inside, with the count and the platform's
// count checked on the way and every block released once.
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
        EXPECT_EQ (array.PlatformCount (), int (kCount + 2));
        long long sum = 0;
        for (int & value : array)
            sum += value;
        EXPECT_EQ (sum, (long long) kCount * (kCount - 1) / 2 - 3);
        blocks = array.Blocks ();
        const Probe & constant = array;
        EXPECT_EQ (*constant.begin (), -2);
        EXPECT_EQ (constant [kCount / 2 + 1], -1);
        array.Remove (kCount / 2 + 1);
        array.Remove (0);
        for (unsigned i = 0; i < kCount / 2; ++i)
            array.Remove (array.size () - 1);
        EXPECT_EQ (array.size (), kCount / 2);
        EXPECT_EQ (array.PlatformCount (), int (kCount / 2));
        EXPECT_EQ (array [kCount / 2 - 1], int (kCount / 2 - 1));
    }
    EXPECT_EQ (TimesReleased (released, blocks), std::vector<long> (kCount + 2, 1));
    EXPECT_EQ (released.Calls (), kCount + 2);
}
