// Preferences: one file per application in the preferences directory (PlatformCopyPreferences-
// Directory), named after the application with ".plist". Reading goes to the file each time, so
// that a value written by another process is seen; values set by this process wait in memory until
// PLPreferencesAppSynchronize merges them into the file. Nothing is cached beyond those pending
// changes, so that after a synchronisation no object stays held.
//
// The file is a binary property list whose top object is a dictionary with string keys.
//
// Every step can fail for want of memory, and each failure leaves things as they were: a value
// that can't be kept pending isn't set, and a synchronisation that can't read, merge or replace
// the file gives false and keeps every change pending. A pending value is an immutable copy of
// the value given, so that what the caller changes later, and what another thread is given by
// PLPreferencesCopyAppValue, is never the caller's own object.
//
// Locks: the spin lock guards the pending changes and is held only for lookups, a copy of the
// changes and their removal, never across a file; the platform's blocking writers' lock orders
// synchronisations, each of which copies the changes, then reads, merges and replaces the file
// outside the spin lock, and then forgets the changes it wrote. A reader or a setter never waits
// on the disk.
#include "PropertyList.h"

#include <cstdlib>

using namespace Plinth;

namespace {

SpinLock sLock;
// Application name -> its pending changes: key -> an immutable copy of the new value, or
// kRemoved. Made on first use and kept for the life of the process.
PLMutableDictionaryRef sPending = nullptr;

// What waits for a key whose removal is pending: an allocator, which no preference can hold.
void const * Removed () { return kPLAllocatorNull; }

// Process-wide bookkeeping is immortal, so that it doesn't count among the caller's live objects.
template <typename T>
T * Immortal (T * object)
{
    Object * header = const_cast<Object *> (reinterpret_cast<Object const *> (object));
    if (header != nullptr && header->fRetainCount != kImmortal) {
        header->fRetainCount = kImmortal;
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

// The values stored in the file at `path`: an empty dictionary when there is no file or an empty
// one; null when the file exists but can't be read whole or isn't a property list with a
// dictionary on top, and when memory runs out.
PLMutableDictionaryRef CopyStoredValues (PLStringRef path)
{
    PLDataRef contents = nullptr;
    if (path == nullptr || ! PlatformCopyFileContents (path, contents))
        return nullptr;
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

PLMutableDictionaryRef CopyStoredValuesOf (PLStringRef name)
{
    PLStringRef directory = CopyDirectory ();
    PLStringRef path = directory == nullptr ? nullptr : CopyFilePath (directory, name);
    PLMutableDictionaryRef values = CopyStoredValues (path);
    PLRelease (path);
    PLRelease (directory);
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

// An immutable deep copy of what a preference may hold (what a property list can carry), made by
// writing it in the stored form and reading that back; null for anything else.
PLTypeRef CopyStorable (PLTypeRef value)
{
    ByteWriter out;
    ParseFailure failure;
    if (! WriteBinaryPropertyList (out, value, BinaryWidths (), failure) || out.Failed ())
        return nullptr;
    return ReadBinaryPropertyList (out.Bytes (), out.Size (), ReadOptions {kPLAllocatorDefault, false, false}, failure);
}

// The pending changes of `name`, made when asked and missing: all of it or, when memory runs out,
// nothing. The spin lock is held.
PLMutableDictionaryRef FindChanges (PLStringRef name, bool create)
{
    if (sPending == nullptr && create)
        sPending = Immortal (PLDictionaryCreateMutable (kPLAllocatorDefault, 0, &kPLTypeDictionaryKeyCallBacks,
            &kPLTypeDictionaryValueCallBacks));
    if (sPending == nullptr)
        return nullptr;
    PLMutableDictionaryRef changes = static_cast<PLMutableDictionaryRef> (
        const_cast<void *> (PLDictionaryGetValue (sPending, name)));
    if (changes != nullptr || ! create)
        return changes;
    changes = PLDictionaryCreateMutable (kPLAllocatorDefault, 1, &kPLTypeDictionaryKeyCallBacks,
        &kPLTypeDictionaryValueCallBacks);
    PLStringRef key = PLStringCreateCopy (kPLAllocatorDefault, name);
    bool kept = changes != nullptr && key != nullptr && SetDictionaryValue (sPending, key, changes);
    if (! kept) {
        PLRelease (key);
        PLRelease (changes);
        return nullptr;
    }
    Immortal (key);
    return Immortal (changes);
}

// A copy of the pending changes of `name`: null when there are none, false when memory ran out.
bool CopyChanges (PLStringRef name, PLDictionaryRef & copy)
{
    Locked locked (sLock);
    PLMutableDictionaryRef changes = FindChanges (name, false);
    copy = PLDictionaryGetCount (changes) > 0 ? PLDictionaryCreateCopy (kPLAllocatorDefault, changes) : nullptr;
    return copy != nullptr || PLDictionaryGetCount (changes) == 0;
}

struct Merge {
    PLMutableDictionaryRef fValues;
    bool fDone;
};

void MergeChange (void const * key, void const * value, void * context)
{
    Merge & merge = *static_cast<Merge *> (context);
    if (value == Removed ())
        PLDictionaryRemoveValue (merge.fValues, key);
    else
        merge.fDone = SetDictionaryValue (merge.fValues, key, value) && merge.fDone;
}

// Applies `changes` to `values`; false when memory ran out part-way.
bool MergeChanges (PLMutableDictionaryRef values, PLDictionaryRef changes)
{
    Merge merge { values, values != nullptr };
    if (merge.fDone)
        ApplyToEntries (changes, MergeChange, &merge);
    return merge.fDone;
}

// Drops from the pending changes those that `written` holds and that weren't set again since: each
// setting pends a copy of its own, so the same object means the same setting. Allocates nothing.
void ForgetChange (void const * key, void const * value, void * context)
{
    PLMutableDictionaryRef changes = static_cast<PLMutableDictionaryRef> (context);
    if (PLDictionaryGetValue (changes, key) == value)
        PLDictionaryRemoveValue (changes, key);
}

// Reads the file of `name`, applies `changes` and replaces the file; false, with the file as it
// was, when any step fails.
bool WriteChanges (PLStringRef name, PLDictionaryRef changes)
{
    PLStringRef directory = CopyDirectory ();
    PLStringRef path = directory == nullptr ? nullptr : CopyFilePath (directory, name);
    PLMutableDictionaryRef values = CopyStoredValues (path);
    PLDataRef contents = MergeChanges (values, changes) ? CreateFileContents (values) : nullptr;
    bool done = contents != nullptr && PlatformReplaceFile (directory, path, contents);
    PLRelease (contents);
    PLRelease (values);
    PLRelease (path);
    PLRelease (directory);
    return done;
}

class WritersLocked {
public:
    WritersLocked () { PlatformLockWriters (); }
    ~WritersLocked () { PlatformUnlockWriters (); }
    WritersLocked (WritersLocked const &) = delete;
    WritersLocked & operator = (WritersLocked const &) = delete;
};

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
    void const * pending = nullptr;
    {
        Locked locked (sLock);
        pending = PLRetain (PLDictionaryGetValue (FindChanges (name, false), key));
    }
    PLTypeRef value = pending == Removed () ? nullptr : pending;
    if (pending == nullptr) {
        PLMutableDictionaryRef stored = CopyStoredValuesOf (name);
        value = PLRetain (PLDictionaryGetValue (stored, key));
        PLRelease (stored);
    }
    PLRelease (name);
    return value;
}

void PLPreferencesSetAppValue (PLStringRef key, PLTypeRef value, PLStringRef applicationID)
{
    if (! IsKind (key, kStringType))
        return;
    PLTypeRef copy = value == nullptr ? nullptr : CopyStorable (value);
    PLStringRef name = copy != nullptr || value == nullptr ? CopyApplicationName (applicationID) : nullptr;
    if (name != nullptr) {
        Locked locked (sLock);
        SetDictionaryValue (FindChanges (name, true), key, value == nullptr ? Removed () : copy);
    }
    PLRelease (name);
    PLRelease (copy);
}

PLBoolean PLPreferencesAppSynchronize (PLStringRef applicationID)
{
    PLStringRef name = CopyApplicationName (applicationID);
    if (name == nullptr)
        return false;
    // Synchronisations one at a time, so that the changes copied first reach the file first.
    WritersLocked writers;
    PLDictionaryRef changes = nullptr;
    bool done = CopyChanges (name, changes) && (changes == nullptr || WriteChanges (name, changes));
    if (done && changes != nullptr) {
        Locked locked (sLock);
        ApplyToEntries (changes, ForgetChange, FindChanges (name, false));
    }
    PLRelease (changes);
    PLRelease (name);
    return done;
}

PLArrayRef PLPreferencesCopyKeyList (PLStringRef applicationID)
{
    PLStringRef name = CopyApplicationName (applicationID);
    if (name == nullptr)
        return nullptr;
    PLDictionaryRef changes = nullptr;
    PLMutableDictionaryRef values = CopyChanges (name, changes) ? CopyStoredValuesOf (name) : nullptr;
    bool merged = changes == nullptr ? values != nullptr : MergeChanges (values, changes);
    PLArrayRef list = nullptr;
    PLIndex count = PLDictionaryGetCount (values);
    if (merged && count > 0) {
        void const ** keys = static_cast<void const **> (std::calloc (std::size_t (count), sizeof (void *)));
        if (keys != nullptr) {
            PLDictionaryGetKeysAndValues (values, keys, nullptr);
            list = PLArrayCreate (kPLAllocatorDefault, keys, count, &kPLTypeArrayCallBacks);
            std::free (keys);
        }
    }
    PLRelease (changes);
    PLRelease (values);
    PLRelease (name);
    return list;
}

}
