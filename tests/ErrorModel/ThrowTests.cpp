// The five Throw functions, their log lines, the site and assertion forms, and the copy rules of
// the exception classes.
#include <LibSkerry/Exceptions>

#include "ChildProcess.h"
#include "Expect.h"
#include "Interposer.h"
#include "JotLog.h"

#include <gtest/gtest.h>

#include <cstring>
#include <set>
#include <stdexcept>
#include <string>

using namespace Skerry::Exceptions;
using SkerryError = Skerry::Exceptions::Skerry;

namespace {

using SkerryTest::Caught;

void ExpectSite (const Base & e, const char * function, const char * file, std::uint32_t line)
{
    EXPECT_STREQ (e.fFunction, function);
    EXPECT_STREQ (e.fFile, file);
    EXPECT_EQ (e.fLine, line);
    EXPECT_FALSE (e.empty ());
}

}

TEST (Throw, EachKindCarriesItsSiteCodeAndLogLine)
{
    SkerryTest::ScopedJotLog log;
    Win32 win32 = Caught<Win32> ([] { ThrowWin32ErrorFunc ("Site::Win32", "Here", 11, 2); });
    ExpectSite (win32, "Site::Win32", "Here", 11);
    EXPECT_EQ (win32.fCode, 2ul);
    SkerryError skerry = Caught<SkerryError> ([] { ThrowSkerryErrorFunc ("Site::Skerry", "There", 22, 18); });
    ExpectSite (skerry, "Site::Skerry", "There", 22);
    EXPECT_EQ (skerry.fCode, 18ul);
    COM com = Caught<COM> ([] { ThrowHRESULTFunc ("Site::COM", "Shell", 33, long (0x80070057)); });
    ExpectSite (com, "Site::COM", "Shell", 33);
    EXPECT_EQ (com.fCode, long (0x80070057));
    Errno error = Caught<Errno> ([] { ThrowErrnoFunc ("Site::Errno", "File", 44, 13); });
    ExpectSite (error, "Site::Errno", "File", 44);
    EXPECT_EQ (error.fCode, 13);
    String text = Caught<String> ([] { ThrowStringFunc ("Site::String", "Text", 55, "went wrong"); });
    ExpectSite (text, "Site::String", "Text", 55);
    EXPECT_STREQ (text.fMessage, "went wrong");

    std::vector<SkerryTest::JotRecord> records = log.Records ();
    ASSERT_EQ (records.size (), 5u);
    EXPECT_EQ (records [0].fMessage, "Site::Win32: throwing exception due to Win32 error 2 on line 11 of file Here");
    EXPECT_EQ (records [1].fMessage, "Site::Skerry: throwing exception due to Skerry error 18 on line 22 of file There");
    EXPECT_EQ (records [2].fMessage, "Site::COM: throwing exception due to HRESULT 0x80070057 on line 33 of file Shell");
    EXPECT_EQ (records [3].fMessage, "Site::Errno: throwing exception due to errno 13 on line 44 of file File");
    EXPECT_EQ (records [4].fMessage, "Site::String: throwing exception from line 55 of file Text: went wrong");
    for (const SkerryTest::JotRecord & record : records) {
        EXPECT_FALSE (record.fIdent.has_value ());
        EXPECT_EQ (record.fFacility.value_or (""), "Exceptions");
        EXPECT_EQ (record.fLevel, 5);
    }
}

TEST (Throw, ValuesAreNotInterpreted)
{
    SkerryTest::ScopedJotLog log;
    // An error of 0 raises all the same, and a negative line keeps its bit pattern: signed in the
    // code functions' lines, unsigned in the String line.
    EXPECT_EQ (Caught<Win32> ([] { ThrowWin32ErrorFunc ("F", "S", -1, 0); }).fCode, 0ul);
    EXPECT_EQ (Caught<String> ([] { ThrowStringFunc ("F", "S", -1, "m"); }).fLine, 0xFFFFFFFFu);
    EXPECT_EQ (log.Messages (), (std::vector<std::string> {
        "F: throwing exception due to Win32 error 0 on line -1 of file S",
        "F: throwing exception from line 4294967295 of file S: m"}));
}

TEST (Throw, SiteAndAssertionFormsReportTheNamedSite)
{
    SkerryTest::ScopedJotLog log;
    std::string s = "abc";
    int assertLine = 0;
    String assertion = Caught<String> ([&] {
        SKERRY_SITE ("Skerry::Example::Check");
        assertLine = __LINE__ + 1;
        SKERRY_ASSERT (s.length ( ) == std::string::size_type (s.length ( ) + 1));
    });
    EXPECT_STREQ (assertion.fMessage, "assertion failed: s.length ( ) == std::string::size_type (s.length ( ) + 1)");
    ExpectSite (assertion, "Skerry::Example::Check", "tests/ErrorModel/ThrowTests.cpp", std::uint32_t (assertLine));

    int throwLine = 0;
    Win32 win32 = Caught<Win32> ([&] {
        SKERRY_SITE ("ConstructKey");
        throwLine = __LINE__ + 1;
        SKERRY_THROW_WIN32 (5);
    });
    ExpectSite (win32, "ConstructKey", "tests/ErrorModel/ThrowTests.cpp", std::uint32_t (throwLine));
    EXPECT_EQ (log.Messages () [1], "ConstructKey: throwing exception due to Win32 error 5 on line "
        + std::to_string (throwLine) + " of file tests/ErrorModel/ThrowTests.cpp");

    // A true condition costs nothing and says nothing.
    SKERRY_SITE ("Quiet");
    SKERRY_ASSERT (s.size () == 3);
    EXPECT_EQ (log.Records ().size (), 2u);
}

TEST (StringException, CopiesOwnTheirMessagesAndReleaseEachOnce)
{
    std::set<void *> freed;
    unsigned frees = 0;
    {
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
            EXPECT_NE (b.fMessage, a.fMessage);
            EXPECT_NE (c.fMessage, b.fMessage);
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
}

TEST (StringException, DuplicationFailuresRaiseStandardExceptions)
{
    try {
        ThrowStringFunc ("F", "S", 1, nullptr);
        FAIL () << "a null message was accepted";
    }
    catch (const std::exception & e) {
        EXPECT_STREQ (e.what (), "unable to duplicate string for new String exception");
    }
    String original ("F", "S", 1, "text");
    SKERRY_INTERPOSE (duplicate, "msvcrt.dll", _strdup);
    duplicate.Fail (nullptr, ERROR_NOT_ENOUGH_MEMORY);
    try {
        String copy (original);
        FAIL () << "a failed duplication went unnoticed";
    }
    catch (const std::exception & e) {
        EXPECT_STREQ (e.what (), "unable to duplicate string for copy of String exception");
    }
    String target ("G", "T", 2, "kept");
    duplicate.Fail (nullptr, ERROR_NOT_ENOUGH_MEMORY);
    EXPECT_THROW (target = original, std::runtime_error);
    EXPECT_STREQ (target.fMessage, "kept");    // a failed assignment changes nothing
    duplicate.Fail (nullptr, ERROR_NOT_ENOUGH_MEMORY);
    try {
        ThrowStringFunc ("F", "S", 1, "text");
    }
    catch (const std::exception & e) {
        EXPECT_STREQ (e.what (), "unable to duplicate string for new String exception");
    }
    // The guard was left by unwinding: the next throw goes through.
    EXPECT_STREQ (Caught<String> ([] { ThrowStringFunc ("F", "S", 1, "again"); }).fMessage, "again");
}

TEST (Symbolicate, EmptyTraceSaysSo)
{
    Win32 e = Caught<Win32> ([] { ThrowWin32ErrorFunc ("F", "S", 1, 2); });
    e.clear ();
    EXPECT_EQ (e.Symbolicate (), "(no frames found)");
}
