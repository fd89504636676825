// The property-list functions: format detection, options, streams and reasons around the two
// formats, and what the formats share.
#include "PropertyList.h"

#include <algorithm>
#include <cstdio>

using namespace Plinth;

namespace Plinth {

uint8_t * ByteWriter::Extend (std::size_t count)
{
    if (fFailed)
        return nullptr;
    if (count > fCapacity - fSize) {
        std::size_t capacity = fCapacity < 256 ? 256 : fCapacity;
        while (capacity - fSize < count) {
            if (capacity > SIZE_MAX / 2) {
                fFailed = true;
                return nullptr;
            }
            capacity *= 2;
        }
        uint8_t * grown = static_cast<uint8_t *> (std::realloc (fBytes, capacity));
        if (grown == nullptr) {
            fFailed = true;
            return nullptr;
        }
        fBytes = grown;
        fCapacity = capacity;
    }
    uint8_t * at = fBytes + fSize;
    fSize += count;
    return at;
}

PLDataRef ByteWriter::CreateData (PLAllocatorRef allocator)
{
    if (fFailed || fSize > std::size_t (INT32_MAX))
        return nullptr;
    // The bytes pass to the data object, which frees them with free().
    PLDataRef data = PLDataCreateWithBytesNoCopy (allocator, fBytes, PLIndex (fSize), kPLAllocatorDefault);
    if (data != nullptr) {
        fBytes = nullptr;
        fSize = fCapacity = 0;
    }
    return data;
}

bool HasPairedSurrogates (PLUniChar const * units, std::size_t count)
{
    for (std::size_t i = 0; i < count; ++i) {
        PLUniChar unit = units [i];
        if (unit < 0xD800 || unit > 0xDFFF)
            continue;
        if (unit > 0xDBFF || i + 1 == count || units [i + 1] < 0xDC00 || units [i + 1] > 0xDFFF)
            return false;
        ++i;
    }
    return true;
}

namespace {

// UTF-16 units in code-point order: surrogates (D800-DFFF) come after E000-FFFF.
inline uint32_t CodePointRank (PLUniChar unit)
{
    return unit >= 0xE000 ? unit - 0x800u : unit >= 0xD800 ? unit + 0x2000u : unit;
}

bool CodePointLess (PLStringRef x, PLStringRef y)
{
    PLUniChar const * a = StringUnits (x);
    PLUniChar const * b = StringUnits (y);
    std::size_t m = std::size_t (PLStringGetLength (x)), n = std::size_t (PLStringGetLength (y));
    for (std::size_t i = 0; i < m && i < n; ++i)
        if (a [i] != b [i])
            return CodePointRank (a [i]) < CodePointRank (b [i]);
    return m < n;
}

struct KeyValue {
    void const * fKey;
    void const * fValue;
};

}

bool SortedEntries (PLDictionaryRef dictionary, void const ** keys, void const ** values)
{
    std::size_t count = std::size_t (PLDictionaryGetCount (dictionary));
    PLDictionaryGetKeysAndValues (dictionary, keys, values);
    KeyValue * pairs = static_cast<KeyValue *> (std::malloc ((count + 1) * sizeof (KeyValue)));
    if (pairs == nullptr)
        return false;
    bool strings = true;
    for (std::size_t i = 0; i < count; ++i) {
        pairs [i] = KeyValue { keys [i], values [i] };
        strings = strings && PLGetTypeID (keys [i]) == kStringType;
    }
    if (strings)
        std::sort (pairs, pairs + count, [] (KeyValue const & a, KeyValue const & b) {
            return CodePointLess (static_cast<PLStringRef> (a.fKey), static_cast<PLStringRef> (b.fKey));
        });
    for (std::size_t i = 0; i < count; ++i) {
        keys [i] = pairs [i].fKey;
        values [i] = pairs [i].fValue;
    }
    std::free (pairs);
    return strings;
}

bool IsUnsignedAboveSigned (PLNumberRef number, uint64_t & value)
{
    return PLNumberGetType (number) == kPLNumberUInt64Type && PLNumberGetValue (number, kPLNumberUInt64Type, &value);
}

}

namespace {

char const kBinaryMagic [] = "bplist";

// An owned one-line reason: the format, the text, and for a read the byte where it was found.
PLStringRef CopyReason (char const * format, ParseFailure const & failure)
{
    char text [256];
    if (failure.fHasOffset)
        std::snprintf (text, sizeof text, "%s: %s (at byte %llu)", format, failure.fReason,
            (unsigned long long) failure.fOffset);
    else
        std::snprintf (text, sizeof text, "%s: %s", format, failure.fReason != nullptr ? failure.fReason : "failed");
    return PLStringCreateWithCString (kPLAllocatorDefault, text, kPLStringEncodingUTF8);
}

void Report (PLStringRef * errorString, char const * format, ParseFailure const & failure)
{
    if (errorString != nullptr)
        *errorString = CopyReason (format, failure);
}

bool LooksLikeXML (uint8_t const * bytes, std::size_t size)
{
    std::size_t at = 0;
    if (size >= 3 && bytes [0] == 0xEF && bytes [1] == 0xBB && bytes [2] == 0xBF)
        at = 3;
    else if (size >= 2 && ((bytes [0] == 0xFF && bytes [1] == 0xFE) || (bytes [0] == 0xFE && bytes [1] == 0xFF)))
        return true;
    while (at < size && (bytes [at] == ' ' || bytes [at] == '\t' || bytes [at] == '\n' || bytes [at] == '\r'))
        ++at;
    return at < size && bytes [at] == '<';
}

// Whether the first bytes of a stream already show that it is neither format, so that an endless
// stream of something else is refused on its first block instead of read to its end. A stream is
// undecided while it could still begin "bplist", or a mark, white space and "<"; white space alone
// is given kLeadingSpaceLimit bytes.
constexpr std::size_t kLeadingSpaceLimit = 4096;

bool PlainlyNeither (uint8_t const * bytes, std::size_t size)
{
    if (size == 0 || std::memcmp (bytes, kBinaryMagic, std::min<std::size_t> (size, 6)) == 0)
        return false;
    if (bytes [0] == 0xFF || bytes [0] == 0xFE)
        return size >= 2 && ! LooksLikeXML (bytes, 2);
    std::size_t at = 0;
    if (bytes [0] == 0xEF) {
        if (std::memcmp (bytes, "\xEF\xBB\xBF", std::min<std::size_t> (size, 3)) != 0)
            return true;
        at = 3;
    }
    while (at < size && (bytes [at] == ' ' || bytes [at] == '\t' || bytes [at] == '\n' || bytes [at] == '\r'))
        ++at;
    return at < size ? bytes [at] != '<' : size > kLeadingSpaceLimit;
}

PLTypeRef CreateWithBytes (PLAllocatorRef allocator, uint8_t const * bytes, std::size_t size, PLOptionFlags options,
    PLPropertyListFormat * format, PLStringRef * errorString)
{
    if (errorString != nullptr)
        *errorString = nullptr;
    ParseFailure failure;
    if (options > kPLPropertyListMutableContainersAndLeaves) {
        failure.Fail ("unknown read options");
        Report (errorString, "property list", failure);
        return nullptr;
    }
    ReadOptions read { allocator, options != kPLPropertyListImmutable,
        options == kPLPropertyListMutableContainersAndLeaves };
    bool binary = size >= 6 && std::memcmp (bytes, kBinaryMagic, 6) == 0;
    if (! binary && ! LooksLikeXML (bytes, size)) {
        failure.Fail ("neither a binary (bplist00) nor an XML property list", 0);
        Report (errorString, "property list", failure);
        return nullptr;
    }
    PLTypeRef value = binary ? ReadBinaryPropertyList (bytes, size, read, failure)
        : ReadXMLPropertyList (bytes, size, read, failure);
    if (value == nullptr)
        Report (errorString, binary ? "binary property list" : "XML property list", failure);
    else if (format != nullptr)
        *format = binary ? kPLPropertyListBinaryFormat : kPLPropertyListXMLFormat;
    return value;
}

bool Encode (ByteWriter & out, PLTypeRef propertyList, PLPropertyListFormat format, PLOptionFlags options,
    PLStringRef * errorString)
{
    if (errorString != nullptr)
        *errorString = nullptr;
    ParseFailure failure;
    bool written;
    if (options != 0 || (format != kPLPropertyListBinaryFormat && format != kPLPropertyListXMLFormat))
        written = failure.Fail (options != 0 ? "unknown write options" : "unknown format");
    else if (format == kPLPropertyListBinaryFormat)
        written = WriteBinaryPropertyList (out, propertyList, BinaryWidths (), failure);
    else
        written = WriteXMLPropertyList (out, propertyList, failure);
    if (! written)
        Report (errorString, format == kPLPropertyListXMLFormat ? "XML property list" : "binary property list", failure);
    return written;
}

}

extern "C" {

PLTypeRef PLPropertyListCreateWithData (PLAllocatorRef allocator, PLDataRef data, PLOptionFlags options,
    PLPropertyListFormat * format, PLStringRef * errorString)
{
    if (! IsKind (data, kDataType)) {
        if (errorString != nullptr)
            *errorString = PLStringCreateWithCString (kPLAllocatorDefault, "property list: no data", kPLStringEncodingUTF8);
        return nullptr;
    }
    return CreateWithBytes (allocator, PLDataGetBytePtr (data), std::size_t (PLDataGetLength (data)), options, format,
        errorString);
}

PLTypeRef PLPropertyListCreateWithStream (PLAllocatorRef allocator, PLReadStreamRef stream, PLIndex streamLength,
    PLOptionFlags options, PLPropertyListFormat * format, PLStringRef * errorString)
{
    ByteWriter contents;
    PLIndex got = 0;
    uint64_t wanted = streamLength > 0 ? uint64_t (streamLength) : UINT64_MAX;
    while (contents.Size () < wanted) {
        std::size_t before = contents.Size ();
        std::size_t block = wanted - before < 65536 ? std::size_t (wanted - before) : 65536;
        uint8_t * at = contents.Extend (block);
        if (at == nullptr)
            break;
        got = PLReadStreamRead (stream, at, PLIndex (block));
        contents.Truncate (before + (got > 0 ? std::size_t (got) : 0));
        if (got <= 0 || PlainlyNeither (contents.Bytes (), contents.Size ()))
            break;
    }
    if (got < 0 || contents.Failed () || streamLength < 0) {
        if (errorString != nullptr)
            *errorString = PLStringCreateWithCString (kPLAllocatorDefault,
                contents.Failed () ? "property list: out of memory" : "property list: the stream can't be read",
                kPLStringEncodingUTF8);
        return nullptr;
    }
    return CreateWithBytes (allocator, contents.Bytes (), contents.Size (), options, format, errorString);
}

PLDataRef PLPropertyListCreateData (PLAllocatorRef allocator, PLTypeRef propertyList, PLPropertyListFormat format,
    PLOptionFlags options, PLStringRef * errorString)
{
    ByteWriter out;
    if (! Encode (out, propertyList, format, options, errorString))
        return nullptr;
    return out.CreateData (allocator);
}

PLIndex PLPropertyListWrite (PLTypeRef propertyList, PLWriteStreamRef stream, PLPropertyListFormat format,
    PLOptionFlags options, PLStringRef * errorString)
{
    ByteWriter out;
    if (! Encode (out, propertyList, format, options, errorString)) {
        FailWriteStream (stream);
        return 0;
    }
    if (out.Size () > std::size_t (INT32_MAX)
        || PLWriteStreamWrite (stream, out.Bytes (), PLIndex (out.Size ())) != PLIndex (out.Size ())) {
        if (errorString != nullptr)
            *errorString = PLStringCreateWithCString (kPLAllocatorDefault, "property list: the stream can't be written",
                kPLStringEncodingUTF8);
        return 0;
    }
    return PLIndex (out.Size ());
}

PLBoolean PLPropertyListIsValid (PLTypeRef propertyList, PLPropertyListFormat format)
{
    ByteWriter out;
    return Encode (out, propertyList, format, 0, nullptr);
}

}
