// Base64 against an encoder of our own (checked with RFC 4648's vectors) with the platform's line layout;
// code pages against known bytes; the small text tools (a GUID's text: Example.Text); every failure.
#include <LibSkerry/Base64>
#include <LibSkerry/CodePages>
#include <LibSkerry/StringUtilities>

#include "Expect.h"
#include "Interposer.h"

#include <wincrypt.h>

#include <random>
#include <string>
#include <vector>

using namespace Skerry::Base64;
using Skerry::ANSIStringFromWide;
using Skerry::WideStringFromANSI;
using Skerry::Exceptions::Win32;
using SkerryError = Skerry::Exceptions::Skerry;

namespace {

// RFC 4648 Base64 in lines of 64 characters, each ended by CR LF, the last one too.
std::string Reference (const std::string & bytes)
{
    static const char kAlphabet [] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string flat, lines;
    for (size_t i = 0; i < bytes.size () * 8; i += 6) {
        unsigned bits = static_cast<unsigned char> (bytes [i / 8]) << 8 | (i / 8 + 1 < bytes.size () ? static_cast<unsigned char> (bytes [i / 8 + 1]) : 0);
        flat += kAlphabet [(bits >> (10 - i % 8)) & 63];
    }
    flat.append ((4 - flat.size () % 4) % 4, '=');
    for (size_t i = 0; i < flat.size (); i += 64)
        lines += flat.substr (i, 64) + "\r\n";
    return lines;
}

std::wstring Widen (const std::string & text) { return std::wstring (text.begin (), text.end ()); }
std::string Decoded (Binary && bytes) { return std::string (reinterpret_cast<char *> (+bytes), bytes.fSize); }

const char kEncode [] = "Skerry::Base64::ConstructString";
const char kDecode [] = "Skerry::Base64::ConstructBinary";
const char kToWide [] = "Skerry::ConstructWideStringFromANSI";
const char kToANSI [] = "Skerry::ConstructANSIStringFromWide";

}

TEST (Base64, AgainstAnIndependentEncoder)
{
    // The reference first, with RFC 4648's vectors of each padding.
    EXPECT_EQ (Reference ("f") + Reference ("fo") + Reference ("foobar"), "Zg==\r\nZm8=\r\nZm9vYmFy\r\n");
    // Random bytes, and the sizes Wine miscounts (48k+1 and 48k+2), whose text must still be exact.
    std::mt19937 random (20261123);
    std::vector<unsigned> sizes = { 0, 1, 2, 3, 48, 49, 50, 51, 97, 98, 145, 146, 4801, 4802, 5000 };
    for (int i = 0; i < 120; ++i)
        sizes.push_back (random () % 5001);
    for (unsigned size : sizes) {
        std::string bytes (size, ' ');
        for (char & byte : bytes)
            byte = char (random ());
        String text (bytes.data (), size);
        ASSERT_EQ (text, Reference (bytes)) << size;
        EXPECT_EQ (WideString (bytes.data (), size), Widen (text));
        EXPECT_EQ (Decoded (Binary (text)), bytes);
        EXPECT_EQ (Decoded (Binary (Widen (text))), bytes);
        // Damaged text decodes to something or fails as the platform says, nothing else.
        if (! text.empty ())
            text [random () % text.size ()] = "!A=\r\0-" [random () % 6];
        std::string failure = SkerryTest::Failure ([&] { Binary damaged (text); });
        EXPECT_TRUE (failure == "nothing thrown" || failure == "Win32 13 | Skerry::Base64::ConstructBinary | Base64") << failure;
    }
}

TEST (Base64, EncoderRaisesSkerry18DecoderWin32AndNoBytesCallNothing)
{
    SKERRY_INTERPOSE (narrow, "CRYPT32.dll", CryptBinaryToStringA);
    SKERRY_INTERPOSE (wide, "CRYPT32.dll", CryptBinaryToStringW);
    EXPECT_TRUE (String (nullptr, 0).empty () && WideString (nullptr, 0).empty ());
    EXPECT_EQ (narrow.Calls () + wide.Calls (), 0u);
    // Either call failing: the encoder raises Skerry 18, the decoder Win32 with the code.
    SKERRY_INTERPOSE (toNarrow, "CRYPT32.dll", CryptStringToBinaryA);
    SKERRY_INTERPOSE (toWide, "CRYPT32.dll", CryptStringToBinaryW);
    for (unsigned call = 0; call < 2; ++call) {
        narrow.Fail (FALSE, ERROR_OUTOFMEMORY, 1, call);
        EXPECT_EQ (SkerryTest::Expect<SkerryError> ([] { String text ("abc", 3); }, kEncode, "Base64").fCode, 18ul);
        wide.Fail (FALSE, ERROR_OUTOFMEMORY, 1, call);
        EXPECT_EQ (SkerryTest::Expect<SkerryError> ([] { WideString text ("abc", 3); }, kEncode, "Base64").fCode, 18ul);
        toNarrow.Fail (FALSE, 1234 + call, 1, call);
        EXPECT_EQ (SkerryTest::Expect<Win32> ([] { Binary b (std::string ("AQgP")); }, kDecode, "Base64").fCode, 1234 + call);
        toWide.Fail (FALSE, 1234 + call, 1, call);
        EXPECT_EQ (SkerryTest::Expect<Win32> ([] { Binary b (std::wstring (L"AQgP")); }, kDecode, "Base64").fCode, 1234 + call);
    }
    EXPECT_EQ (std::get<2> (narrow.CallArguments () [0]), DWORD (CRYPT_STRING_BASE64));
    // Spoils the format, the skip count or the size, of the decoder's first call or the second.
    const char * format = "assertion failed: CRYPT_STRING_BASE64 == actualFormat", * skip = "assertion failed: !skip";
    const char * messages [] = { format, skip, "assertion failed: actualBufferSize == destBufferSize", format, skip };
    for (unsigned spoil = 0; spoil < 5; ++spoil) {
        unsigned call = 0;
        toNarrow.Replace ([&] (LPCSTR text, DWORD length, DWORD flags, BYTE * bytes, DWORD * size, DWORD * skipped,
                              DWORD * found) {
            BOOL result = toNarrow.Original (text, length, flags, bytes, size, skipped, found);
            DWORD * spoiled [] = { found, skipped, size, found, skipped };
            *spoiled [spoil] += call++ == (spoil < 2 ? 0u : 1u) ? 2 : 0;
            return result;
        });
        SkerryTest::ExpectAssertion ([] { Binary b (std::string ("AQgP")); }, messages [spoil], kDecode, "Base64");
    }
}

TEST (CodePages, KnownSequencesCodePageZeroEmptySourcesAndPlatformFailures)
{
    const struct { unsigned fCodePage; std::string fNarrow; std::wstring fWide; } samples [] = {
        { 1252, std::string ("Gr\xfc\xdf" "e\0\x80", 7), std::wstring (L"Gr\u00fc\u00dfe\0\u20ac", 7) },
        { 65001, std::string ("a\0\xe2\x82\xac\xf0\x9f\x98\x80", 9), std::wstring (L"a\0\u20ac\xd83d\xde00", 5) },
        { 932, std::string ("\x93\xfa\x96\x7b\0\xb1", 6), std::wstring (L"\u65e5\u672c\0\uff71", 4) } };
    for (auto & sample : samples) {
        EXPECT_EQ (WideStringFromANSI (sample.fNarrow.data (), unsigned (sample.fNarrow.size ()), sample.fCodePage),
            sample.fWide);
        EXPECT_EQ (ANSIStringFromWide (sample.fWide, sample.fCodePage), sample.fNarrow);
    }
    // An unknown code page, and no text.
    EXPECT_EQ (SkerryTest::Expect<Win32> ([] { WideStringFromANSI t ("a", 1, 12345); }, kToWide, "StringUtilities").fCode, 87ul);
    EXPECT_EQ (SkerryTest::Expect<Win32> ([] { ANSIStringFromWide t (L"a", 1, 12345); }, kToANSI, "StringUtilities").fCode, 87ul);
    SkerryTest::ExpectAssertion ([] { WideStringFromANSI t (nullptr, 1); }, "assertion failed: s", kToWide, "StringUtilities");
    SkerryTest::ExpectAssertion ([] { ANSIStringFromWide t (nullptr, 1); }, "assertion failed: w", kToANSI, "StringUtilities");

    // The ANSI code page follows the locale under Wine: the test sets it.
    SKERRY_INTERPOSE (acp, "KERNEL32.dll", GetACP);
    SKERRY_INTERPOSE (toWide, "KERNEL32.dll", MultiByteToWideChar);
    SKERRY_INTERPOSE (toANSI, "KERNEL32.dll", WideCharToMultiByte);
    acp.Replace ([] { return UINT (932); });
    EXPECT_EQ (WideStringFromANSI (nullptr, 0) + WideStringFromANSI ("", 0, 12345), L"");
    EXPECT_EQ (acp.Calls (), 0u);
    ANSIStringFromWide empty (nullptr, 0);
    EXPECT_EQ (empty + ANSIStringFromWide (std::wstring (), 12345), "");
    EXPECT_EQ (toWide.Calls () + toANSI.Calls (), 0u);
    EXPECT_EQ (WideStringFromANSI ("\x93\xfa"), L"\u65e5");
    // A system without an ANSI code page gets UTF-8; copies carry the code page along.
    acp.Replace ([] { return UINT (0); });
    ANSIStringFromWide utf8 (L"\u20ac", 1), copy (empty);
    EXPECT_EQ (utf8, "\xe2\x82\xac");
    EXPECT_EQ (copy.GetCodePage (), 932u);
    copy = utf8;
    EXPECT_EQ (copy.GetCodePage (), 65001u);

    auto wide = [] { WideStringFromANSI text ("abc", 3, 1252); };
    auto narrow = [] { ANSIStringFromWide text (L"abc", 3, 1252); };
    for (unsigned pass = 0; pass < 2; ++pass) {
        toWide.Fail (0, 1113 + pass, 1, pass);
        EXPECT_EQ (SkerryTest::Expect<Win32> (wide, kToWide, "StringUtilities").fCode, 1113 + pass);
        toANSI.Fail (0, 1113 + pass, 1, pass);
        EXPECT_EQ (SkerryTest::Expect<Win32> (narrow, kToANSI, "StringUtilities").fCode, 1113 + pass);
    }
    // The writing pass converts another count than the sizing pass measured.
    toWide.Replace ([&] (UINT page, DWORD flags, LPCCH s, int length, LPWSTR buffer, int count) {
        return buffer == nullptr ? toWide.Original (page, flags, s, length, buffer, count) : count - 1;
    });
    EXPECT_EQ (SkerryTest::Expect<SkerryError> (wide, kToWide, "StringUtilities").fCode, 6ul);
    toANSI.Replace ([&] (UINT page, DWORD flags, LPCWCH w, int length, LPSTR buffer, int count, LPCCH d, LPBOOL u) {
        return buffer == nullptr ? toANSI.Original (page, flags, w, length, buffer, count, d, u) : count - 1;
    });
    EXPECT_EQ (SkerryTest::Expect<SkerryError> (narrow, kToANSI, "StringUtilities").fCode, 6ul);
}

TEST (TextTools, GUIDsPrintableTextAndTokens)
{
    const GUID guid = { 0x6b29fc40, 0xca47, 0x1067, { 0xb3, 0x1d, 0x00, 0xdd, 0x01, 0x06, 0x62, 0xda } };
    SKERRY_INTERPOSE (print, "ole32.dll", StringFromGUID2);
    print.Replace ([&] (REFGUID id, LPOLESTR buffer, int size) { return print.Original (id, buffer, size) - 1; });
    SkerryTest::ExpectAssertion ([&] { Skerry::StringFromGUID text (guid); },
        "assertion failed: actualStringLength == guidStringLength", "Skerry::StringFromGUID::StringFromGUID",
        "StringUtilities");

    // Every element value, those isprint isn't defined for included, stays in bounds.
    unsigned printable = Skerry::IsPrintableASCII (std::string ()) + Skerry::IsPrintableASCII (std::wstring ());
    for (unsigned value = 0; value <= 0xFFFF; ++value)
        printable += Skerry::IsPrintableASCII (std::wstring (1, wchar_t (value)))
            + (value <= 0xFF && Skerry::IsPrintableASCII (std::string (" ~") + char (value)));
    EXPECT_EQ (printable, 2 + 2 * 95u);

    std::vector<std::string> tokens { "kept" };
    const struct { const char * fSource, * fDelimiters; bool fKeepEmpty; } pieces [] = {
        { ",a,,b,", ",", true }, { ",a,;b,", ",;", false }, { "x,y", "", false }, { "", ",", false }, { "", ",", true } };
    for (const auto & p : pieces)
        Skerry::AppendTokens (p.fSource, p.fDelimiters, tokens, p.fKeepEmpty);
    EXPECT_EQ (tokens, (std::vector<std::string> { "kept", "", "a", "", "b", "", "a", "b", "x,y", "" }));
    std::vector<std::wstring> wide;
    Skerry::AppendTokens (L"\u00e9,,b", L",", wide, true);
    EXPECT_EQ (wide, (std::vector<std::wstring> { L"\u00e9", L"", L"b" }));
}
