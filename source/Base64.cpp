// Base64 through crypt32: the platform's two-call pattern, with checks that the calls agree.

#include <LibSkerry/Base64>
#include <LibSkerry/Exceptions>

#include <windows.h>
#include <wincrypt.h>

#include <algorithm>
#include <memory>

namespace Skerry {
namespace Base64 {

namespace {

BOOL BinaryToString (BYTE const * source, DWORD size, char * text, DWORD * textSize)
{
    return ::CryptBinaryToStringA (source, size, CRYPT_STRING_BASE64, text, textSize);
}

BOOL BinaryToString (BYTE const * source, DWORD size, wchar_t * text, DWORD * textSize)
{
    return ::CryptBinaryToStringW (source, size, CRYPT_STRING_BASE64, text, textSize);
}

BOOL StringToBinary (char const * text, DWORD length, BYTE * bytes, DWORD * size, DWORD * skip, DWORD * format)
{
    return ::CryptStringToBinaryA (text, length, CRYPT_STRING_BASE64, bytes, size, skip, format);
}

BOOL StringToBinary (wchar_t const * text, DWORD length, BYTE * bytes, DWORD * size, DWORD * skip, DWORD * format)
{
    return ::CryptStringToBinaryW (text, length, CRYPT_STRING_BASE64, bytes, size, skip, format);
}

// Lines of CRYPT_STRING_BASE64 text hold 64 characters, each followed by CR LF.
template <typename C>
void BreakLongLastLine (std::basic_string<C> & text)
{
    const size_t kLineLength = 64;
    const C kLineBreak [] = { C ('\r'), C ('\n'), C (0) };
    if (text.size () < 2)
        return;
    size_t previousBreak = text.rfind (C ('\n'), text.size () - 3);
    size_t lastLine = previousBreak == std::basic_string<C>::npos ? 0 : previousBreak + 1;
    if (text.size () - 2 - lastLine > kLineLength)
        text.insert (lastLine + kLineLength, kLineBreak);
}

template <typename C>
void ConstructString (std::basic_string<C> & result, void const * source, unsigned int sourceBufferSize)
{
    SKERRY_SITE ("Skerry::Base64::ConstructString");
    if (sourceBufferSize == 0)
        return;
    SKERRY_ASSERT (DWORD (sourceBufferSize) == sourceBufferSize);
    BYTE const * bytes = static_cast<BYTE const *> (source);
    DWORD destBufferSize = 0;
    if (! BinaryToString (bytes, sourceBufferSize, static_cast<C *> (NULL), &destBufferSize))
        SKERRY_THROW_SKERRY (18);
    SKERRY_ASSERT (destBufferSize);
    ArrayBuffer<C> buffer (destBufferSize);
    DWORD bytesWritten = destBufferSize;
    if (! BinaryToString (bytes, sourceBufferSize, buffer, &bytesWritten))
        SKERRY_THROW_SKERRY (18);
    SKERRY_ASSERT (destBufferSize - 1 == bytesWritten);
    // Wine, at 48k+1 and 48k+2 bytes, leaves out the line break before the padded last line yet
    // counts it, so that the terminator and an unwritten character lie inside the count. A text
    // that doesn't end in CR LF is taken up to its terminator, and its last line is broken where
    // the platform breaks every line. On Windows every text ends in CR LF: nothing changes.
    C const * text = buffer;
    if (bytesWritten >= 2 && text [bytesWritten - 2] == C ('\r') && text [bytesWritten - 1] == C ('\n')) {
        result.assign (text, bytesWritten);
        return;
    }
    result.assign (text, std::find (text, text + bytesWritten, C (0)));
    BreakLongLastLine (result);
}

// The bytes of `text`, in an array made with the array allocation operator, and their count.
template <typename C>
std::pair<unsigned char *, unsigned long> ConstructBinary (std::basic_string<C> const & s)
{
    SKERRY_SITE ("Skerry::Base64::ConstructBinary");
    SKERRY_ASSERT (s.length ( ) == DWORD (s.length ( )));
    DWORD destBufferSize = 0;
    DWORD skip = 0;
    DWORD actualFormat = 0;
    if (! StringToBinary (s.data (), DWORD (s.length ( )), NULL, &destBufferSize, &skip, &actualFormat))
        SKERRY_THROW_WIN32 (::GetLastError ());
    SKERRY_ASSERT (CRYPT_STRING_BASE64 == actualFormat);
    SKERRY_ASSERT (!skip);
    // Held by the pointer until the calls agree; a failure on the way releases it.
    std::unique_ptr<unsigned char []> buffer (new unsigned char [destBufferSize]);
    SKERRY_ASSERT (buffer);
    DWORD actualBufferSize = destBufferSize;
    if (! StringToBinary (s.data (), DWORD (s.length ( )), buffer.get (), &actualBufferSize, &skip, &actualFormat))
        SKERRY_THROW_WIN32 (::GetLastError ());
    SKERRY_ASSERT (actualBufferSize == destBufferSize);
    SKERRY_ASSERT (CRYPT_STRING_BASE64 == actualFormat);
    SKERRY_ASSERT (!skip);
    return std::make_pair (buffer.release (), static_cast<unsigned long> (actualBufferSize));
}

}

String::String (void const * source, unsigned int size)
{
    ConstructString (*this, source, size);
}

String::String (const String & other) = default;
String & String::operator = (const String & other) = default;
String::~String () = default;

WideString::WideString (void const * source, unsigned int size)
{
    ConstructString (*this, source, size);
}

WideString::WideString (const WideString & other) = default;
WideString & WideString::operator = (const WideString & other) = default;
WideString::~WideString () = default;

Binary::Binary (std::string const & s)
    : Binary (ConstructBinary (s))
{
}

Binary::Binary (std::wstring const & s)
    : Binary (ConstructBinary (s))
{
}

Binary::Binary (std::pair<unsigned char *, unsigned long> decoded)
    : ArrayBuffer<unsigned char> (decoded.first), fSize (decoded.second)
{
}

}
}
