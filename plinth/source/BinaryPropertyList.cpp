// The binary property-list format ("bplist00"), as plistlib reads and writes it: objects back to
// back after the magic, an offset table, and a 32-byte trailer; every number big-endian.
//
// The reader takes untrusted bytes. Before any object is read, the trailer and the whole offset
// table are checked, with overflow-checked arithmetic, so that every object starts inside the
// object area; every object's extent is then checked against that area before it is read or
// anything is allocated for it. References are checked against the object count when read, a
// reference to an object that is being read is a cycle, and nesting is capped. Objects are
// decoded once and shared when referenced again; where the result must not share them (mutable
// containers and leaves), the elements placed in all containers may not outnumber the input's
// bytes, so that a small file of shared references cannot expand into an exponential tree. Where
// they are shared, the result is small but every walk of it as a tree (a writer, a description,
// an equality) costs its expanded size, and a writer of indented text also pays each line's
// indentation, which grows with the depth: the reader counts, saturating, each object's weight as
// the lines its text takes (one per object, plus one per 12 bytes of data, which the XML writer
// puts at most 16 Base64 characters to a line) and their cost (one per object, plus a string's
// units or data's bytes, plus for a container its elements' costs and one per line of theirs for
// the indentation), and refuses a document costing more than kExpansionFloor + kExpansionFactor x
// its size, or than 2^32 - 1 (eight bytes per object). Files that plistlib writes never share
// containers and are rarely nested deeper than a few levels, and stay far below that.
//
// Every object read is handed to its container as a reference the container takes over: the first
// use of a decoded object is the reference it was made with, and only later uses of a shared one
// retain it. The reader's cache of decoded objects holds no references of its own; what it points
// to stays alive in the containers of the result. After a failure no object is read again, and
// what was made is released with the containers that hold it.
//
// The writer numbers objects depth-first from the top, merges equal strings, data, integers,
// reals, dates and booleans into one object each (never containers, and never values of two
// kinds), writes dictionary keys in code-point order and chooses the widths by plistlib's rules:
// the same bytes as plistlib for the same value.
#include "ByteReader.h"
#include "PropertyList.h"

#include <algorithm>
#include <cmath>

using namespace Plinth;

namespace {

constexpr uint8_t kMagic [8] = { 'b', 'p', 'l', 'i', 's', 't', '0', '0' };
constexpr std::size_t kTrailerSize = 32;
constexpr uint32_t kExpansionFloor = uint32_t (1) << 20;
constexpr uint64_t kExpansionFactor = 32;

uint32_t SaturatingAdd (uint32_t x, uint64_t y)
{
    return y >= uint64_t (UINT32_MAX - x) ? UINT32_MAX : uint32_t (x + y);
}

// What an object read costs every walk of the tree it stands for (see the top of this file).
struct Weight {
    uint32_t fLines = 1;
    uint32_t fCost = 1;
};

// A zeroed array of `count` elements, freed with the owner.
template <typename T>
class Scratch {
public:
    Scratch () = default;
    ~Scratch () { std::free (fItems); }
    Scratch (Scratch const &) = delete;
    Scratch & operator = (Scratch const &) = delete;
    bool Allocate (uint64_t count)
    {
        std::free (fItems);
        fItems = count <= SIZE_MAX / sizeof (T) ? static_cast<T *> (std::calloc (std::size_t (count) + 1, sizeof (T))) : nullptr;
        return fItems != nullptr;
    }
    T & operator [] (uint64_t index) { return fItems [index]; }
    T * Items () { return fItems; }
private:
    T * fItems = nullptr;
};

// ---- Reading ----------------------------------------------------------------------------------

class BinaryReader {
public:
    BinaryReader (uint8_t const * bytes, std::size_t size, ReadOptions const & options, ParseFailure & failure)
        : fInput (bytes, size), fObjects (nullptr, 0), fOptions (options), fFailure (failure) {}
    ~BinaryReader ();

    PLTypeRef Read ();

private:
    bool ReadTrailer ();
    bool CheckOffsetTable ();
    PLTypeRef ReadObject (uint64_t index, int depth, Weight & weight);
    PLTypeRef Decode (uint64_t offset, int depth, Weight & weight);
    bool Count (uint64_t offset, uint8_t marker, uint64_t & count, uint64_t & payload);
    PLTypeRef ReadInteger (uint64_t offset, unsigned width);
    PLTypeRef ReadString (uint64_t offset, uint64_t count, bool wide);
    PLTypeRef ReadContainer (uint64_t offset, uint64_t count, bool dictionary, int depth, Weight & weight);
    bool Shareable (PLTypeRef value) const;
    bool Push (void const * item);
    void Pop (std::size_t first);
    PLTypeRef Fail (char const * reason, uint64_t offset)
    {
        fFailure.Fail (reason, offset);
        return nullptr;
    }

    ByteReader fInput;
    ByteReader fObjects;       // the object area: from the start to the offset table
    ReadOptions fOptions;
    ParseFailure & fFailure;
    unsigned fOffsetWidth = 0;
    unsigned fReferenceWidth = 0;
    uint64_t fCount = 0;
    uint64_t fTop = 0;
    uint64_t fTableStart = 0;
    // Each object decoded and shareable, with a reference of the reader's own, and kOnPath for
    // those being decoded: a reference to one of them is a cycle. The reader's reference keeps an
    // object alive when the result lets go of it (a dictionary with a key twice keeps only the
    // last value), so that a later reference to it never meets a freed object.
    Scratch<PLTypeRef> fDecoded;
    Scratch<Weight> fWeights;      // of the objects in fDecoded
    uint32_t fWeightBound = 0;
    uint64_t fPlaced = 0;          // elements placed in containers
    Scratch<PLUniChar> fUnits;     // conversion room of strings
    uint64_t fUnitsCapacity = 0;
    void const ** fStack = nullptr;   // elements of the containers being read, innermost last
    std::size_t fStackCount = 0;
    std::size_t fStackCapacity = 0;
};

char const kOnPathMark = 0;
PLTypeRef const kOnPath = &kOnPathMark;

BinaryReader::~BinaryReader ()
{
    for (uint64_t i = 0; fDecoded.Items () != nullptr && i < fCount; ++i)
        if (fDecoded [i] != nullptr && fDecoded [i] != kOnPath)
            PLRelease (fDecoded [i]);
    std::free (fStack);
}

bool BinaryReader::Push (void const * item)
{
    if (fStackCount == fStackCapacity) {
        std::size_t capacity = fStackCapacity == 0 ? 256 : fStackCapacity * 2;
        void const ** grown = capacity <= SIZE_MAX / sizeof (void *)
            ? static_cast<void const **> (std::realloc (fStack, capacity * sizeof (void *))) : nullptr;
        if (grown == nullptr)
            return false;
        fStack = grown;
        fStackCapacity = capacity;
    }
    fStack [fStackCount++] = item;
    return true;
}

// Releases the elements from `first` on, of a container that won't be made.
void BinaryReader::Pop (std::size_t first)
{
    for (std::size_t i = first; i < fStackCount; ++i)
        PLRelease (fStack [i]);
    fStackCount = first;
}

PLTypeRef BinaryReader::Read ()
{
    if (! ReadTrailer () || ! CheckOffsetTable ())
        return nullptr;
    if (! fDecoded.Allocate (fCount) || ! fWeights.Allocate (fCount))
        return Fail ("out of memory", 0);
    // Saturated, the bound is UINT32_MAX - 1, which a weight that saturated exceeds.
    fWeightBound = SaturatingAdd (kExpansionFloor, uint64_t (fInput.Size ()) * kExpansionFactor);
    fWeightBound -= fWeightBound == UINT32_MAX ? 1 : 0;
    Weight weight;
    return ReadObject (fTop, 0, weight);
}

bool BinaryReader::ReadTrailer ()
{
    std::size_t size = fInput.Size ();
    uint8_t const * magic = fInput.Span (0, sizeof kMagic);
    if (magic == nullptr || std::memcmp (magic, kMagic, sizeof kMagic) != 0)
        return fFailure.Fail ("not a binary property list (no bplist00 magic)", 0);
    // The smallest file: the magic, one one-byte object, one one-byte offset and the trailer.
    if (size < sizeof kMagic + 2 + kTrailerSize)
        return fFailure.Fail ("file too short for a binary property list", size);
    uint64_t trailer = size - kTrailerSize;
    uint8_t offsetWidth = 0, referenceWidth = 0;
    fInput.Byte (trailer + 6, offsetWidth);
    fInput.Byte (trailer + 7, referenceWidth);
    fInput.Unsigned (trailer + 8, 8, fCount);
    fInput.Unsigned (trailer + 16, 8, fTop);
    fInput.Unsigned (trailer + 24, 8, fTableStart);
    if (offsetWidth < 1 || offsetWidth > 8 || referenceWidth < 1 || referenceWidth > 8)
        return fFailure.Fail ("trailer: offset or reference width outside 1 to 8", trailer + 6);
    fOffsetWidth = offsetWidth;
    fReferenceWidth = referenceWidth;
    if (fCount == 0)
        return fFailure.Fail ("trailer: no objects", trailer + 8);
    if (fTop >= fCount)
        return fFailure.Fail ("trailer: top object outside the object count", trailer + 16);
    uint64_t tableSize, tableEnd;
    if (fTableStart < sizeof kMagic + 1 || ! CheckedMultiply (fCount, fOffsetWidth, tableSize)
        || ! CheckedAdd (fTableStart, tableSize, tableEnd) || tableEnd > trailer)
        return fFailure.Fail ("trailer: offset table not inside the file", trailer + 24);
    // A reference must be able to name every object.
    if (fReferenceWidth < 8 && (fCount - 1) >> (8 * fReferenceWidth) != 0)
        return fFailure.Fail ("trailer: references too narrow for the object count", trailer + 7);
    fObjects = fInput.Sub (0, fTableStart);
    return true;
}

bool BinaryReader::CheckOffsetTable ()
{
    for (uint64_t i = 0; i < fCount; ++i) {
        uint64_t offset = 0;
        fInput.Unsigned (fTableStart + i * fOffsetWidth, fOffsetWidth, offset);
        if (offset < sizeof kMagic || offset >= fTableStart)
            return fFailure.Fail ("offset table: object outside the object area", fTableStart + i * fOffsetWidth);
    }
    return true;
}

// The object `index`, as a reference the caller owns: made now, or retained when it was made
// before and is shareable; and its weight.
PLTypeRef BinaryReader::ReadObject (uint64_t index, int depth, Weight & weight)
{
    PLTypeRef decoded = fDecoded [index];
    weight = fWeights [index];
    if (decoded != nullptr && decoded != kOnPath)
        return PLRetain (decoded);
    uint64_t offset = 0;
    fInput.Unsigned (fTableStart + index * fOffsetWidth, fOffsetWidth, offset);
    if (decoded == kOnPath)
        return Fail ("reference cycle", offset);
    fDecoded [index] = kOnPath;
    weight = Weight ();
    PLTypeRef value = Decode (offset, depth, weight);
    if (value == nullptr)
        Fail ("out of memory", offset);    // a leaf's creation failing names no reason of its own
    fDecoded [index] = value != nullptr && Shareable (value) ? PLRetain (value) : nullptr;
    fWeights [index] = fDecoded [index] != nullptr ? weight : Weight ();
    return value;
}

// What the result may hold more than once: everything when it is immutable; otherwise what stays
// immutable (strings, numbers, dates, booleans, and data unless leaves are mutable).
bool BinaryReader::Shareable (PLTypeRef value) const
{
    PLTypeID type = PLGetTypeID (value);
    if (type == kArrayType || type == kDictionaryType)
        return ! fOptions.fMutableContainers;
    return type != kDataType || ! fOptions.fMutableLeaves;
}

PLTypeRef BinaryReader::Decode (uint64_t offset, int depth, Weight & weight)
{
    uint8_t marker = 0;
    fObjects.Byte (offset, marker);
    uint8_t low = marker & 0x0F;
    switch (marker >> 4) {
    case 0x0:
        if (marker == 0x08 || marker == 0x09)
            return marker == 0x09 ? kPLBooleanTrue : kPLBooleanFalse;
        return Fail (marker == 0x00 ? "null objects are not supported" : "unknown object marker", offset);
    case 0x1:
        if (low > 4)
            return Fail ("integer wider than 128 bits", offset);
        return ReadInteger (offset, 1u << low);
    case 0x2: {
        uint64_t bits = 0;
        if (low != 2 && low != 3)
            return Fail ("real of an unknown width", offset);
        if (! fObjects.Unsigned (offset + 1, 1u << low, bits))
            return Fail ("real runs past the object area", offset);
        double value;
        if (low == 2) {
            uint32_t narrow = uint32_t (bits);
            float single;
            std::memcpy (&single, &narrow, sizeof single);
            value = single;
        }
        else
            std::memcpy (&value, &bits, sizeof value);
        return PLNumberCreate (fOptions.fAllocator, kPLNumberFloat64Type, &value);
    }
    case 0x3: {
        uint64_t bits = 0;
        if (marker != 0x33)
            return Fail ("date of an unknown width", offset);
        if (! fObjects.Unsigned (offset + 1, 8, bits))
            return Fail ("date runs past the object area", offset);
        double time;
        std::memcpy (&time, &bits, sizeof time);
        if (! IsDateInRange (time))
            return Fail ("date outside years 1 to 9999", offset);
        return PLDateCreate (fOptions.fAllocator, time);
    }
    case 0x4: case 0x5: case 0x6: case 0xA: case 0xD: {
        uint64_t count, payload;
        if (! Count (offset, marker, count, payload))
            return nullptr;
        weight.fCost = SaturatingAdd (weight.fCost, count);
        if (marker >> 4 == 0x4) {
            weight.fLines = SaturatingAdd (weight.fLines, count / 12);
            uint8_t const * bytes = fObjects.Span (payload, count);
            if (bytes == nullptr)
                return Fail ("data runs past the object area", offset);
            if (fOptions.fMutableLeaves) {
                PLMutableDataRef data = PLDataCreateMutable (fOptions.fAllocator, PLIndex (count));
                PLDataAppendBytes (data, bytes, PLIndex (count));
                return data;
            }
            return PLDataCreate (fOptions.fAllocator, bytes, PLIndex (count));
        }
        if (marker >> 4 == 0x5 || marker >> 4 == 0x6)
            return ReadString (payload, count, marker >> 4 == 0x6);
        return ReadContainer (payload, count, marker >> 4 == 0xD, depth, weight);
    }
    case 0x8:
        return Fail ("UID objects are not supported", offset);
    default:
        return Fail ("unknown object marker", offset);
    }
}

// The count of a data, string or container object, from its marker or the integer after it, and
// where its payload starts. The payload's extent is the caller's to check.
bool BinaryReader::Count (uint64_t offset, uint8_t marker, uint64_t & count, uint64_t & payload)
{
    count = marker & 0x0F;
    payload = offset + 1;
    if (count != 0x0F)
        return true;
    uint8_t intMarker = 0;
    if (! fObjects.Byte (offset + 1, intMarker))
        return fFailure.Fail ("count runs past the object area", offset);
    if (intMarker < 0x10 || intMarker > 0x13)
        return fFailure.Fail ("count is not an integer of 1 to 8 bytes", offset + 1);
    unsigned width = 1u << (intMarker & 0x0F);
    if (! fObjects.Unsigned (offset + 2, width, count))
        return fFailure.Fail ("count runs past the object area", offset + 1);
    if (count >> 63 != 0)
        return fFailure.Fail ("negative count", offset + 1);
    payload = offset + 2 + width;
    return true;
}

PLTypeRef BinaryReader::ReadInteger (uint64_t offset, unsigned width)
{
    uint8_t const * bytes = fObjects.Span (offset + 1, width);
    if (bytes == nullptr)
        return Fail ("integer runs past the object area", offset);
    uint64_t high = 0, low = 0;
    if (width == 16) {
        ByteReader (bytes, 16).Unsigned (0, 8, high);
        ByteReader (bytes, 16).Unsigned (8, 8, low);
        // 128 bits hold only what 64 do, as plistlib writes: 0 and an unsigned value, or a
        // negative value sign-extended.
        bool negative = high == UINT64_MAX && low >> 63 != 0;
        if (high != 0 && ! negative)
            return Fail ("integer outside -2^63 to 2^64-1", offset);
        if (high == 0 && low >> 63 != 0) {
            return PLNumberCreate (fOptions.fAllocator, kPLNumberUInt64Type, &low);
        }
    }
    else
        ByteReader (bytes, width).Unsigned (0, width, low);
    // 1, 2 and 4 bytes are unsigned, 8 bytes two's complement.
    int64_t value = int64_t (low);
    return PLNumberCreate (fOptions.fAllocator, kPLNumberSInt64Type, &value);
}

PLTypeRef BinaryReader::ReadString (uint64_t payload, uint64_t count, bool wide)
{
    uint64_t size = count;
    if ((wide && ! CheckedMultiply (count, 2, size)) || ! fObjects.Contains (payload, size))
        return Fail ("string runs past the object area", payload);
    uint8_t const * bytes = fObjects.Span (payload, size);
    if (count > fUnitsCapacity) {
        if (! fUnits.Allocate (count))
            return Fail ("out of memory", payload);
        fUnitsCapacity = count;
    }
    PLUniChar * units = fUnits.Items ();
    if (! wide) {
        for (uint64_t i = 0; i < count; ++i) {
            if (bytes [i] >= 0x80)
                return Fail ("ASCII string with a byte above 0x7F", payload + i);
            units [i] = bytes [i];
        }
    }
    else {
        for (uint64_t i = 0; i < count; ++i)
            units [i] = PLUniChar (bytes [2 * i] << 8 | bytes [2 * i + 1]);
        if (! HasPairedSurrogates (units, std::size_t (count)))
            return Fail ("UTF-16 string with an unpaired surrogate", payload);
    }
    if (count > uint64_t (INT32_MAX))
        return Fail ("string too long", payload);
    PLStringRef string = MakeString (fOptions.fAllocator, units, std::size_t (count));
    return string != nullptr ? string : Fail ("out of memory", payload);
}

PLTypeRef BinaryReader::ReadContainer (uint64_t payload, uint64_t count, bool dictionary, int depth,
    Weight & weight)
{
    // The count is the elements' weight, not the container's own.
    weight = Weight ();
    uint64_t references = count, size;
    if ((dictionary && ! CheckedMultiply (count, 2, references))
        || ! CheckedMultiply (references, fReferenceWidth, size) || ! fObjects.Contains (payload, size))
        return Fail ("container runs past the object area", payload);
    if (depth >= kMaximumNesting)
        return Fail ("containers nested too deeply", payload);
    if (! CheckedAdd (fPlaced, references, fPlaced) || fPlaced > fInput.Size ())
        return Fail ("shared objects expand beyond the input's size", payload);
    std::size_t first = fStackCount;
    bool valid = true;
    for (uint64_t made = 0; made < references && valid; ++made) {
        uint64_t reference = 0;
        fObjects.Unsigned (payload + made * fReferenceWidth, fReferenceWidth, reference);
        if (reference >= fCount) {
            valid = fFailure.Fail ("reference outside the object count", payload + made * fReferenceWidth);
            break;
        }
        Weight itemWeight;
        PLTypeRef item = ReadObject (reference, depth + 1, itemWeight);
        if (item == nullptr || ! Push (item)) {
            PLRelease (item);
            valid = item != nullptr && fFailure.Fail ("out of memory", payload);
            break;
        }
        weight.fLines = SaturatingAdd (weight.fLines, itemWeight.fLines);
        weight.fCost = SaturatingAdd (SaturatingAdd (weight.fCost, itemWeight.fCost), itemWeight.fLines);
        if (weight.fCost > fWeightBound)
            valid = fFailure.Fail ("shared objects expand beyond 1 MiB + 32 times the input's size", payload);
        if (dictionary && made < count && PLGetTypeID (item) != kStringType)
            valid = fFailure.Fail ("dictionary key is not a string", payload + made * fReferenceWidth);
    }
    if (! valid) {
        Pop (first);
        return nullptr;
    }
    // The container takes over the elements, or releases them when it can't be made.
    void const ** items = fStack + first;
    fStackCount = first;
    PLTypeRef result = dictionary
        ? PLTypeRef (AdoptDictionary (fOptions.fAllocator, items, items + count, PLIndex (count),
            fOptions.fMutableContainers))
        : PLTypeRef (AdoptArray (fOptions.fAllocator, items, PLIndex (count), fOptions.fMutableContainers));
    return result != nullptr ? result : Fail ("out of memory", payload);
}

// ---- Writing ----------------------------------------------------------------------------------

// Which written objects are one: scalars by kind and value, containers by identity.
enum class Kind : uint8_t { kString, kData, kInteger, kUnsigned, kReal, kDate, kBoolean, kContainer };

struct Entry {
    PLTypeRef fObject;
    uint32_t fHash;
    uint32_t fNumber;   // + 1; 0 marks a free slot
    Kind fKind;
};

class BinaryWriter {
public:
    BinaryWriter (ByteWriter & out, BinaryWidths widths, ParseFailure & failure)
        : fOut (out), fWidths (widths), fFailure (failure) {}
    ~BinaryWriter ();

    bool Write (PLTypeRef top);

private:
    struct Written {
        PLTypeRef fObject;
        uint64_t fFirstReference;   // of a container, in fReferences
        bool fOpen;                 // a container whose elements are being numbered
    };

    bool Number (PLTypeRef value, int depth, uint64_t & number);
    bool Classify (PLTypeRef value, Kind & kind);
    uint32_t Hash (PLTypeRef value, Kind kind) const;
    bool Same (PLTypeRef x, PLTypeRef y, Kind kind) const;
    Entry * Slot (PLTypeRef value, Kind kind, uint32_t hash);
    bool Grow ();
    template <typename T> bool Push (T * & items, uint64_t & count, uint64_t & capacity, T const & item);
    void EmitCount (uint8_t kind, uint64_t count);
    bool Emit (Written const & written);
    void EmitInteger (uint64_t value, bool negative);

    ByteWriter & fOut;
    BinaryWidths fWidths;
    ParseFailure & fFailure;
    Entry * fTable = nullptr;
    uint64_t fTableCapacity = 0;
    uint64_t fTableCount = 0;
    Written * fObjects = nullptr;
    uint64_t fObjectCount = 0;
    uint64_t fObjectCapacity = 0;
    uint64_t * fReferences = nullptr;
    uint64_t fReferenceCount = 0;
    uint64_t fReferenceCapacity = 0;
    unsigned fReferenceWidth = 1;
};

BinaryWriter::~BinaryWriter ()
{
    std::free (fTable);
    std::free (fObjects);
    std::free (fReferences);
}

bool BinaryWriter::Classify (PLTypeRef value, Kind & kind)
{
    uint64_t unused;
    switch (PLGetTypeID (value)) {
    case kStringType: kind = Kind::kString; return true;
    case kDataType: kind = Kind::kData; return true;
    case kBooleanType: kind = Kind::kBoolean; return true;
    case kDateType: kind = Kind::kDate; return true;
    case kArrayType: case kDictionaryType: kind = Kind::kContainer; return true;
    case kNumberType:
        kind = PLNumberIsFloatType (static_cast<PLNumberRef> (value)) ? Kind::kReal
            : IsUnsignedAboveSigned (static_cast<PLNumberRef> (value), unused) ? Kind::kUnsigned : Kind::kInteger;
        return true;
    default:
        return fFailure.Fail ("an object of a kind that property lists cannot hold");
    }
}

uint32_t BinaryWriter::Hash (PLTypeRef value, Kind kind) const
{
    // Containers are one by identity, and so are NaNs, which are never merged: hashed alike (as
    // PLHash hashes them), a document of many NaNs would put them all in one chain.
    double real = 0;
    if (kind == Kind::kContainer || (kind == Kind::kReal
        && PLNumberGetValue (static_cast<PLNumberRef> (value), kPLNumberFloat64Type, &real) && std::isnan (real)))
        return uint32_t (reinterpret_cast<std::uintptr_t> (value) >> 4) * 0x9E3779B1u;
    // Numbers hash by value across integer and real, and 0.0 as -0.0: what Same merges hashes alike.
    return uint32_t (PLHash (value)) * 0x9E3779B1u ^ uint32_t (kind);
}

bool BinaryWriter::Same (PLTypeRef x, PLTypeRef y, Kind kind) const
{
    if (x == y)
        return true;
    switch (kind) {
    case Kind::kContainer: case Kind::kBoolean:
        return false;
    case Kind::kReal: {
        double a = 0, b = 0;
        PLNumberGetValue (static_cast<PLNumberRef> (x), kPLNumberFloat64Type, &a);
        PLNumberGetValue (static_cast<PLNumberRef> (y), kPLNumberFloat64Type, &b);
        return a == b;   // 0.0 and -0.0 are one, two NaNs are two
    }
    case Kind::kDate:
        return PLDateGetAbsoluteTime (static_cast<PLDateRef> (x)) == PLDateGetAbsoluteTime (static_cast<PLDateRef> (y));
    default:
        return PLEqual (x, y);
    }
}

// The entry of an object of `kind` equal to `value`, or the free slot where it goes.
Entry * BinaryWriter::Slot (PLTypeRef value, Kind kind, uint32_t hash)
{
    if ((fTableCount + 1) * 2 > fTableCapacity && ! Grow ())
        return nullptr;
    uint64_t mask = fTableCapacity - 1;
    for (uint64_t i = hash & mask;; i = (i + 1) & mask) {
        Entry & entry = fTable [i];
        if (entry.fNumber == 0 || (entry.fHash == hash && entry.fKind == kind && Same (entry.fObject, value, kind)))
            return &entry;
    }
}

bool BinaryWriter::Grow ()
{
    uint64_t capacity = fTableCapacity == 0 ? 64 : fTableCapacity * 2;
    Entry * table = capacity <= SIZE_MAX / sizeof (Entry) ? static_cast<Entry *> (std::calloc (std::size_t (capacity), sizeof (Entry))) : nullptr;
    if (table == nullptr)
        return fFailure.Fail ("out of memory");
    for (uint64_t k = 0; k < fTableCapacity; ++k)
        if (fTable [k].fNumber != 0) {
            uint64_t i = fTable [k].fHash & (capacity - 1);
            while (table [i].fNumber != 0)
                i = (i + 1) & (capacity - 1);
            table [i] = fTable [k];
        }
    std::free (fTable);
    fTable = table;
    fTableCapacity = capacity;
    return true;
}

template <typename T>
bool BinaryWriter::Push (T * & items, uint64_t & count, uint64_t & capacity, T const & item)
{
    if (count == capacity) {
        uint64_t grown = capacity == 0 ? 256 : capacity * 2;
        T * moved = grown <= SIZE_MAX / sizeof (T) ? static_cast<T *> (std::realloc (items, std::size_t (grown) * sizeof (T))) : nullptr;
        if (moved == nullptr)
            return fFailure.Fail ("out of memory");
        items = moved;
        capacity = grown;
    }
    items [count++] = item;
    return true;
}

// Gives `value` its object number, numbering what it holds after it, depth-first.
bool BinaryWriter::Number (PLTypeRef value, int depth, uint64_t & number)
{
    Kind kind;
    if (! Classify (value, kind))
        return false;
    uint32_t hash = Hash (value, kind);
    Entry * entry = Slot (value, kind, hash);
    if (entry == nullptr)
        return false;
    if (entry->fNumber != 0) {
        number = entry->fNumber - 1;
        return ! fObjects [number].fOpen || fFailure.Fail ("a container that holds itself");
    }
    number = fObjectCount;
    if (number >= UINT32_MAX - 1)
        return fFailure.Fail ("too many objects");
    *entry = Entry { value, hash, uint32_t (number + 1), kind };
    ++fTableCount;
    Written written { value, fReferenceCount, kind == Kind::kContainer };
    if (! Push (fObjects, fObjectCount, fObjectCapacity, written))
        return false;
    if (kind != Kind::kContainer)
        return true;
    if (depth >= kMaximumNesting)
        return fFailure.Fail ("containers nested too deeply (or holding themselves)");
    bool dictionary = PLGetTypeID (value) == kDictionaryType;
    PLIndex count = dictionary ? PLDictionaryGetCount (static_cast<PLDictionaryRef> (value))
        : PLArrayGetCount (static_cast<PLArrayRef> (value));
    uint64_t references = uint64_t (count) * (dictionary ? 2 : 1);
    uint64_t first = fReferenceCount;
    for (uint64_t i = 0; i < references; ++i)
        if (! Push (fReferences, fReferenceCount, fReferenceCapacity, uint64_t (0)))
            return false;
    if (! dictionary) {
        for (PLIndex i = 0; i < count; ++i) {
            uint64_t element;
            if (! Number (PLArrayGetValueAtIndex (static_cast<PLArrayRef> (value), i), depth + 1, element))
                return false;
            fReferences [first + uint64_t (i)] = element;
        }
        fObjects [number].fOpen = false;
        return true;
    }
    Scratch<void const *> entries;
    if (! entries.Allocate (references))
        return fFailure.Fail ("out of memory");
    if (! SortedEntries (static_cast<PLDictionaryRef> (value), entries.Items (), entries.Items () + count))
        return fFailure.Fail ("a dictionary key that is not a string");
    // Keys first, all of them, then each value with everything under it.
    for (uint64_t i = 0; i < references; ++i) {
        uint64_t element;
        if (! Number (entries [i], depth + 1, element))
            return false;
        fReferences [first + i] = element;
    }
    fObjects [number].fOpen = false;
    return true;
}

void BinaryWriter::EmitCount (uint8_t kind, uint64_t count)
{
    if (count < 15) {
        fOut.Byte (uint8_t (kind << 4 | count));
        return;
    }
    fOut.Byte (uint8_t (kind << 4 | 0x0F));
    EmitInteger (count, false);
}

// As plistlib: 1, 2 or 4 bytes unsigned below 2^32, 8 bytes for the rest of the signed range and
// every negative number, 16 for 2^63 and above.
void BinaryWriter::EmitInteger (uint64_t value, bool negative)
{
    if (negative || (value >> 32 != 0 && value >> 63 == 0)) {
        fOut.Byte (0x13);
        fOut.Unsigned (value, 8);
    }
    else if (value >> 63 != 0) {
        fOut.Byte (0x14);
        fOut.Unsigned (0, 8);
        fOut.Unsigned (value, 8);
    }
    else if (value > 0xFFFF) {
        fOut.Byte (0x12);
        fOut.Unsigned (value, 4);
    }
    else if (value > 0xFF) {
        fOut.Byte (0x11);
        fOut.Unsigned (value, 2);
    }
    else {
        fOut.Byte (0x10);
        fOut.Byte (uint8_t (value));
    }
}

bool BinaryWriter::Emit (Written const & written)
{
    PLTypeRef value = written.fObject;
    switch (PLGetTypeID (value)) {
    case kBooleanType:
        fOut.Byte (PLBooleanGetValue (static_cast<PLBooleanRef> (value)) ? 0x09 : 0x08);
        return true;
    case kNumberType: {
        PLNumberRef number = static_cast<PLNumberRef> (value);
        uint64_t unsignedValue;
        if (PLNumberIsFloatType (number)) {
            double real = 0;
            PLNumberGetValue (number, kPLNumberFloat64Type, &real);
            uint64_t bits;
            std::memcpy (&bits, &real, sizeof bits);
            fOut.Byte (0x23);
            fOut.Unsigned (bits, 8);
        }
        else if (IsUnsignedAboveSigned (number, unsignedValue))
            EmitInteger (unsignedValue, false);
        else {
            int64_t integer = 0;
            PLNumberGetValue (number, kPLNumberSInt64Type, &integer);
            EmitInteger (uint64_t (integer), integer < 0);
        }
        return true;
    }
    case kDateType: {
        double time = PLDateGetAbsoluteTime (static_cast<PLDateRef> (value));
        if (! IsDateInRange (time))
            return fFailure.Fail ("a date outside years 1 to 9999");
        uint64_t bits;
        std::memcpy (&bits, &time, sizeof bits);
        fOut.Byte (0x33);
        fOut.Unsigned (bits, 8);
        return true;
    }
    case kDataType: {
        PLDataRef data = static_cast<PLDataRef> (value);
        EmitCount (0x4, uint64_t (PLDataGetLength (data)));
        fOut.Append (PLDataGetBytePtr (data), std::size_t (PLDataGetLength (data)));
        return true;
    }
    case kStringType: {
        PLStringRef string = static_cast<PLStringRef> (value);
        PLUniChar const * units = StringUnits (string);
        std::size_t count = std::size_t (PLStringGetLength (string));
        bool ascii = true;
        for (std::size_t i = 0; i < count && ascii; ++i)
            ascii = units [i] < 0x80;
        if (! ascii && ! HasPairedSurrogates (units, count))
            return fFailure.Fail ("a string with an unpaired surrogate");
        EmitCount (ascii ? 0x5 : 0x6, count);
        uint8_t * at = fOut.Extend (ascii ? count : count * 2);
        if (at != nullptr && ascii)
            for (std::size_t i = 0; i < count; ++i)
                at [i] = uint8_t (units [i]);
        else if (at != nullptr)
            for (std::size_t i = 0; i < count; ++i) {
                at [2 * i] = uint8_t (units [i] >> 8);
                at [2 * i + 1] = uint8_t (units [i]);
            }
        return true;
    }
    default: {
        bool dictionary = PLGetTypeID (value) == kDictionaryType;
        uint64_t count = uint64_t (dictionary ? PLDictionaryGetCount (static_cast<PLDictionaryRef> (value))
            : PLArrayGetCount (static_cast<PLArrayRef> (value)));
        EmitCount (dictionary ? 0xD : 0xA, count);
        uint64_t references = dictionary ? count * 2 : count;
        uint8_t * at = fOut.Extend (std::size_t (references) * fReferenceWidth);
        for (uint64_t i = 0; at != nullptr && i < references; ++i) {
            // Numbering pushed these references: the analyser can't know that PLGetTypeID answers as it did then.
            // NOLINTNEXTLINE(clang-analyzer-core.NullDereference): see above
            uint64_t reference = fReferences [written.fFirstReference + i];
            for (unsigned b = fReferenceWidth; b-- > 0; reference >>= 8)
                at [i * fReferenceWidth + b] = uint8_t (reference);
        }
        return true;
    }
    }
}

// The width plistlib gives a count or an offset: 1, 2, 4 or 8 bytes.
unsigned WidthFor (uint64_t value)
{
    return value < 0x100 ? 1 : value < 0x10000 ? 2 : value >> 32 == 0 ? 4 : 8;
}

bool Fits (uint64_t value, unsigned width)
{
    return width >= 8 || value >> (8 * width) == 0;
}

bool BinaryWriter::Write (PLTypeRef top)
{
    uint64_t number;
    if (! Number (top, 0, number))
        return false;
    fReferenceWidth = fWidths.fReference != 0 ? fWidths.fReference : WidthFor (fObjectCount);
    if (fReferenceWidth > 8 || ! Fits (fObjectCount - 1, fReferenceWidth))
        return fFailure.Fail ("reference width too small for the object count");
    Scratch<uint64_t> offsets;
    if (! offsets.Allocate (fObjectCount))
        return fFailure.Fail ("out of memory");
    std::size_t start = fOut.Size ();
    fOut.Append (kMagic, sizeof kMagic);
    // NOLINTNEXTLINE(clang-analyzer-unix.Malloc): the destructor frees fObjects; the analyser loses it in Emit
    for (uint64_t i = 0; i < fObjectCount; ++i) {
        offsets [i] = fOut.Size () - start;
        if (! Emit (fObjects [i]))
            return false;
    }
    uint64_t tableStart = fOut.Size () - start;
    unsigned offsetWidth = fWidths.fOffset != 0 ? fWidths.fOffset : WidthFor (tableStart);
    if (offsetWidth > 8 || ! Fits (tableStart, offsetWidth))
        return fFailure.Fail ("offset width too small for the file");
    uint8_t * at = fOut.Extend (std::size_t (fObjectCount) * offsetWidth);
    for (uint64_t i = 0; at != nullptr && i < fObjectCount; ++i) {
        uint64_t offset = offsets [i];
        for (unsigned b = offsetWidth; b-- > 0; offset >>= 8)
            at [i * offsetWidth + b] = uint8_t (offset);
    }
    fOut.Unsigned (0, 6);
    fOut.Byte (uint8_t (offsetWidth));
    fOut.Byte (uint8_t (fReferenceWidth));
    fOut.Unsigned (fObjectCount, 8);
    fOut.Unsigned (0, 8);
    fOut.Unsigned (tableStart, 8);
    return ! fOut.Failed () || fFailure.Fail ("out of memory");
}

}

namespace Plinth {

PLTypeRef ReadBinaryPropertyList (uint8_t const * bytes, std::size_t size, ReadOptions const & options,
    ParseFailure & failure)
{
    return BinaryReader (bytes, size, options, failure).Read ();
}

bool WriteBinaryPropertyList (ByteWriter & out, PLTypeRef value, BinaryWidths widths, ParseFailure & failure)
{
    return BinaryWriter (out, widths, failure).Write (value);
}

}
