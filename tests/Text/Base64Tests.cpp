// Base64: the text against the RFC 4648 vectors and an encoder of our own with the platform's line
// layout, round trips, and every failure of the two crypt32 calls.
#include <LibSkerry/Base64>

#include "Expect.h"
#include "Interposer.h"

#include <gtest/gtest.h>

#include <windows.h>
#include <wincrypt.h>

#include <cstring>
#include <random>
#include <string>
#include <vector>

using Skerry::Base64::Binary;
using Skerry::Base64::String;
using Skerry::Base64::WideString;

namespace {

const char kEncode [] = "Skerry::Base64::ConstructString";
const char kDecode [] = "Skerry::Base64::ConstructBinary";

// RFC 4648 Base64 in lines of 64 characters, each ended by CR LF, the last one too.
std::string Reference (const unsigned char * bytes, size_t size)
{
    static const char kAlphabet [] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string flat;
    for (size_t i = 0; i < size; i += 3) {
        unsigned group = bytes [i] << 16 | (i + 1 < size ? bytes [i + 1] << 8 : 0) | (i + 2 < size ? bytes [i + 2] : 0);
        for (size_t k = 0; k < 4; ++k)
            flat += i + k <= size ? kAlphabet [(group >> (18 - 6 * k)) & 63] : '=';
    }
    std::string lines;
    for (size_t i = 0; i < flat.size (); i += 64)
        lines += flat.substr (i, 64) + "\r\n";
    return lines;
}

std::wstring Widen (const std::string & text)
{
    return std::wstring (text.begin (), text.end ());
}

std::vector<unsigned char> Bytes (Binary & decoded)
{
    unsigned char * bytes = decoded;
    return std::vector<unsigned char> (bytes, bytes + decoded.fSize);
}

// Checks the text of `bytes` in both forms, and that both decode to the bytes again.
void ExpectRoundTrip (const std::vector<unsigned char> & bytes)
{
    SCOPED_TRACE (bytes.size ());
    String narrow (bytes.data (), unsigned (bytes.size ()));
    EXPECT_EQ (narrow, Reference (bytes.data (), bytes.size ()));
    WideString wide (bytes.data (), unsigned (bytes.size ()));
    EXPECT_EQ (wide, Widen (narrow));
    if (bytes.empty ())
        return;
    Binary fromNarrow (narrow);
    EXPECT_EQ (Bytes (fromNarrow), bytes);
    Binary fromWide (wide);
    EXPECT_EQ (Bytes (fromWide), bytes);
}

}

TEST (Base64, RfcVectorsBothWays)
{
    const char * vectors [] [2] = { { "f", "Zg==" }, { "fo", "Zm8=" }, { "foo", "Zm9v" }, { "foob", "Zm9vYg==" },
        { "fooba", "Zm9vYmE=" }, { "foobar", "Zm9vYmFy" } };
    for (auto & vector : vectors) {
        unsigned size = unsigned (std::strlen (vector [0]));
        EXPECT_EQ (String (vector [0], size), std::string (vector [1]) + "\r\n");
        EXPECT_EQ (WideString (vector [0], size), Widen (vector [1]) + L"\r\n");
        Binary narrow ((std::string (vector [1])));
        EXPECT_EQ (std::string (reinterpret_cast<char *> (static_cast<unsigned char *> (narrow)), narrow.fSize), vector [0]);
        Binary wide (Widen (vector [1]) + L"\r\n");
        EXPECT_EQ (std::string (reinterpret_cast<char *> (static_cast<unsigned char *> (wide)), wide.fSize), vector [0]);
    }
    // The empty text is the platform's to judge: it decodes to no bytes, in a valid buffer.
    Binary empty ((std::string ()));
    EXPECT_EQ (empty.fSize, 0ul);
    EXPECT_NE (static_cast<unsigned char *> (empty), nullptr);
}

TEST (Base64, RandomBytesRoundTripWithThePlatformLineLayout)
{
    std::mt19937 random (20261123);
    std::vector<unsigned> sizes = { 0, 1, 2, 3, 47, 48, 51, 63, 64, 96, 100, 5000 };
    // Wine miscounts these (48k+1 and 48k+2 bytes); the text must still be exact.
    for (unsigned k = 1; k <= 4; ++k)
        sizes.insert (sizes.end (), { 48 * k + 1, 48 * k + 2 });
    sizes.insert (sizes.end (), { 48 * 100 + 1, 48 * 100 + 2 });
    for (int i = 0; i < 150; ++i)
        sizes.push_back (random () % 5001);
    for (unsigned size : sizes) {
        std::vector<unsigned char> bytes (size);
        for (auto & byte : bytes)
            byte = static_cast<unsigned char> (random ());
        ExpectRoundTrip (bytes);
    }
}

TEST (Base64, EncodingNothingCallsNothing)
{
    SKERRY_INTERPOSE (narrow, "CRYPT32.dll", CryptBinaryToStringA);
    SKERRY_INTERPOSE (wide, "CRYPT32.dll", CryptBinaryToStringW);
    EXPECT_EQ (String (nullptr, 0), "");
    EXPECT_EQ (WideString (nullptr, 0), L"");
    EXPECT_EQ (narrow.Calls () + wide.Calls (), 0u);
}

TEST (Base64, EncoderFailuresRaiseSkerry18)
{
    // The platform refuses a null source, and its reason isn't reported.
    SkerryTest::ExpectSkerry ([] { String text (nullptr, 5); }, 18, kEncode, "Base64");
    SKERRY_INTERPOSE (narrow, "CRYPT32.dll", CryptBinaryToStringA);
    SKERRY_INTERPOSE (wide, "CRYPT32.dll", CryptBinaryToStringW);
    for (unsigned call = 0; call < 2; ++call) {
        narrow.Fail (FALSE, ERROR_OUTOFMEMORY, 1, call);
        SkerryTest::ExpectSkerry ([] { String text ("abc", 3); }, 18, kEncode, "Base64");
        wide.Fail (FALSE, ERROR_OUTOFMEMORY, 1, call);
        SkerryTest::ExpectSkerry ([] { WideString text ("abc", 3); }, 18, kEncode, "Base64");
    }
    EXPECT_EQ (narrow.Calls (), 3u);
    EXPECT_EQ (std::get<2> (narrow.CallArguments () [0]), DWORD (CRYPT_STRING_BASE64));

    // The size query asks for nothing; the conversion writes another count than announced.
    narrow.Replace ([&] (const BYTE * source, DWORD size, DWORD flags, LPSTR text, DWORD * count) {
        narrow.Original (source, size, flags, text, count);
        *count = text == nullptr ? 0 : *count;
        return TRUE;
    });
    SkerryTest::ExpectAssertion ([] { String text ("abc", 3); }, "assertion failed: destBufferSize", kEncode, "Base64");
    narrow.Replace ([&] (const BYTE * source, DWORD size, DWORD flags, LPSTR text, DWORD * count) {
        BOOL result = narrow.Original (source, size, flags, text, count);
        *count -= text == nullptr ? 0 : 1;
        return result;
    });
    SkerryTest::ExpectAssertion ([] { String text ("abc", 3); }, "assertion failed: destBufferSize - 1 == bytesWritten",
        kEncode, "Base64");
}

TEST (Base64, DecoderFailuresRaiseWin32WithThePlatformCode)
{
    SkerryTest::ExpectWin32 ([] { Binary bytes (std::string ("AQgP!")); }, ERROR_INVALID_DATA, kDecode, "Base64");
    SkerryTest::ExpectWin32 ([] { Binary bytes (std::wstring (L"!!!!")); }, ERROR_INVALID_DATA, kDecode, "Base64");
    SKERRY_INTERPOSE (narrow, "CRYPT32.dll", CryptStringToBinaryA);
    SKERRY_INTERPOSE (wide, "CRYPT32.dll", CryptStringToBinaryW);
    for (unsigned call = 0; call < 2; ++call) {
        narrow.Fail (FALSE, 1234 + call, 1, call);
        SkerryTest::ExpectWin32 ([] { Binary bytes (std::string ("AQgP")); }, 1234 + call, kDecode, "Base64");
        wide.Fail (FALSE, 1234 + call, 1, call);
        SkerryTest::ExpectWin32 ([] { Binary bytes (std::wstring (L"AQgP")); }, 1234 + call, kDecode, "Base64");
    }
    EXPECT_EQ (narrow.Calls (), 3u);
    EXPECT_EQ (std::get<1> (narrow.CallArguments () [0]), 4ul);
    EXPECT_EQ (std::get<2> (narrow.CallArguments () [0]), DWORD (CRYPT_STRING_BASE64));
}

TEST (Base64, DecoderAssertionsOnEitherCall)
{
    SKERRY_INTERPOSE (decode, "CRYPT32.dll", CryptStringToBinaryA);
    // Each case spoils one result of one call.
    struct Case {
        unsigned fCall;
        void (* fSpoil) (DWORD * size, DWORD * skip, DWORD * format);
        const char * fMessage;
    };
    const Case cases [] = {
        { 0, [] (DWORD *, DWORD *, DWORD * format) { *format = CRYPT_STRING_BASE64HEADER; },
            "assertion failed: CRYPT_STRING_BASE64 == actualFormat" },
        { 0, [] (DWORD *, DWORD * skip, DWORD *) { *skip = 1; }, "assertion failed: !skip" },
        { 1, [] (DWORD * size, DWORD *, DWORD *) { *size -= 1; }, "assertion failed: actualBufferSize == destBufferSize" },
        { 1, [] (DWORD *, DWORD *, DWORD * format) { *format = CRYPT_STRING_BASE64HEADER; },
            "assertion failed: CRYPT_STRING_BASE64 == actualFormat" },
        { 1, [] (DWORD *, DWORD * skip, DWORD *) { *skip = 1; }, "assertion failed: !skip" },
    };
    for (const Case & spoiled : cases) {
        unsigned call = 0;
        decode.Replace ([&] (LPCSTR text, DWORD length, DWORD flags, BYTE * bytes, DWORD * size, DWORD * skip,
                            DWORD * format) {
            BOOL result = decode.Original (text, length, flags, bytes, size, skip, format);
            if (call++ == spoiled.fCall)
                spoiled.fSpoil (size, skip, format);
            return result;
        });
        SkerryTest::ExpectAssertion ([] { Binary bytes (std::string ("AQgP")); }, spoiled.fMessage, kDecode, "Base64");
    }
}
