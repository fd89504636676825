// The counted-reference wrappers: who retains and who releases on construction, copying,
// assignment, Detach and destruction; what an empty wrapper and null do; the kind test; data and
// set. Counts come from PLGetRetainCount, leaks from Plinth's live-object counter.
#include <LibSkerry/Plinth>

#include "Expect.h"
#include "Interposer.h"
#include "PlinthTest.h"

#include <gtest/gtest.h>

#include <cstring>
#include <functional>

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

TEST (PlinthWrapper, RetainAdoptCopyAssignAndDetachShareOneCountEach)
{
    NoLeaks noLeaks;
    PLDataRef first = NewData ("a");
    PlinthData a (first, false), b (NewData ("b"), false);
    PLDataRef second = b.Raw ();
    {
        PlinthData retained (first, true);
        EXPECT_EQ (PLGetRetainCount (first), 2);
        EXPECT_EQ (retained.Raw (), first);
    }
    PlinthData copy (a);
    PlinthObject untyped (a);
    EXPECT_EQ (PLGetRetainCount (first), 3);
    a = b;
    a = a;
    EXPECT_EQ (PLGetRetainCount (first) * 10 + PLGetRetainCount (second), 22);
    untyped = b;
    EXPECT_EQ (PLGetRetainCount (first) * 10 + PLGetRetainCount (second), 13);
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
    const char kObject [] = "Skerry::PlinthObject::PlinthObject";
    EXPECT_EQ (Expect<Skerry::Exceptions::Win32> ([&] { PlinthData copy (a); }, kObject, "Plinth").fCode, 1359ul);
    EXPECT_EQ (Expect<Skerry::Exceptions::Win32> ([&] { PlinthSet set (a); }, kObject, "Plinth").fCode, 1359ul);
    Probe probe (NewData (), false);
    EXPECT_EQ (probe.GetAllocator (), kPLAllocatorDefault);
    static_cast<PlinthData &> (probe) = empty;
    PlinthSet set (PLSetCreate (kPLAllocatorDefault, nullptr, 0, &kPLTypeSetCallBacks), false);
    Vacate (set);
    const std::pair<std::function<void ()>, const char *> cases [] = {
        { [&] { a.HasType (PLDataGetTypeID ()); }, "Skerry::PlinthObject::HasType" },
        { [&] { probe.GetAllocator (); }, "Skerry::PlinthObject::GetAllocator" },
        { [&] { a.GetLength (); }, "Skerry::PlinthData::GetLength" },
        { [&] { a.GetBytes (); }, "Skerry::PlinthData::GetBytes" },
        { [&] { set.Contains (raw); }, "Skerry::PlinthSet::Contains" } };
    for (const auto & c : cases)
        ExpectAssertion (c.first, "assertion failed: fObject", c.second, "LibSkerry/Plinth");
}

TEST (PlinthWrapper, FailingConstructorsHoldNothing)
{
    NoLeaks noLeaks;
    using SkerryError = Skerry::Exceptions::Skerry;
    const char kObject [] = "Skerry::PlinthObject::PlinthObject";
    EXPECT_EQ (Expect<SkerryError> ([] { PlinthData data (static_cast<__PLData const *> (nullptr), true); }, kObject, "Plinth").fCode, 3ul);
    EXPECT_EQ (Expect<SkerryError> ([] { PlinthSet set (static_cast<__PLSet const *> (nullptr), false); }, kObject, "Plinth").fCode, 3ul);
    // A length that Plinth reads as negative: it makes nothing, and the adoption reports it.
    EXPECT_EQ (Expect<SkerryError> ([] { PlinthData data (0x80000000u, "x", false); }, kObject, "Plinth").fCode, 3ul);
    EXPECT_EQ (Expect<SkerryError> ([] { PlinthData data (1, nullptr, true); }, kObject, "Plinth").fCode, 3ul);
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
    EXPECT_TRUE (a == b && ! (a != b) && empty == alsoEmpty);
    EXPECT_EQ (equal.Calls (), 0u);
    EXPECT_TRUE (a == c && a != d);
    EXPECT_FALSE (a == empty);   // null reaches Plinth, which finds it equal to nothing
    EXPECT_EQ (equal.Calls (), 3u);
}

TEST (PlinthData, CopiesOrReadsInPlaceAndSetsAnswerMembership)
{
    NoLeaks noLeaks;
    char buffer [] = "abcd";
    PlinthData copied (4, buffer, false), borrowed (4, buffer, true), empty (0, buffer, false);
    PlinthData shared (borrowed);
    buffer [0] = 'z';
    EXPECT_EQ (copied.GetLength (), 4);
    EXPECT_EQ (static_cast<char const *> (copied.GetBytes ()) [0], 'a');
    EXPECT_EQ (shared.GetBytes (), static_cast<void const *> (buffer));
    EXPECT_EQ (empty.GetLength (), 0);
    EXPECT_TRUE (copied.HasType (PLDataGetTypeID ()) && ! copied.HasType (PLSetGetTypeID ()));

    PlinthData member (NewData ("member"), false), equal (NewData ("member"), false), other (NewData ("x"), false);
    void const * values [] = { member.Raw () };
    PlinthSet set (PLSetCreate (kPLAllocatorDefault, values, 1, &kPLTypeSetCallBacks), false);
    PlinthObject untyped (set);
    PlinthSet typed (untyped);
    EXPECT_EQ (PLGetRetainCount (set.Raw ()), 3);
    EXPECT_TRUE (typed.Contains (equal.Raw ()));
    EXPECT_FALSE (typed.Contains (other.Raw ()) || typed.Contains (nullptr));
}
