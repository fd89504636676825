// The one way the property-list readers look at untrusted bytes: a bounded view with checked
// arithmetic. Every read names an offset and a size; the pair is checked against the view, with
// overflow, before a byte is touched, and a failed check answers false instead of reading.
#ifndef PLINTH_BYTE_READER_H
#define PLINTH_BYTE_READER_H

#include <cstddef>
#include <cstdint>

namespace Plinth {

// a + b and a * b that report overflow instead of wrapping.
inline bool CheckedAdd (uint64_t a, uint64_t b, uint64_t & sum)
{
    return ! __builtin_add_overflow (a, b, &sum);
}

inline bool CheckedMultiply (uint64_t a, uint64_t b, uint64_t & product)
{
    return ! __builtin_mul_overflow (a, b, &product);
}

class ByteReader {
public:
    ByteReader (uint8_t const * bytes, std::size_t size) : fBytes (bytes), fSize (size) {}

    std::size_t Size () const { return fSize; }

    // True when [offset, offset + count) lies inside the view.
    bool Contains (uint64_t offset, uint64_t count) const
    {
        uint64_t end;
        return CheckedAdd (offset, count, end) && end <= fSize;
    }

    // The bytes of [offset, offset + count), or null when they are not all inside the view.
    uint8_t const * Span (uint64_t offset, uint64_t count) const
    {
        return Contains (offset, count) ? fBytes + offset : nullptr;
    }

    bool Byte (uint64_t offset, uint8_t & value) const
    {
        uint8_t const * at = Span (offset, 1);
        if (at == nullptr)
            return false;
        value = *at;
        return true;
    }

    // A big-endian unsigned integer of 1 to 8 bytes.
    bool Unsigned (uint64_t offset, unsigned width, uint64_t & value) const
    {
        uint8_t const * at = width >= 1 && width <= 8 ? Span (offset, width) : nullptr;
        if (at == nullptr)
            return false;
        value = 0;
        for (unsigned i = 0; i < width; ++i)
            value = value << 8 | at [i];
        return true;
    }

    // A narrower view of [offset, offset + count); an empty view when it is not inside.
    ByteReader Sub (uint64_t offset, uint64_t count) const
    {
        uint8_t const * at = Span (offset, count);
        return at == nullptr ? ByteReader (nullptr, 0) : ByteReader (at, std::size_t (count));
    }

private:
    uint8_t const * fBytes;
    std::size_t fSize;
};

}

#endif
