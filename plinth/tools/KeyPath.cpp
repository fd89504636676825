#include "KeyPath.h"

namespace PlistTool {

namespace {

// Where component `i` of a key path points inside `container`: the value there, or null.
struct Slot {
    bool fInArray;
    PLIndex fIndex;      // in an array
    PLIndex fCount;      // of the array
    PLStringRef fKey;    // in a dictionary, owned
    PLTypeRef fValue;    // borrowed

    Slot () : fInArray (false), fIndex (0), fCount (0), fKey (nullptr), fValue (nullptr) {}
    ~Slot () { PLRelease (fKey); }
    Slot (Slot const &) = delete;
    Slot & operator = (Slot const &) = delete;
};

std::string Article (std::string const & type)
{
    return (type == "array" || type == "integer" ? "an " : "a ") + type;
}

// Fills `slot` for component `i` of `path`. Throws when `container` is neither an array nor a
// dictionary, or when an array's component isn't a decimal index.
void Locate (PLTypeRef container, KeyPath const & path, std::size_t i, Slot & slot)
{
    std::string const & component = path [i];
    PLTypeID type = PLGetTypeID (container);
    if (type == PLDictionaryGetTypeID ()) {
        slot.fKey = PLStringCreateWithBytes (kPLAllocatorDefault, reinterpret_cast<uint8_t const *> (component.data ()),
            PLIndex (component.size ()), kPLStringEncodingUTF8, false);
        slot.fValue = PLDictionaryGetValue (static_cast<PLDictionaryRef> (container), slot.fKey);
        return;
    }
    if (type != PLArrayGetTypeID ())
        throw KeyPathFailure (path, i + 1, "the value at \"" + KeyPathText (path, i) + "\" is "
            + Article (TypeName (container)) + ", not an array or dictionary");
    if (component.empty () || component.size () > 9 || component.find_first_not_of ("0123456789") != std::string::npos)
        throw KeyPathFailure (path, i + 1, "\"" + component + "\" is not an index of the array");
    slot.fInArray = true;
    slot.fIndex = PLIndex (std::stol (component));
    slot.fCount = PLArrayGetCount (static_cast<PLArrayRef> (container));
    slot.fValue = PLArrayGetValueAtIndex (static_cast<PLArrayRef> (container), slot.fIndex);
}

std::string Holds (Slot const & slot)
{
    return "the array holds " + std::to_string (slot.fCount) + (slot.fCount == 1 ? " value" : " values");
}

Failure Missing (KeyPath const & path, std::size_t count, Slot const & slot)
{
    if (! slot.fInArray)
        return KeyPathFailure (path, count, "no such key");
    return KeyPathFailure (path, count, "no such index: " + Holds (slot));
}

}

KeyPath ParseKeyPath (std::string const & text)
{
    KeyPath path;
    if (text.empty ())
        return path;
    path.emplace_back ();
    for (std::size_t i = 0; i < text.size (); ++i) {
        if (text [i] == '\\' && i + 1 < text.size () && (text [i + 1] == '.' || text [i + 1] == '\\'))
            path.back () += text [++i];
        else if (text [i] == '.')
            path.emplace_back ();
        else
            path.back () += text [i];
    }
    return path;
}

std::string KeyPathText (KeyPath const & path, std::size_t count)
{
    std::string text;
    for (std::size_t i = 0; i < count && i < path.size (); ++i) {
        if (i > 0)
            text += '.';
        for (char c : path [i])
            text += c == '.' || c == '\\' ? std::string ("\\") + c : std::string (1, c);
    }
    return text;
}

Failure KeyPathFailure (KeyPath const & path, std::size_t count, std::string const & reason)
{
    return Failure { "key path \"" + KeyPathText (path, count) + "\": " + reason, "" };
}

PLTypeRef Find (PLTypeRef root, KeyPath const & path)
{
    PLTypeRef value = root;
    for (std::size_t i = 0; i < path.size (); ++i) {
        Slot slot;
        Locate (value, path, i, slot);
        if (slot.fValue == nullptr)
            throw Missing (path, i + 1, slot);
        value = slot.fValue;
    }
    return value;
}

PLTypeRef ApplyEdit (PLTypeRef root, KeyPath const & path, Edit edit, PLTypeRef value)
{
    if (path.empty ()) {
        if (edit == Edit::kReplace)
            return PLRetain (value);
        throw KeyPathFailure (path, 0, edit == Edit::kInsert ? "the top value is there already (use -replace)"
            : "the top value can't be removed");
    }
    std::size_t last = path.size () - 1;
    PLTypeRef container = Find (root, KeyPath (path.begin (), path.begin () + std::ptrdiff_t (last)));
    Slot slot;
    Locate (container, path, last, slot);
    if (edit == Edit::kInsert && ! slot.fInArray && slot.fValue != nullptr)
        throw KeyPathFailure (path, path.size (), "a value is there already (use -replace)");
    if (edit == Edit::kInsert && slot.fInArray && slot.fIndex > slot.fCount)
        throw KeyPathFailure (path, path.size (), "past the end: " + Holds (slot));
    if (edit != Edit::kInsert && slot.fValue == nullptr)
        throw Missing (path, path.size (), slot);
    if (slot.fInArray) {
        PLMutableArrayRef array = static_cast<PLMutableArrayRef> (const_cast<void *> (container));
        if (edit == Edit::kRemove)
            PLArrayRemoveValueAtIndex (array, slot.fIndex);
        else if (edit == Edit::kReplace)
            PLArraySetValueAtIndex (array, slot.fIndex, value);
        else if (slot.fIndex == slot.fCount)
            PLArrayAppendValue (array, value);
        else
            PLArrayInsertValueAtIndex (array, slot.fIndex, value);
    }
    else {
        PLMutableDictionaryRef dictionary = static_cast<PLMutableDictionaryRef> (const_cast<void *> (container));
        if (edit == Edit::kRemove)
            PLDictionaryRemoveValue (dictionary, slot.fKey);
        else
            PLDictionarySetValue (dictionary, slot.fKey, value);
    }
    return PLRetain (root);
}

}
