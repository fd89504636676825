// Arrays: ordered values held through callbacks. An array is one allocation: the object, then a
// copy of its callbacks when they are not a shared constant, then room for the values it was
// made with (all of them for an immutable array, the capacity asked for a mutable one). A mutable
// array that outgrows that room moves its values to a block of their own, which doubles as it
// grows.
#include "Describe.h"

#include <cstdlib>

using namespace Plinth;

struct __PLArray : Object {
    void const ** fValues;   // the room in the object's block, or a block of their own
    PLIndex fCount;
    PLIndex fCapacity;
    PLArrayCallBacks const * fCallBacks;
    bool fMutable;
    bool fOwnBlock;          // fValues is a block of their own, freed with the array
};

namespace {

PLArrayCallBacks const kNoCallBacks = {};

void const * Retain (__PLArray const * a, void const * value)
{
    return a->fCallBacks->retain != nullptr ? a->fCallBacks->retain (a->fAllocator, value) : value;
}

void Release (__PLArray const * a, void const * value)
{
    if (a->fCallBacks->release != nullptr)
        a->fCallBacks->release (a->fAllocator, value);
}

bool Same (__PLArray const * a, void const * x, void const * y)
{
    return x == y || (a->fCallBacks->equal != nullptr && x != nullptr && y != nullptr && a->fCallBacks->equal (x, y));
}

void FinalizeArray (Object * object)
{
    __PLArray * a = static_cast<__PLArray *> (object);
    for (PLIndex i = 0; i < a->fCount; ++i)
        Release (a, a->fValues [i]);
    if (a->fOwnBlock)
        Deallocate (a->fAllocator, a->fValues);
}

bool EqualArrays (Object const * x, Object const * y)
{
    __PLArray const * a = static_cast<__PLArray const *> (x);
    __PLArray const * b = static_cast<__PLArray const *> (y);
    if (a->fCount != b->fCount)
        return false;
    for (PLIndex i = 0; i < a->fCount; ++i)
        if (! Same (a, a->fValues [i], b->fValues [i]))
            return false;
    return true;
}

PLHashCode HashArray (Object const * object)
{
    return PLHashCode (static_cast<__PLArray const *> (object)->fCount);
}

PLStringRef DescribeArray (Object const * object)
{
    __PLArray const * a = static_cast<__PLArray const *> (object);
    UnitBuffer text;
    text.AppendASCII ("(\n");
    for (PLIndex i = 0; i < a->fCount; ++i) {
        text.AppendASCII ("    ");
        AppendDescription (text, a->fValues [i], a->fCallBacks->copyDescription);
        text.AppendASCII (i + 1 < a->fCount ? ",\n" : "\n");
    }
    text.AppendASCII (")");
    return text.CreateString (kPLAllocatorDefault);
}

Class const kArrayClass = { kArrayType, "PLArray", FinalizeArray, EqualArrays, HashArray, DescribeArray };

__PLArray * AsArray (void const * object) { return As<__PLArray> (object, kArrayType); }

// An empty array with room for `capacity` values in its own block.
__PLArray * MakeArray (PLAllocatorRef allocator, PLArrayCallBacks const * callBacks, bool isMutable, PLIndex capacity)
{
    if (capacity < 0 || uint64_t (capacity) * sizeof (void const *) > INT32_MAX)
        return nullptr;
    std::size_t size = sizeof (__PLArray) + CallBacksCopySize (callBacks, kPLTypeArrayCallBacks, kNoCallBacks)
        + std::size_t (capacity) * sizeof (void const *);
    __PLArray * a = NewObject<__PLArray> (allocator, kArrayClass, size);
    if (a == nullptr)
        return nullptr;
    unsigned char * next = reinterpret_cast<unsigned char *> (a + 1);
    a->fCallBacks = KeepCallBacks (callBacks, kPLTypeArrayCallBacks, kNoCallBacks, next);
    a->fValues = reinterpret_cast<void const **> (next);
    a->fCapacity = capacity;
    a->fMutable = isMutable;
    return a;
}

bool Reserve (__PLArray * a, PLIndex needed)
{
    if (needed <= a->fCapacity)
        return true;
    int64_t capacity = a->fCapacity < 4 ? 4 : int64_t (a->fCapacity) * 2;
    if (capacity < needed)
        capacity = needed;
    if (uint64_t (capacity) * sizeof (void const *) > INT32_MAX)
        return false;
    void const ** values = static_cast<void const **> (Allocate (a->fAllocator, std::size_t (capacity) * sizeof (void const *)));
    if (values == nullptr)
        return false;
    if (a->fCount > 0)
        std::memcpy (values, a->fValues, std::size_t (a->fCount) * sizeof (void const *));
    if (a->fOwnBlock)
        Deallocate (a->fAllocator, a->fValues);
    a->fValues = values;
    a->fCapacity = PLIndex (capacity);
    a->fOwnBlock = true;
    return true;
}

bool Insert (__PLArray * a, PLIndex index, void const * value)
{
    if (index < 0 || index > a->fCount || ! Reserve (a, a->fCount + 1))
        return false;
    std::memmove (a->fValues + index + 1, a->fValues + index, std::size_t (a->fCount - index) * sizeof (void const *));
    a->fValues [index] = Retain (a, value);
    ++a->fCount;
    return true;
}

bool InRange (__PLArray const * a, PLRange range)
{
    return range.location >= 0 && range.length >= 0 && range.location <= a->fCount
        && range.length <= a->fCount - range.location;
}

__PLArray * Mutable (PLMutableArrayRef array)
{
    __PLArray * a = AsArray (array);
    return a != nullptr && a->fMutable ? a : nullptr;
}

}

namespace Plinth {

// The immutable empty array of the readers: one immortal object for all of them, so that a
// document of empty arrays costs a reference per array.
__PLArray const kEmptyArray { { &kArrayClass, kImmortal, nullptr }, nullptr, 0, 0, &kPLTypeArrayCallBacks, false,
    false };

PLArrayRef AdoptArray (PLAllocatorRef allocator, void const ** values, PLIndex count, bool isMutable)
{
    if (count == 0 && ! isMutable && ResolveAllocator (allocator) == kPLAllocatorDefault)
        return &kEmptyArray;
    __PLArray * a = MakeArray (allocator, &kPLTypeArrayCallBacks, isMutable, count);
    if (a == nullptr) {
        for (PLIndex i = 0; i < count; ++i)
            PLRelease (values [i]);
        return nullptr;
    }
    if (count > 0)
        std::memcpy (a->fValues, values, std::size_t (count) * sizeof (void const *));
    a->fCount = count;
    return a;
}

}

extern "C" {

PLTypeID PLArrayGetTypeID (void) { return kArrayType; }

PLMutableArrayRef PLArrayCreateMutable (PLAllocatorRef allocator, PLIndex capacity, PLArrayCallBacks const * callBacks)
{
    return MakeArray (allocator, callBacks, true, capacity > 0 ? capacity : 0);
}

PLArrayRef PLArrayCreate (PLAllocatorRef allocator, void const ** values, PLIndex count, PLArrayCallBacks const * callBacks)
{
    if (count < 0 || (count > 0 && values == nullptr))
        return nullptr;
    __PLArray * a = MakeArray (allocator, callBacks, false, count);
    if (a == nullptr)
        return nullptr;
    for (PLIndex i = 0; i < count; ++i)
        a->fValues [i] = Retain (a, values [i]);
    a->fCount = count;
    return a;
}

PLMutableArrayRef PLArrayCreateMutableCopy (PLAllocatorRef allocator, PLIndex capacity, PLArrayRef array)
{
    __PLArray const * source = AsArray (array);
    if (source == nullptr)
        return nullptr;
    __PLArray * a = PLArrayCreateMutable (allocator, capacity > source->fCount ? capacity : source->fCount,
        source->fCallBacks);
    if (a == nullptr)
        return nullptr;
    for (PLIndex i = 0; i < source->fCount; ++i)
        Insert (a, i, source->fValues [i]);
    return a;
}

PLArrayRef PLArrayCreateCopy (PLAllocatorRef allocator, PLArrayRef array)
{
    return Frozen (PLArrayCreateMutableCopy (allocator, 0, array));
}

PLIndex PLArrayGetCount (PLArrayRef array)
{
    __PLArray const * a = AsArray (array);
    return a == nullptr ? 0 : a->fCount;
}

void const * PLArrayGetValueAtIndex (PLArrayRef array, PLIndex index)
{
    __PLArray const * a = AsArray (array);
    return a == nullptr || index < 0 || index >= a->fCount ? nullptr : a->fValues [index];
}

void PLArrayGetValues (PLArrayRef array, PLRange range, void const ** values)
{
    __PLArray const * a = AsArray (array);
    if (a == nullptr || values == nullptr || ! InRange (a, range) || range.length == 0)
        return;
    std::memcpy (values, a->fValues + range.location, std::size_t (range.length) * sizeof (void const *));
}

PLIndex PLArrayGetFirstIndexOfValue (PLArrayRef array, PLRange range, void const * value)
{
    __PLArray const * a = AsArray (array);
    if (a == nullptr || ! InRange (a, range))
        return kPLNotFound;
    for (PLIndex i = range.location; i < range.location + range.length; ++i)
        if (Same (a, a->fValues [i], value))
            return i;
    return kPLNotFound;
}

PLBoolean PLArrayContainsValue (PLArrayRef array, PLRange range, void const * value)
{
    return PLArrayGetFirstIndexOfValue (array, range, value) != kPLNotFound;
}

void PLArrayAppendValue (PLMutableArrayRef array, void const * value)
{
    if (__PLArray * a = Mutable (array))
        Insert (a, a->fCount, value);
}

void PLArrayInsertValueAtIndex (PLMutableArrayRef array, PLIndex index, void const * value)
{
    if (__PLArray * a = Mutable (array))
        Insert (a, index, value);
}

void PLArraySetValueAtIndex (PLMutableArrayRef array, PLIndex index, void const * value)
{
    __PLArray * a = Mutable (array);
    if (a == nullptr || index < 0 || index > a->fCount)
        return;
    if (index == a->fCount) {
        Insert (a, index, value);
        return;
    }
    void const * old = a->fValues [index];
    a->fValues [index] = Retain (a, value);
    Release (a, old);
}

void PLArrayRemoveValueAtIndex (PLMutableArrayRef array, PLIndex index)
{
    __PLArray * a = Mutable (array);
    if (a == nullptr || index < 0 || index >= a->fCount)
        return;
    void const * old = a->fValues [index];
    std::memmove (a->fValues + index, a->fValues + index + 1, std::size_t (a->fCount - index - 1) * sizeof (void const *));
    --a->fCount;
    Release (a, old);
}

void PLArrayRemoveAllValues (PLMutableArrayRef array)
{
    __PLArray * a = Mutable (array);
    if (a == nullptr)
        return;
    PLIndex count = a->fCount;
    a->fCount = 0;
    for (PLIndex i = 0; i < count; ++i)
        Release (a, a->fValues [i]);
}

}
