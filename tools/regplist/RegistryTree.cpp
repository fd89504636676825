// regplist's registry side: a key tree read into a Tree and written back through Registry::Key.
#include "Tree.h"

#include <utility>

namespace RegPlist {

using Skerry::Registry::Key;

namespace {

// A key's name has at most 255 characters.
const unsigned long kKeyNameRoom = 256;

std::wstring ValuePlace (const std::wstring & key, const std::wstring & name)
{
    return key + L", value \"" + name + L"\"";
}

HKEY Raw (const Key & key)
{
    return static_cast<HKEY> (static_cast<void *> (key));
}

// Every value of `key` with its type and size, the key's unnamed default value included: the
// library's enumeration keeps an empty name for the end of the list and refuses one met before
// it, so the tool walks the values itself.
std::vector<std::pair<Value, unsigned long>> ListValues (const Key & key)
{
    SKERRY_SITE ("RegPlist::ListValues");
    std::vector<wchar_t> name (16384);
    std::vector<std::pair<Value, unsigned long>> values;
    for (DWORD index = 0;; ++index) {
        DWORD length = DWORD (name.size ()), type = REG_NONE, size = 0;
        LONG error = ::RegEnumValueW (Raw (key), index, name.data (), &length, nullptr, &type, nullptr, &size);
        if (error == ERROR_NO_MORE_ITEMS)
            return values;
        if (error != ERROR_SUCCESS)
            SKERRY_THROW_WIN32 (error);
        values.push_back ({ Value { std::wstring (name.data (), length), type, std::string () }, size });
    }
}

// A named value through the library's raw read; the unnamed one, which the library doesn't read,
// straight from the platform, with the same answers.
unsigned long Query (const Key & key, Value & value, unsigned long * read)
{
    if (! value.fName.empty ())
        return key.GetValue (value.fName.c_str (), value.fBytes.data (), read, &value.fType);
    SKERRY_SITE ("RegPlist::Query");
    DWORD type = REG_NONE, size = *read;
    LONG error = ::RegQueryValueExW (Raw (key), nullptr, nullptr, &type, reinterpret_cast<BYTE *> (value.fBytes.data ()), &size);
    if (error != ERROR_SUCCESS && error != ERROR_FILE_NOT_FOUND && error != ERROR_MORE_DATA)
        SKERRY_THROW_WIN32 (error);
    value.fType = type;
    *read = size;
    return static_cast<unsigned long> (error);
}

// The bytes of the value `name`, which the enumeration saw with `size` bytes; false when it has
// been deleted since. A value that grew meanwhile is read again at its new size.
bool ReadBytes (const Key & key, unsigned long size, Value & value)
{
    for (;;) {
        value.fBytes.assign (size, '\0');
        unsigned long read = size;
        unsigned long error = Query (key, value, &read);
        if (error == ERROR_FILE_NOT_FOUND)
            return false;
        // ERROR_MORE_DATA with the whole value in hand: a REG_SZ without terminator, which the raw
        // read tells as a value that didn't fit. It is kept as it is stored.
        if (error == ERROR_SUCCESS || read <= size) {
            value.fBytes.resize (read);
            return true;
        }
        size = read;
    }
}

}

Tree ReadTree (const Key & key, std::wstring & where)
{
    const std::wstring path = where;
    Tree tree;
    for (auto & listed : ListValues (key)) {
        Value & value = listed.first;
        where = ValuePlace (path, value.fName);
        if (ReadBytes (key, listed.second, value))
            tree.fValues.push_back (std::move (value));
        where = path;
    }
    wchar_t name [kKeyNameRoom];
    unsigned long length = kKeyNameRoom;
    for (unsigned long index = 0; key.EnumerateSubKeys (index, name, &length); ++index, length = kKeyNameRoom) {
        where = path + L"\\" + std::wstring (name, length);
        tree.fSubKeys.push_back (ReadTree (Key (key, name, false, KEY_READ), where));
        tree.fSubKeys.back ().fName.assign (name, length);
        where = path;
    }
    return tree;
}

void WriteTree (const Key & key, const Tree & tree, std::wstring & where)
{
    const std::wstring path = where;
    for (const Value & value : tree.fValues) {
        where = ValuePlace (path, value.fName);
        // The registry completes a string without terminator whose bytes are followed by a zero
        // character in memory; followed by anything else, the bytes are stored as they are.
        std::string bytes = value.fBytes + "\xFF\xFF";
        key.SetValue (value.fName.c_str (), bytes.data (), static_cast<unsigned long> (value.fBytes.size ()), value.fType);
    }
    for (const Tree & subKey : tree.fSubKeys) {
        where = path + L"\\" + subKey.fName;
        WriteTree (Key (key, subKey.fName, true, KEY_ALL_ACCESS), subKey, where);
    }
    where = path;
}

}
