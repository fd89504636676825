// Data: a block of bytes, copied into the object, borrowed from the creator (no-copy), or growing
// (mutable: the capacity it is made with is in the object's block, and what outgrows it moves to
// a block of its own).
#include "Internal.h"

#include <cstdio>
#include <cstdlib>

using namespace Plinth;

struct __PLData : Object {
    uint8_t * fBytes;
    PLIndex fLength;
    PLIndex fCapacity;
    // Frees fBytes when the data goes; null when they are inline or borrowed for good.
    PLAllocatorRef fDeallocator;
    bool fMutable;
};

namespace {

void FinalizeData (Object * object)
{
    __PLData * data = static_cast<__PLData *> (object);
    if (data->fDeallocator != nullptr)
        Deallocate (data->fDeallocator, data->fBytes);
}

bool EqualData (Object const * x, Object const * y)
{
    __PLData const * a = static_cast<__PLData const *> (x);
    __PLData const * b = static_cast<__PLData const *> (y);
    return a->fLength == b->fLength && (a->fLength == 0 || std::memcmp (a->fBytes, b->fBytes, std::size_t (a->fLength)) == 0);
}

PLHashCode HashData (Object const * object)
{
    __PLData const * data = static_cast<__PLData const *> (object);
    // Every byte counts: a hash of a prefix would put all blocks that share it in one chain.
    return FoldHash (KeyedHash (data->fBytes, std::size_t (data->fLength)));
}

PLStringRef DescribeData (Object const * object)
{
    __PLData const * data = static_cast<__PLData const *> (object);
    UnitBuffer text;
    text.Append (PLUniChar ('<'));
    for (PLIndex i = 0; i < data->fLength; ++i) {
        char hex [4];
        std::snprintf (hex, sizeof hex, "%02x", data->fBytes [i]);
        if (i > 0 && i % 4 == 0)
            text.Append (PLUniChar (' '));
        text.AppendASCII (hex);
    }
    text.Append (PLUniChar ('>'));
    return text.CreateString (kPLAllocatorDefault);
}

Class const kDataClass = { kDataType, "PLData", FinalizeData, EqualData, HashData, DescribeData };

__PLData * AsData (void const * object) { return As<__PLData> (object, kDataType); }

bool Reserve (__PLData * data, PLIndex needed)
{
    if (needed <= data->fCapacity)
        return true;
    int64_t capacity = data->fCapacity < 16 ? 16 : data->fCapacity;
    while (capacity < needed)
        capacity *= 2;
    if (capacity > INT32_MAX)
        capacity = INT32_MAX;
    uint8_t * bytes = static_cast<uint8_t *> (Allocate (data->fAllocator, std::size_t (capacity)));
    if (bytes == nullptr)
        return false;
    if (data->fLength > 0)
        std::memcpy (bytes, data->fBytes, std::size_t (data->fLength));
    if (data->fDeallocator != nullptr)
        Deallocate (data->fDeallocator, data->fBytes);
    data->fBytes = bytes;
    data->fCapacity = PLIndex (capacity);
    data->fDeallocator = data->fAllocator;
    return true;
}

}

extern "C" {

PLTypeID PLDataGetTypeID (void) { return kDataType; }

PLDataRef PLDataCreate (PLAllocatorRef allocator, uint8_t const * bytes, PLIndex length)
{
    if (length < 0 || (bytes == nullptr && length > 0) || std::size_t (length) > SIZE_MAX - sizeof (__PLData))
        return nullptr;
    __PLData * data = NewObject<__PLData> (allocator, kDataClass, sizeof (__PLData) + std::size_t (length));
    if (data == nullptr)
        return nullptr;
    data->fBytes = reinterpret_cast<uint8_t *> (data + 1);
    if (length > 0)
        std::memcpy (data->fBytes, bytes, std::size_t (length));
    data->fLength = data->fCapacity = length;
    return data;
}

PLDataRef PLDataCreateWithBytesNoCopy (PLAllocatorRef allocator, uint8_t const * bytes, PLIndex length,
    PLAllocatorRef deallocator)
{
    if (length < 0 || (bytes == nullptr && length > 0))
        return nullptr;
    __PLData * data = NewObject<__PLData> (allocator, kDataClass);
    if (data == nullptr)
        return nullptr;
    data->fBytes = const_cast<uint8_t *> (bytes);
    data->fLength = data->fCapacity = length;
    data->fDeallocator = KeptDeallocator (deallocator);
    return data;
}

PLDataRef PLDataCreateCopy (PLAllocatorRef allocator, PLDataRef data)
{
    __PLData const * d = AsData (data);
    return d == nullptr ? nullptr : PLDataCreate (allocator, d->fBytes, d->fLength);
}

PLMutableDataRef PLDataCreateMutable (PLAllocatorRef allocator, PLIndex capacity)
{
    if (capacity < 0 || std::size_t (capacity) > SIZE_MAX - sizeof (__PLData))
        return nullptr;
    __PLData * data = NewObject<__PLData> (allocator, kDataClass, sizeof (__PLData) + std::size_t (capacity));
    if (data == nullptr)
        return nullptr;
    data->fBytes = reinterpret_cast<uint8_t *> (data + 1);
    data->fCapacity = capacity;
    data->fMutable = true;
    return data;
}

PLMutableDataRef PLDataCreateMutableCopy (PLAllocatorRef allocator, PLIndex capacity, PLDataRef data)
{
    __PLData const * d = AsData (data);
    if (d == nullptr)
        return nullptr;
    __PLData * copy = PLDataCreateMutable (allocator, capacity > d->fLength ? capacity : d->fLength);
    if (copy != nullptr)
        PLDataAppendBytes (copy, d->fBytes, d->fLength);
    return copy;
}

PLIndex PLDataGetLength (PLDataRef data)
{
    __PLData const * d = AsData (data);
    return d == nullptr ? 0 : d->fLength;
}

uint8_t const * PLDataGetBytePtr (PLDataRef data)
{
    __PLData const * d = AsData (data);
    return d == nullptr ? nullptr : d->fBytes;
}

void PLDataGetBytes (PLDataRef data, PLRange range, uint8_t * buffer)
{
    __PLData const * d = AsData (data);
    if (d == nullptr || buffer == nullptr || range.location < 0 || range.length < 0 || range.location > d->fLength
        || range.length > d->fLength - range.location || range.length == 0)
        return;
    std::memcpy (buffer, d->fBytes + range.location, std::size_t (range.length));
}

uint8_t * PLDataGetMutableBytePtr (PLMutableDataRef data)
{
    __PLData * d = AsData (data);
    return d == nullptr || ! d->fMutable ? nullptr : d->fBytes;
}

void PLDataAppendBytes (PLMutableDataRef data, uint8_t const * bytes, PLIndex length)
{
    __PLData * d = AsData (data);
    if (d == nullptr || ! d->fMutable || length <= 0 || bytes == nullptr || length > INT32_MAX - d->fLength
        || ! Reserve (d, d->fLength + length))
        return;
    std::memmove (d->fBytes + d->fLength, bytes, std::size_t (length));
    d->fLength += length;
}

void PLDataSetLength (PLMutableDataRef data, PLIndex length)
{
    __PLData * d = AsData (data);
    if (d == nullptr || ! d->fMutable || length < 0 || ! Reserve (d, length))
        return;
    if (length > d->fLength)
        std::memset (d->fBytes + d->fLength, 0, std::size_t (length - d->fLength));
    d->fLength = length;
}

}
