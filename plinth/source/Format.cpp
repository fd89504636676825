// Strings from a format: the printf conversions, with numbers formatted by the C runtime, and
// the additions %@ (an object's description), %S and %ls (terminated UTF-16 text) and %C and %lc
// (one UTF-16 unit). %s is UTF-8 text (bytes that aren't UTF-8 read as Latin-1).
#include "String.h"

#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

using namespace Plinth;

namespace {

struct Conversion {
    char fFlags [8] = {};
    int fWidth = -1;
    int fPrecision = -1;
    char fLength [3] = {};
    PLUniChar fKind = 0;
};

bool IsFlag (PLUniChar c) { return c == '-' || c == '+' || c == ' ' || c == '#' || c == '0' || c == '\''; }

// Reads the conversion after a '%' at `i`; gives false when the format ends inside it.
bool Parse (PLUniChar const * units, std::size_t count, std::size_t & i, Conversion & c, va_list & arguments)
{
    std::size_t flags = 0;
    while (i < count && IsFlag (units [i])) {
        if (flags < sizeof c.fFlags - 1)
            c.fFlags [flags++] = char (units [i]);
        ++i;
    }
    if (i < count && units [i] == '*') {
        c.fWidth = va_arg (arguments, int);
        if (c.fWidth < 0) {   // a negative width means left alignment
            c.fWidth = -c.fWidth;
            if (flags < sizeof c.fFlags - 1)
                c.fFlags [flags++] = '-';
        }
        ++i;
    }
    else
        for (c.fWidth = (i < count && units [i] >= '0' && units [i] <= '9') ? 0 : -1;
             i < count && units [i] >= '0' && units [i] <= '9'; ++i)
            c.fWidth = c.fWidth * 10 + (units [i] - '0');
    if (i < count && units [i] == '.') {
        ++i;
        c.fPrecision = 0;
        if (i < count && units [i] == '*') {
            c.fPrecision = va_arg (arguments, int);
            ++i;
        }
        else
            for (; i < count && units [i] >= '0' && units [i] <= '9'; ++i)
                c.fPrecision = c.fPrecision * 10 + (units [i] - '0');
    }
    std::size_t length = 0;
    while (i < count && length < 2 && (units [i] == 'h' || units [i] == 'l' || units [i] == 'q' || units [i] == 'L'
                                          || units [i] == 'z' || units [i] == 't' || units [i] == 'j'))
        c.fLength [length++] = char (units [i++]);
    if (i >= count)
        return false;
    c.fKind = units [i++];
    return true;
}

bool Is (Conversion const & c, char const * length) { return std::strcmp (c.fLength, length) == 0; }

// The C runtime's text of one numeric conversion, with the width and precision resolved.
template <typename T>
void AppendNumber (UnitBuffer & out, Conversion const & c, char const * length, T value)
{
    char format [40];
    char * end = format;
    *end++ = '%';
    for (char const * f = c.fFlags; *f != 0; ++f)
        if (*f != '\'')
            *end++ = *f;
    if (c.fWidth >= 0)
        end += std::snprintf (end, 12, "%d", c.fWidth);
    if (c.fPrecision >= 0)
        end += std::snprintf (end, 13, ".%d", c.fPrecision);
    end += std::snprintf (end, 4, "%s", length);
    *end++ = char (c.fKind);
    *end = 0;
    char small [128];
    int size = std::snprintf (small, sizeof small, format, value);
    if (size < 0)
        return;
    if (std::size_t (size) < sizeof small) {
        out.AppendASCII (small);
        return;
    }
    char * large = static_cast<char *> (std::malloc (std::size_t (size) + 1));
    if (large == nullptr) {
        out.Fail ();
        return;
    }
    std::snprintf (large, std::size_t (size) + 1, format, value);
    out.AppendASCII (large);
    std::free (large);
}

// Text conversions: the precision cuts, the width pads with blanks (left with '-').
void AppendText (UnitBuffer & out, Conversion const & c, PLUniChar const * units, std::size_t count)
{
    if (c.fPrecision >= 0 && std::size_t (c.fPrecision) < count)
        count = std::size_t (c.fPrecision);
    bool left = std::strchr (c.fFlags, '-') != nullptr;
    std::size_t pad = c.fWidth > 0 && std::size_t (c.fWidth) > count ? std::size_t (c.fWidth) - count : 0;
    if (! left)
        for (std::size_t k = 0; k < pad; ++k)
            out.Append (PLUniChar (' '));
    out.Append (units, count);
    if (left)
        for (std::size_t k = 0; k < pad; ++k)
            out.Append (PLUniChar (' '));
}

void AppendTextOf (UnitBuffer & out, Conversion const & c, PLStringRef text)
{
    AppendText (out, c, StringUnits (text), std::size_t (PLStringGetLength (text)));
}

void AppendInteger (UnitBuffer & out, Conversion const & c, va_list & arguments)
{
    bool isSigned = c.fKind == 'd' || c.fKind == 'i';
    if (Is (c, "ll") || Is (c, "q") || Is (c, "j")) {
        if (isSigned) AppendNumber (out, c, "ll", (long long) va_arg (arguments, long long));
        else AppendNumber (out, c, "ll", (unsigned long long) va_arg (arguments, unsigned long long));
    }
    // NOLINTNEXTLINE(bugprone-branch-clone): reads a long; the next reads a ptrdiff_t, wider on 64-bit Windows
    else if (Is (c, "l")) {
        if (isSigned) AppendNumber (out, c, "ll", (long long) va_arg (arguments, long));
        else AppendNumber (out, c, "ll", (unsigned long long) va_arg (arguments, unsigned long));
    }
    else if (Is (c, "z") || Is (c, "t")) {
        if (isSigned) AppendNumber (out, c, "ll", (long long) va_arg (arguments, std::ptrdiff_t));
        else AppendNumber (out, c, "ll", (unsigned long long) va_arg (arguments, std::size_t));
    }
    else {
        int value = va_arg (arguments, int);
        long long widened = value;
        if (Is (c, "hh")) widened = isSigned ? (long long) (signed char) value : (long long) (unsigned char) value;
        else if (Is (c, "h")) widened = isSigned ? (long long) (short) value : (long long) (unsigned short) value;
        else if (! isSigned) widened = (long long) (unsigned int) value;
        AppendNumber (out, c, "ll", widened);
    }
}

void AppendConversion (UnitBuffer & out, Conversion const & c, va_list & arguments)
{
    switch (c.fKind) {
    case 'd': case 'i': case 'u': case 'o': case 'x': case 'X':
        AppendInteger (out, c, arguments);
        break;
    case 'f': case 'F': case 'e': case 'E': case 'g': case 'G': case 'a': case 'A':
        if (Is (c, "L")) AppendNumber (out, c, "L", va_arg (arguments, long double));
        else AppendNumber (out, c, "", va_arg (arguments, double));
        break;
    case 'p':
        AppendNumber (out, c, "", va_arg (arguments, void *));
        break;
    case 'c': case 'C': {
        PLUniChar unit = PLUniChar (va_arg (arguments, int));
        if (c.fKind == 'c' && ! Is (c, "l"))
            unit = PLUniChar (static_cast<unsigned char> (unit));
        AppendText (out, c, &unit, 1);
        break;
    }
    case 's': case 'S': {
        if (c.fKind == 'S' || Is (c, "l")) {
            PLUniChar const * units = va_arg (arguments, PLUniChar const *);
            if (units == nullptr) {
                PLStringRef null = MakeStringFromASCII ("(null)");
                AppendTextOf (out, c, null);
                PLRelease (null);
                break;
            }
            std::size_t count = 0;
            while (units [count] != 0)
                ++count;
            AppendText (out, c, units, count);
            break;
        }
        char const * text = va_arg (arguments, char const *);
        UnitBuffer decoded;
        if (text == nullptr)
            decoded.AppendASCII ("(null)");
        else
            decoded.AppendUTF8 (text, std::strlen (text));
        AppendText (out, c, decoded.Units (), decoded.Size ());
        break;
    }
    case '@': {
        PLStringRef description = PLCopyDescription (va_arg (arguments, void const *));
        if (description == nullptr) {
            out.Fail ();
            break;
        }
        AppendTextOf (out, c, description);
        PLRelease (description);
        break;
    }
    case '%':
        out.Append (PLUniChar ('%'));
        break;
    default:
        // Not a conversion (%n among them: a service writes to no caller's memory): kept as written.
        out.Append (PLUniChar ('%'));
        out.Append (c.fKind);
        break;
    }
}

}

extern "C" {

PLStringRef PLStringCreateWithFormatAndArguments (PLAllocatorRef allocator, PLDictionaryRef,
    PLStringRef format, va_list arguments)
{
    __PLString const * f = AsString (format);
    if (f == nullptr)
        return nullptr;
    va_list walk;
    va_copy (walk, arguments);
    UnitBuffer out;
    PLUniChar const * units = f->fUnits;
    std::size_t count = std::size_t (f->fLength);
    std::size_t i = 0;
    while (i < count) {
        std::size_t start = i;
        while (i < count && units [i] != '%')
            ++i;
        out.Append (units + start, i - start);
        if (i == count)
            break;
        std::size_t at = i++;
        Conversion conversion;
        if (! Parse (units, count, i, conversion, walk)) {
            out.Append (units + at, count - at);   // a format that ends inside a conversion
            break;
        }
        AppendConversion (out, conversion, walk);
    }
    va_end (walk);
    return out.CreateString (allocator);
}

PLStringRef PLStringCreateWithFormat (PLAllocatorRef allocator, PLDictionaryRef formatOptions,
    PLStringRef format, ...)
{
    va_list arguments;
    va_start (arguments, format);
    PLStringRef string = PLStringCreateWithFormatAndArguments (allocator, formatOptions, format, arguments);
    va_end (arguments);
    return string;
}

}
