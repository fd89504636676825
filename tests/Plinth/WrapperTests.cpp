// The counted-reference wrappers: who retains and who releases on construction, copying,
// assignment, Detach and destruction; what an empty wrapper and null do; the kind test; data and
// set. Counts come from PLGetRetainCount, leaks from Plinth's live-object counter.
#include <LibSkerry/Plinth>

#include "Expect.h"
#include "Interposer.h"
#include "PlinthTest.h"

#include <gtest/gtest.h>

#include <cstring>

using Skerry::PlinthData;
using Skerry::PlinthObject;
using Skerry::PlinthSet;
using SkerryTest::Expect;
using SkerryTest::ExpectAssertion;
using PlinthTest::NoLeaks;

namespace {

// Opens the protected members to the tests.
struct Probe : PlinthData {
    using PlinthData::PlinthData;
    using PlinthObject::GetAllocator;
};

PLDataRef NewData (char const * text = "bytes")
{
    return PLDataCreate (kPLAllocatorDefault, reinterpret_cast<uint8_t const *> (text), PLIndex (std::strlen (text)));
}

// Makes a wrapper empty, as only Detach (or assignment from an empty one) can.
void Vacate (PlinthObject & wrapper)
{
    PLRelease (wrapper.Detach ());
}

}

static_assert (sizeof (PlinthObject) == sizeof (void *) && sizeof (PlinthSet) == sizeof (void *), "one pointer");

TEST (PlinthWrapper, RetainTakesACountAndAdoptionTakesTheCallers)
{
    NoLeaks noLeaks;
    PLDataRef raw = NewData ();
    PlinthData adopted (raw, false);
    EXPECT_EQ (PLGetRetainCount (raw), 1);
    {
        PlinthData retained (raw, true);
        EXPECT_EQ (PLGetRetainCount (raw), 2);
        EXPECT_EQ (retained.Raw (), raw);
    }
    EXPECT_EQ (PLGetRetainCount (raw), 1);
}

TEST (PlinthWrapper, CopiesAndAssignmentsShareOneCountEach)
{
    NoLeaks noLeaks;
    PlinthData a (NewData ("a"), false), b (NewData ("b"), false);
    PLDataRef first = a.Raw ();
    PLDataRef second = b.Raw ();
    PlinthData copy (a);
    PlinthObject untyped (a);
    EXPECT_EQ (PLGetRetainCount (first), 3);
    a = b;
    EXPECT_EQ (PLGetRetainCount (first), 2);
    EXPECT_EQ (PLGetRetainCount (second), 2);
    a = a;
    EXPECT_EQ (PLGetRetainCount (second), 2);
    untyped = b;
    EXPECT_EQ (PLGetRetainCount (first), 1);
    EXPECT_EQ (PLGetRetainCount (second), 3);

    // Detach hands the count over: destruction then releases nothing.
    PLDataRef detached = copy.Detach ();
    EXPECT_EQ (detached, first);
    EXPECT_EQ (copy.Raw (), nullptr);
    EXPECT_EQ (copy.Detach (), nullptr);
    EXPECT_EQ (PLGetRetainCount (first), 1);
    copy = b;   // live again
    EXPECT_EQ (PLGetRetainCount (second), 4);
    PLRelease (detached);
}

TEST (PlinthWrapper, EmptyWrappersAssignButDoNotCopyOrAnswer)
{
    NoLeaks noLeaks;
    PlinthData a (NewData (), false), empty (NewData (), false);
    Vacate (empty);
    PLDataRef raw = a.Raw ();
    PLRetain (raw);
    a = empty;   // releases what a held, never fails
    EXPECT_EQ (PLGetRetainCount (raw), 1);
    EXPECT_EQ (a.Raw (), nullptr);
    PLRelease (raw);
    EXPECT_EQ (Expect<Skerry::Exceptions::Win32> ([&] { PlinthData copy (a); }, "Skerry::PlinthObject::PlinthObject",
        "Plinth").fCode, 1359ul);
    EXPECT_EQ (Expect<Skerry::Exceptions::Win32> ([&] { PlinthSet set (a); }, "Skerry::PlinthObject::PlinthObject",
        "Plinth").fCode, 1359ul);
    ExpectAssertion ([&] { a.HasType (PLDataGetTypeID ()); }, "assertion failed: fObject",
        "Skerry::PlinthObject::HasType", "LibSkerry/Plinth");
    Probe probe (NewData (), false);
    EXPECT_EQ (probe.GetAllocator (), kPLAllocatorDefault);
    static_cast<PlinthData &> (probe) = empty;
    ExpectAssertion ([&] { probe.GetAllocator (); }, "assertion failed: fObject",
        "Skerry::PlinthObject::GetAllocator", "LibSkerry/Plinth");
    ExpectAssertion ([&] { a.GetLength (); }, "assertion failed: fObject", "Skerry::PlinthData::GetLength",
        "LibSkerry/Plinth");
    ExpectAssertion ([&] { a.GetBytes (); }, "assertion failed: fObject", "Skerry::PlinthData::GetBytes",
        "LibSkerry/Plinth");
    PlinthSet set (PLSetCreate (kPLAllocatorDefault, nullptr, 0, &kPLTypeSetCallBacks), false);
    Vacate (set);
    ExpectAssertion ([&] { set.Contains (raw); }, "assertion failed: fObject", "Skerry::PlinthSet::Contains",
        "LibSkerry/Plinth");
}

TEST (PlinthWrapper, FailingConstructorsHoldNothing)
{
    NoLeaks noLeaks;
    EXPECT_EQ (Expect<Skerry::Exceptions::Skerry> ([] { PlinthData data (static_cast<__PLData const *> (nullptr), true); },
        "Skerry::PlinthObject::PlinthObject", "Plinth").fCode, 3ul);
    EXPECT_EQ (Expect<Skerry::Exceptions::Skerry> ([] { PlinthSet set (static_cast<__PLSet const *> (nullptr), false); },
        "Skerry::PlinthObject::PlinthObject", "Plinth").fCode, 3ul);
    // A length that Plinth reads as negative: it makes nothing, and the adoption reports it.
    EXPECT_EQ (Expect<Skerry::Exceptions::Skerry> ([] { PlinthData data (0x80000000u, "x", false); },
        "Skerry::PlinthObject::PlinthObject", "Plinth").fCode, 3ul);
    EXPECT_EQ (Expect<Skerry::Exceptions::Skerry> ([] { PlinthData data (1, nullptr, true); },
        "Skerry::PlinthObject::PlinthObject", "Plinth").fCode, 3ul);
    PlinthData data (NewData (), false);
    ExpectAssertion ([&] { PlinthSet set (data); }, "assertion failed: HasType (PLSetGetTypeID ( ))",
        "Skerry::PlinthSet::PlinthSet", "LibSkerry/Plinth");
    EXPECT_EQ (PLGetRetainCount (data.Raw ()), 1);
}

TEST (PlinthWrapper, EqualityAsksPlinthOnlyForDifferentObjects)
{
    SKERRY_INTERPOSE (equal, "Plinth.dll", PLEqual);
    PlinthData a (NewData ("same"), false), b (a), c (NewData ("same"), false), d (NewData ("other"), false);
    PlinthData empty (NewData (), false), alsoEmpty (NewData (), false);
    Vacate (empty);
    Vacate (alsoEmpty);
    EXPECT_TRUE (a == b);
    EXPECT_FALSE (a != b);
    EXPECT_TRUE (empty == alsoEmpty);
    EXPECT_EQ (equal.Calls (), 0u);
    EXPECT_TRUE (a == c);
    EXPECT_TRUE (a != d);
    EXPECT_FALSE (a == empty);   // null reaches Plinth, which finds it equal to nothing
    EXPECT_EQ (equal.Calls (), 3u);
}

TEST (PlinthData, CopiesOrReadsInPlace)
{
    NoLeaks noLeaks;
    char buffer [] = "abcd";
    PlinthData copied (4, buffer, false), borrowed (4, buffer, true), empty (0, buffer, false);
    PlinthData shared (borrowed);
    buffer [0] = 'z';
    EXPECT_EQ (copied.GetLength (), 4);
    EXPECT_EQ (static_cast<char const *> (copied.GetBytes ()) [0], 'a');
    EXPECT_EQ (shared.GetBytes (), static_cast<void const *> (buffer));
    EXPECT_EQ (static_cast<char const *> (shared.GetBytes ()) [0], 'z');
    EXPECT_EQ (empty.GetLength (), 0);
    EXPECT_TRUE (copied.HasType (PLDataGetTypeID ()));
    EXPECT_FALSE (copied.HasType (PLSetGetTypeID ()));
}

TEST (PlinthSet, AnswersMembershipOfASetMadeElsewhere)
{
    NoLeaks noLeaks;
    PlinthData member (NewData ("member"), false), equal (NewData ("member"), false), other (NewData ("x"), false);
    void const * values [] = { member.Raw () };
    PlinthSet set (PLSetCreate (kPLAllocatorDefault, values, 1, &kPLTypeSetCallBacks), false);
    PlinthObject untyped (set);
    PlinthSet typed (untyped);
    EXPECT_EQ (PLGetRetainCount (set.Raw ()), 3);
    EXPECT_TRUE (typed.Contains (equal.Raw ()));
    EXPECT_FALSE (typed.Contains (other.Raw ()));
    EXPECT_FALSE (typed.Contains (nullptr));
}
