// What the parts of Plinth share: the object header, the kinds, allocation, and the few
// platform functions that the portable core calls (PlatformWindows.cpp, PlatformPosix.cpp).
#ifndef PLINTH_INTERNAL_H
#define PLINTH_INTERNAL_H

#include <Plinth/Plinth.h>

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace Plinth {

enum TypeNumber : PLTypeID {
    kAllocatorType = 1,
    kStringType,
    kDataType,
    kArrayType,
    kDictionaryType,
    kSetType,
    kNumberType,
    kBooleanType,
    kDateType,
    kURLType,
    kReadStreamType,
    kWriteStreamType,
    kTypeCount
};

struct Object;

// What a kind does for the generic operations. Equal is called only for two objects of the kind.
struct Class {
    PLTypeID fTypeID;
    char const * fName;
    void (*fFinalize) (Object * object);
    bool (*fEqual) (Object const * x, Object const * y);
    PLHashCode (*fHash) (Object const * object);
    PLStringRef (*fCopyDescription) (Object const * object);
};

// The counts of immortal objects never change.
constexpr int32_t kImmortal = INT32_MAX;

struct Object {
    Class const * fClass;
    int32_t fRetainCount;
    PLAllocatorRef fAllocator;
};

// Memory through an allocator: null means the default one; the null allocator gives none.
void * Allocate (PLAllocatorRef allocator, std::size_t size);
void Deallocate (PLAllocatorRef allocator, void * memory);
PLAllocatorRef ResolveAllocator (PLAllocatorRef allocator);

void CountNewObject ();
// Takes an object that will never be freed out of the live count.
void UncountObject ();

// A new object of `size` bytes (header included, zeroed), with a count of one and counted live.
template <typename T>
T * NewObject (PLAllocatorRef allocator, Class const & kind, std::size_t size = sizeof (T))
{
    allocator = ResolveAllocator (allocator);
    void * memory = Allocate (allocator, size);
    if (memory == nullptr)
        return nullptr;
    std::memset (memory, 0, size);
    T * object = static_cast<T *> (memory);
    object->fClass = &kind;
    object->fRetainCount = 1;
    object->fAllocator = allocator;
    CountNewObject ();
    return object;
}

// The callbacks a container keeps for life. Most containers are made with the standard callbacks
// or none, and those are kept as a pointer to one shared constant instead of a copy of several
// words; any other structure needs a copy, which the container places in its own block, after
// the object. Null here means "copy it".
template <typename CallBacks>
CallBacks const * SharedCallBacks (CallBacks const * given, CallBacks const & standard, CallBacks const & none)
{
    if (given == nullptr || std::memcmp (given, &none, sizeof none) == 0)
        return &none;
    if (std::memcmp (given, &standard, sizeof standard) == 0)
        return &standard;
    return nullptr;
}

// Places a copy of `given` in the block after `object` (of type T) unless a shared constant stands
// for it; gives the pointer the container keeps, and advances `next` past the copy.
template <typename CallBacks>
CallBacks const * KeepCallBacks (CallBacks const * given, CallBacks const & standard, CallBacks const & none,
    unsigned char * & next)
{
    if (CallBacks const * shared = SharedCallBacks (given, standard, none))
        return shared;
    CallBacks * copy = reinterpret_cast<CallBacks *> (next);
    *copy = *given;
    next += sizeof (CallBacks);
    return copy;
}

template <typename CallBacks>
std::size_t CallBacksCopySize (CallBacks const * given, CallBacks const & standard, CallBacks const & none)
{
    return SharedCallBacks (given, standard, none) != nullptr ? 0 : sizeof (CallBacks);
}

// Containers of the standard callbacks that take over one reference to each element instead of
// retaining it, for readers that made the elements; on failure they release the elements. Both
// make their room for all `count` elements at once, so that none is lost to a table that can't
// grow. The keys and values of a dictionary are `step` apart: 1 for keys and values in two runs,
// 2 for keys and values taken in turn.
PLArrayRef AdoptArray (PLAllocatorRef allocator, void const ** values, PLIndex count, bool isMutable);
PLDictionaryRef AdoptDictionary (PLAllocatorRef allocator, void const ** keys, void const ** values, PLIndex count,
    bool isMutable, PLIndex step = 1);
// PLDictionarySetValue that says whether it stored: false, with the dictionary as it was, when
// memory ran out (or the dictionary isn't a mutable one).
bool SetDictionaryValue (PLMutableDictionaryRef dictionary, void const * key, void const * value);
// Calls `apply` with each entry of `dictionary`, which it must not change, and allocates nothing.
void ApplyToEntries (PLDictionaryRef dictionary, void (*apply) (void const * key, void const * value, void * context),
    void * context);

// The deallocator a no-copy object keeps: null (never free) for the null allocator.
inline PLAllocatorRef KeptDeallocator (PLAllocatorRef deallocator)
{
    deallocator = ResolveAllocator (deallocator);
    return deallocator == kPLAllocatorNull ? nullptr : deallocator;
}

// An immutable copy is a mutable copy that is then closed to changes.
template <typename T>
T * Frozen (T * object)
{
    if (object != nullptr)
        object->fMutable = false;
    return object;
}

inline bool IsKind (void const * object, PLTypeID type)
{
    return object != nullptr && static_cast<Object const *> (object)->fClass->fTypeID == type;
}

template <typename T>
T * As (void const * object, PLTypeID type)
{
    return IsKind (object, type) ? static_cast<T *> (const_cast<void *> (object)) : nullptr;
}

// Strings the other parts make and read.
PLStringRef MakeString (PLAllocatorRef allocator, PLUniChar const * units, std::size_t count);
PLStringRef MakeStringFromASCII (char const * text);
PLUniChar const * StringUnits (PLStringRef string);

// The keyed hash of the process (Hash.cpp), and its forms for units and 64-bit values.
uint64_t KeyedHash (void const * bytes, std::size_t size);
inline PLHashCode FoldHash (uint64_t hash) { return PLHashCode (uint32_t (hash >> 32) ^ uint32_t (hash)); }
PLHashCode HashUnits (PLUniChar const * units, std::size_t count);
PLHashCode HashInteger (int64_t value);

// A growable buffer of UTF-16 units, for the parts that build text; Failed () after an
// allocation failure, after which appends do nothing.
class UnitBuffer {
public:
    UnitBuffer () = default;
    ~UnitBuffer ();
    UnitBuffer (UnitBuffer const &) = delete;
    UnitBuffer & operator = (UnitBuffer const &) = delete;

    void Append (PLUniChar unit) { Append (&unit, 1); }
    void Append (PLUniChar const * units, std::size_t count);
    void AppendASCII (char const * text);
    void AppendUTF8 (char const * text, std::size_t count);
    void AppendString (PLStringRef string);
    void Fail () { fFailed = true; }
    bool Failed () const { return fFailed; }
    std::size_t Size () const { return fSize; }
    PLUniChar const * Units () const { return fUnits; }
    // The text as a new string, or null after a failure.
    PLStringRef CreateString (PLAllocatorRef allocator) const;

private:
    PLUniChar * fUnits = nullptr;
    std::size_t fSize = 0;
    std::size_t fCapacity = 0;
    bool fFailed = false;
};

// The proleptic Gregorian date and time of day of whole seconds since 1970-01-01 UTC (Number.cpp).
struct CivilTime {
    int64_t fYear, fMonth, fDay, fHour, fMinute, fSecond;
};
CivilTime CivilFromSeconds (int64_t seconds);

// Decoding and encoding (Encoding.cpp).
bool IsKnownEncoding (PLStringEncoding encoding);

// The platform: executable name, where preferences live, whole-file reads and replacing writes,
// a pause for spinning threads and the lock that orders writers of preferences.
PLStringRef PlatformCopyExecutableName ();
PLStringRef PlatformCopyPreferencesDirectory ();
// The whole file in `contents`, which is null when the file doesn't exist; false when it exists but
// can't be read whole (memory running out included), so that a failed read is never taken for an
// empty store.
bool PlatformCopyFileContents (PLStringRef path, PLDataRef & contents);
// Creates the missing levels of `directory`; false when one can't be made.
bool PlatformMakeDirectories (PLStringRef directory);
// The lock that orders the preferences synchronisations of all processes: the file at `path`,
// made when missing and never removed (removing it would let two processes lock two files of one
// name), locked exclusively with the platform's file locks, waiting while another process holds
// it. The system drops a lock whose process ends. Null when the file can't be opened or locked.
struct PlatformFileLock;
PlatformFileLock * PlatformLockFile (PLStringRef path);
void PlatformUnlockFile (PlatformFileLock * lock);
// One line for whoever watches the process: standard error, and on Windows the debugger too.
void PlatformLog (char const * line);
void PlatformYield ();
// `size` bytes from the platform's source of cryptographic randomness; false when it failed.
bool PlatformRandomBytes (void * bytes, std::size_t size);
PLUniChar PlatformPathSeparator ();
// A lock that blocks (a mutex, a slim reader/writer lock), held by a preferences synchronisation
// across its read, merge and replace of the file, and taken by nothing else: two threads'
// synchronisations follow one another while readers and setters never wait on the disk.
void PlatformLockWriters ();
void PlatformUnlockWriters ();

// A lock for the little process-wide state (interned constants, pending preferences): a spin lock,
// because it is held only for short work bounded by memory (lookups, a copy of the pending changes,
// never a file) and needs no platform object.
class SpinLock {
public:
    void Lock ();
    void Unlock () { __atomic_clear (&fHeld, __ATOMIC_RELEASE); }
private:
    bool fHeld = false;
};

class Locked {
public:
    explicit Locked (SpinLock & lock) : fLock (lock) { fLock.Lock (); }
    ~Locked () { fLock.Unlock (); }
    Locked (Locked const &) = delete;
    Locked & operator = (Locked const &) = delete;
private:
    SpinLock & fLock;
};

// Marks an open write stream failed, so that closing it leaves the file as it was: a writer that
// gives up part-way (a property list that can't be encoded) says so here.
void FailWriteStream (PLWriteStreamRef stream);

}

#endif
