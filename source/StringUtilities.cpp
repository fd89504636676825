// Buffers and text: the exported byte buffer, code-page conversions and the small text tools.

#include <LibSkerry/ArrayBuffer>
#include <LibSkerry/CodePages>
#include <LibSkerry/Exceptions>
#include <LibSkerry/StringUtilities>

#include <windows.h>
#include <objbase.h>

#include <cctype>
#include <cstring>
#include <cwchar>

namespace Skerry {

// The one form of the scratch array that the library exports.
template class ArrayBuffer<unsigned char>;

unsigned int ResolveCodePage (unsigned int codePage)
{
    if (codePage != 0)
        return codePage;
    codePage = ::GetACP ();
    return codePage != 0 ? codePage : CP_UTF8;
}

namespace {

void ConstructWideStringFromANSI (std::wstring & result, char const * s, unsigned int length, unsigned int codePage)
{
    SKERRY_SITE ("Skerry::ConstructWideStringFromANSI");
    if (length == 0)
        return;
    SKERRY_ASSERT (s);
    // A negative count would make the platform read up to a terminator instead.
    SKERRY_ASSERT (int (length) > 0);
    codePage = ResolveCodePage (codePage);
    int wideCharBufferCount = ::MultiByteToWideChar (codePage, 0, s, int (length), NULL, 0);
    if (wideCharBufferCount == 0)
        SKERRY_THROW_WIN32 (::GetLastError ());
    SKERRY_ASSERT (wideCharBufferCount > 0);
    ArrayBuffer<wchar_t> buffer (wideCharBufferCount);
    int written = ::MultiByteToWideChar (codePage, 0, s, int (length), buffer, wideCharBufferCount);
    if (written == 0)
        SKERRY_THROW_WIN32 (::GetLastError ());
    if (written != wideCharBufferCount)
        SKERRY_THROW_SKERRY (6);
    result.assign (buffer, written);
}

unsigned int ConstructANSIStringFromWide (std::string & result, wchar_t const * w, unsigned int length,
    unsigned int codePage)
{
    SKERRY_SITE ("Skerry::ConstructANSIStringFromWide");
    codePage = ResolveCodePage (codePage);
    if (length == 0)
        return codePage;
    SKERRY_ASSERT (w);
    SKERRY_ASSERT (int (length) > 0);
    int ansiCharBufferCount = ::WideCharToMultiByte (codePage, 0, w, int (length), NULL, 0, NULL, NULL);
    if (ansiCharBufferCount == 0)
        SKERRY_THROW_WIN32 (::GetLastError ());
    SKERRY_ASSERT (ansiCharBufferCount > 0);
    ArrayBuffer<char> buffer (ansiCharBufferCount);
    int written = ::WideCharToMultiByte (codePage, 0, w, int (length), buffer, ansiCharBufferCount, NULL, NULL);
    if (written == 0)
        SKERRY_THROW_WIN32 (::GetLastError ());
    if (written != ansiCharBufferCount)
        SKERRY_THROW_SKERRY (6);
    result.assign (buffer, written);
    return codePage;
}

// The length of a terminated source; null gets an assertion rather than a crash in the runtime.
unsigned int TerminatedLength (char const * s)
{
    SKERRY_SITE ("Skerry::WideStringFromANSI::WideStringFromANSI");
    SKERRY_ASSERT (s);
    return unsigned (std::strlen (s));
}

unsigned int TerminatedLength (wchar_t const * w)
{
    SKERRY_SITE ("Skerry::ANSIStringFromWide::ANSIStringFromWide");
    SKERRY_ASSERT (w);
    return unsigned (std::wcslen (w));
}

}

WideStringFromANSI::WideStringFromANSI (char const * s)
{
    ConstructWideStringFromANSI (*this, s, TerminatedLength (s), 0);
}

WideStringFromANSI::WideStringFromANSI (char const * s, unsigned int length)
{
    ConstructWideStringFromANSI (*this, s, length, 0);
}

WideStringFromANSI::WideStringFromANSI (char const * s, unsigned int length, unsigned int codePage)
{
    ConstructWideStringFromANSI (*this, s, length, codePage);
}

ANSIStringFromWide::ANSIStringFromWide (wchar_t const * w)
    : fCodePage (ConstructANSIStringFromWide (*this, w, TerminatedLength (w), 0))
{
}

ANSIStringFromWide::ANSIStringFromWide (wchar_t const * w, unsigned int length)
    : fCodePage (ConstructANSIStringFromWide (*this, w, length, 0))
{
}

ANSIStringFromWide::ANSIStringFromWide (wchar_t const * w, unsigned int length, unsigned int codePage)
    : fCodePage (ConstructANSIStringFromWide (*this, w, length, codePage))
{
}

ANSIStringFromWide::ANSIStringFromWide (std::wstring const & w, unsigned int codePage)
    : fCodePage (ConstructANSIStringFromWide (*this, w.data (), unsigned (w.size ()), codePage))
{
}

StringFromGUID::StringFromGUID (_GUID const & guid)
{
    SKERRY_SITE ("Skerry::StringFromGUID::StringFromGUID");
    // The braced form: 38 characters and the terminator.
    enum { guidStringLength = 39 };
    wchar_t buffer [guidStringLength];
    int actualStringLength = ::StringFromGUID2 (guid, buffer, guidStringLength);
    SKERRY_ASSERT (actualStringLength == guidStringLength);
    assign (buffer + 1, guidStringLength - 3);
}

namespace {

// isprint is defined for unsigned bytes and EOF only; anything else is not printable here, so
// that the runtime is never asked out of its bounds.
bool IsPrintableElement (int element)
{
    return element >= 0 && element <= 0xFF && std::isprint (element) != 0;
}

char const * FindDelimiter (char const * delimiters, char c) { return std::strchr (delimiters, c); }
wchar_t const * FindDelimiter (wchar_t const * delimiters, wchar_t c) { return std::wcschr (delimiters, c); }

template <typename C>
void AppendTokensOf (C const * source, C const * delimiters, std::vector<std::basic_string<C>> & tokens,
    bool keepEmpty)
{
    C const * start = source;
    C const * cursor = source;
    for (; *cursor != 0; ++cursor) {
        if (FindDelimiter (delimiters, *cursor) == nullptr)
            continue;
        if (keepEmpty || cursor != start)
            tokens.emplace_back (start, cursor);
        start = cursor + 1;
    }
    if (keepEmpty || cursor != start)
        tokens.emplace_back (start, cursor);
}

}

// A narrow byte is widened with its sign, a wide unit without.
bool IsPrintableASCII (std::string const & s)
{
    for (char c : s)
        if (! IsPrintableElement (static_cast<signed char> (c)))
            return false;
    return true;
}

bool IsPrintableASCII (std::wstring const & s)
{
    for (wchar_t c : s)
        if (! IsPrintableElement (static_cast<unsigned short> (c)))
            return false;
    return true;
}

void AppendTokens (char const * source, char const * delimiters, std::vector<std::string> & tokens, bool keepEmpty)
{
    AppendTokensOf (source, delimiters, tokens, keepEmpty);
}

void AppendTokens (wchar_t const * source, wchar_t const * delimiters, std::vector<std::wstring> & tokens,
    bool keepEmpty)
{
    AppendTokensOf (source, delimiters, tokens, keepEmpty);
}

}
