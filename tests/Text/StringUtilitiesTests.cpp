// The small text tools: GUID text, the printable test over every element value, and tokens.
#include <LibSkerry/StringUtilities>

#include "Expect.h"
#include "Interposer.h"

#include <gtest/gtest.h>

#include <windows.h>
#include <objbase.h>

#include <string>
#include <vector>

using Skerry::AppendTokens;
using Skerry::IsPrintableASCII;

TEST (StringFromGUID, UnbracedUpperCaseText)
{
    EXPECT_EQ (Skerry::StringFromGUID (GUID ()), L"00000000-0000-0000-0000-000000000000");
    const GUID guid = { 0x6b29fc40, 0xca47, 0x1067, { 0xb3, 0x1d, 0x00, 0xdd, 0x01, 0x06, 0x62, 0xda } };
    EXPECT_EQ (Skerry::StringFromGUID (guid), L"6B29FC40-CA47-1067-B31D-00DD010662DA");

    SKERRY_INTERPOSE (print, "ole32.dll", StringFromGUID2);
    print.Replace ([&] (REFGUID id, LPOLESTR buffer, int size) { return print.Original (id, buffer, size) - 1; });
    SkerryTest::ExpectAssertion ([&] { Skerry::StringFromGUID text (guid); },
        "assertion failed: actualStringLength == guidStringLength", "Skerry::StringFromGUID::StringFromGUID",
        "StringUtilities");
    EXPECT_EQ (std::get<2> (print.CallArguments () [0]), 39);
}

TEST (IsPrintableASCII, OnlyBlankToTildeUnderTheCLocale)
{
    EXPECT_TRUE (IsPrintableASCII (std::string ()));
    EXPECT_TRUE (IsPrintableASCII (std::wstring ()));
    EXPECT_TRUE (IsPrintableASCII (std::string (" Hello, World~")));
    EXPECT_FALSE (IsPrintableASCII (std::string ("a\tb")));
    EXPECT_FALSE (IsPrintableASCII (std::wstring (L"a\nb")));
    EXPECT_FALSE (IsPrintableASCII (std::string ("a\0b", 3)));
    EXPECT_FALSE (IsPrintableASCII (std::wstring (L"a\0b", 3)));
    // Every element value, the ones isprint isn't defined for included, stays in bounds.
    unsigned narrow = 0, wide = 0;
    for (unsigned value = 0; value <= 0xFF; ++value)
        narrow += IsPrintableASCII (std::string (1, char (value)));
    for (unsigned value = 0; value <= 0xFFFF; ++value)
        wide += IsPrintableASCII (std::wstring (1, wchar_t (value)));
    EXPECT_EQ (narrow, 95u);
    EXPECT_EQ (wide, 95u);
}

TEST (AppendTokens, EachDelimiterEndsAToken)
{
    std::vector<std::string> tokens { "kept" };
    AppendTokens ("a,,b", ",", tokens, true);
    EXPECT_EQ (tokens, (std::vector<std::string> { "kept", "a", "", "b" }));
    tokens.clear ();
    AppendTokens ("a,,b", ",", tokens, false);
    EXPECT_EQ (tokens, (std::vector<std::string> { "a", "b" }));
    tokens.clear ();
    AppendTokens (";a b;", "; ", tokens, true);
    EXPECT_EQ (tokens, (std::vector<std::string> { "", "a", "b", "" }));
    tokens.clear ();
    AppendTokens (";a b;", "; ", tokens, false);
    AppendTokens ("", ",", tokens, false);
    AppendTokens ("x,y", "", tokens, false);
    EXPECT_EQ (tokens, (std::vector<std::string> { "a", "b", "x,y" }));
    tokens.clear ();
    AppendTokens ("", ",", tokens, true);
    EXPECT_EQ (tokens, (std::vector<std::string> { "" }));

    std::vector<std::wstring> wide { L"kept" };
    AppendTokens (L"\u00e9,,b,", L",", wide, true);
    EXPECT_EQ (wide, (std::vector<std::wstring> { L"kept", L"\u00e9", L"", L"b", L"" }));
    wide.clear ();
    AppendTokens (L",\u00e9,,b,", L",", wide, false);
    EXPECT_EQ (wide, (std::vector<std::wstring> { L"\u00e9", L"b" }));
}
