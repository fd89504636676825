// Plinth strings and dictionaries: every text form there and back, the length guards and the
// comparisons, each creation that Plinth refuses, keys that differ only in case, a hash that fails
// inside, snapshots and top-level copies. Leaks come from Plinth's live-object counter.
#include <LibSkerry/CodePages>
#include <LibSkerry/Plinth>

#include "Expect.h"
#include "Interposer.h"
#include "JotLog.h"
#include "PlinthTest.h"

#include <gtest/gtest.h>

#include <functional>
#include <regex>
#include <string>
#include <vector>

using namespace Skerry;
using PlinthTest::NoLeaks;
using SkerryTest::Failure;

namespace {

const std::string kNull = "Skerry 3 | Skerry::PlinthObject::PlinthObject | Plinth";

std::string Asserted (const char * condition, const char * function)
{
    return std::string ("assertion failed: ") + condition + " | " + function + " | LibSkerry/Plinth";
}


}

TEST (PlinthString, EveryTextFormRoundTrips)
{
    NoLeaks noLeaks;
    const struct { unsigned fCodePage; std::wstring fText; } cases [] = {
        { 1252, std::wstring (L"Gr\u00fc\u00dfe\0\u20ac", 7) },
        { 65001, std::wstring (L"a\0\U0001F600\u00e9", 5) },
        { 932, std::wstring (L"\u65e5\u672c\0\u8a9e", 4) } };
    for (const auto & c : cases) {
        PlinthString plinth (c.fText);
        EXPECT_EQ (UTF16StringFromPlinth (plinth), c.fText);
        ANSIStringFromPlinth narrow (plinth, c.fCodePage);
        EXPECT_EQ (std::string (narrow), std::string (ANSIStringFromWide (c.fText, c.fCodePage)));
        std::string utf8 = ANSIStringFromPlinth (plinth, 65001);
        std::basic_string<unsigned char> bytes (utf8.begin (), utf8.end ());
        PlinthData data (unsigned (utf8.size ()), utf8.data (), false);
        for (const PlinthString & same : { PlinthString (narrow), PlinthString (utf8, kPLStringEncodingUTF8),
                 PlinthString (bytes, kPLStringEncodingUTF8), PlinthString (data, kPLStringEncodingUTF8, false),
                 PlinthString (c.fText.data (), long (c.fText.size ())) })
            EXPECT_TRUE (same == plinth && same.Length () == long (c.fText.size ()));
        // The terminated forms end at the first null unit.
        PlinthString head (c.fText.c_str ());
        EXPECT_EQ (UTF16StringFromPlinth (head), c.fText.substr (0, c.fText.find (L'\0')));
        EXPECT_TRUE (head == PlinthString (utf8.c_str (), kPLStringEncodingUTF8)
            && head == PlinthString (reinterpret_cast<unsigned short const *> (c.fText.c_str ())));
        EXPECT_TRUE (PlinthString (plinth, PLRangeMake (1, 2)) == PlinthString (c.fText.substr (1, 2)));
    }
    EXPECT_EQ (std::string (ANSIStringFromPlinth (PlinthString (L"a\u4e2d"), 1252)), "a?");
    // The empty string reaches no converter, and still knows its code page.
    SKERRY_INTERPOSE (toNarrow, "KERNEL32.dll", WideCharToMultiByte);
    ANSIStringFromPlinth none (PlinthString (L""));
    EXPECT_TRUE (none.empty () && UTF16StringFromPlinth (PlinthString (L"")).empty ());
    EXPECT_EQ (none.GetCodePage (), ::GetACP ());
    EXPECT_EQ (PlinthString (none).Raw (), __PLStringMakeConstantString (""));
    EXPECT_EQ (toNarrow.Calls (), 0u);
}

TEST (PlinthString, CountsComparisonsAndEveryFailureHoldingNothing)
{
    NoLeaks noLeaks;
    std::string bytes ("ab\0c", 4);
    for (auto count : { std::make_pair (-1LL, 4L), std::make_pair (0LL, 0L), std::make_pair (2LL, 2L) })
        EXPECT_EQ (PlinthString (bytes, kPLStringEncodingASCII, count.first).Length (), count.second);
    EXPECT_EQ (PlinthString (bytes.c_str (), kPLStringEncodingASCII, 3).Length (), 3);
    {
        SKERRY_INTERPOSE (create, "Plinth.dll", PLStringCreateWithBytes);
        EXPECT_EQ (Failure ([&] { PlinthString huge (bytes, kPLStringEncodingASCII, 0x100000000LL); }),
            Asserted ("PLIndex (count) == count", "Skerry::PlinthString::PlinthString"));
        EXPECT_EQ (std::get<2> (create.CallArguments ().at (0)), 0);   // the low 32 bits went to Plinth
    }
    PlinthString lower (L"abc"), upper (L"ABC"), empty (L"x"), copy (lower);
    PLRelease (empty.Detach ());
    copy = upper;
    EXPECT_EQ (PLGetRetainCount (lower.Raw ()) * 10 + PLGetRetainCount (upper.Raw ()), 12);
    EXPECT_TRUE (lower == PlinthString (L"abc") && lower != upper && ! (lower != PlinthString (L"abc").Raw ()));
    EXPECT_TRUE (lower.Equals (upper, kPLCompareCaseInsensitive) && ! lower.Equals (upper.Raw (), 0));
    EXPECT_EQ (UTF16StringFromPlinth (PlinthStringWithFormat (PLSTR ("%d-%@"), 42, lower.Raw ())), L"42-abc");
    PlinthData data (1, "x", false);
    ANSIStringFromPlinth narrow (lower, 1252);
    const std::string kPlstr = "assertion failed: plstr | Skerry::UTF16StringFromPlinth::Construct | Plinth";
    SkerryTest::ExpectFailures ({
        { [&] { (void) (lower == nullptr); }, Asserted ("that", "Skerry::PlinthString::Equals") },
        { [&] { (void) empty.Equals (lower, 0); }, Asserted ("fObject", "Skerry::PlinthString::Equals") },
        { [&] { empty.Length (); }, Asserted ("fObject", "Skerry::PlinthString::Length") },
        { [&] { PlinthString none (static_cast<wchar_t const *> (nullptr)); }, Asserted ("s", "Skerry::PlinthString::wcslenpli") },
        { [&] { PlinthString none (static_cast<char const *> (nullptr), 0, 0); }, Asserted ("s", "Skerry::PlinthString::PlinthString") },
        { [&] { PlinthString none (empty, PLRangeMake (0, 0)); }, Asserted ("fObject", "Skerry::PlinthObject::GetAllocator") },
        { [&] { PlinthString none (data); }, Asserted ("HasType (PLStringGetTypeID ( ))", "Skerry::PlinthString::PlinthString") },
        { [&] { PlinthString none (lower, PLRangeMake (2, 2)); }, kNull },
        { [&] { UTF16StringFromPlinth none (empty); }, kPlstr },
        { [&] { ANSIStringFromPlinth none (nullptr); }, kPlstr },
        { [&] { ANSIStringFromPlinth none (lower, 12345); }, "Win32 87 | CreateANSIFromUTF16 | Plinth" },
        // Each creation that Plinth refuses, and each pass of a conversion that fails.
        { SKERRY_FAILING ("Plinth.dll", PLStringCreateWithBytes, (nullptr, 0), PlinthString s (bytes, 0x600)), kNull },
        { SKERRY_FAILING ("Plinth.dll", PLStringCreateWithCharacters, (nullptr, 0), PlinthString s (L"x")), kNull },
        { SKERRY_FAILING ("Plinth.dll", PLStringCreateWithCharacters, (nullptr, 0), PlinthString s (narrow)), kNull },
        { SKERRY_FAILING ("Plinth.dll", PLStringCreateWithSubstring, (nullptr, 0), PlinthString s (lower, PLRangeMake (0, 1))), kNull },
        { SKERRY_FAILING ("Plinth.dll", __PLStringMakeConstantString, (nullptr, 0), PlinthStringWithFormat s (PLSTR ("x"))), kNull },
        { SKERRY_FAILING ("Plinth.dll", PLStringCreateWithFormatAndArguments, (nullptr, 0), PlinthStringWithFormat s (PLSTR ("x"))),
          "assertion failed: fObject | Skerry::PlinthStringWithFormat::PlinthStringWithFormat | Plinth" },
        { SKERRY_FAILING ("Plinth.dll", PLDictionaryCreateMutable, (nullptr, 0), PlinthMutableDictionary d (false)), kNull },
        { SKERRY_FAILING ("KERNEL32.dll", MultiByteToWideChar, (0, 5), PlinthString s (narrow)), "Win32 5 | CreateStringFromANSI | Plinth" },
        { SKERRY_FAILING ("KERNEL32.dll", MultiByteToWideChar, (2, 0, 1, 1), PlinthString s (narrow)), "Skerry 6 | CreateStringFromANSI | Plinth" },
        { SKERRY_FAILING ("KERNEL32.dll", WideCharToMultiByte, (0, 8, 1, 1), ANSIStringFromPlinth a (lower)),
          "Win32 8 | CreateANSIFromUTF16 | Plinth" } });
    EXPECT_EQ (PLGetRetainCount (data.Raw ()), 1);
}

TEST (PlinthDictionary, KeysThatDifferOnlyInCaseAreOneAndAFailedHashIsLogged)
{
    NoLeaks noLeaks;
    PlinthMutableDictionary plain, sensitive (true), insensitive (false);
    PlinthString value (L"value");
    const std::vector<std::vector<const wchar_t *>> groups = {
        { L"Key", L"KEY", L"key" }, { L"\u00c9t\u00e9", L"\u00e9T\u00c9" }, { L"\u03a3", L"\u03c3" }, { L"" } };
    for (const auto & group : groups)
        for (const wchar_t * key : group)
            for (PlinthMutableDictionary * d : { &plain, &sensitive, &insensitive })
                d->SetValue (PlinthString (key), PlinthString (key));
    EXPECT_EQ (plain.Count () * 100 + sensitive.Count () * 10 + insensitive.Count (), 884);
    for (const auto & group : groups)
        for (const wchar_t * key : group) {
            EXPECT_TRUE (insensitive.ContainsKey (PlinthString (key).Raw ()));
            EXPECT_TRUE (PlinthString (insensitive.GetValue (PlinthString (key))) == group.back ());
        }
    // Keys of other kinds are compared as in any dictionary: data byte by byte.
    insensitive.SetValue (PlinthData (3, "KEY", false), value);
    EXPECT_TRUE (insensitive.ContainsKey (PlinthData (3, "KEY", false).Raw ()));
    EXPECT_FALSE (insensitive.ContainsKey (PlinthData (3, "key", false).Raw ()));
    insensitive.RemoveValue (PlinthString (L"kEY"));
    insensitive.RemoveValue (PlinthString (L"missing"));
    EXPECT_FALSE (insensitive.ContainsKey (PlinthString (L"Key").Raw ()));
    EXPECT_EQ (Failure ([&] { insensitive.GetValue (PlinthString (L"key")); }), kNull);
    // A key hashes as Plinth hashes its lowered text.
    const PLDictionaryKeyCallBacks & mine = PlinthMutableDictionary::kCaseInsensitiveKeyCallbacks;
    EXPECT_EQ (mine.hash (PLSTR ("")), PLHash (PLSTR ("")));
    EXPECT_EQ (mine.hash (PLSTR ("\xc3\x89T\xc3\xa9")), PLHash (PLSTR ("\xc3\xa9t\xc3\xa9")));

    // Plinth calls the hash from its own code, which no exception may cross: the failure is logged
    // and the key hashes to 0, as a second key that fails alike does, so the two meet.
    PlinthMutableDictionary failing (false);
    SkerryTest::ScopedJotLog log;
    {
        SKERRY_INTERPOSE (lowered, "Plinth.dll", PLStringCreateWithCharactersNoCopy);
        lowered.Fail (nullptr, 0, 2);
        failing.SetValue (PlinthString (L"Key"), PlinthString (L"value"));
        EXPECT_TRUE (failing.ContainsKey (PlinthString (L"KEY").Raw ()));
    }
    EXPECT_EQ (failing.Count (), 1);
    std::vector<std::string> lines = log.Messages ();
    ASSERT_EQ (lines.size (), 4u);
    EXPECT_TRUE (std::regex_match (lines [0] + "\n" + lines [1], std::regex (
        "PlinthCaseInsensitiveHash: throwing exception due to Skerry error 3 on line ([0-9]+) of file Plinth\n"
        "PlinthCaseInsensitiveHash: caught Skerry error 3 exception on line [0-9]+ of file Plinth;\n"
        "thrown from function PlinthCaseInsensitiveHash on line \\1 of file Plinth; stack trace:\n[\\s\\S]+"))) << lines [1];
    EXPECT_EQ (lines [2], lines [0]);
}

TEST (PlinthDictionary, SnapshotsAndTopLevelCopiesHoldCountsOfTheirOwn)
{
    NoLeaks noLeaks;
    PlinthMutableDictionary sensitive, insensitive (false), empty;
    PlinthString lowerA (L"a"), upperA (L"A"), value (L"value");
    sensitive.SetValue (lowerA, value);
    sensitive.SetValue (upperA, PlinthString (L"other"));
    PlinthDictionaryPairs pairs (sensitive), copy (pairs);
    insensitive.CopyRoot (sensitive);
    insensitive.CopyRoot (empty);
    insensitive.CopyRoot (insensitive);
    ASSERT_EQ (pairs.size () * 10 + insensitive.Count (), 21u);
    // Copied from the last pair down: the first pair is stored last and wins.
    EXPECT_TRUE (PlinthString (insensitive.GetValue (lowerA)) == PlinthString (pairs [0].value));
    EXPECT_EQ (PlinthDictionaryPairs (empty).size (), 0u);
    // A mutable and an immutable dictionary are one kind to Plinth.
    PlinthMutableDictionary fromImmutable (PlinthDictionary (
        PLDictionaryCreate (nullptr, nullptr, nullptr, 0, &kPLTypeDictionaryKeyCallBacks, &kPLTypeDictionaryValueCallBacks), false));
    PLRelease (empty.Detach ());
    PlinthObject emptyKey (lowerA);
    PLRelease (emptyKey.Detach ());
    SkerryTest::ExpectFailures ({
        { [&] { PlinthDictionaryPairs none (empty); }, Asserted ("fObject", "Skerry::PlinthDictionary::Count") },
        { [&] { (void) pairs [2]; }, Asserted ("index < size ( )", "Skerry::PlinthDictionaryPairs::operator []") },
        { [&] { empty.GetValue (lowerA); }, Asserted ("fObject", "Skerry::PlinthDictionary::GetValue") },
        { [&] { insensitive.GetValue (emptyKey); }, Asserted ("key.fObject", "Skerry::PlinthDictionary::GetValue") },
        { [&] { insensitive.SetValue (emptyKey, value); }, Asserted ("key", "Skerry::PlinthMutableDictionary::SetValue") },
        { [&] { insensitive.SetValue (value, emptyKey); }, Asserted ("value", "Skerry::PlinthMutableDictionary::SetValue") },
        { [&] { empty.CopyRoot (sensitive); }, Asserted ("fObject", "Skerry::PlinthMutableDictionary::SetValue") },
        { [&] { insensitive.RemoveValue (nullptr); }, Asserted ("key", "Skerry::PlinthMutableDictionary::RemoveValue") },
        { [&] { PlinthDictionary none (value); }, Asserted ("HasType (PLDictionaryGetTypeID ( ))", "Skerry::PlinthDictionary::PlinthDictionary") },
        { [&] {   // the first pair is taken, then Plinth lends a null value
              SKERRY_INTERPOSE (entries, "Plinth.dll", PLDictionaryGetKeysAndValues);
              entries.Replace ([&] (PLDictionaryRef d, void const ** keys, void const ** values) {
                  entries.Original (d, keys, values);
                  values [1] = nullptr;
              });
              PlinthDictionaryPairs none (sensitive);
          }, kNull } });
    // The snapshots outlive the entries: each key has its wrapper, one count in each snapshot, and
    // one of the two is in the other dictionary.
    sensitive.RemoveAllValues ();
    EXPECT_EQ (PLGetRetainCount (lowerA.Raw ()) + PLGetRetainCount (upperA.Raw ()), 7);
}
