// The pointer arrays: platform failures, the release step, every block released once, the log lines.
#include <LibSkerry/DynamicPointerArray>

#include "ChildProcess.h"
#include "Expect.h"
#include "Interposer.h"
#include "JotLog.h"

#include <gtest/gtest.h>

#include <commctrl.h>

#include <cstdlib>
#include <map>
#include <regex>
#include <vector>

using SkerryTest::Failure;

namespace {

// A typed array with its protected parts in reach.
struct Probe : Skerry::DynamicPointerArray<int> {
    explicit Probe (std::initializer_list<int> values)
    {
        for (int value : values)
            Append (value);
    }
    void AddBlocks (std::map<void *, long> & times) { for (int & value : *this) times.emplace (&value, 0); }
    using DynamicPointerArray::InsertBlock;
    using DynamicPointerArray::DeleteHelper;
    using DynamicPointerArray::dpa;
    using DynamicPointerArray::count;
};

// Counts the library's calls to free by address, holding each block back until the test ends so
// that none is reused; by then each of them (null aside), and each entered with 0, was freed once.
struct HeldBlocks {
    std::map<void *, long> fTimes;
    struct Tag {};
    SkerryTest::Interposer<Tag, decltype (::free)> fFree { "msvcrt.dll", "free" };

    HeldBlocks () { fFree.Replace ([this] (void * block) { ++fTimes [block]; }); }
    ~HeldBlocks ()
    {
        for (const auto & [block, times] : fTimes) {
            EXPECT_TRUE (times == 1 || block == NULL) << block << " released " << times << " times";
            std::free (block);
        }
    }
};

}

// Each platform call refused and what stays held after it; a failure while unwinding; the log line.
TEST (DynamicPointerArray, PlatformFailures)
{
    HeldBlocks released;
    Probe array ({ 6, 7 });
    array.AddBlocks (released.fTimes);
    SKERRY_INTERPOSE (insert, "COMCTL32.dll", DPA_InsertPtr);
    insert.Fail (-1, 0);
    SKERRY_INTERPOSE (remove, "COMCTL32.dll", DPA_DeletePtr);
    remove.Fail (NULL, 0);
    EXPECT_EQ (Failure ([&] { array.Insert (1, 8); }), "DPA_InsertPtr failed | Skerry::DynamicPointerArrayBase::InsertBlock | DynamicPointerArray");
    released.fTimes.emplace (std::get<2> (insert.CallArguments () [0]), 0);
    EXPECT_EQ (Failure ([&] { array.Remove (0); }), "DPA_DeletePtr failed | Skerry::DynamicPointerArrayBase::DeleteBlock | DynamicPointerArray");
    array.Remove (0);
    EXPECT_EQ (std::vector<int> (std::cbegin (array), std::cend (array)), std::vector<int> { 7 });
    EXPECT_EQ (Failure ([&] { array [1]; }), "assertion failed: index < count | Skerry::DynamicPointerArrayBase::Block | DynamicPointerArray");
    EXPECT_EQ (Failure ([&] { array.Remove (1); }), "assertion failed: index < count | Skerry::DynamicPointerArrayBase::DeleteBlock | DynamicPointerArray");
    EXPECT_EQ (Failure ([&] { array.Insert (2, 0); }), "assertion failed: index <= count | Skerry::DynamicPointerArrayBase::InsertBlock | DynamicPointerArray");
    SKERRY_INTERPOSE (deleteAll, "COMCTL32.dll", DPA_DeleteAllPtrs);
    deleteAll.Fail (FALSE, 0);
    EXPECT_EQ (Failure ([&] { array.Clear (); }), "Skerry 13 | Skerry::DynamicPointerArrayBase::Clear | DynamicPointerArray");
    EXPECT_EQ (array.Count (), 0u);
    SKERRY_INTERPOSE (create, "COMCTL32.dll", DPA_Create);
    create.Fail (NULL, 0);
    EXPECT_EQ (Failure ([] { Probe ({}); }),
        "Skerry 10 | Skerry::DynamicPointerArrayBase::DynamicPointerArrayBase | LibSkerry/DynamicPointerArray");
    SKERRY_INTERPOSE (destroy, "COMCTL32.dll", DPA_Destroy);
    destroy.Replace ([&] (HDPA handle) { destroy.Original (handle); return FALSE; });
    EXPECT_EQ (Failure ([&] { Probe ({ 1, 2, 3 }).AddBlocks (released.fTimes); }),
        "Skerry 11 | Skerry::DynamicPointerArrayBase::~DynamicPointerArrayBase | LibSkerry/DynamicPointerArray");

    SkerryTest::ScopedJotLog log;
    Skerry::DPA_LogFunc ("%u blocks in %s", 3u, "points");
    EXPECT_EQ (log.Messages ("DPA"), std::vector<std::string> { "3 blocks in points" });
    EXPECT_EQ (Failure ([] { Probe unwound ({ 1 }); Skerry::Exceptions::ThrowSkerryErrorFunc ("Unwinding", "Test", 1, 4); }),
        "Skerry 4 | Unwinding | Test");
    EXPECT_TRUE (std::regex_match (log.Messages ().at (1), std::regex ("Skerry::DynamicPointerArrayBase::~DynamicPointerArrayBase: "
        "not throwing exception due to Skerry error 11 on line [0-9]+ of file LibSkerry/DynamicPointerArray while another "
        "exception is unwinding"))) << log.Messages ().at (1);
    EXPECT_EQ (SkerryTest::RunInChild ("EnumCallbackLookupFails").fExitCode, 0u);
}

// The callback is looked up by ordinal on the first release; a failed lookup raises, the next looks again.
TEST (InChild, EnumCallbackLookupFails)
{
    Probe array ({ 1 });
    SKERRY_INTERPOSE (lookup, "KERNEL32.dll", GetProcAddress);
    lookup.Fail (NULL, ERROR_PROC_NOT_FOUND);
    EXPECT_EQ (Failure ([&] { array.Clear (); }), "Win32 127 | DPA_EnumCallback | DynamicPointerArray");
    EXPECT_EQ (reinterpret_cast<ULONG_PTR> (std::get<1> (lookup.CallArguments () [0])), 385u);
    array.Clear ();
    EXPECT_EQ (array.Count (), 0u);
}

// The release step's assertions out of the platform's enumeration; null entries, empty arrays.
TEST (DynamicPointerArray, ReleaseStep)
{
    HeldBlocks released;
    SKERRY_INTERPOSE (deleteAll, "COMCTL32.dll", DPA_DeleteAllPtrs);
    Probe ({}).Clear ();
    Probe * array = new Probe ({ 1, 2 });
    array->AddBlocks (released.fTimes);
    array->InsertBlock (2, NULL);
    Probe::DeleteHelper (NULL, array);   // counts the null entry off, and it stays
    const char * const kUncounted = "assertion failed: dpaCPP->count | Skerry::DynamicPointerArrayBase::DeleteHelper | DynamicPointerArray";
    EXPECT_EQ (Failure ([&] { array->Clear (); }), kUncounted);
    EXPECT_EQ (Failure ([&] { delete array; }), kUncounted);
    EXPECT_EQ (released.fTimes.count (NULL), 0u);
    EXPECT_EQ (deleteAll.Calls (), 0u);
    EXPECT_EQ (Failure ([] { Probe::DeleteHelper (NULL, NULL); }),
        "assertion failed: dpaCPP | Skerry::DynamicPointerArrayBase::DeleteHelper | DynamicPointerArray");
}

// 100,000 insertions and a thousand removals through the typed array, against a vector that does
// the same: the entries and both counts agree throughout.
TEST (DynamicPointerArray, ManyInsertionsAndRemovals)
{
    Probe array ({});
    std::vector<int> model;
    for (int value = 0; value < 100000; ++value) {
        unsigned int index = value % 100 == 0 ? array.size () / 2 : array.size ();
        array.Insert (index, value);
        model.insert (model.begin () + index, value);
    }
    for (unsigned int index = 0; index < 1000; ++index) {
        array.Remove (index * 97);
        model.erase (model.begin () + index * 97);
    }
    EXPECT_EQ (std::vector<int> (array.begin (), array.end ()), model);
    EXPECT_EQ (DPA_GetPtrCount (array.dpa), int (array.count));
}
