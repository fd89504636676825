// The hash table behind dictionaries and sets: open addressing with linear probing and Robin Hood
// placement over a power-of-two number of slots, at most three quarters full, and deletion by shifting the following entries
// back, so that no tombstones slow later probes. Every entry keeps its full hash, so that growing
// never calls back into the callbacks and most mismatches are rejected without an equality call.
// Keys are never null: a null key marks a free slot.
//
// A table starts on the room its owner's block has for it (an immutable container is made with
// room for all its entries, a mutable one for the capacity asked), so that a container is one
// allocation; a table that outgrows that room moves to a block of its own. The owner passes its
// allocator to the calls that allocate or free.
#ifndef PLINTH_HASH_TABLE_H
#define PLINTH_HASH_TABLE_H

#include "Internal.h"

namespace Plinth {

struct KeyCallBacks {
    PLEqualCallBack fEqual;
    PLHashCallBack fHash;

    PLHashCode Hash (void const * key) const
    {
        return fHash != nullptr ? fHash (key) : PLHashCode (reinterpret_cast<std::uintptr_t> (key) >> 2);
    }
    bool Equal (void const * x, void const * y) const
    {
        return x == y || (fEqual != nullptr && fEqual (x, y));
    }
};

class HashTable {
public:
    struct Slot {
        void const * fKey;
        void const * fValue;
        uint32_t fHash;
    };

    HashTable () = default;
    HashTable (HashTable const &) = delete;
    HashTable & operator = (HashTable const &) = delete;

    // The slots a table for `count` entries starts with: 0 for none, else the smallest power of
    // two, at least 2, that holds them at most three quarters full; 0 when `count` is absurd.
    static uint32_t RoomFor (int64_t count);
    // Starts on `capacity` zeroed slots (RoomFor's result) at `room`, which the table never frees.
    void Start (Slot * room, uint32_t capacity);
    // Frees the table's own block, if it has one; the table is then unusable.
    void Free (PLAllocatorRef allocator)
    {
        if (fOwnBlock)
            Deallocate (allocator, fSlots);
    }
    PLIndex Count () const { return fCount; }
    uint32_t Capacity () const { return fCapacity; }
    Slot const & At (uint32_t index) const { return fSlots [index]; }
    Slot & At (uint32_t index) { return fSlots [index]; }

    // The slot holding a key equal to `key`, whose hash is `hash`, or null.
    Slot * Find (void const * key, uint32_t hash, KeyCallBacks const & callBacks) const
    {
        if (fCount == 0 || key == nullptr)
            return nullptr;
        uint32_t distance = 0;
        for (uint32_t i = Home (hash);; i = (i + 1) & (fCapacity - 1), ++distance) {
            Slot & slot = fSlots [i];
            if (slot.fKey == nullptr)
                return nullptr;
            if (slot.fHash == hash && callBacks.Equal (slot.fKey, key))
                return &slot;
            // Past an entry nearer its home than the key would be, the key can't stand (Robin Hood).
            if (Distance (i) < distance)
                return nullptr;
        }
    }

    // A free slot for a key of `hash` that isn't in the table, with room made first; null when
    // memory ran out.
    Slot * PrepareInsert (uint32_t hash, PLAllocatorRef allocator);
    // Fills the slot that PrepareInsert gave.
    void Insert (Slot * slot, void const * key, void const * value)
    {
        // The hash was stored by PrepareInsert.
        slot->fKey = key;
        slot->fValue = value;
        ++fCount;
    }
    // Empties `slot` and moves the entries behind it into place; the caller has released its contents.
    void Remove (Slot * slot);
    // Empties the table: slots in the owner's block stay, a block of its own is freed.
    void Clear (PLAllocatorRef allocator);

private:
    uint32_t Home (uint32_t hash) const { return (hash * 0x9E3779B1u) >> fShift; }
    // How far the entry at `index` stands from its home slot.
    uint32_t Distance (uint32_t index) const { return (index - Home (fSlots [index].fHash)) & (fCapacity - 1); }
    Slot * Place (uint32_t hash);
    bool Grow (PLAllocatorRef allocator);

    Slot * fSlots = nullptr;
    uint32_t fCapacity = 0;
    PLIndex fCount = 0;
    uint8_t fShift = 32;
    bool fOwnBlock = false;   // fSlots is a block of the table's own
};

}

#endif
