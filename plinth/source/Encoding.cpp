// Strings to and from bytes: ASCII, ISO and Windows Latin-1, UTF-8 and the three UTF-16 forms.
// Decoding is strict: a byte sequence that the encoding doesn't define makes the whole creation
// fail. Encoding replaces what the encoding can't hold by a loss byte, or stops.
#include "String.h"

#include <cstdlib>

using namespace Plinth;

namespace {

constexpr PLUniChar kByteOrderMark = 0xFEFF;

// Windows Latin-1 at 0x80 to 0x9F; 0 marks the five bytes that it leaves undefined.
PLUniChar const kWindowsLatin1High [32] = {
    0x20AC, 0, 0x201A, 0x0192, 0x201E, 0x2026, 0x2020, 0x2021, 0x02C6, 0x2030, 0x0160, 0x2039, 0x0152, 0, 0x017D, 0,
    0, 0x2018, 0x2019, 0x201C, 0x201D, 0x2022, 0x2013, 0x2014, 0x02DC, 0x2122, 0x0161, 0x203A, 0x0153, 0, 0x017E,
    0x0178 };

bool HostIsLittleEndian ()
{
    uint16_t probe = 1;
    return *reinterpret_cast<uint8_t const *> (&probe) == 1;
}

bool DecodeSingleByte (uint8_t const * bytes, std::size_t count, PLStringEncoding encoding, UnitBuffer & out)
{
    for (std::size_t i = 0; i < count; ++i) {
        uint8_t byte = bytes [i];
        PLUniChar unit = byte;
        if (byte >= 0x80) {
            if (encoding == kPLStringEncodingASCII)
                return false;
            if (encoding == kPLStringEncodingWindowsLatin1 && byte < 0xA0) {
                unit = kWindowsLatin1High [byte - 0x80];
                if (unit == 0)
                    return false;
            }
        }
        out.Append (unit);
    }
    return true;
}

bool DecodeUTF8 (uint8_t const * bytes, std::size_t count, UnitBuffer & out)
{
    std::size_t i = 0;
    while (i < count) {
        uint32_t lead = bytes [i];
        if (lead < 0x80) {
            out.Append (PLUniChar (lead));
            ++i;
            continue;
        }
        std::size_t extra;
        uint32_t minimum;
        uint32_t point;
        if ((lead & 0xE0) == 0xC0) { extra = 1; minimum = 0x80; point = lead & 0x1F; }
        else if ((lead & 0xF0) == 0xE0) { extra = 2; minimum = 0x800; point = lead & 0x0F; }
        else if ((lead & 0xF8) == 0xF0) { extra = 3; minimum = 0x10000; point = lead & 0x07; }
        else return false;
        if (count - i <= extra)
            return false;
        for (std::size_t k = 1; k <= extra; ++k) {
            if ((bytes [i + k] & 0xC0) != 0x80)
                return false;
            point = (point << 6) | (bytes [i + k] & 0x3F);
        }
        // Overlong forms, encoded surrogates and points beyond Unicode are not UTF-8.
        if (point < minimum || point > 0x10FFFF || (point >= 0xD800 && point <= 0xDFFF))
            return false;
        if (point >= 0x10000) {
            point -= 0x10000;
            out.Append (PLUniChar (0xD800 + (point >> 10)));
            out.Append (PLUniChar (0xDC00 + (point & 0x3FF)));
        }
        else
            out.Append (PLUniChar (point));
        i += extra + 1;
    }
    return true;
}

bool DecodeUTF16 (uint8_t const * bytes, std::size_t count, bool bigEndian, UnitBuffer & out)
{
    if (count % 2 != 0)
        return false;
    for (std::size_t i = 0; i < count; i += 2)
        out.Append (bigEndian ? PLUniChar ((bytes [i] << 8) | bytes [i + 1]) : PLUniChar ((bytes [i + 1] << 8) | bytes [i]));
    return true;
}

bool Decode (uint8_t const * bytes, std::size_t count, PLStringEncoding encoding, bool external, UnitBuffer & out)
{
    switch (encoding) {
    case kPLStringEncodingASCII:
    case kPLStringEncodingISOLatin1:
    case kPLStringEncodingWindowsLatin1:
        return DecodeSingleByte (bytes, count, encoding, out);
    case kPLStringEncodingUTF8:
        // An external representation may start with the encoded byte-order mark, which is no text.
        if (external && count >= 3 && bytes [0] == 0xEF && bytes [1] == 0xBB && bytes [2] == 0xBF) {
            bytes += 3;
            count -= 3;
        }
        return DecodeUTF8 (bytes, count, out);
    case kPLStringEncodingUTF16: {
        bool bigEndian = ! HostIsLittleEndian ();
        if (external) {
            // The mark decides the order and is dropped; without one the text is big-endian, the
            // order Unicode gives to marked-less UTF-16.
            bigEndian = true;
            if (count >= 2 && bytes [0] == 0xFF && bytes [1] == 0xFE) { bigEndian = false; bytes += 2; count -= 2; }
            else if (count >= 2 && bytes [0] == 0xFE && bytes [1] == 0xFF) { bytes += 2; count -= 2; }
        }
        return DecodeUTF16 (bytes, count, bigEndian, out);
    }
    case kPLStringEncodingUTF16BE:
        return DecodeUTF16 (bytes, count, true, out);
    case kPLStringEncodingUTF16LE:
        return DecodeUTF16 (bytes, count, false, out);
    default:
        return false;
    }
}

// The bytes of one character starting at units[i] (one unit, or a surrogate pair for UTF-8):
// gives the units consumed and fills `bytes`/`size`, or 0 when the encoding can't hold it.
std::size_t EncodeOne (PLUniChar const * units, std::size_t i, std::size_t count, PLStringEncoding encoding,
    uint8_t bytes [4], std::size_t & size)
{
    PLUniChar unit = units [i];
    switch (encoding) {
    case kPLStringEncodingASCII:
    case kPLStringEncodingISOLatin1:
        if (unit >= (encoding == kPLStringEncodingASCII ? 0x80 : 0x100))
            return 0;
        bytes [0] = uint8_t (unit);
        size = 1;
        return 1;
    case kPLStringEncodingWindowsLatin1:
        if (unit < 0x80 || (unit >= 0xA0 && unit < 0x100)) {
            bytes [0] = uint8_t (unit);
            size = 1;
            return 1;
        }
        for (int k = 0; k < 32; ++k)
            if (kWindowsLatin1High [k] == unit && unit != 0) {
                bytes [0] = uint8_t (0x80 + k);
                size = 1;
                return 1;
            }
        return 0;
    case kPLStringEncodingUTF8: {
        uint32_t point = unit;
        std::size_t used = 1;
        if (unit >= 0xD800 && unit <= 0xDBFF && i + 1 < count && units [i + 1] >= 0xDC00 && units [i + 1] <= 0xDFFF) {
            point = 0x10000 + ((uint32_t (unit) - 0xD800) << 10) + (units [i + 1] - 0xDC00);
            used = 2;
        }
        else if (unit >= 0xD800 && unit <= 0xDFFF)
            return 0;   // a lone surrogate has no UTF-8 form
        if (point < 0x80) { bytes [0] = uint8_t (point); size = 1; }
        else if (point < 0x800) { bytes [0] = uint8_t (0xC0 | (point >> 6)); bytes [1] = uint8_t (0x80 | (point & 0x3F)); size = 2; }
        else if (point < 0x10000) {
            bytes [0] = uint8_t (0xE0 | (point >> 12));
            bytes [1] = uint8_t (0x80 | ((point >> 6) & 0x3F));
            bytes [2] = uint8_t (0x80 | (point & 0x3F));
            size = 3;
        }
        else {
            bytes [0] = uint8_t (0xF0 | (point >> 18));
            bytes [1] = uint8_t (0x80 | ((point >> 12) & 0x3F));
            bytes [2] = uint8_t (0x80 | ((point >> 6) & 0x3F));
            bytes [3] = uint8_t (0x80 | (point & 0x3F));
            size = 4;
        }
        return used;
    }
    case kPLStringEncodingUTF16:
    case kPLStringEncodingUTF16BE:
    case kPLStringEncodingUTF16LE: {
        bool bigEndian = encoding == kPLStringEncodingUTF16BE
            || (encoding == kPLStringEncodingUTF16 && ! HostIsLittleEndian ());
        bytes [bigEndian ? 0 : 1] = uint8_t (unit >> 8);
        bytes [bigEndian ? 1 : 0] = uint8_t (unit & 0xFF);
        size = 2;
        return 1;
    }
    default:
        return 0;
    }
}

bool InRange (__PLString const * s, PLRange range)
{
    return range.location >= 0 && range.length >= 0 && range.location <= s->fLength
        && range.length <= s->fLength - range.location;
}

}

namespace Plinth {

bool IsKnownEncoding (PLStringEncoding encoding)
{
    switch (encoding) {
    case kPLStringEncodingASCII:
    case kPLStringEncodingISOLatin1:
    case kPLStringEncodingWindowsLatin1:
    case kPLStringEncodingUTF8:
    case kPLStringEncodingUTF16:
    case kPLStringEncodingUTF16BE:
    case kPLStringEncodingUTF16LE:
        return true;
    default:
        return false;
    }
}

}

extern "C" {

PLStringRef PLStringCreateWithBytes (PLAllocatorRef allocator, uint8_t const * bytes, PLIndex count,
    PLStringEncoding encoding, PLBoolean isExternalRepresentation)
{
    if (count < 0 || (bytes == nullptr && count > 0) || ! IsKnownEncoding (encoding))
        return nullptr;
    UnitBuffer units;
    if (! Decode (bytes, std::size_t (count), encoding, isExternalRepresentation, units))
        return nullptr;
    return units.CreateString (allocator);
}

PLStringRef PLStringCreateWithCString (PLAllocatorRef allocator, char const * text, PLStringEncoding encoding)
{
    if (text == nullptr)
        return nullptr;
    return PLStringCreateWithBytes (allocator, reinterpret_cast<uint8_t const *> (text), PLIndex (std::strlen (text)),
        encoding, false);
}

PLStringRef PLStringCreateFromExternalRepresentation (PLAllocatorRef allocator, PLDataRef data,
    PLStringEncoding encoding)
{
    if (! IsKind (data, kDataType))
        return nullptr;
    return PLStringCreateWithBytes (allocator, PLDataGetBytePtr (data), PLDataGetLength (data), encoding, true);
}

PLIndex PLStringGetBytes (PLStringRef string, PLRange range, PLStringEncoding encoding, uint8_t lossByte,
    PLBoolean isExternalRepresentation, uint8_t * buffer, PLIndex maxBufferLength, PLIndex * usedBufferLength)
{
    __PLString const * s = AsString (string);
    PLIndex used = 0;
    PLIndex converted = 0;
    if (s != nullptr && InRange (s, range) && IsKnownEncoding (encoding) && maxBufferLength >= 0) {
        PLIndex room = buffer == nullptr ? INT32_MAX : maxBufferLength;
        if (isExternalRepresentation && encoding == kPLStringEncodingUTF16) {
            uint8_t mark [4];
            std::size_t size = 0;
            EncodeOne (&kByteOrderMark, 0, 1, encoding, mark, size);
            if (room >= 2) {
                if (buffer != nullptr)
                    std::memcpy (buffer, mark, 2);
                used = 2;
            }
            else
                range.length = 0;
        }
        PLUniChar const * units = s->fUnits + range.location;
        std::size_t count = std::size_t (range.length);
        std::size_t i = 0;
        while (i < count) {
            uint8_t bytes [4];
            std::size_t size = 0;
            std::size_t taken = EncodeOne (units, i, count, encoding, bytes, size);
            if (taken == 0) {
                if (lossByte == 0)
                    break;
                bytes [0] = lossByte;
                size = 1;
                taken = 1;
            }
            if (PLIndex (size) > room - used)
                break;
            if (buffer != nullptr)
                std::memcpy (buffer + used, bytes, size);
            used += PLIndex (size);
            i += taken;
        }
        converted = PLIndex (i);
    }
    if (usedBufferLength != nullptr)
        *usedBufferLength = used;
    return converted;
}

PLBoolean PLStringGetCString (PLStringRef string, char * buffer, PLIndex bufferSize, PLStringEncoding encoding)
{
    if (buffer == nullptr || bufferSize <= 0)
        return false;
    buffer [0] = 0;
    __PLString const * s = AsString (string);
    // A terminated string has no room for the zero bytes of UTF-16.
    if (s == nullptr || encoding == kPLStringEncodingUTF16 || encoding == kPLStringEncodingUTF16BE
        || encoding == kPLStringEncodingUTF16LE)
        return false;
    PLIndex used = 0;
    PLIndex converted = PLStringGetBytes (string, PLRangeMake (0, s->fLength), encoding, 0, false,
        reinterpret_cast<uint8_t *> (buffer), bufferSize - 1, &used);
    if (converted != s->fLength) {
        buffer [0] = 0;
        return false;
    }
    buffer [used] = 0;
    return true;
}

PLDataRef PLStringCreateExternalRepresentation (PLAllocatorRef allocator, PLStringRef string,
    PLStringEncoding encoding, uint8_t lossByte)
{
    __PLString const * s = AsString (string);
    if (s == nullptr || ! IsKnownEncoding (encoding))
        return nullptr;
    PLRange all = PLRangeMake (0, s->fLength);
    PLIndex size = 0;
    if (PLStringGetBytes (string, all, encoding, lossByte, true, nullptr, 0, &size) != s->fLength)
        return nullptr;
    uint8_t * bytes = static_cast<uint8_t *> (std::malloc (std::size_t (size) + 1));
    if (bytes == nullptr)
        return nullptr;
    PLStringGetBytes (string, all, encoding, lossByte, true, bytes, size, &size);
    PLDataRef data = PLDataCreateWithBytesNoCopy (allocator, bytes, size, kPLAllocatorDefault);
    if (data == nullptr)
        std::free (bytes);
    return data;
}

PLIndex PLStringGetMaximumSizeForEncoding (PLIndex length, PLStringEncoding encoding)
{
    if (length < 0 || ! IsKnownEncoding (encoding))
        return -1;
    // UTF-8 needs three bytes for a unit of the basic plane (a pair needs four for two units).
    int64_t perUnit = encoding == kPLStringEncodingUTF8 ? 3
        : (encoding == kPLStringEncodingUTF16 || encoding == kPLStringEncodingUTF16BE
              || encoding == kPLStringEncodingUTF16LE) ? 2 : 1;
    int64_t size = int64_t (length) * perUnit;
    return size > INT32_MAX ? -1 : PLIndex (size);
}

PLBoolean PLStringIsEncodingAvailable (PLStringEncoding encoding)
{
    return IsKnownEncoding (encoding);
}

}
