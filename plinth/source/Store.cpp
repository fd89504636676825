// Reading and writing the store form. The reader goes through one bounded cursor: every count is
// checked against the bytes that remain before anything is allocated, and nesting is limited.
#include "Store.h"

#include <cstdlib>

using namespace Plinth;

namespace {

constexpr int kMaximumDepth = 256;

void PutU32 (PLMutableDataRef data, uint32_t value)
{
    uint8_t bytes [4] = { uint8_t (value), uint8_t (value >> 8), uint8_t (value >> 16), uint8_t (value >> 24) };
    PLDataAppendBytes (data, bytes, 4);
}

void PutU64 (PLMutableDataRef data, uint64_t value)
{
    PutU32 (data, uint32_t (value));
    PutU32 (data, uint32_t (value >> 32));
}

void PutTag (PLMutableDataRef data, char tag)
{
    uint8_t byte = uint8_t (tag);
    PLDataAppendBytes (data, &byte, 1);
}

void PutReal (PLMutableDataRef data, char tag, double value)
{
    uint64_t bits;
    std::memcpy (&bits, &value, sizeof bits);
    PutTag (data, tag);
    PutU64 (data, bits);
}

class Cursor {
public:
    Cursor (uint8_t const * bytes, std::size_t size) : fBytes (bytes), fSize (size) {}
    bool AtEnd () const { return fAt == fSize; }
    std::size_t Remaining () const { return fSize - fAt; }
    bool Take (std::size_t count, uint8_t const * & bytes)
    {
        if (count > Remaining ())
            return false;
        bytes = fBytes + fAt;
        fAt += count;
        return true;
    }
    bool U8 (uint8_t & value)
    {
        uint8_t const * b;
        if (! Take (1, b)) return false;
        value = b [0];
        return true;
    }
    bool U32 (uint32_t & value)
    {
        uint8_t const * b;
        if (! Take (4, b)) return false;
        value = uint32_t (b [0]) | uint32_t (b [1]) << 8 | uint32_t (b [2]) << 16 | uint32_t (b [3]) << 24;
        return true;
    }
    bool U64 (uint64_t & value)
    {
        uint32_t low, high;
        if (! U32 (low) || ! U32 (high)) return false;
        value = uint64_t (high) << 32 | low;
        return true;
    }
    bool Real (double & value)
    {
        uint64_t bits;
        if (! U64 (bits)) return false;
        std::memcpy (&value, &bits, sizeof value);
        return true;
    }
private:
    uint8_t const * fBytes;
    std::size_t fSize;
    std::size_t fAt = 0;
};

PLTypeRef Read (Cursor & cursor, int depth);

PLTypeRef ReadContainer (Cursor & cursor, int depth, bool dictionary)
{
    uint32_t count;
    // Each element takes at least one byte (a key and a value two): a count beyond that is a lie.
    if (! cursor.U32 (count) || count > cursor.Remaining () / (dictionary ? 2 : 1) || depth >= kMaximumDepth)
        return nullptr;
    void const ** items = static_cast<void const **> (std::calloc (std::size_t (count) * 2 + 1, sizeof (void *)));
    if (items == nullptr)
        return nullptr;
    bool valid = true;
    std::size_t total = dictionary ? std::size_t (count) * 2 : count;
    for (std::size_t i = 0; i < total && valid; ++i) {
        items [i] = Read (cursor, depth + 1);
        valid = items [i] != nullptr && (! dictionary || i % 2 == 1 || PLGetTypeID (items [i]) == PLStringGetTypeID ());
    }
    PLTypeRef result = nullptr;
    if (valid && dictionary) {
        // Pairs were read interleaved: keys and values go into halves of a second array.
        void const ** split = static_cast<void const **> (std::calloc (std::size_t (count) * 2 + 1, sizeof (void *)));
        if (split != nullptr) {
            for (uint32_t i = 0; i < count; ++i) {
                split [i] = items [2 * i];
                split [count + i] = items [2 * i + 1];
            }
            result = PLDictionaryCreate (kPLAllocatorDefault, split, split + count, PLIndex (count),
                &kPLTypeDictionaryKeyCallBacks, &kPLTypeDictionaryValueCallBacks);
            std::free (split);
        }
    }
    else if (valid)
        result = PLArrayCreate (kPLAllocatorDefault, items, PLIndex (count), &kPLTypeArrayCallBacks);
    for (std::size_t i = 0; i < total; ++i)
        PLRelease (items [i]);
    std::free (items);
    return result;
}

PLTypeRef Read (Cursor & cursor, int depth)
{
    uint8_t tag;
    if (! cursor.U8 (tag))
        return nullptr;
    switch (tag) {
    case 'S': {
        uint32_t count;
        uint8_t const * bytes;
        if (! cursor.U32 (count) || count > cursor.Remaining () / 2 || ! cursor.Take (std::size_t (count) * 2, bytes))
            return nullptr;
        return PLStringCreateWithBytes (kPLAllocatorDefault, bytes, PLIndex (count * 2), kPLStringEncodingUTF16LE, false);
    }
    case 'I': {
        uint64_t bits;
        if (! cursor.U64 (bits))
            return nullptr;
        int64_t value = int64_t (bits);
        return PLNumberCreate (kPLAllocatorDefault, kPLNumberSInt64Type, &value);
    }
    case 'R': {
        double value;
        return cursor.Real (value) ? PLNumberCreate (kPLAllocatorDefault, kPLNumberFloat64Type, &value) : nullptr;
    }
    case 'T': return kPLBooleanTrue;
    case 'F': return kPLBooleanFalse;
    case 'D': {
        double value;
        return cursor.Real (value) ? PLDateCreate (kPLAllocatorDefault, value) : nullptr;
    }
    case 'B': {
        uint32_t length;
        uint8_t const * bytes;
        if (! cursor.U32 (length) || ! cursor.Take (length, bytes) || length > uint32_t (INT32_MAX))
            return nullptr;
        return PLDataCreate (kPLAllocatorDefault, bytes, PLIndex (length));
    }
    case 'A': return ReadContainer (cursor, depth, false);
    case 'K': return ReadContainer (cursor, depth, true);
    default: return nullptr;
    }
}

bool Write (PLMutableDataRef data, PLTypeRef value, int depth)
{
    PLTypeID type = PLGetTypeID (value);
    if (depth >= kMaximumDepth)
        return false;
    if (type == PLStringGetTypeID ()) {
        PLIndex length = PLStringGetLength (static_cast<PLStringRef> (value));
        PutTag (data, 'S');
        PutU32 (data, uint32_t (length));
        PLIndex size = 0;
        PLIndex start = PLDataGetLength (data);
        PLDataSetLength (data, start + length * 2);
        uint8_t * bytes = PLDataGetMutableBytePtr (data);
        if (bytes == nullptr || PLDataGetLength (data) != start + length * 2)
            return false;
        PLStringGetBytes (static_cast<PLStringRef> (value), PLRangeMake (0, length), kPLStringEncodingUTF16LE, 0, false,
            bytes + start, length * 2, &size);
        return size == length * 2;
    }
    if (type == PLNumberGetTypeID ()) {
        PLNumberRef number = static_cast<PLNumberRef> (value);
        if (PLNumberIsFloatType (number)) {
            double real;
            PLNumberGetValue (number, kPLNumberFloat64Type, &real);
            PutReal (data, 'R', real);
        }
        else {
            int64_t integer;
            PLNumberGetValue (number, kPLNumberSInt64Type, &integer);
            PutTag (data, 'I');
            PutU64 (data, uint64_t (integer));
        }
        return true;
    }
    if (type == PLBooleanGetTypeID ()) {
        PutTag (data, PLBooleanGetValue (static_cast<PLBooleanRef> (value)) ? 'T' : 'F');
        return true;
    }
    if (type == PLDateGetTypeID ()) {
        PutReal (data, 'D', PLDateGetAbsoluteTime (static_cast<PLDateRef> (value)));
        return true;
    }
    if (type == PLDataGetTypeID ()) {
        PLDataRef bytes = static_cast<PLDataRef> (value);
        PutTag (data, 'B');
        PutU32 (data, uint32_t (PLDataGetLength (bytes)));
        PLDataAppendBytes (data, PLDataGetBytePtr (bytes), PLDataGetLength (bytes));
        return true;
    }
    if (type == PLArrayGetTypeID ()) {
        PLArrayRef array = static_cast<PLArrayRef> (value);
        PLIndex count = PLArrayGetCount (array);
        PutTag (data, 'A');
        PutU32 (data, uint32_t (count));
        for (PLIndex i = 0; i < count; ++i)
            if (! Write (data, PLArrayGetValueAtIndex (array, i), depth + 1))
                return false;
        return true;
    }
    if (type == PLDictionaryGetTypeID ()) {
        PLDictionaryRef dictionary = static_cast<PLDictionaryRef> (value);
        PLIndex count = PLDictionaryGetCount (dictionary);
        void const ** entries = static_cast<void const **> (std::calloc (std::size_t (count) * 2 + 1, sizeof (void *)));
        if (entries == nullptr)
            return false;
        PLDictionaryGetKeysAndValues (dictionary, entries, entries + count);
        PutTag (data, 'K');
        PutU32 (data, uint32_t (count));
        bool written = true;
        for (PLIndex i = 0; i < count && written; ++i)
            written = PLGetTypeID (entries [i]) == PLStringGetTypeID () && Write (data, entries [i], depth + 1)
                && Write (data, entries [count + i], depth + 1);
        std::free (entries);
        return written;
    }
    return false;
}

}

namespace Plinth {

bool StoreCanHold (PLTypeRef value)
{
    PLMutableDataRef scratch = PLDataCreateMutable (kPLAllocatorDefault, 0);
    bool holds = scratch != nullptr && Write (scratch, value, 0);
    PLRelease (scratch);
    return holds;
}

bool StoreWrite (PLMutableDataRef data, PLTypeRef value)
{
    return Write (data, value, 0);
}

PLTypeRef StoreRead (uint8_t const * bytes, std::size_t size)
{
    Cursor cursor (bytes, size);
    PLTypeRef value = Read (cursor, 0);
    if (value != nullptr && ! cursor.AtEnd ()) {
        PLRelease (value);
        return nullptr;
    }
    return value;
}

}
