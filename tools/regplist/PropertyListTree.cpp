// regplist's property-list side: a Tree as Plinth objects and back.
//
// The file is one dictionary per key: "Values" maps each value's name to a dictionary of its
// "Type" and "Value", and "SubKeys" maps each sub-key's name to its own dictionary; either is left
// out when empty. A type is written by name (REG_SZ, REG_EXPAND_SZ, REG_MULTI_SZ, REG_DWORD,
// REG_QWORD, REG_BINARY) or, for any other type, as its number. The value is in the form natural
// to its type: a string, an array of strings, an integer or data. Bytes that have no such form
// exactly (a string without terminator, with a character XML can't hold, a REG_DWORD of the wrong
// size) are written as data with their type, so that nothing stored is lost or changed; data is
// taken for any type when reading.
#include "Tree.h"

#include <LibSkerry/CodePages>

#include <cstring>

namespace RegPlist {

using PlistTool::Failure;

namespace {

struct TypeName {
    unsigned long fType;
    char const * fName;
};

TypeName const kTypeNames [] = { { REG_SZ, "REG_SZ" }, { REG_EXPAND_SZ, "REG_EXPAND_SZ" },
    { REG_MULTI_SZ, "REG_MULTI_SZ" }, { REG_DWORD, "REG_DWORD" }, { REG_QWORD, "REG_QWORD" },
    { REG_BINARY, "REG_BINARY" } };

const std::size_t kUnitSize = sizeof (wchar_t);

PLStringRef CreateString (const std::wstring & text)
{
    return PLStringCreateWithCharacters (kPLAllocatorDefault, reinterpret_cast<PLUniChar const *> (text.data ()),
        PLIndex (text.size ()));
}

std::wstring Wide (PLStringRef string)
{
    std::wstring text (std::size_t (PLStringGetLength (string)), L'\0');
    PLStringGetCharacters (string, PLRangeMake (0, PLIndex (text.size ())), reinterpret_cast<PLUniChar *> (&text [0]));
    return text;
}

std::wstring Units (const std::string & bytes)
{
    std::wstring units (bytes.size () / kUnitSize, L'\0');
    std::memcpy (&units [0], bytes.data (), units.size () * kUnitSize);
    return units;
}

std::string Bytes (const std::wstring & units)
{
    return std::string (reinterpret_cast<char const *> (units.data ()), units.size () * kUnitSize);
}

// Text that XML holds as it is, so that both formats can write it: no control character but tab,
// line feed, carriage return and `allowed`, no U+FFFE or U+FFFF, no unpaired surrogate.
bool PlainText (const std::wstring & text, wchar_t allowed = L'\t')
{
    for (std::size_t i = 0; i < text.size (); ++i) {
        wchar_t c = text [i];
        if (c >= 0xD800 && c <= 0xDBFF && i + 1 < text.size () && text [i + 1] >= 0xDC00 && text [i + 1] <= 0xDFFF)
            ++i;
        else if ((c < 0x20 && c != L'\t' && c != L'\n' && c != L'\r' && c != allowed) || c == 0xFFFE || c == 0xFFFF
            || (c >= 0xD800 && c <= 0xDFFF))
            return false;
    }
    return true;
}

PLNumberRef CreateInteger (unsigned long long value)
{
    if (value >> 63 != 0)
        return PLNumberCreate (kPLAllocatorDefault, kPLNumberUInt64Type, &value);
    long long small = static_cast<long long> (value);
    return PLNumberCreate (kPLAllocatorDefault, kPLNumberSInt64Type, &small);
}

// An integer of 0 to `largest`, as little-endian bytes of `size`; false for anything else.
bool IntegerBytes (PLTypeRef value, unsigned long long largest, std::size_t size, std::string & bytes)
{
    if (PLGetTypeID (value) != PLNumberGetTypeID () || PLNumberIsFloatType (static_cast<PLNumberRef> (value)))
        return false;
    long long small = 0;
    unsigned long long integer = 0;
    if (PLNumberGetValue (static_cast<PLNumberRef> (value), kPLNumberSInt64Type, &small) && small >= 0)
        integer = static_cast<unsigned long long> (small);
    else if (! PLNumberGetValue (static_cast<PLNumberRef> (value), kPLNumberUInt64Type, &integer))
        return false;
    if (integer > largest)
        return false;
    bytes.assign (reinterpret_cast<char const *> (&integer), size);    // little-endian, as the target is
    return true;
}

// The strings of a REG_MULTI_SZ: each with its terminator, then one more.
bool MultiStringBytes (PLTypeRef value, std::string & bytes)
{
    if (PLGetTypeID (value) != PLArrayGetTypeID ())
        return false;
    std::wstring units;
    for (PLIndex i = 0; i < PLArrayGetCount (static_cast<PLArrayRef> (value)); ++i) {
        PLTypeRef item = PLArrayGetValueAtIndex (static_cast<PLArrayRef> (value), i);
        if (PLGetTypeID (item) != PLStringGetTypeID ())
            return false;
        std::wstring text = Wide (static_cast<PLStringRef> (item));
        if (text.empty () || text.find (L'\0') != std::wstring::npos)
            return false;
        units += text + L'\0';
    }
    bytes = Bytes (units + L'\0');
    return true;
}

// The bytes that `value` stands for as a value of `type`; false when it has no such meaning.
bool ValueBytes (unsigned long type, PLTypeRef value, std::string & bytes)
{
    PLTypeID kind = PLGetTypeID (value);
    if (kind == PLDataGetTypeID ()) {
        PLDataRef data = static_cast<PLDataRef> (value);
        bytes.assign (reinterpret_cast<char const *> (PLDataGetBytePtr (data)), std::size_t (PLDataGetLength (data)));
        return true;
    }
    if ((type == REG_SZ || type == REG_EXPAND_SZ) && kind == PLStringGetTypeID ()) {
        bytes = Bytes (Wide (static_cast<PLStringRef> (value)) + L'\0');
        return true;
    }
    if (type == REG_MULTI_SZ)
        return MultiStringBytes (value, bytes);
    if (type == REG_DWORD)
        return IntegerBytes (value, 0xFFFFFFFFull, 4, bytes);
    if (type == REG_QWORD)
        return IntegerBytes (value, ~0ull, 8, bytes);
    return false;
}

// The form natural to `type` of what its bytes hold, owned; null when there is none.
PLTypeRef CreateNatural (unsigned long type, const std::string & bytes)
{
    std::wstring units = Units (bytes);
    bool terminated = bytes.size () % kUnitSize == 0 && ! units.empty () && units.back () == L'\0';
    if ((type == REG_SZ || type == REG_EXPAND_SZ) && terminated && PlainText (units.substr (0, units.size () - 1)))
        return CreateString (units.substr (0, units.size () - 1));
    if (type == REG_MULTI_SZ && terminated && PlainText (units.substr (0, units.size () - 1), L'\0')) {
        PLMutableArrayRef strings = PLArrayCreateMutable (kPLAllocatorDefault, 0, &kPLTypeArrayCallBacks);
        for (std::size_t start = 0, end; (end = units.find (L'\0', start)) < units.size () - 1; start = end + 1) {
            PlinthCXX::Owned<PLStringRef> item (CreateString (units.substr (start, end - start)));
            PLArrayAppendValue (strings, item);
        }
        return strings;
    }
    unsigned long long integer = 0;
    if ((type == REG_DWORD && bytes.size () == 4) || (type == REG_QWORD && bytes.size () == 8)) {
        std::memcpy (&integer, bytes.data (), bytes.size ());
        return CreateInteger (integer);
    }
    return nullptr;
}

// The natural form when it gives back exactly these bytes (which rules out a REG_MULTI_SZ with an
// empty string or without its closing terminator), else the bytes as data.
PLTypeRef CreateValue (const Value & value)
{
    PLTypeRef natural = CreateNatural (value.fType, value.fBytes);
    std::string again;
    if (natural != nullptr && ValueBytes (value.fType, natural, again) && again == value.fBytes)
        return natural;
    PLRelease (natural);
    return PLDataCreate (kPLAllocatorDefault, reinterpret_cast<uint8_t const *> (value.fBytes.data ()),
        PLIndex (value.fBytes.size ()));
}

PLMutableDictionaryRef CreateDictionary ()
{
    return PLDictionaryCreateMutable (kPLAllocatorDefault, 0, &kPLTypeDictionaryKeyCallBacks,
        &kPLTypeDictionaryValueCallBacks);
}

void Add (PLMutableDictionaryRef dictionary, const std::wstring & key, PLTypeRef owned)
{
    PlinthCXX::Owned<PLStringRef> name (CreateString (key));
    PLDictionarySetValue (dictionary, name, owned);
    PLRelease (owned);
}

PLTypeRef CreateType (unsigned long type)
{
    for (const TypeName & known : kTypeNames)
        if (known.fType == type)
            return PLStringCreateWithCString (kPLAllocatorDefault, known.fName, kPLStringEncodingUTF8);
    return CreateInteger (type);
}

// The place of a failure in the file, in the registry's words.
std::string Place (const std::wstring & key, const std::wstring * value)
{
    std::string place = key.empty () ? "" : "key \"" + Narrow (key) + "\"";
    if (value != nullptr)
        place += (place.empty () ? "" : ", ") + std::string ("value \"") + Narrow (*value) + "\"";
    return place.empty () ? "" : place + ": ";
}

[[noreturn]] void Fail (const std::wstring & key, const std::wstring * value, const std::string & text)
{
    throw Failure { Place (key, value) + text, "" };
}

// The entries of a dictionary, whose keys must be strings.
std::vector<std::pair<std::wstring, PLTypeRef>> Entries (PLTypeRef dictionary, const std::wstring & key,
    const std::wstring * value, const char * what)
{
    if (PLGetTypeID (dictionary) != PLDictionaryGetTypeID ())
        Fail (key, value, std::string (what) + " is not a dictionary");
    PLIndex count = PLDictionaryGetCount (static_cast<PLDictionaryRef> (dictionary));
    std::vector<void const *> keys (std::size_t (count) + 1), values (std::size_t (count) + 1);
    PLDictionaryGetKeysAndValues (static_cast<PLDictionaryRef> (dictionary), keys.data (), values.data ());
    std::vector<std::pair<std::wstring, PLTypeRef>> entries;
    for (PLIndex i = 0; i < count; ++i) {
        if (PLGetTypeID (keys [std::size_t (i)]) != PLStringGetTypeID ())
            Fail (key, value, std::string (what) + " has a key that is not a string");
        entries.emplace_back (Wide (static_cast<PLStringRef> (keys [std::size_t (i)])), values [std::size_t (i)]);
    }
    return entries;
}

std::string TypeText (unsigned long type)
{
    for (const TypeName & known : kTypeNames)
        if (known.fType == type)
            return known.fName;
    return "type " + std::to_string (type);
}

unsigned long ReadType (PLTypeRef type, const std::wstring & key, const std::wstring & name)
{
    if (type == nullptr)
        Fail (key, &name, "no \"Type\"");
    if (PLGetTypeID (type) == PLStringGetTypeID ()) {
        std::string text = PlinthCXX::UTF8 (static_cast<PLStringRef> (type));
        for (const TypeName & known : kTypeNames)
            if (text == known.fName)
                return known.fType;
        Fail (key, &name, "unknown type \"" + text + "\"");
    }
    std::string bytes;
    if (! IntegerBytes (type, 0xFFFFFFFFull, 4, bytes))
        Fail (key, &name, "\"Type\" is neither a type's name nor a number of 0 to 4294967295");
    unsigned long number = 0;
    std::memcpy (&number, bytes.data (), sizeof number);
    return number;
}

char const * Wanted (unsigned long type)
{
    switch (type) {
    case REG_SZ:
    case REG_EXPAND_SZ:
        return "a string or data";
    case REG_MULTI_SZ:
        return "an array of strings, none empty, or data";
    case REG_DWORD:
        return "an integer of 0 to 4294967295, or data";
    case REG_QWORD:
        return "an integer of 0 to 18446744073709551615, or data";
    default:
        return "data";
    }
}

Value ReadValue (const std::wstring & name, PLTypeRef entry, const std::wstring & key)
{
    PLTypeRef type = nullptr, value = nullptr;
    for (const auto & field : Entries (entry, key, &name, "the value"))
        if (field.first == L"Type")
            type = field.second;
        else if (field.first == L"Value")
            value = field.second;
        else
            Fail (key, &name, "unknown field \"" + Narrow (field.first) + "\" (Type and Value)");
    Value result { name, ReadType (type, key, name), std::string () };
    if (value == nullptr)
        Fail (key, &name, "no \"Value\"");
    if (! ValueBytes (result.fType, value, result.fBytes))
        Fail (key, &name, TypeText (result.fType) + " wants " + Wanted (result.fType));
    return result;
}

// `key` is the path of `dictionary` below the key imported into, empty for that key itself.
Tree ReadKey (PLTypeRef dictionary, const std::wstring & key)
{
    Tree tree;
    for (const auto & part : Entries (dictionary, key, nullptr, key.empty () ? "the file" : "the key"))
        if (part.first == L"Values")
            for (const auto & value : Entries (part.second, key, nullptr, "\"Values\""))
                tree.fValues.push_back (ReadValue (value.first, value.second, key));
        else if (part.first == L"SubKeys")
            for (const auto & subKey : Entries (part.second, key, nullptr, "\"SubKeys\"")) {
                std::wstring path = key.empty () ? subKey.first : key + L"\\" + subKey.first;
                if (subKey.first.empty () || subKey.first.size () > 255 || subKey.first.find (L'\\') != std::wstring::npos)
                    Fail (path, nullptr, "a key's name has 1 to 255 characters and no backslash");
                tree.fSubKeys.push_back (ReadKey (subKey.second, path));
                tree.fSubKeys.back ().fName = subKey.first;
            }
        else
            Fail (key, nullptr, "unknown field \"" + Narrow (part.first) + "\" (Values and SubKeys)");
    return tree;
}

}

std::string Narrow (const std::wstring & text)
{
    return Skerry::ANSIStringFromWide (text, 65001);
}

PLTypeRef CreatePropertyList (const Tree & tree)
{
    PLMutableDictionaryRef dictionary = CreateDictionary ();
    if (! tree.fValues.empty ()) {
        PLMutableDictionaryRef values = CreateDictionary ();
        for (const Value & value : tree.fValues) {
            PLMutableDictionaryRef entry = CreateDictionary ();
            Add (entry, L"Type", CreateType (value.fType));
            Add (entry, L"Value", CreateValue (value));
            Add (values, value.fName, entry);
        }
        Add (dictionary, L"Values", values);
    }
    if (! tree.fSubKeys.empty ()) {
        PLMutableDictionaryRef subKeys = CreateDictionary ();
        for (const Tree & subKey : tree.fSubKeys)
            Add (subKeys, subKey.fName, CreatePropertyList (subKey));
        Add (dictionary, L"SubKeys", subKeys);
    }
    return dictionary;
}

Tree TreeFromPropertyList (PLTypeRef list)
{
    return ReadKey (list, std::wstring ());
}

}
