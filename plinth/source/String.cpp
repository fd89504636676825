// Strings: immutable UTF-16 text, with units inline, or borrowed from the creator (no-copy), and
// a hash computed once. Constant strings are interned and immortal.
#include "String.h"

#include <cstdlib>

using namespace Plinth;

namespace {

// Where a no-copy string keeps its deallocator: after the object.
PLAllocatorRef & BorrowedDeallocator (__PLString * string)
{
    return *reinterpret_cast<PLAllocatorRef *> (string + 1);
}

void FinalizeString (Object * object)
{
    __PLString * string = static_cast<__PLString *> (object);
    if (string->fBorrowed && BorrowedDeallocator (string) != nullptr)
        Deallocate (BorrowedDeallocator (string), const_cast<PLUniChar *> (string->fUnits));
}

bool EqualStrings (Object const * x, Object const * y)
{
    __PLString const * a = static_cast<__PLString const *> (x);
    __PLString const * b = static_cast<__PLString const *> (y);
    return a->fLength == b->fLength
        && std::memcmp (a->fUnits, b->fUnits, std::size_t (a->fLength) * sizeof (PLUniChar)) == 0;
}

PLHashCode HashString (Object const * object)
{
    __PLString * string = const_cast<__PLString *> (static_cast<__PLString const *> (object));
    // Racing threads compute the same value; the flag is published after the hash.
    if (__atomic_load_n (&string->fHashKnown, __ATOMIC_ACQUIRE))
        return string->fHash;
    uint32_t hash = uint32_t (HashUnits (string->fUnits, std::size_t (string->fLength)));
    string->fHash = hash;
    __atomic_store_n (&string->fHashKnown, true, __ATOMIC_RELEASE);
    return hash;
}

PLStringRef DescribeString (Object const * object)
{
    return static_cast<PLStringRef> (PLRetain (object));
}

Class const kStringClass = { kStringType, "PLString", FinalizeString, EqualStrings, HashString, DescribeString };

// Interned constants: a small open-addressed table of (text, string), grown by doubling.
struct Constant {
    char * fText;
    PLStringRef fString;
};

SpinLock sConstantsLock;
Constant * sConstants = nullptr;
std::size_t sConstantsCapacity = 0;
std::size_t sConstantsCount = 0;

std::size_t HashText (char const * text)
{
    std::size_t hash = 5381;
    for (; *text != 0; ++text)
        hash = hash * 33 + static_cast<unsigned char> (*text);
    return hash;
}

bool GrowConstants ()
{
    std::size_t capacity = sConstantsCapacity == 0 ? 64 : sConstantsCapacity * 2;
    Constant * table = static_cast<Constant *> (std::calloc (capacity, sizeof (Constant)));
    if (table == nullptr)
        return false;
    for (std::size_t i = 0; i < sConstantsCapacity; ++i)
        if (sConstants [i].fText != nullptr) {
            std::size_t slot = HashText (sConstants [i].fText) & (capacity - 1);
            while (table [slot].fText != nullptr)
                slot = (slot + 1) & (capacity - 1);
            table [slot] = sConstants [i];
        }
    std::free (sConstants);
    sConstants = table;
    sConstantsCapacity = capacity;
    return true;
}

PLStringRef MakeImmortal (char const * text)
{
    PLStringRef made = PLStringCreateWithBytes (kPLAllocatorDefault, reinterpret_cast<uint8_t const *> (text),
        PLIndex (std::strlen (text)), kPLStringEncodingUTF8, false);
    if (made == nullptr)
        return nullptr;
    __PLString * string = const_cast<__PLString *> (made);
    string->fRetainCount = kImmortal;
    // Immortal objects are not live objects: they are never freed.
    UncountObject ();
    return made;
}

}

namespace Plinth {


PLStringRef MakeString (PLAllocatorRef allocator, PLUniChar const * units, std::size_t count)
{
    if (count > std::size_t (INT32_MAX) / sizeof (PLUniChar) - sizeof (__PLString))
        return nullptr;
    __PLString * string = NewObject<__PLString> (allocator, kStringClass,
        sizeof (__PLString) + count * sizeof (PLUniChar));
    if (string == nullptr)
        return nullptr;
    PLUniChar * inline_ = reinterpret_cast<PLUniChar *> (string + 1);
    if (count != 0)
        std::memcpy (inline_, units, count * sizeof (PLUniChar));
    string->fUnits = inline_;
    string->fLength = PLIndex (count);
    return string;
}

PLStringRef MakeStringFromASCII (char const * text)
{
    UnitBuffer buffer;
    buffer.AppendASCII (text);
    return buffer.CreateString (kPLAllocatorDefault);
}

PLUniChar const * StringUnits (PLStringRef string)
{
    return string->fUnits;
}

__PLString const * AsString (void const * object)
{
    return As<__PLString const> (object, kStringType);
}

UnitBuffer::~UnitBuffer ()
{
    std::free (fUnits);
}

void UnitBuffer::Append (PLUniChar const * units, std::size_t count)
{
    if (fFailed || count == 0)
        return;
    if (fSize + count > fCapacity) {
        std::size_t capacity = fCapacity == 0 ? 64 : fCapacity;
        while (capacity < fSize + count)
            capacity *= 2;
        PLUniChar * grown = static_cast<PLUniChar *> (std::realloc (fUnits, capacity * sizeof (PLUniChar)));
        if (grown == nullptr) {
            fFailed = true;
            return;
        }
        fUnits = grown;
        fCapacity = capacity;
    }
    std::memcpy (fUnits + fSize, units, count * sizeof (PLUniChar));
    fSize += count;
}

void UnitBuffer::AppendASCII (char const * text)
{
    for (; *text != 0; ++text)
        Append (PLUniChar (static_cast<unsigned char> (*text)));
}

void UnitBuffer::AppendUTF8 (char const * text, std::size_t count)
{
    PLStringRef string = PLStringCreateWithBytes (kPLAllocatorDefault, reinterpret_cast<uint8_t const *> (text),
        PLIndex (count), kPLStringEncodingUTF8, false);
    if (string == nullptr)   // not UTF-8: every byte as the Latin-1 character of its number
        string = PLStringCreateWithBytes (kPLAllocatorDefault, reinterpret_cast<uint8_t const *> (text),
            PLIndex (count), kPLStringEncodingISOLatin1, false);
    AppendString (string);
    PLRelease (string);
}

void UnitBuffer::AppendString (PLStringRef string)
{
    __PLString const * s = AsString (string);
    if (s == nullptr) {
        fFailed = fFailed || string != nullptr;
        return;
    }
    Append (s->fUnits, std::size_t (s->fLength));
}

PLStringRef UnitBuffer::CreateString (PLAllocatorRef allocator) const
{
    return fFailed ? nullptr : MakeString (allocator, fUnits, fSize);
}

}

extern "C" {

PLTypeID PLStringGetTypeID (void) { return kStringType; }

PLStringRef PLStringCreateWithCharacters (PLAllocatorRef allocator, PLUniChar const * units, PLIndex count)
{
    if (count < 0 || (units == nullptr && count > 0))
        return nullptr;
    return MakeString (allocator, units, std::size_t (count));
}

PLStringRef PLStringCreateWithCharactersNoCopy (PLAllocatorRef allocator, PLUniChar const * units, PLIndex count,
    PLAllocatorRef deallocator)
{
    if (count < 0 || (units == nullptr && count > 0))
        return nullptr;
    __PLString * string = NewObject<__PLString> (allocator, kStringClass,
        sizeof (__PLString) + sizeof (PLAllocatorRef));
    if (string == nullptr)
        return nullptr;
    string->fUnits = units;
    string->fLength = count;
    string->fBorrowed = true;
    BorrowedDeallocator (string) = KeptDeallocator (deallocator);
    return string;
}

PLStringRef PLStringCreateWithSubstring (PLAllocatorRef allocator, PLStringRef string, PLRange range)
{
    __PLString const * s = AsString (string);
    if (s == nullptr || range.location < 0 || range.length < 0 || range.location > s->fLength
        || range.length > s->fLength - range.location)
        return nullptr;
    return MakeString (allocator, s->fUnits + range.location, std::size_t (range.length));
}

PLStringRef PLStringCreateCopy (PLAllocatorRef allocator, PLStringRef string)
{
    __PLString const * s = AsString (string);
    if (s == nullptr)
        return nullptr;
    return MakeString (allocator, s->fUnits, std::size_t (s->fLength));
}

PLStringRef __PLStringMakeConstantString (char const * text)
{
    if (text == nullptr)
        return nullptr;
    Locked locked (sConstantsLock);
    std::size_t hash = HashText (text);
    if (sConstantsCapacity != 0)
        for (std::size_t slot = hash & (sConstantsCapacity - 1); sConstants [slot].fText != nullptr;
             slot = (slot + 1) & (sConstantsCapacity - 1))
            if (std::strcmp (sConstants [slot].fText, text) == 0)
                return sConstants [slot].fString;
    if ((sConstantsCount + 1) * 2 > sConstantsCapacity && ! GrowConstants ())
        return nullptr;
    std::size_t size = std::strlen (text) + 1;
    char * copy = static_cast<char *> (std::malloc (size));
    if (copy == nullptr)
        return nullptr;
    PLStringRef string = MakeImmortal (text);
    if (string == nullptr) {
        std::free (copy);
        return nullptr;
    }
    std::memcpy (copy, text, size);
    std::size_t slot = hash & (sConstantsCapacity - 1);
    while (sConstants [slot].fText != nullptr)
        slot = (slot + 1) & (sConstantsCapacity - 1);
    sConstants [slot] = Constant { copy, string };
    ++sConstantsCount;
    return string;
}

PLIndex PLStringGetLength (PLStringRef string)
{
    __PLString const * s = AsString (string);
    return s == nullptr ? 0 : s->fLength;
}

PLUniChar PLStringGetCharacterAtIndex (PLStringRef string, PLIndex index)
{
    __PLString const * s = AsString (string);
    return s == nullptr || index < 0 || index >= s->fLength ? 0 : s->fUnits [index];
}

void PLStringGetCharacters (PLStringRef string, PLRange range, PLUniChar * buffer)
{
    __PLString const * s = AsString (string);
    if (s == nullptr || buffer == nullptr || range.location < 0 || range.length < 0 || range.location > s->fLength
        || range.length > s->fLength - range.location)
        return;
    std::memcpy (buffer, s->fUnits + range.location, std::size_t (range.length) * sizeof (PLUniChar));
}

PLBoolean PLStringHasPrefix (PLStringRef string, PLStringRef prefix)
{
    __PLString const * s = AsString (string);
    __PLString const * p = AsString (prefix);
    return s != nullptr && p != nullptr && p->fLength <= s->fLength
        && std::memcmp (s->fUnits, p->fUnits, std::size_t (p->fLength) * sizeof (PLUniChar)) == 0;
}

PLBoolean PLStringHasSuffix (PLStringRef string, PLStringRef suffix)
{
    __PLString const * s = AsString (string);
    __PLString const * p = AsString (suffix);
    return s != nullptr && p != nullptr && p->fLength <= s->fLength
        && std::memcmp (s->fUnits + (s->fLength - p->fLength), p->fUnits,
               std::size_t (p->fLength) * sizeof (PLUniChar)) == 0;
}

}
