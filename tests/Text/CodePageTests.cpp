// Code-page conversions: known byte sequences in four code pages, the resolution of code page 0,
// empty sources that call nothing, and every failure of the two passes.
#include <LibSkerry/CodePages>

#include "Expect.h"
#include "Interposer.h"

#include <gtest/gtest.h>

#include <windows.h>

#include <string>

using Skerry::ANSIStringFromWide;
using Skerry::WideStringFromANSI;

namespace {

const char kToWide [] = "Skerry::ConstructWideStringFromANSI";
const char kToANSI [] = "Skerry::ConstructANSIStringFromWide";

struct Sample {
    unsigned fCodePage;
    std::string fNarrow;
    std::wstring fWide;
};

// Each sample has a null character inside, which must be converted like any other.
const Sample kSamples [] = {
    { 1252, std::string ("Gr\xfc\xdf" "e\0\x80", 7), std::wstring (L"Gr\u00fc\u00dfe\0\u20ac", 7) },
    { 65001, std::string ("a\0\xe2\x82\xac\xf0\x9f\x98\x80", 9), std::wstring (L"a\0\u20ac\xd83d\xde00", 5) },
    { 932, std::string ("\x93\xfa\x96\x7b\0\xb1", 6), std::wstring (L"\u65e5\u672c\0\uff71", 4) },
    { 936, std::string ("\xd6\xd0\xce\xc4\0A", 6), std::wstring (L"\u4e2d\u6587\0A", 4) },
};

}

TEST (CodePages, KnownSequencesBothWays)
{
    for (const Sample & sample : kSamples) {
        SCOPED_TRACE (sample.fCodePage);
        EXPECT_EQ (WideStringFromANSI (sample.fNarrow.data (), unsigned (sample.fNarrow.size ()), sample.fCodePage),
            sample.fWide);
        ANSIStringFromWide narrow (sample.fWide, sample.fCodePage);
        EXPECT_EQ (narrow, sample.fNarrow);
        EXPECT_EQ (narrow.GetCodePage (), sample.fCodePage);
    }
    // The terminated forms stop at the terminator.
    EXPECT_EQ (WideStringFromANSI ("ab\0cd"), L"ab");
    EXPECT_EQ (ANSIStringFromWide (L"ab\0cd"), "ab");
}

TEST (CodePages, CodePageZeroIsTheANSICodePage)
{
    SKERRY_INTERPOSE (acp, "KERNEL32.dll", GetACP);
    SKERRY_INTERPOSE (toWide, "KERNEL32.dll", MultiByteToWideChar);
    acp.Replace ([] { return UINT (932); });
    EXPECT_EQ (WideStringFromANSI ("\x93\xfa\x96\x7b", 4), L"\u65e5\u672c");
    EXPECT_EQ (std::get<0> (toWide.CallArguments () [0]), 932u);
    EXPECT_EQ (std::get<1> (toWide.CallArguments () [0]), 0ul);
    ANSIStringFromWide narrow (L"\u65e5", 1);
    EXPECT_EQ (narrow, "\x93\xfa");
    EXPECT_EQ (narrow.GetCodePage (), 932u);
    // A system without an ANSI code page gets UTF-8.
    acp.Replace ([] { return UINT (0); });
    EXPECT_EQ (Skerry::ResolveCodePage (0), 65001u);
    EXPECT_EQ (ANSIStringFromWide (L"\u20ac").GetCodePage (), 65001u);
    EXPECT_EQ (Skerry::ResolveCodePage (437), 437u);

    // Copies and assignments carry the code page along.
    ANSIStringFromWide copy (narrow);
    EXPECT_EQ (copy.GetCodePage (), 932u);
    copy = ANSIStringFromWide (L"x", 1, 1252);
    EXPECT_EQ (copy.GetCodePage (), 1252u);
    EXPECT_EQ (copy, "x");
}

TEST (CodePages, EmptySourcesCallNothing)
{
    SKERRY_INTERPOSE (acp, "KERNEL32.dll", GetACP);
    SKERRY_INTERPOSE (toWide, "KERNEL32.dll", MultiByteToWideChar);
    SKERRY_INTERPOSE (toANSI, "KERNEL32.dll", WideCharToMultiByte);
    acp.Replace ([] { return UINT (1252); });
    EXPECT_EQ (WideStringFromANSI (nullptr, 0), L"");
    EXPECT_EQ (WideStringFromANSI ("", 0, 12345), L"");
    EXPECT_EQ (WideStringFromANSI (""), L"");
    EXPECT_EQ (acp.Calls (), 0u);
    ANSIStringFromWide empty (nullptr, 0);
    EXPECT_EQ (empty, "");
    EXPECT_EQ (empty.GetCodePage (), 1252u);
    EXPECT_EQ (ANSIStringFromWide (std::wstring (), 12345).GetCodePage (), 12345u);
    EXPECT_EQ (toWide.Calls () + toANSI.Calls (), 0u);
}

TEST (CodePages, BadArgumentsAndCodePages)
{
    SkerryTest::ExpectWin32 ([] { WideStringFromANSI text ("a", 1, 12345); }, ERROR_INVALID_PARAMETER, kToWide,
        "StringUtilities");
    SkerryTest::ExpectWin32 ([] { ANSIStringFromWide text (L"a", 1, 12345); }, ERROR_INVALID_PARAMETER, kToANSI,
        "StringUtilities");
    SkerryTest::ExpectAssertion ([] { WideStringFromANSI text (nullptr, 1); }, "assertion failed: s", kToWide,
        "StringUtilities");
    SkerryTest::ExpectAssertion ([] { ANSIStringFromWide text (nullptr, 1, 1252); }, "assertion failed: w", kToANSI,
        "StringUtilities");
    SkerryTest::ExpectAssertion ([] { WideStringFromANSI text ("a", 0x80000000u); },
        "assertion failed: int (length) > 0", kToWide, "StringUtilities");
    SkerryTest::ExpectAssertion ([] { WideStringFromANSI text (nullptr); }, "assertion failed: s",
        "Skerry::WideStringFromANSI::WideStringFromANSI", "StringUtilities");
    SkerryTest::ExpectAssertion ([] { ANSIStringFromWide text (nullptr); }, "assertion failed: w",
        "Skerry::ANSIStringFromWide::ANSIStringFromWide", "StringUtilities");
}

TEST (CodePages, PlatformFailuresOnEachPass)
{
    SKERRY_INTERPOSE (toWide, "KERNEL32.dll", MultiByteToWideChar);
    SKERRY_INTERPOSE (toANSI, "KERNEL32.dll", WideCharToMultiByte);
    auto wide = [] { WideStringFromANSI text ("abc", 3, 1252); };
    auto narrow = [] { ANSIStringFromWide text (L"abc", 3, 1252); };
    for (unsigned pass = 0; pass < 2; ++pass) {
        toWide.Fail (0, 1113 + pass, 1, pass);
        SkerryTest::ExpectWin32 (wide, 1113 + pass, kToWide, "StringUtilities");
        toANSI.Fail (0, 1113 + pass, 1, pass);
        SkerryTest::ExpectWin32 (narrow, 1113 + pass, kToANSI, "StringUtilities");
    }
    // Flags 0, and no default character or used-default flag.
    auto arguments = toANSI.CallArguments () [1];
    EXPECT_EQ (std::get<1> (arguments), 0ul);
    EXPECT_EQ (std::get<6> (arguments), nullptr);
    EXPECT_EQ (std::get<7> (arguments), nullptr);

    // The sizing pass gives a negative count; the writing pass converts another count.
    toWide.Replace ([] (UINT, DWORD, LPCCH, int, LPWSTR, int) { return -1; });
    SkerryTest::ExpectAssertion (wide, "assertion failed: wideCharBufferCount > 0", kToWide, "StringUtilities");
    toANSI.Replace ([] (UINT, DWORD, LPCWCH, int, LPSTR, int, LPCCH, LPBOOL) { return -1; });
    SkerryTest::ExpectAssertion (narrow, "assertion failed: ansiCharBufferCount > 0", kToANSI, "StringUtilities");
    toWide.Replace ([&] (UINT page, DWORD flags, LPCCH s, int length, LPWSTR buffer, int count) {
        return buffer == nullptr ? toWide.Original (page, flags, s, length, buffer, count) : count - 1;
    });
    SkerryTest::ExpectSkerry (wide, 6, kToWide, "StringUtilities");
    toANSI.Replace ([&] (UINT page, DWORD flags, LPCWCH w, int length, LPSTR buffer, int count, LPCCH d, LPBOOL u) {
        return buffer == nullptr ? toANSI.Original (page, flags, w, length, buffer, count, d, u) : count - 1;
    });
    SkerryTest::ExpectSkerry (narrow, 6, kToANSI, "StringUtilities");
}
