// The object model: counts, kinds, the generic operations, allocators, booleans and the standard
// callbacks of containers.
#include "Internal.h"

#include <cstdio>
#include <cstdlib>

using namespace Plinth;

struct __PLAllocator : Object {
    void * (*fAllocate) (std::size_t size);
    void (*fFree) (void * memory);
};

struct __PLBoolean : Object {
    bool fValue;
};

namespace {

int32_t sLiveObjects = 0;

void * HeapAllocate (std::size_t size) { return std::malloc (size); }
void HeapFree (void * memory) { std::free (memory); }
void * NullAllocate (std::size_t) { return nullptr; }
void NullFree (void *) {}

PLStringRef DescribeAllocator (Object const * object)
{
    return MakeStringFromASCII (static_cast<__PLAllocator const *> (object)->fAllocate == NullAllocate
        ? "<PLAllocator null>" : "<PLAllocator default>");
}

PLStringRef DescribeBoolean (Object const * object)
{
    return MakeStringFromASCII (static_cast<__PLBoolean const *> (object)->fValue ? "true" : "false");
}

PLHashCode HashBoolean (Object const * object)
{
    return static_cast<__PLBoolean const *> (object)->fValue ? 1 : 0;
}

// Allocators and booleans are immortal singletons: identity is equality.
Class const kAllocatorClass = { kAllocatorType, "PLAllocator", nullptr, nullptr, nullptr, DescribeAllocator };
Class const kBooleanClass = { kBooleanType, "PLBoolean", nullptr, nullptr, HashBoolean, DescribeBoolean };

__PLAllocator const sDefaultAllocator { { &kAllocatorClass, kImmortal, nullptr }, HeapAllocate, HeapFree };
__PLAllocator const sNullAllocator { { &kAllocatorClass, kImmortal, nullptr }, NullAllocate, NullFree };
__PLBoolean const sTrue { { &kBooleanClass, kImmortal, &sDefaultAllocator }, true };
__PLBoolean const sFalse { { &kBooleanClass, kImmortal, &sDefaultAllocator }, false };

void Free (Object * object)
{
    PLAllocatorRef allocator = object->fAllocator;
    Deallocate (allocator, object);
    __atomic_sub_fetch (&sLiveObjects, 1, __ATOMIC_RELAXED);
}

}

PLAllocatorRef const kPLAllocatorDefault = &sDefaultAllocator;
PLAllocatorRef const kPLAllocatorNull = &sNullAllocator;
PLBooleanRef const kPLBooleanTrue = &sTrue;
PLBooleanRef const kPLBooleanFalse = &sFalse;

namespace Plinth {

PLAllocatorRef ResolveAllocator (PLAllocatorRef allocator)
{
    return allocator == nullptr ? &sDefaultAllocator : allocator;
}

void * Allocate (PLAllocatorRef allocator, std::size_t size)
{
    return ResolveAllocator (allocator)->fAllocate (size == 0 ? 1 : size);
}

void Deallocate (PLAllocatorRef allocator, void * memory)
{
    if (memory != nullptr)
        ResolveAllocator (allocator)->fFree (memory);
}

void CountNewObject ()
{
    __atomic_add_fetch (&sLiveObjects, 1, __ATOMIC_RELAXED);
}

void UncountObject ()
{
    __atomic_sub_fetch (&sLiveObjects, 1, __ATOMIC_RELAXED);
}

void SpinLock::Lock ()
{
    while (__atomic_test_and_set (&fHeld, __ATOMIC_ACQUIRE))
        PlatformYield ();
}

}

extern "C" {

PLTypeRef PLRetain (PLTypeRef object)
{
    if (object == nullptr)
        return nullptr;
    Object * header = static_cast<Object *> (const_cast<void *> (object));
    if (__atomic_load_n (&header->fRetainCount, __ATOMIC_RELAXED) != kImmortal)
        __atomic_add_fetch (&header->fRetainCount, 1, __ATOMIC_RELAXED);
    return object;
}

void PLRelease (PLTypeRef object)
{
    if (object == nullptr)
        return;
    Object * header = static_cast<Object *> (const_cast<void *> (object));
    if (__atomic_load_n (&header->fRetainCount, __ATOMIC_RELAXED) == kImmortal)
        return;
    // Acquire-release, so that the thread that frees sees every write made before other releases.
    if (__atomic_sub_fetch (&header->fRetainCount, 1, __ATOMIC_ACQ_REL) != 0)
        return;
    if (header->fClass->fFinalize != nullptr)
        header->fClass->fFinalize (header);
    Free (header);
}

PLIndex PLGetRetainCount (PLTypeRef object)
{
    if (object == nullptr)
        return 0;
    return __atomic_load_n (&static_cast<Object const *> (object)->fRetainCount, __ATOMIC_RELAXED);
}

PLTypeID PLGetTypeID (PLTypeRef object)
{
    return object == nullptr ? PLTypeID (kPLNotATypeID) : static_cast<Object const *> (object)->fClass->fTypeID;
}

PLAllocatorRef PLGetAllocator (PLTypeRef object)
{
    if (object == nullptr)
        return nullptr;
    PLAllocatorRef allocator = static_cast<Object const *> (object)->fAllocator;
    return allocator == nullptr ? &sDefaultAllocator : allocator;
}

PLBoolean PLEqual (PLTypeRef x, PLTypeRef y)
{
    if (x == y)
        return true;
    if (x == nullptr || y == nullptr)
        return false;
    Class const * kind = static_cast<Object const *> (x)->fClass;
    if (kind != static_cast<Object const *> (y)->fClass || kind->fEqual == nullptr)
        return false;
    return kind->fEqual (static_cast<Object const *> (x), static_cast<Object const *> (y));
}

PLHashCode PLHash (PLTypeRef object)
{
    if (object == nullptr)
        return 0;
    Class const * kind = static_cast<Object const *> (object)->fClass;
    if (kind->fHash != nullptr)
        return kind->fHash (static_cast<Object const *> (object));
    return PLHashCode (reinterpret_cast<std::uintptr_t> (object) >> 3);
}

PLStringRef PLCopyDescription (PLTypeRef object)
{
    if (object == nullptr)
        return MakeStringFromASCII ("(null)");
    Class const * kind = static_cast<Object const *> (object)->fClass;
    if (kind->fCopyDescription != nullptr)
        return kind->fCopyDescription (static_cast<Object const *> (object));
    char text [64];
    std::snprintf (text, sizeof text, "<%s %p>", kind->fName, object);
    return MakeStringFromASCII (text);
}

PLStringRef PLCopyTypeIDDescription (PLTypeID typeID)
{
    static char const * const kNames [kTypeCount] = { nullptr, "PLAllocator", "PLString", "PLData", "PLArray",
        "PLDictionary", "PLSet", "PLNumber", "PLBoolean", "PLDate", "PLURL", "PLReadStream", "PLWriteStream" };
    if (typeID == kPLNotATypeID || typeID >= kTypeCount)
        return nullptr;
    return MakeStringFromASCII (kNames [typeID]);
}

PLIndex PLDebugGetLiveObjectCount (void)
{
    return __atomic_load_n (&sLiveObjects, __ATOMIC_RELAXED);
}

PLTypeID PLAllocatorGetTypeID (void) { return kAllocatorType; }
PLTypeID PLBooleanGetTypeID (void) { return kBooleanType; }

PLBoolean PLBooleanGetValue (PLBooleanRef boolean)
{
    return IsKind (boolean, kBooleanType) && static_cast<__PLBoolean const *> (boolean)->fValue;
}

}

namespace {

void const * StandardRetain (PLAllocatorRef, void const * value) { return PLRetain (value); }
void StandardRelease (PLAllocatorRef, void const * value) { PLRelease (value); }

}

// Callers copy these structures and replace words by position.
static_assert (sizeof (PLDictionaryKeyCallBacks) == 6 * sizeof (void *), "six words");
static_assert (sizeof (PLDictionaryValueCallBacks) == 5 * sizeof (void *), "five words");

PLDictionaryKeyCallBacks const kPLTypeDictionaryKeyCallBacks = {
    0, StandardRetain, StandardRelease, PLCopyDescription, PLEqual, PLHash };
PLDictionaryValueCallBacks const kPLTypeDictionaryValueCallBacks = {
    0, StandardRetain, StandardRelease, PLCopyDescription, PLEqual };
PLSetCallBacks const kPLTypeSetCallBacks = {
    0, StandardRetain, StandardRelease, PLCopyDescription, PLEqual, PLHash };
PLArrayCallBacks const kPLTypeArrayCallBacks = {
    0, StandardRetain, StandardRelease, PLCopyDescription, PLEqual };
