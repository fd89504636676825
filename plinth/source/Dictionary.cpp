// Dictionaries and sets over the hash table. Both keep a copy of the callbacks they were made with
// for life; a set is a table whose entries have no values.
#include "HashTable.h"
#include "Describe.h"
#include "PropertyList.h"

#include <cstdlib>
#include <new>

using namespace Plinth;

namespace Plinth {

uint32_t HashTable::RoomFor (int64_t count)
{
    if (count <= 0 || count > 0x30000000)
        return 0;
    uint32_t capacity = 2;
    while (uint64_t (count) * 4 > uint64_t (capacity) * 3)
        capacity *= 2;
    return capacity;
}

void HashTable::Start (Slot * room, uint32_t capacity)
{
    fSlots = capacity != 0 ? room : nullptr;
    fCapacity = capacity;
    fShift = uint8_t (capacity != 0 ? 32 - __builtin_ctz (capacity) : 32);
}

HashTable::Slot * HashTable::PrepareInsert (uint32_t hash, PLAllocatorRef allocator)
{
    if ((int64_t (fCount) + 1) * 4 > int64_t (fCapacity) * 3 && ! Grow (allocator))
        return nullptr;
    Slot * slot = Place (hash);
    slot->fHash = hash;
    return slot;
}

// Robin Hood placement: the new entry takes the first slot whose entry is nearer its home than
// the new one would be there, and the run from that slot on moves one slot further. Entries of a
// run stay in the order of their homes, so that no entry stands much further from home than the
// others (the longest probe stays near the logarithm of the count) and Find stops early.
HashTable::Slot * HashTable::Place (uint32_t hash)
{
    uint32_t mask = fCapacity - 1;
    uint32_t i = Home (hash);
    for (uint32_t distance = 0; fSlots [i].fKey != nullptr && Distance (i) >= distance; ++distance)
        i = (i + 1) & mask;
    uint32_t end = i;
    while (fSlots [end].fKey != nullptr)
        end = (end + 1) & mask;
    for (; end != i; end = (end - 1) & mask)
        fSlots [end] = fSlots [(end - 1) & mask];
    fSlots [i] = Slot {};
    return &fSlots [i];
}

bool HashTable::Grow (PLAllocatorRef allocator)
{
    if (fCapacity >= 0x40000000u)
        return false;
    uint32_t capacity = fCapacity == 0 ? 8 : fCapacity * 2;
    Slot * slots = static_cast<Slot *> (Allocate (allocator, capacity * sizeof (Slot)));
    if (slots == nullptr)
        return false;
    std::memset (slots, 0, capacity * sizeof (Slot));
    Slot * old = fSlots;
    uint32_t oldCapacity = fCapacity;
    bool oldOwnBlock = fOwnBlock;
    fSlots = slots;
    fCapacity = capacity;
    fShift = uint8_t (32 - __builtin_ctz (capacity));
    fOwnBlock = true;
    for (uint32_t k = 0; k < oldCapacity; ++k)
        if (old [k].fKey != nullptr)
            *Place (old [k].fHash) = old [k];
    if (oldOwnBlock)
        Deallocate (allocator, old);
    return true;
}

void HashTable::Remove (Slot * slot)
{
    uint32_t mask = fCapacity - 1;
    uint32_t hole = uint32_t (slot - fSlots);
    // Backward shift: an entry further along moves into the hole when the hole lies on its probe
    // path, that is, between its home slot and where it stands.
    for (uint32_t next = (hole + 1) & mask; fSlots [next].fKey != nullptr; next = (next + 1) & mask) {
        uint32_t home = Home (fSlots [next].fHash);
        if (((next - home) & mask) >= ((next - hole) & mask)) {
            fSlots [hole] = fSlots [next];
            hole = next;
        }
    }
    fSlots [hole] = Slot {};
    --fCount;
}

void HashTable::Clear (PLAllocatorRef allocator)
{
    fCount = 0;
    if (! fOwnBlock) {
        if (fCapacity != 0)
            std::memset (fSlots, 0, fCapacity * sizeof (Slot));
        return;
    }
    Deallocate (allocator, fSlots);
    fSlots = nullptr;
    fCapacity = 0;
    fShift = 32;
    fOwnBlock = false;
}

}

// A dictionary or a set is one allocation: the object, copies of its callbacks when they are not
// shared constants, then the table's starting room.
struct __PLDictionary : Object {
    HashTable fTable;
    PLDictionaryKeyCallBacks const * fKeys;
    PLDictionaryValueCallBacks const * fValues;
    bool fMutable;

    KeyCallBacks Lookup () const { return KeyCallBacks { fKeys->equal, fKeys->hash }; }
};

struct __PLSet : Object {
    HashTable fTable;
    PLSetCallBacks const * fCallBacks;
    bool fMutable;

    KeyCallBacks Lookup () const { return KeyCallBacks { fCallBacks->equal, fCallBacks->hash }; }
};

namespace {

PLDictionaryKeyCallBacks const kNoKeyCallBacks = {};
PLDictionaryValueCallBacks const kNoValueCallBacks = {};

void const * RetainWith (PLRetainCallBack retain, PLAllocatorRef allocator, void const * value)
{
    return retain != nullptr ? retain (allocator, value) : value;
}

void ReleaseWith (PLReleaseCallBack release, PLAllocatorRef allocator, void const * value)
{
    if (release != nullptr)
        release (allocator, value);
}

// Dictionaries

void ReleaseEntries (__PLDictionary * d)
{
    for (uint32_t i = 0; i < d->fTable.Capacity (); ++i) {
        HashTable::Slot & slot = d->fTable.At (i);
        if (slot.fKey != nullptr) {
            ReleaseWith (d->fKeys->release, d->fAllocator, slot.fKey);
            ReleaseWith (d->fValues->release, d->fAllocator, slot.fValue);
        }
    }
}

void FinalizeDictionary (Object * object)
{
    __PLDictionary * d = static_cast<__PLDictionary *> (object);
    ReleaseEntries (d);
    d->fTable.Free (d->fAllocator);
}

bool ValuesEqual (PLDictionaryValueCallBacks const & callBacks, void const * x, void const * y)
{
    return x == y || (callBacks.equal != nullptr && callBacks.equal (x, y));
}

bool EqualDictionaries (Object const * x, Object const * y)
{
    __PLDictionary const * a = static_cast<__PLDictionary const *> (x);
    __PLDictionary const * b = static_cast<__PLDictionary const *> (y);
    if (a->fTable.Count () != b->fTable.Count ())
        return false;
    for (uint32_t i = 0; i < a->fTable.Capacity (); ++i) {
        HashTable::Slot const & slot = a->fTable.At (i);
        if (slot.fKey == nullptr)
            continue;
        HashTable::Slot * other = b->fTable.Find (slot.fKey, uint32_t (b->Lookup ().Hash (slot.fKey)), b->Lookup ());
        if (other == nullptr || ! ValuesEqual (*a->fValues, slot.fValue, other->fValue))
            return false;
    }
    return true;
}

PLHashCode HashDictionary (Object const * object)
{
    return PLHashCode (static_cast<__PLDictionary const *> (object)->fTable.Count ());
}

// Entries with string keys in code-point order, as the writers put them: the table's order
// follows the process's hash key and would differ from run to run.
PLStringRef DescribeDictionary (Object const * object)
{
    __PLDictionary const * d = static_cast<__PLDictionary const *> (object);
    std::size_t count = std::size_t (d->fTable.Count ());
    void const ** entries = static_cast<void const **> (std::malloc ((2 * count + 1) * sizeof (void const *)));
    if (entries == nullptr)
        return nullptr;
    // Unsorted with string keys only, the sort ran out of memory.
    bool sorted = SortedEntries (d, entries, entries + count), strings = true;
    for (std::size_t i = 0; i < count; ++i)
        strings = strings && PLGetTypeID (entries [i]) == kStringType;
    if (! sorted && strings) {
        std::free (entries);
        return nullptr;
    }
    UnitBuffer text;
    text.AppendASCII ("{\n");
    for (std::size_t i = 0; i < count; ++i) {
        text.AppendASCII ("    ");
        AppendDescription (text, entries [i], d->fKeys->copyDescription);
        text.AppendASCII (" = ");
        AppendDescription (text, entries [count + i], d->fValues->copyDescription);
        text.AppendASCII (";\n");
    }
    std::free (entries);
    text.AppendASCII ("}");
    return text.CreateString (kPLAllocatorDefault);
}

Class const kDictionaryClass = { kDictionaryType, "PLDictionary", FinalizeDictionary, EqualDictionaries,
    HashDictionary, DescribeDictionary };

__PLDictionary * AsDictionary (void const * object) { return As<__PLDictionary> (object, kDictionaryType); }

// An empty dictionary with room in its block for `count` entries.
__PLDictionary * MakeDictionary (PLAllocatorRef allocator, PLDictionaryKeyCallBacks const * keyCallBacks,
    PLDictionaryValueCallBacks const * valueCallBacks, bool isMutable, int64_t count)
{
    uint32_t room = HashTable::RoomFor (count);
    std::size_t size = sizeof (__PLDictionary)
        + CallBacksCopySize (keyCallBacks, kPLTypeDictionaryKeyCallBacks, kNoKeyCallBacks)
        + CallBacksCopySize (valueCallBacks, kPLTypeDictionaryValueCallBacks, kNoValueCallBacks)
        + room * sizeof (HashTable::Slot);
    __PLDictionary * d = NewObject<__PLDictionary> (allocator, kDictionaryClass, size);
    if (d == nullptr)
        return nullptr;
    unsigned char * next = reinterpret_cast<unsigned char *> (d + 1);
    d->fKeys = KeepCallBacks (keyCallBacks, kPLTypeDictionaryKeyCallBacks, kNoKeyCallBacks, next);
    d->fValues = KeepCallBacks (valueCallBacks, kPLTypeDictionaryValueCallBacks, kNoValueCallBacks, next);
    new (&d->fTable) HashTable ();
    d->fTable.Start (reinterpret_cast<HashTable::Slot *> (next), room);
    d->fMutable = isMutable;
    return d;
}

// Adds or replaces; false when memory ran out. Adopting, the dictionary takes over a reference to
// the key and the value instead of retaining them, and gives them back when they are not stored.
bool Store (__PLDictionary * d, void const * key, void const * value, bool adopt = false)
{
    if (key == nullptr) {
        if (adopt)
            ReleaseWith (d->fValues->release, d->fAllocator, value);
        return true;
    }
    uint32_t hash = uint32_t (d->Lookup ().Hash (key));
    HashTable::Slot * slot = d->fTable.Find (key, hash, d->Lookup ());
    // Take the new counts before giving up the old ones: the new key or value may be the old.
    void const * newKey = adopt ? key : RetainWith (d->fKeys->retain, d->fAllocator, key);
    void const * newValue = adopt ? value : RetainWith (d->fValues->retain, d->fAllocator, value);
    if (slot != nullptr) {
        void const * oldKey = slot->fKey;
        void const * oldValue = slot->fValue;
        slot->fKey = newKey;
        slot->fValue = newValue;
        ReleaseWith (d->fKeys->release, d->fAllocator, oldKey);
        ReleaseWith (d->fValues->release, d->fAllocator, oldValue);
        return true;
    }
    slot = d->fTable.PrepareInsert (hash, d->fAllocator);
    if (slot == nullptr) {
        ReleaseWith (d->fKeys->release, d->fAllocator, newKey);
        ReleaseWith (d->fValues->release, d->fAllocator, newValue);
        return false;
    }
    d->fTable.Insert (slot, newKey, newValue);
    return true;
}

// Sets

void FinalizeSet (Object * object)
{
    __PLSet * s = static_cast<__PLSet *> (object);
    for (uint32_t i = 0; i < s->fTable.Capacity (); ++i)
        if (s->fTable.At (i).fKey != nullptr)
            ReleaseWith (s->fCallBacks->release, s->fAllocator, s->fTable.At (i).fKey);
    s->fTable.Free (s->fAllocator);
}

bool EqualSets (Object const * x, Object const * y)
{
    __PLSet const * a = static_cast<__PLSet const *> (x);
    __PLSet const * b = static_cast<__PLSet const *> (y);
    if (a->fTable.Count () != b->fTable.Count ())
        return false;
    for (uint32_t i = 0; i < a->fTable.Capacity (); ++i) {
        void const * member = a->fTable.At (i).fKey;
        if (member != nullptr && b->fTable.Find (member, uint32_t (b->Lookup ().Hash (member)), b->Lookup ()) == nullptr)
            return false;
    }
    return true;
}

PLHashCode HashSet (Object const * object)
{
    return PLHashCode (static_cast<__PLSet const *> (object)->fTable.Count ());
}

PLStringRef DescribeSet (Object const * object)
{
    __PLSet const * s = static_cast<__PLSet const *> (object);
    UnitBuffer text;
    text.AppendASCII ("{(\n");
    for (uint32_t i = 0; i < s->fTable.Capacity (); ++i)
        if (s->fTable.At (i).fKey != nullptr) {
            text.AppendASCII ("    ");
            AppendDescription (text, s->fTable.At (i).fKey, s->fCallBacks->copyDescription);
            text.AppendASCII (",\n");
        }
    text.AppendASCII (")}");
    return text.CreateString (kPLAllocatorDefault);
}

Class const kSetClass = { kSetType, "PLSet", FinalizeSet, EqualSets, HashSet, DescribeSet };

__PLSet * AsSet (void const * object) { return As<__PLSet> (object, kSetType); }

// An empty set with room in its block for `count` members.
__PLSet * MakeSet (PLAllocatorRef allocator, PLSetCallBacks const * callBacks, bool isMutable, int64_t count)
{
    uint32_t room = HashTable::RoomFor (count);
    std::size_t size = sizeof (__PLSet) + CallBacksCopySize (callBacks, kPLTypeSetCallBacks, kNoKeyCallBacks)
        + room * sizeof (HashTable::Slot);
    __PLSet * s = NewObject<__PLSet> (allocator, kSetClass, size);
    if (s == nullptr)
        return nullptr;
    unsigned char * next = reinterpret_cast<unsigned char *> (s + 1);
    s->fCallBacks = KeepCallBacks (callBacks, kPLTypeSetCallBacks, kNoKeyCallBacks, next);
    new (&s->fTable) HashTable ();
    s->fTable.Start (reinterpret_cast<HashTable::Slot *> (next), room);
    s->fMutable = isMutable;
    return s;
}

bool AddMember (__PLSet * s, void const * value)
{
    if (value == nullptr)
        return true;
    uint32_t hash = uint32_t (s->Lookup ().Hash (value));
    if (s->fTable.Find (value, hash, s->Lookup ()) != nullptr)
        return true;
    // Retained first: between PrepareInsert and Insert the table has a hole that no callback may see.
    void const * member = RetainWith (s->fCallBacks->retain, s->fAllocator, value);
    HashTable::Slot * slot = s->fTable.PrepareInsert (hash, s->fAllocator);
    if (slot == nullptr) {
        ReleaseWith (s->fCallBacks->release, s->fAllocator, member);
        return false;
    }
    s->fTable.Insert (slot, member, nullptr);
    return true;
}

}

namespace Plinth {

// The immutable empty dictionary of the readers, one immortal object as kEmptyArray is.
__PLDictionary const kEmptyDictionary { { &kDictionaryClass, kImmortal, nullptr }, {}, &kPLTypeDictionaryKeyCallBacks,
    &kPLTypeDictionaryValueCallBacks, false };

PLDictionaryRef AdoptDictionary (PLAllocatorRef allocator, void const ** keys, void const ** values, PLIndex count,
    bool isMutable, PLIndex step)
{
    if (count == 0 && ! isMutable && ResolveAllocator (allocator) == kPLAllocatorDefault)
        return &kEmptyDictionary;
    __PLDictionary * d = MakeDictionary (allocator, &kPLTypeDictionaryKeyCallBacks, &kPLTypeDictionaryValueCallBacks,
        isMutable, count);
    for (PLIndex i = 0; i < count; ++i)
        if (d == nullptr || ! Store (d, keys [i * step], values [i * step], true)) {
            for (PLIndex rest = d == nullptr ? i : i + 1; rest < count; ++rest) {
                PLRelease (keys [rest * step]);
                PLRelease (values [rest * step]);
            }
            PLRelease (d);
            return nullptr;
        }
    return d;
}

void ApplyToEntries (PLDictionaryRef dictionary, void (*apply) (void const * key, void const * value, void * context),
    void * context)
{
    __PLDictionary const * d = AsDictionary (dictionary);
    for (uint32_t i = 0; d != nullptr && i < d->fTable.Capacity (); ++i)
        if (d->fTable.At (i).fKey != nullptr)
            apply (d->fTable.At (i).fKey, d->fTable.At (i).fValue, context);
}

bool SetDictionaryValue (PLMutableDictionaryRef dictionary, void const * key, void const * value)
{
    __PLDictionary * d = AsDictionary (dictionary);
    return d != nullptr && d->fMutable && Store (d, key, value);
}

}

extern "C" {

PLTypeID PLDictionaryGetTypeID (void) { return kDictionaryType; }

PLMutableDictionaryRef PLDictionaryCreateMutable (PLAllocatorRef allocator, PLIndex capacity,
    PLDictionaryKeyCallBacks const * keyCallBacks, PLDictionaryValueCallBacks const * valueCallBacks)
{
    return MakeDictionary (allocator, keyCallBacks, valueCallBacks, true, capacity);
}

PLDictionaryRef PLDictionaryCreate (PLAllocatorRef allocator, void const ** keys, void const ** values, PLIndex count,
    PLDictionaryKeyCallBacks const * keyCallBacks, PLDictionaryValueCallBacks const * valueCallBacks)
{
    if (count < 0 || (count > 0 && (keys == nullptr || values == nullptr)))
        return nullptr;
    __PLDictionary * d = MakeDictionary (allocator, keyCallBacks, valueCallBacks, false, count);
    if (d == nullptr)
        return nullptr;
    for (PLIndex i = 0; i < count; ++i)
        if (! Store (d, keys [i], values [i])) {
            PLRelease (d);
            return nullptr;
        }
    return d;
}

PLMutableDictionaryRef PLDictionaryCreateMutableCopy (PLAllocatorRef allocator, PLIndex capacity,
    PLDictionaryRef dictionary)
{
    __PLDictionary const * source = AsDictionary (dictionary);
    if (source == nullptr)
        return nullptr;
    __PLDictionary * d = MakeDictionary (allocator, source->fKeys, source->fValues, true,
        capacity > source->fTable.Count () ? capacity : source->fTable.Count ());
    if (d == nullptr)
        return nullptr;
    for (uint32_t i = 0; i < source->fTable.Capacity (); ++i) {
        HashTable::Slot const & slot = source->fTable.At (i);
        if (slot.fKey != nullptr && ! Store (d, slot.fKey, slot.fValue)) {
            PLRelease (d);
            return nullptr;
        }
    }
    return d;
}

PLDictionaryRef PLDictionaryCreateCopy (PLAllocatorRef allocator, PLDictionaryRef dictionary)
{
    return Frozen (PLDictionaryCreateMutableCopy (allocator, 0, dictionary));
}

PLIndex PLDictionaryGetCount (PLDictionaryRef dictionary)
{
    __PLDictionary const * d = AsDictionary (dictionary);
    return d == nullptr ? 0 : d->fTable.Count ();
}

PLBoolean PLDictionaryGetValueIfPresent (PLDictionaryRef dictionary, void const * key, void const ** value)
{
    __PLDictionary const * d = AsDictionary (dictionary);
    if (d == nullptr || key == nullptr || d->fTable.Count () == 0)
        return false;
    HashTable::Slot * slot = d->fTable.Find (key, uint32_t (d->Lookup ().Hash (key)), d->Lookup ());
    if (slot == nullptr)
        return false;
    if (value != nullptr)
        *value = slot->fValue;
    return true;
}

PLBoolean PLDictionaryContainsKey (PLDictionaryRef dictionary, void const * key)
{
    return PLDictionaryGetValueIfPresent (dictionary, key, nullptr);
}

void const * PLDictionaryGetValue (PLDictionaryRef dictionary, void const * key)
{
    void const * value = nullptr;
    return PLDictionaryGetValueIfPresent (dictionary, key, &value) ? value : nullptr;
}

PLBoolean PLDictionaryContainsValue (PLDictionaryRef dictionary, void const * value)
{
    __PLDictionary const * d = AsDictionary (dictionary);
    if (d == nullptr)
        return false;
    for (uint32_t i = 0; i < d->fTable.Capacity (); ++i)
        if (d->fTable.At (i).fKey != nullptr && ValuesEqual (*d->fValues, d->fTable.At (i).fValue, value))
            return true;
    return false;
}

void PLDictionaryGetKeysAndValues (PLDictionaryRef dictionary, void const ** keys, void const ** values)
{
    __PLDictionary const * d = AsDictionary (dictionary);
    if (d == nullptr)
        return;
    PLIndex k = 0;
    for (uint32_t i = 0; i < d->fTable.Capacity (); ++i) {
        HashTable::Slot const & slot = d->fTable.At (i);
        if (slot.fKey == nullptr)
            continue;
        if (keys != nullptr)
            keys [k] = slot.fKey;
        if (values != nullptr)
            values [k] = slot.fValue;
        ++k;
    }
}

void PLDictionarySetValue (PLMutableDictionaryRef dictionary, void const * key, void const * value)
{
    SetDictionaryValue (dictionary, key, value);
}

void PLDictionaryAddValue (PLMutableDictionaryRef dictionary, void const * key, void const * value)
{
    if (! PLDictionaryContainsKey (dictionary, key))
        PLDictionarySetValue (dictionary, key, value);
}

void PLDictionaryRemoveValue (PLMutableDictionaryRef dictionary, void const * key)
{
    __PLDictionary * d = AsDictionary (dictionary);
    if (d == nullptr || ! d->fMutable || key == nullptr)
        return;
    HashTable::Slot * slot = d->fTable.Find (key, uint32_t (d->Lookup ().Hash (key)), d->Lookup ());
    if (slot == nullptr)
        return;
    void const * oldKey = slot->fKey;
    void const * oldValue = slot->fValue;
    d->fTable.Remove (slot);
    // Released after the table is consistent: a release may free an object that a callback reads.
    ReleaseWith (d->fKeys->release, d->fAllocator, oldKey);
    ReleaseWith (d->fValues->release, d->fAllocator, oldValue);
}

void PLDictionaryRemoveAllValues (PLMutableDictionaryRef dictionary)
{
    __PLDictionary * d = AsDictionary (dictionary);
    if (d == nullptr || ! d->fMutable)
        return;
    ReleaseEntries (d);
    d->fTable.Clear (d->fAllocator);
}

PLTypeID PLSetGetTypeID (void) { return kSetType; }

PLMutableSetRef PLSetCreateMutable (PLAllocatorRef allocator, PLIndex capacity, PLSetCallBacks const * callBacks)
{
    return MakeSet (allocator, callBacks, true, capacity);
}

PLSetRef PLSetCreate (PLAllocatorRef allocator, void const ** values, PLIndex count, PLSetCallBacks const * callBacks)
{
    if (count < 0 || (count > 0 && values == nullptr))
        return nullptr;
    __PLSet * s = MakeSet (allocator, callBacks, false, count);
    if (s == nullptr)
        return nullptr;
    for (PLIndex i = 0; i < count; ++i)
        if (! AddMember (s, values [i])) {
            PLRelease (s);
            return nullptr;
        }
    return s;
}

PLMutableSetRef PLSetCreateMutableCopy (PLAllocatorRef allocator, PLIndex capacity, PLSetRef set)
{
    __PLSet const * source = AsSet (set);
    if (source == nullptr)
        return nullptr;
    __PLSet * s = MakeSet (allocator, source->fCallBacks, true,
        capacity > source->fTable.Count () ? capacity : source->fTable.Count ());
    if (s == nullptr)
        return nullptr;
    for (uint32_t i = 0; i < source->fTable.Capacity (); ++i)
        if (source->fTable.At (i).fKey != nullptr && ! AddMember (s, source->fTable.At (i).fKey)) {
            PLRelease (s);
            return nullptr;
        }
    return s;
}

PLSetRef PLSetCreateCopy (PLAllocatorRef allocator, PLSetRef set)
{
    return Frozen (PLSetCreateMutableCopy (allocator, 0, set));
}

PLIndex PLSetGetCount (PLSetRef set)
{
    __PLSet const * s = AsSet (set);
    return s == nullptr ? 0 : s->fTable.Count ();
}

void const * PLSetGetValue (PLSetRef set, void const * value)
{
    __PLSet const * s = AsSet (set);
    if (s == nullptr || value == nullptr || s->fTable.Count () == 0)
        return nullptr;
    HashTable::Slot * slot = s->fTable.Find (value, uint32_t (s->Lookup ().Hash (value)), s->Lookup ());
    return slot == nullptr ? nullptr : slot->fKey;
}

PLBoolean PLSetContainsValue (PLSetRef set, void const * value)
{
    return PLSetGetValue (set, value) != nullptr;
}

void PLSetGetValues (PLSetRef set, void const ** values)
{
    __PLSet const * s = AsSet (set);
    if (s == nullptr || values == nullptr)
        return;
    PLIndex k = 0;
    for (uint32_t i = 0; i < s->fTable.Capacity (); ++i)
        if (s->fTable.At (i).fKey != nullptr)
            values [k++] = s->fTable.At (i).fKey;
}

void PLSetAddValue (PLMutableSetRef set, void const * value)
{
    __PLSet * s = AsSet (set);
    if (s != nullptr && s->fMutable)
        AddMember (s, value);
}

void PLSetRemoveValue (PLMutableSetRef set, void const * value)
{
    __PLSet * s = AsSet (set);
    if (s == nullptr || ! s->fMutable || value == nullptr)
        return;
    HashTable::Slot * slot = s->fTable.Find (value, uint32_t (s->Lookup ().Hash (value)), s->Lookup ());
    if (slot == nullptr)
        return;
    void const * member = slot->fKey;
    s->fTable.Remove (slot);
    ReleaseWith (s->fCallBacks->release, s->fAllocator, member);
}

void PLSetRemoveAllValues (PLMutableSetRef set)
{
    __PLSet * s = AsSet (set);
    if (s == nullptr || ! s->fMutable)
        return;
    for (uint32_t i = 0; i < s->fTable.Capacity (); ++i)
        if (s->fTable.At (i).fKey != nullptr)
            ReleaseWith (s->fCallBacks->release, s->fAllocator, s->fTable.At (i).fKey);
    s->fTable.Clear (s->fAllocator);
}

}
