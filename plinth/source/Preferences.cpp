// Preferences: one file per application in the preferences directory (PlatformCopyPreferences-
// Directory), named after the application with ".plist". Reading goes to the file each time, so
// that a value written by another process is seen; values set by this process wait in memory until
// PLPreferencesAppSynchronize merges them into the file. Nothing is cached beyond those pending
// changes, so that after a synchronisation no object stays held.
//
// The file is a binary property list whose top object is a dictionary with string keys.
#include "PropertyList.h"

#include <cstdlib>

using namespace Plinth;

namespace {

struct Pending {
    PLMutableDictionaryRef fChanges;   // key -> new value
    PLMutableSetRef fRemovals;         // keys to remove
};

SpinLock sLock;
// Application name -> Pending *, both made on first use and kept for the life of the process.
PLMutableDictionaryRef sPending = nullptr;

// Process-wide bookkeeping is immortal, so that it doesn't count among the caller's live objects.
template <typename T>
T * Immortal (T * object)
{
    if (object != nullptr) {
        reinterpret_cast<Object *> (object)->fRetainCount = kImmortal;
        UncountObject ();
    }
    return object;
}

bool IsValidName (PLStringRef name)
{
    PLIndex length = PLStringGetLength (name);
    if (length == 0 || PLEqual (name, PLSTR (".")) || PLEqual (name, PLSTR ("..")))
        return false;
    for (PLIndex i = 0; i < length; ++i) {
        PLUniChar c = PLStringGetCharacterAtIndex (name, i);
        if (c < 0x20 || std::strchr ("/\\:*?\"<>|", c < 0x80 ? int (c) : ' ') != nullptr)
            return false;
    }
    return true;
}

// The application's own name: the current application resolved, or null for an unusable name.
PLStringRef CopyApplicationName (PLStringRef applicationID)
{
    if (applicationID == kPLPreferencesCurrentApplication)
        return PlatformCopyExecutableName ();
    if (! IsValidName (applicationID))
        return nullptr;
    return static_cast<PLStringRef> (PLRetain (applicationID));
}

PLStringRef CopyDirectory ()
{
    return PlatformCopyPreferencesDirectory ();
}

PLStringRef CopyFilePath (PLStringRef directory, PLStringRef name)
{
    UnitBuffer path;
    path.AppendString (directory);
    path.Append (PlatformPathSeparator ());
    path.AppendString (name);
    path.AppendASCII (".plist");
    return path.CreateString (kPLAllocatorDefault);
}

// The values stored for `name`: an empty dictionary when there is no file, an empty one or no
// directory; null when the file exists but isn't a property list with a dictionary on top.
PLMutableDictionaryRef CopyStoredValues (PLStringRef name)
{
    PLStringRef directory = CopyDirectory ();
    PLStringRef path = directory == nullptr ? nullptr : CopyFilePath (directory, name);
    PLDataRef contents = path == nullptr ? nullptr : PlatformCopyFileContents (path);
    PLRelease (path);
    PLRelease (directory);
    if (contents == nullptr || PLDataGetLength (contents) == 0) {
        PLRelease (contents);
        return PLDictionaryCreateMutable (kPLAllocatorDefault, 0, &kPLTypeDictionaryKeyCallBacks,
            &kPLTypeDictionaryValueCallBacks);
    }
    PLMutableDictionaryRef values = nullptr;
    ReadOptions options {kPLAllocatorDefault, false, false};
    ParseFailure failure;
    PLTypeRef root = ReadBinaryPropertyList (PLDataGetBytePtr (contents), std::size_t (PLDataGetLength (contents)),
        options, failure);
    if (root != nullptr && PLGetTypeID (root) == PLDictionaryGetTypeID ())
        values = PLDictionaryCreateMutableCopy (kPLAllocatorDefault, 0, static_cast<PLDictionaryRef> (root));
    PLRelease (root);
    PLRelease (contents);
    return values;
}

// The file's contents for `values`, or null when something in them has no property-list form.
PLDataRef CreateFileContents (PLTypeRef values)
{
    ByteWriter out;
    ParseFailure failure;
    if (! WriteBinaryPropertyList (out, values, BinaryWidths (), failure) || out.Failed ())
        return nullptr;
    return PLDataCreate (kPLAllocatorDefault, out.Bytes (), PLIndex (out.Size ()));
}

// What a preference may hold: what a property list can carry.
bool CanBeStored (PLTypeRef value)
{
    PLDataRef contents = CreateFileContents (value);
    PLRelease (contents);
    return contents != nullptr;
}

Pending * FindPending (PLStringRef name, bool create)
{
    if (sPending == nullptr) {
        if (! create)
            return nullptr;
        sPending = Immortal (PLDictionaryCreateMutable (kPLAllocatorDefault, 0, &kPLTypeDictionaryKeyCallBacks, nullptr));
        if (sPending == nullptr)
            return nullptr;
    }
    Pending * pending = static_cast<Pending *> (const_cast<void *> (PLDictionaryGetValue (sPending, name)));
    if (pending != nullptr || ! create)
        return pending;
    pending = static_cast<Pending *> (std::calloc (1, sizeof (Pending)));
    if (pending == nullptr)
        return nullptr;
    pending->fChanges = Immortal (PLDictionaryCreateMutable (kPLAllocatorDefault, 0, &kPLTypeDictionaryKeyCallBacks,
        &kPLTypeDictionaryValueCallBacks));
    pending->fRemovals = Immortal (PLSetCreateMutable (kPLAllocatorDefault, 0, &kPLTypeSetCallBacks));
    if (pending->fChanges == nullptr || pending->fRemovals == nullptr) {
        std::free (pending);   // the immortal halves stay: there is no way to free them, nor need
        return nullptr;
    }
    PLDictionarySetValue (sPending, Immortal (const_cast<__PLString *> (PLStringCreateCopy (kPLAllocatorDefault, name))),
        pending);
    return pending;
}

}

PLStringRef const kPLPreferencesCurrentApplication = __PLStringMakeConstantString ("kPLPreferencesCurrentApplication");

extern "C" {

PLTypeRef PLPreferencesCopyAppValue (PLStringRef key, PLStringRef applicationID)
{
    if (! IsKind (key, kStringType))
        return nullptr;
    PLStringRef name = CopyApplicationName (applicationID);
    if (name == nullptr)
        return nullptr;
    PLTypeRef value = nullptr;
    bool decided = false;
    {
        Locked locked (sLock);
        if (Pending * pending = FindPending (name, false)) {
            if (PLSetContainsValue (pending->fRemovals, key))
                decided = true;
            else if (void const * changed = PLDictionaryGetValue (pending->fChanges, key)) {
                value = PLRetain (changed);
                decided = true;
            }
        }
    }
    if (! decided) {
        PLMutableDictionaryRef stored = CopyStoredValues (name);
        value = PLRetain (PLDictionaryGetValue (stored, key));
        PLRelease (stored);
    }
    PLRelease (name);
    return value;
}

void PLPreferencesSetAppValue (PLStringRef key, PLTypeRef value, PLStringRef applicationID)
{
    if (! IsKind (key, kStringType) || (value != nullptr && ! CanBeStored (value)))
        return;
    PLStringRef name = CopyApplicationName (applicationID);
    if (name == nullptr)
        return;
    {
        Locked locked (sLock);
        // NOLINTBEGIN(clang-analyzer-unix.Malloc): FindPending keeps a new record in sPending for good; the
        // analyser takes a pointer handed on as a dictionary's void const * value for one that stays here
        if (Pending * pending = FindPending (name, true)) {
            if (value == nullptr) {
                PLDictionaryRemoveValue (pending->fChanges, key);
                PLSetAddValue (pending->fRemovals, key);
            }
            else {
                PLSetRemoveValue (pending->fRemovals, key);
                PLDictionarySetValue (pending->fChanges, key, value);
            }
        }
        // NOLINTEND(clang-analyzer-unix.Malloc)
    }
    PLRelease (name);
}

PLBoolean PLPreferencesAppSynchronize (PLStringRef applicationID)
{
    PLStringRef name = CopyApplicationName (applicationID);
    if (name == nullptr)
        return false;
    bool done = false;
    // The lock is held across the file's read and write, so that two threads' changes are merged
    // one after the other; other processes may still interleave between read and replace.
    Locked locked (sLock);
    Pending * pending = FindPending (name, false);
    bool changed = pending != nullptr && (PLDictionaryGetCount (pending->fChanges) > 0
        || PLSetGetCount (pending->fRemovals) > 0);
    PLMutableDictionaryRef values = changed ? CopyStoredValues (name) : nullptr;
    PLStringRef directory = changed ? CopyDirectory () : nullptr;
    if (! changed)
        done = true;
    else if (values != nullptr && directory != nullptr) {
        PLIndex removals = PLSetGetCount (pending->fRemovals);
        void const ** keys = static_cast<void const **> (std::calloc (std::size_t (removals) + 1, sizeof (void *)));
        PLSetGetValues (pending->fRemovals, keys);
        for (PLIndex i = 0; keys != nullptr && i < removals; ++i)
            PLDictionaryRemoveValue (values, keys [i]);
        std::free (keys);
        PLIndex count = PLDictionaryGetCount (pending->fChanges);
        keys = static_cast<void const **> (std::calloc (std::size_t (count) * 2 + 1, sizeof (void *)));
        if (keys != nullptr) {
            PLDictionaryGetKeysAndValues (pending->fChanges, keys, keys + count);
            for (PLIndex i = 0; i < count; ++i)
                PLDictionarySetValue (values, keys [i], keys [count + i]);
            std::free (keys);
            PLDataRef contents = CreateFileContents (values);
            PLStringRef path = CopyFilePath (directory, name);
            done = contents != nullptr && path != nullptr && PlatformReplaceFile (directory, path, contents);
            PLRelease (path);
            PLRelease (contents);
        }
        if (done) {
            PLDictionaryRemoveAllValues (pending->fChanges);
            PLSetRemoveAllValues (pending->fRemovals);
        }
    }
    PLRelease (directory);
    PLRelease (values);
    PLRelease (name);
    return done;
}

PLArrayRef PLPreferencesCopyKeyList (PLStringRef applicationID)
{
    PLStringRef name = CopyApplicationName (applicationID);
    if (name == nullptr)
        return nullptr;
    PLMutableDictionaryRef values = CopyStoredValues (name);
    {
        Locked locked (sLock);
        Pending * pending = FindPending (name, false);
        if (pending != nullptr && values != nullptr) {
            PLIndex count = PLDictionaryGetCount (pending->fChanges);
            void const ** keys = static_cast<void const **> (std::calloc (std::size_t (count) * 2 + 1, sizeof (void *)));
            if (keys != nullptr) {
                PLDictionaryGetKeysAndValues (pending->fChanges, keys, keys + count);
                for (PLIndex i = 0; i < count; ++i)
                    PLDictionarySetValue (values, keys [i], keys [count + i]);
            }
            std::free (keys);
            count = PLSetGetCount (pending->fRemovals);
            keys = static_cast<void const **> (std::calloc (std::size_t (count) + 1, sizeof (void *)));
            PLSetGetValues (pending->fRemovals, keys);
            for (PLIndex i = 0; keys != nullptr && i < count; ++i)
                PLDictionaryRemoveValue (values, keys [i]);
            std::free (keys);
        }
    }
    PLArrayRef list = nullptr;
    PLIndex count = PLDictionaryGetCount (values);
    if (count > 0) {
        void const ** keys = static_cast<void const **> (std::calloc (std::size_t (count), sizeof (void *)));
        if (keys != nullptr) {
            PLDictionaryGetKeysAndValues (values, keys, nullptr);
            list = PLArrayCreate (kPLAllocatorDefault, keys, count, &kPLTypeArrayCallBacks);
            std::free (keys);
        }
    }
    PLRelease (values);
    PLRelease (name);
    return list;
}

}
