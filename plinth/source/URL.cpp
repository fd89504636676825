// File URLs: a path in the Windows or the POSIX style becomes "file:///C:/dir/name" (a drive),
// "file://server/share/name" (a UNC path), "file:///dir/name" (a rooted path), or a relative
// reference "dir/name"; bytes outside the characters that a URL path may hold are escaped as %XX
// of their UTF-8 form. A directory's URL ends in "/".
#include "String.h"

using namespace Plinth;

struct __PLURL : Object {
    PLStringRef fString;
};

namespace {

void FinalizeURL (Object * object)
{
    PLRelease (static_cast<__PLURL *> (object)->fString);
}

bool EqualURLs (Object const * x, Object const * y)
{
    return PLEqual (static_cast<__PLURL const *> (x)->fString, static_cast<__PLURL const *> (y)->fString);
}

PLHashCode HashURL (Object const * object)
{
    return PLHash (static_cast<__PLURL const *> (object)->fString);
}

PLStringRef DescribeURL (Object const * object)
{
    return static_cast<PLStringRef> (PLRetain (static_cast<__PLURL const *> (object)->fString));
}

Class const kURLClass = { kURLType, "PLURL", FinalizeURL, EqualURLs, HashURL, DescribeURL };

__PLURL const * AsURL (void const * object) { return As<__PLURL const> (object, kURLType); }

bool IsSeparator (PLUniChar c, PLURLPathStyle style)
{
    return c == '/' || (style == kPLURLWindowsPathStyle && c == '\\');
}

bool IsLetter (PLUniChar c) { return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z'); }

// Characters a path segment keeps as they are.
bool IsPathCharacter (uint8_t c)
{
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9')
        || (c != 0 && std::strchr ("-._~!$&'()*+,;=:@", c) != nullptr);
}

// Appends `units` with separators as "/" and the rest escaped; false for a lone surrogate.
bool AppendEscaped (UnitBuffer & out, PLUniChar const * units, std::size_t count, PLURLPathStyle style)
{
    for (std::size_t i = 0; i < count; ++i) {
        if (IsSeparator (units [i], style)) {
            out.Append (PLUniChar ('/'));
            continue;
        }
        std::size_t end = i;
        while (end < count && ! IsSeparator (units [end], style))
            ++end;
        PLStringRef segment = PLStringCreateWithCharacters (kPLAllocatorDefault, units + i, PLIndex (end - i));
        PLRange all = PLRangeMake (0, PLIndex (end - i));
        PLIndex size = 0;
        bool whole = PLStringGetBytes (segment, all, kPLStringEncodingUTF8, 0, false, nullptr, 0, &size) == all.length;
        uint8_t * bytes = whole ? static_cast<uint8_t *> (Allocate (nullptr, std::size_t (size))) : nullptr;
        if (bytes != nullptr)
            PLStringGetBytes (segment, all, kPLStringEncodingUTF8, 0, false, bytes, size, &size);
        PLRelease (segment);
        if (bytes == nullptr)
            return false;
        for (PLIndex k = 0; k < size; ++k) {
            if (IsPathCharacter (bytes [k]))
                out.Append (PLUniChar (bytes [k]));
            else {
                static char const kHex [] = "0123456789ABCDEF";
                char escape [4] = { '%', kHex [bytes [k] >> 4], kHex [bytes [k] & 15], 0 };
                out.AppendASCII (escape);
            }
        }
        Deallocate (nullptr, bytes);
        i = end - 1;
    }
    return true;
}

int HexValue (PLUniChar c)
{
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    return -1;
}

// The text of an escaped URL path, or null when an escape is broken or the bytes aren't UTF-8.
PLStringRef CopyUnescaped (PLUniChar const * units, std::size_t count)
{
    uint8_t * bytes = static_cast<uint8_t *> (Allocate (nullptr, count * 3 + 1));
    if (bytes == nullptr)
        return nullptr;
    std::size_t size = 0;
    bool valid = true;
    for (std::size_t i = 0; i < count && valid; ++i) {
        if (units [i] == '%') {
            int high = i + 2 < count ? HexValue (units [i + 1]) : -1;
            int low = i + 2 < count ? HexValue (units [i + 2]) : -1;
            valid = high >= 0 && low >= 0;
            bytes [size++] = uint8_t (high * 16 + low);
            i += 2;
            continue;
        }
        // Units that weren't escaped pass through as their UTF-8 form.
        PLIndex used = 0;
        PLStringRef one = PLStringCreateWithCharacters (kPLAllocatorDefault, units + i, 1);
        valid = PLStringGetBytes (one, PLRangeMake (0, 1), kPLStringEncodingUTF8, 0, false, bytes + size, 3, &used) == 1;
        PLRelease (one);
        size += std::size_t (used);
    }
    PLStringRef text = valid ? PLStringCreateWithBytes (kPLAllocatorDefault, bytes, PLIndex (size),
        kPLStringEncodingUTF8, false) : nullptr;
    Deallocate (nullptr, bytes);
    return text;
}

PLURLRef MakeURL (PLAllocatorRef allocator, PLStringRef text)
{
    if (text == nullptr)
        return nullptr;
    __PLURL * url = NewObject<__PLURL> (allocator, kURLClass);
    if (url == nullptr) {
        PLRelease (text);
        return nullptr;
    }
    url->fString = text;
    return url;
}

bool StartsWith (PLUniChar const * units, std::size_t count, char const * prefix)
{
    std::size_t length = std::strlen (prefix);
    if (count < length)
        return false;
    for (std::size_t i = 0; i < length; ++i)
        if (units [i] != PLUniChar (prefix [i]))
            return false;
    return true;
}

}

extern "C" {

PLTypeID PLURLGetTypeID (void) { return kURLType; }

PLURLRef PLURLCreateWithFileSystemPath (PLAllocatorRef allocator, PLStringRef path, PLURLPathStyle style,
    PLBoolean isDirectory)
{
    __PLString const * p = AsString (path);
    if (p == nullptr || p->fLength == 0 || (style != kPLURLWindowsPathStyle && style != kPLURLPOSIXPathStyle))
        return nullptr;
    PLUniChar const * units = p->fUnits;
    std::size_t count = std::size_t (p->fLength);
    UnitBuffer out;
    bool windows = style == kPLURLWindowsPathStyle;
    // The long-path forms name the same file as the plain ones: "\\?\C:\x" is "C:\x", and
    // "\\?\UNC\server\share" is "\\server\share".
    bool longUNC = windows && StartsWith (units, count, "\\\\?\\UNC\\");
    if (longUNC || (windows && StartsWith (units, count, "\\\\?\\"))) {
        units += longUNC ? 8 : 4;
        count -= longUNC ? 8 : 4;
        if (count == 0)
            return nullptr;
    }
    // The long UNC form is decided first, whatever its server name looks like; its branch repeats the
    // rooted path's on purpose.
    if (longUNC)
        out.AppendASCII ("file://");   // the server becomes the authority; NOLINT(bugprone-branch-clone)
    else if (windows && count >= 2 && IsLetter (units [0]) && units [1] == ':') {
        out.AppendASCII ("file:///");
        out.Append (units, 2);
        out.Append (PLUniChar ('/'));
        units += 2;
        count -= 2;
        while (count > 0 && IsSeparator (*units, style)) { ++units; --count; }
    }
    else if (windows && count >= 2 && IsSeparator (units [0], style) && IsSeparator (units [1], style)) {
        out.AppendASCII ("file://");   // UNC: the server becomes the authority
        units += 2;
        count -= 2;
    }
    else if (IsSeparator (units [0], style))
        out.AppendASCII ("file://");
    // A file's URL has no trailing separator; a root keeps its own.
    bool root = count == 0 || (count == 1 && IsSeparator (units [0], style) && out.Size () > 0);
    while (! isDirectory && ! root && count > 0 && IsSeparator (units [count - 1], style))
        --count;
    if (! AppendEscaped (out, units, count, style))
        return nullptr;
    if (isDirectory && (out.Size () == 0 || out.Units () [out.Size () - 1] != '/'))
        out.Append (PLUniChar ('/'));
    return MakeURL (allocator, out.CreateString (allocator));
}

PLURLRef PLURLCreateWithString (PLAllocatorRef allocator, PLStringRef text, PLURLRef base)
{
    __PLString const * t = AsString (text);
    if (t == nullptr || t->fLength == 0)
        return nullptr;
    std::size_t count = std::size_t (t->fLength);
    bool absolute = StartsWith (t->fUnits, count, "file://");
    for (std::size_t i = 0; i < count; ++i)
        if (t->fUnits [i] == ':' && ! absolute && i < 5)
            return nullptr;   // a scheme other than file
    PLStringRef unescaped = CopyUnescaped (t->fUnits, count);
    if (unescaped == nullptr)
        return nullptr;
    PLRelease (unescaped);
    __PLURL const * b = AsURL (base);
    if (absolute || b == nullptr || (count > 0 && t->fUnits [0] == '/'))
        return MakeURL (allocator, PLStringCreateCopy (allocator, text));
    // Relative to the base's directory: the base up to its last "/", then the text.
    __PLString const * baseText = AsString (b->fString);
    std::size_t keep = std::size_t (baseText->fLength);
    while (keep > 0 && baseText->fUnits [keep - 1] != '/')
        --keep;
    UnitBuffer joined;
    joined.Append (baseText->fUnits, keep);
    joined.Append (t->fUnits, count);
    return MakeURL (allocator, joined.CreateString (allocator));
}

PLStringRef PLURLGetString (PLURLRef url)
{
    __PLURL const * u = AsURL (url);
    return u == nullptr ? nullptr : u->fString;
}

PLBoolean PLURLHasDirectoryPath (PLURLRef url)
{
    __PLURL const * u = AsURL (url);
    if (u == nullptr)
        return false;
    PLIndex length = PLStringGetLength (u->fString);
    return length > 0 && PLStringGetCharacterAtIndex (u->fString, length - 1) == '/';
}

PLStringRef PLURLCopyFileSystemPath (PLURLRef url, PLURLPathStyle style)
{
    __PLURL const * u = AsURL (url);
    if (u == nullptr || (style != kPLURLWindowsPathStyle && style != kPLURLPOSIXPathStyle))
        return nullptr;
    __PLString const * s = AsString (u->fString);
    PLUniChar const * units = s->fUnits;
    std::size_t count = std::size_t (s->fLength);
    PLUniChar separator = style == kPLURLWindowsPathStyle ? PLUniChar ('\\') : PLUniChar ('/');
    UnitBuffer out;
    if (StartsWith (units, count, "file://")) {
        units += 7;
        count -= 7;
        std::size_t authority = 0;
        while (authority < count && units [authority] != '/')
            ++authority;
        bool local = authority == 0 || (authority == 9 && StartsWith (units, count, "localhost"));
        if (! local) {
            out.Append (separator);
            out.Append (separator);
            out.Append (units, authority);
        }
        units += authority;
        count -= authority;
        // "/C:/..." in the Windows style is the drive path "C:\...".
        if (local && style == kPLURLWindowsPathStyle && count >= 3 && units [0] == '/' && IsLetter (units [1])
            && units [2] == ':') {
            ++units;
            --count;
        }
    }
    PLStringRef path = CopyUnescaped (units, count);
    if (path == nullptr)
        return nullptr;
    std::size_t start = out.Size ();
    out.AppendString (path);
    PLRelease (path);
    if (out.Failed ())
        return nullptr;
    PLUniChar * text = const_cast<PLUniChar *> (out.Units ());
    std::size_t size = out.Size ();
    for (std::size_t i = start; i < size; ++i)
        if (text [i] == '/')
            text [i] = separator;
    // A drive alone is its root ("C:" gives "C:\"); other paths lose a trailing separator.
    if (size == 2 && style == kPLURLWindowsPathStyle && text [1] == ':')
        out.Append (separator);
    else if (size > 1 && text [size - 1] == separator && ! (size == 3 && text [1] == ':'))
        return PLStringCreateWithCharacters (kPLAllocatorDefault, out.Units (), PLIndex (size - 1));
    return out.CreateString (kPLAllocatorDefault);
}

}
