// The five Throw functions, their log lines, the site and assertion forms, and the copy rules of
// the exception classes.
#include <LibSkerry/Exceptions>

#include "Expect.h"
#include "Interposer.h"
#include "JotLog.h"

#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <set>
#include <stdexcept>
#include <string>

using namespace Skerry::Exceptions;
using SkerryError = Skerry::Exceptions::Skerry;
using SkerryTest::Caught;

namespace {

// `e` after checking its site.
template <typename E>
E Site (const E & e, const char * function, const char * file, std::uint32_t line)
{
    EXPECT_STREQ (e.fFunction, function);
    EXPECT_STREQ (e.fFile, file);
    EXPECT_EQ (e.fLine, line);
    EXPECT_FALSE (e.empty ());
    return e;
}

}

TEST (Throw, EachKindCarriesItsSiteCodeAndLogLine)
{
    SkerryTest::ScopedJotLog log;
    EXPECT_EQ (Site (Caught<Win32> ([] { ThrowWin32ErrorFunc ("Site::Win32", "Here", 11, 2); }), "Site::Win32", "Here", 11).fCode, 2ul);
    EXPECT_EQ (Site (Caught<SkerryError> ([] { ThrowSkerryErrorFunc ("Site::Skerry", "There", 22, 18); }), "Site::Skerry", "There", 22).fCode, 18ul);
    EXPECT_EQ (Site (Caught<COM> ([] { ThrowHRESULTFunc ("Site::COM", "Shell", 33, long (0x80070057)); }), "Site::COM", "Shell", 33).fCode, long (0x80070057));
    EXPECT_EQ (Site (Caught<Errno> ([] { ThrowErrnoFunc ("Site::Errno", "File", 44, 13); }), "Site::Errno", "File", 44).fCode, 13);
    EXPECT_STREQ (Site (Caught<String> ([] { ThrowStringFunc ("Site::String", "Text", 55, "went wrong"); }), "Site::String", "Text", 55).fMessage, "went wrong");
    // An error of 0 raises all the same, and a negative line keeps its bit pattern: signed in the
    // code functions' lines, unsigned in the String line.
    EXPECT_EQ (Caught<Win32> ([] { ThrowWin32ErrorFunc ("F", "S", -1, 0); }).fCode, 0ul);
    EXPECT_EQ (Caught<String> ([] { ThrowStringFunc ("F", "S", -1, "m"); }).fLine, 0xFFFFFFFFu);

    std::vector<SkerryTest::JotRecord> records = log.Records ();
    ASSERT_EQ (records.size (), 7u);
    const char * const kLines [] = {
        "Site::Win32: throwing exception due to Win32 error 2 on line 11 of file Here",
        "Site::Skerry: throwing exception due to Skerry error 18 on line 22 of file There",
        "Site::COM: throwing exception due to HRESULT 0x80070057 on line 33 of file Shell",
        "Site::Errno: throwing exception due to errno 13 on line 44 of file File",
        "Site::String: throwing exception from line 55 of file Text: went wrong",
        "F: throwing exception due to Win32 error 0 on line -1 of file S",
        "F: throwing exception from line 4294967295 of file S: m" };
    for (size_t i = 0; i < records.size (); ++i) {
        EXPECT_EQ (records [i].fMessage, kLines [i]);
        EXPECT_FALSE (records [i].fIdent.has_value ());
        EXPECT_EQ (records [i].fFacility.value_or (""), "Exceptions");
        EXPECT_EQ (records [i].fLevel, 5);
    }
}

TEST (Throw, SiteAndAssertionFormsReportTheNamedSite)
{
    SkerryTest::ScopedJotLog log;
    std::string s = "abc";
    int assertLine = 0, throwLine = 0;
    String assertion = Caught<String> ([&] {
        SKERRY_SITE ("Skerry::Example::Check");
        assertLine = __LINE__ + 1;
        SKERRY_ASSERT (s.length ( ) == std::string::size_type (s.length ( ) + 1));
    });
    EXPECT_STREQ (assertion.fMessage, "assertion failed: s.length ( ) == std::string::size_type (s.length ( ) + 1)");
    Site (assertion, "Skerry::Example::Check", "tests/ErrorModel/ThrowTests.cpp", std::uint32_t (assertLine));
    Win32 thrown = Caught<Win32> ([&] {
        SKERRY_SITE ("ConstructKey");
        throwLine = __LINE__ + 1;
        SKERRY_THROW_WIN32 (5);
    });
    Site (thrown, "ConstructKey", "tests/ErrorModel/ThrowTests.cpp", std::uint32_t (throwLine));
    // A true condition costs nothing and says nothing.
    SKERRY_SITE ("Quiet");
    SKERRY_ASSERT (s.size () == 3);
    EXPECT_EQ (log.Messages (), (std::vector<std::string> { "Skerry::Example::Check: throwing exception from line "
        + std::to_string (assertLine) + " of file tests/ErrorModel/ThrowTests.cpp: " + assertion.fMessage,
        "ConstructKey: throwing exception due to Win32 error 5 on line " + std::to_string (throwLine)
        + " of file tests/ErrorModel/ThrowTests.cpp" }));
}

TEST (StringException, CopiesOwnTheirMessagesAndReleaseEachOnce)
{
    std::set<void *> freed;
    unsigned frees = 0;
    char buffer [] = "temporary";
    String a ("F", "S", 1, buffer);
    std::strcpy (buffer, "changed");       // the message was duplicated, not stored
    EXPECT_STREQ (a.fMessage, "temporary");
    SKERRY_INTERPOSE (freeCalls, "msvcrt.dll", free);
    freeCalls.Replace ([&] (void * p) { freed.insert (p); ++frees; freeCalls.Original (p); });
    {
        String b (a);
        String c ("G", "T", 2, "other");
        c = b;
        EXPECT_TRUE (b.fMessage != a.fMessage && c.fMessage != b.fMessage);
        EXPECT_STREQ (c.fMessage, "temporary");
        EXPECT_STREQ (c.fFunction, "F");
        EXPECT_EQ (c.fLine, 1u);
        EXPECT_EQ (static_cast<const Skerry::StackTrace &> (c), static_cast<const Skerry::StackTrace &> (a));
        c = c;
        EXPECT_STREQ (c.fMessage, "temporary");
    }
    // "other" on assignment, then b's and c's copies: three distinct blocks, none twice.
    EXPECT_EQ (frees, 3u);
    EXPECT_EQ (freed.size (), 3u);
    EXPECT_EQ (freed.count (a.fMessage), 0u);
}

TEST (StringException, DuplicationFailuresRaiseStandardExceptions)
{
    auto what = [] (const std::function<void ()> & raise) -> std::string {
        try {
            raise ();
        } catch (const std::runtime_error & e) {
            return e.what ();
        }
        return "nothing thrown";
    };
    const char kNew [] = "unable to duplicate string for new String exception";
    EXPECT_EQ (what ([] { ThrowStringFunc ("F", "S", 1, nullptr); }), kNew);
    String original ("F", "S", 1, "text"), target ("G", "T", 2, "kept");
    SKERRY_INTERPOSE (duplicate, "msvcrt.dll", _strdup);
    duplicate.Fail (nullptr, ERROR_NOT_ENOUGH_MEMORY);
    EXPECT_EQ (what ([&] { String copy (original); }), "unable to duplicate string for copy of String exception");
    duplicate.Fail (nullptr, ERROR_NOT_ENOUGH_MEMORY);
    EXPECT_EQ (what ([&] { target = original; }), "unable to duplicate string for copy of String exception");
    EXPECT_STREQ (target.fMessage, "kept");    // a failed assignment changes nothing
    duplicate.Fail (nullptr, ERROR_NOT_ENOUGH_MEMORY);
    EXPECT_EQ (what ([] { ThrowStringFunc ("F", "S", 1, "text"); }), kNew);
    // The guard was left by unwinding: the next throw goes through.
    EXPECT_STREQ (Caught<String> ([] { ThrowStringFunc ("F", "S", 1, "again"); }).fMessage, "again");
}
