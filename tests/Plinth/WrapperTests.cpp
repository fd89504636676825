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
#include <string>

using Skerry::PlinthData;
using Skerry::PlinthObject;
using Skerry::PlinthSet;
using SkerryTest::Failure;
using PlinthTest::NoLeaks;

namespace {

PLDataRef NewData (char const * text = "bytes")
{
    return PLDataCreate (kPLAllocatorDefault, reinterpret_cast<uint8_t const *> (text), PLIndex (std::strlen (text)));
}

std::string Empty (const std::string & function)
{
    return "assertion failed: fObject | Skerry::" + function + " | LibSkerry/Plinth";
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
    EXPECT_TRUE (detached == first && copy.Raw () == nullptr && copy.Detach () == nullptr);
    EXPECT_EQ (PLGetRetainCount (first), 1);
    copy = b;   // live again
    EXPECT_EQ (PLGetRetainCount (second), 4);
    PLRelease (detached);
}

// An empty wrapper assigns (releasing what the target held), but neither copies nor answers; a
// constructor that fails holds nothing. Equality asks Plinth only about two different objects.
TEST (PlinthWrapper, EmptyWrappersFailingConstructorsAndEquality)
{
    NoLeaks noLeaks;
    PlinthData a (NewData (), false), empty (NewData (), false), data (NewData (), false);
    PLRelease (empty.Detach ());    // empty, as only Detach (or assignment from an empty one) makes a wrapper
    a = empty;
    EXPECT_EQ (a.Raw (), nullptr);
    PlinthSet set (PLSetCreate (kPLAllocatorDefault, nullptr, 0, &kPLTypeSetCallBacks), false);
    PLRelease (set.Detach ());
    const std::string kNull = "Skerry 3 | Skerry::PlinthObject::PlinthObject | Plinth";
    SkerryTest::ExpectFailures ({
        { [&] { PlinthData copy (a); }, "Win32 1359 | Skerry::PlinthObject::PlinthObject | Plinth" },
        { [&] { PlinthSet copy (a); }, "Win32 1359 | Skerry::PlinthObject::PlinthObject | Plinth" },
        { [&] { a.HasType (PLDataGetTypeID ()); }, Empty ("PlinthObject::HasType") },
        { [&] { a.GetLength (); }, Empty ("PlinthData::GetLength") },
        { [&] { a.GetBytes (); }, Empty ("PlinthData::GetBytes") },
        { [&] { set.Contains (nullptr); }, Empty ("PlinthSet::Contains") },
        { [] { PlinthData none (static_cast<__PLData const *> (nullptr), true); }, kNull },
        { [] { PlinthSet none (static_cast<__PLSet const *> (nullptr), false); }, kNull },
        { [] { PlinthData none (0x80000000u, "x", false); }, kNull },    // a length Plinth reads as negative
        { [] { PlinthData none (1, nullptr, true); }, kNull },
        { [&] { PlinthSet none (data); }, "assertion failed: HasType (PLSetGetTypeID ( )) | Skerry::PlinthSet::PlinthSet | LibSkerry/Plinth" } });
    EXPECT_EQ (PLGetRetainCount (data.Raw ()), 1);

    SKERRY_INTERPOSE (equal, "Plinth.dll", PLEqual);
    PlinthData same (NewData ("bytes"), false), other (NewData ("other"), false), copy (data);
    EXPECT_TRUE (data == copy && ! (data != copy) && empty == a);
    EXPECT_EQ (equal.Calls (), 0u);
    EXPECT_TRUE (data == same && data != other);
    EXPECT_FALSE (data == empty);   // null reaches Plinth, which finds it equal to nothing
    EXPECT_EQ (equal.Calls (), 3u);
}

TEST (PlinthData, CopiesOrReadsInPlaceAndSetsAnswerMembership)
{
    NoLeaks noLeaks;
    char buffer [] = "abcd";
    PlinthData copied (4, buffer, false), borrowed (4, buffer, true), empty (0, buffer, false);
    PlinthData shared (borrowed);
    buffer [0] = 'z';
    EXPECT_EQ (copied.GetLength () * 10 + empty.GetLength (), 40);
    EXPECT_EQ (static_cast<char const *> (copied.GetBytes ()) [0], 'a');
    EXPECT_EQ (shared.GetBytes (), static_cast<void const *> (buffer));

    PlinthData member (NewData ("member"), false), equal (NewData ("member"), false), other (NewData ("x"), false);
    void const * values [] = { member.Raw () };
    PlinthSet set (PLSetCreate (kPLAllocatorDefault, values, 1, &kPLTypeSetCallBacks), false);
    PlinthObject untyped (set);
    PlinthSet typed (untyped);
    EXPECT_EQ (PLGetRetainCount (set.Raw ()), 3);
    EXPECT_TRUE (typed.Contains (equal.Raw ()));
    EXPECT_FALSE (typed.Contains (other.Raw ()) || typed.Contains (nullptr));
}
