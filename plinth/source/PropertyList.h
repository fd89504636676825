// What the two property-list formats share: the reader's limits and options, the failure reason,
// and the values they write. The public functions (PropertyList.cpp) detect the format and call
// these.
#ifndef PLINTH_PROPERTY_LIST_H
#define PLINTH_PROPERTY_LIST_H

#include "Internal.h"

#include <cstdlib>

namespace Plinth {

// Containers nest at most this deep, in both formats, when read and when written.
constexpr int kMaximumNesting = 512;

// Dates are those of years 1 to 9999, the range that plistlib reads: from 0001-01-01T00:00:00Z
// up to, not including, 10000-01-01T00:00:00Z, in seconds from 2001-01-01T00:00:00Z.
constexpr double kEarliestDate = -63113904000.0;
constexpr double kEndOfDates = 252423993600.0;
inline bool IsDateInRange (double time) { return time >= kEarliestDate && time < kEndOfDates; }

// The output of the writers: a growing block of bytes, taken over by the caller at the end.
class ByteWriter {
public:
    ByteWriter () = default;
    ~ByteWriter () { std::free (fBytes); }
    ByteWriter (ByteWriter const &) = delete;
    ByteWriter & operator = (ByteWriter const &) = delete;

    bool Failed () const { return fFailed; }
    void Clear () { fSize = 0; }
    void Truncate (std::size_t size) { fSize = size < fSize ? size : fSize; }
    std::size_t Size () const { return fSize; }
    uint8_t const * Bytes () const { return fBytes; }
    // Room for `count` more bytes, whose start is returned; null (and Failed) when memory ran out.
    uint8_t * Extend (std::size_t count);
    void Append (void const * bytes, std::size_t count)
    {
        if (uint8_t * at = Extend (count))
            std::memcpy (at, bytes, count);
    }
    void Append (char const * text) { Append (text, std::strlen (text)); }
    void Byte (uint8_t value)
    {
        if (fSize < fCapacity)
            fBytes [fSize++] = value;
        else
            Append (&value, 1);
    }
    // `value` big-endian in `width` bytes.
    void Unsigned (uint64_t value, unsigned width)
    {
        if (uint8_t * at = Extend (width))
            for (unsigned i = width; i-- > 0; value >>= 8)
                at [i] = uint8_t (value);
    }
    // The bytes as a data object that takes them over; null when writing failed.
    PLDataRef CreateData (PLAllocatorRef allocator);

private:
    uint8_t * fBytes = nullptr;
    std::size_t fSize = 0;
    std::size_t fCapacity = 0;
    bool fFailed = false;
};

// Why a read or a write failed: a static text, and for a read the offset in the input where it
// was found.
struct ParseFailure {
    char const * fReason = nullptr;
    uint64_t fOffset = 0;
    bool fHasOffset = false;

    // The first failure found is the reason; what fails because of it later keeps it.
    bool Fail (char const * reason)
    {
        if (fReason == nullptr)
            fReason = reason;
        return false;
    }
    bool Fail (char const * reason, uint64_t offset)
    {
        if (fReason == nullptr) {
            fReason = reason;
            fOffset = offset;
            fHasOffset = true;
        }
        return false;
    }
};

struct ReadOptions {
    PLAllocatorRef fAllocator;
    bool fMutableContainers;
    bool fMutableLeaves;
};

// Null, with `failure` filled, when `bytes` are not one property list of the format.
PLTypeRef ReadBinaryPropertyList (uint8_t const * bytes, std::size_t size, ReadOptions const & options,
    ParseFailure & failure);
PLTypeRef ReadXMLPropertyList (uint8_t const * bytes, std::size_t size, ReadOptions const & options,
    ParseFailure & failure);

// Reference and offset widths of the binary writer; 0 lets it choose as plistlib does. Others
// are for the tests, which check that every width is read elsewhere.
struct BinaryWidths {
    unsigned fReference = 0;
    unsigned fOffset = 0;
};

// Append the encoding of `value` to `out`; false, with `failure` filled, when something in it
// cannot be written in the format.
bool WriteBinaryPropertyList (ByteWriter & out, PLTypeRef value, BinaryWidths widths, ParseFailure & failure);
bool WriteXMLPropertyList (ByteWriter & out, PLTypeRef value, ParseFailure & failure);

// Text shared by the two formats: a string's units are valid for writing when every surrogate is
// paired; keys are written sorted by code point.
bool HasPairedSurrogates (PLUniChar const * units, std::size_t count);
// The entries of `dictionary` with keys in code-point order, in `keys` and `values` (each of
// PLDictionaryGetCount entries); false when a key is not a string.
bool SortedEntries (PLDictionaryRef dictionary, void const ** keys, void const ** values);

// An integer above the signed range (2^63 ... 2^64-1) is a number of kind kPLNumberUInt64Type.
bool IsUnsignedAboveSigned (PLNumberRef number, uint64_t & value);

}

#endif
