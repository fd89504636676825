// Preferences: one file per application in the preferences directory (PlatformCopyPreferences-
// Directory), named after the application with ".plist". Reading goes to the file each time, so
// that a value written by another process is seen; values set by this process wait in memory until
// PLPreferencesAppSynchronize merges them into the file. Nothing is cached beyond those pending
// changes, so that after a synchronisation no object stays held.
//
// The file is a binary property list whose top object is a dictionary with string keys; a file in
// the XML form is read too, and written back in the binary one.
//
// Nothing stored is lost. A synchronisation takes the lock file beside the store ("<name>.plist.
// lock", PlatformLockFile: flock natively, LockFileEx on Windows) for its read, merge and replace,
// so that another process's synchronisation can't come between, and writes over the stored values
// only the keys this process set or removed since: two processes keep each other's keys. Only a
// missing file is an empty store: one that exists but can't be read now, or can't be replaced (a
// read-only one, one held open past the replace's wait), fails the synchronisation and stays as
// it was. A damaged store (bytes that read whole but aren't a property list with a dictionary on
// top) would fail every synchronisation for ever: its bytes are kept in "<name>.plist.damaged-
// <UTC time>" beside it, one line on standard error says so, and the values start afresh; a reader
// finds no values in it.
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
#include "FileAccess.h"
#include "PropertyList.h"

#include <cstdlib>
#include <cstring>
#include <ctime>

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

// A file of the store's directory: the application's name and `suffix`.
PLStringRef CopyFilePath (PLStringRef directory, PLStringRef name, char const * suffix)
{
    UnitBuffer path;
    path.AppendString (directory);
    path.Append (PlatformPathSeparator ());
    path.AppendString (name);
    path.AppendASCII (suffix);
    return path.CreateString (kPLAllocatorDefault);
}

// Where an application's values live: the directory, the store and the lock file beside it.
class StorePaths {
public:
    explicit StorePaths (PLStringRef name)
        : fDirectory (PlatformCopyPreferencesDirectory ()),
          fFile (fDirectory == nullptr ? nullptr : CopyFilePath (fDirectory, name, ".plist")),
          fLock (fFile == nullptr ? nullptr : CopyFilePath (fDirectory, name, ".plist.lock")) {}
    ~StorePaths ()
    {
        PLRelease (fLock);
        PLRelease (fFile);
        PLRelease (fDirectory);
    }
    StorePaths (StorePaths const &) = delete;
    StorePaths & operator = (StorePaths const &) = delete;

    bool Made () const { return fLock != nullptr; }

    PLStringRef const fDirectory, fFile, fLock;
};

bool IsOutOfMemory (ParseFailure const & failure)
{
    return failure.fReason != nullptr && std::strcmp (failure.fReason, "out of memory") == 0;
}

// The values stored in the file at `path` (of either format), in `values`, with the file's bytes in
// `contents` (null when there is none): no values when there is no file or an empty one, and none
// when the file is damaged (not a property list with a dictionary on top), which `damage` then
// says. False, with `values` null, when the file exists but can't be read whole, and when memory
// runs out: a file that can't be read now is never taken for an empty store.
bool ReadStore (PLStringRef path, PLMutableDictionaryRef & values, PLDataRef & contents, ParseFailure & damage)
{
    values = nullptr;
    if (path == nullptr || ! PlatformCopyFileContents (path, contents))
        return false;
    std::size_t size = contents == nullptr ? 0 : std::size_t (PLDataGetLength (contents));
    PLTypeRef root = nullptr;
    if (size > 0) {
        uint8_t const * bytes = PLDataGetBytePtr (contents);
        ReadOptions options {kPLAllocatorDefault, false, false};
        root = size >= 6 && std::memcmp (bytes, "bplist", 6) == 0 ? ReadBinaryPropertyList (bytes, size, options, damage)
            : ReadXMLPropertyList (bytes, size, options, damage);
        if (root != nullptr && PLGetTypeID (root) != PLDictionaryGetTypeID ())
            damage.Fail ("the top object is not a dictionary");
    }
    // A read that fails for want of memory may give no reason: only one that gives another is damage.
    if (size == 0 || (damage.fReason != nullptr && ! IsOutOfMemory (damage)))
        values = PLDictionaryCreateMutable (kPLAllocatorDefault, 0, &kPLTypeDictionaryKeyCallBacks, &kPLTypeDictionaryValueCallBacks);
    else if (root != nullptr)
        values = PLDictionaryCreateMutableCopy (kPLAllocatorDefault, 0, static_cast<PLDictionaryRef> (root));
    PLRelease (root);
    return values != nullptr;
}

// The stored values of `name` for a reader: a damaged store has none; null when the store can't
// be read.
PLMutableDictionaryRef CopyStoredValuesOf (PLStringRef name)
{
    StorePaths paths (name);
    PLMutableDictionaryRef values = nullptr;
    PLDataRef contents = nullptr;
    ParseFailure damage;
    ReadStore (paths.fFile, values, contents, damage);
    PLRelease (contents);
    return values;
}

// Replaces the file at `path` with `bytes`, whole or not at all (FileAccess.h).
bool ReplaceFile (PLStringRef path, uint8_t const * bytes, std::size_t size)
{
    PlatformFile * file = PlatformOpenFile (path, true);
    if (file == nullptr)
        return false;
    bool written = size <= std::size_t (INT32_MAX) && PlatformWriteFile (file, bytes, PLIndex (size));
    return PlatformCloseFile (file, written) && written;
}

// The store of `values`, in the binary form whatever form it was read in.
bool ReplaceStore (PLStringRef path, PLDictionaryRef values)
{
    ByteWriter out;
    ParseFailure failure;
    return WriteBinaryPropertyList (out, values, BinaryWidths (), failure) && ! out.Failed ()
        && ReplaceFile (path, out.Bytes (), out.Size ());
}

void Log (PLStringRef line)
{
    PLIndex size = line == nullptr ? -1 : PLStringGetMaximumSizeForEncoding (PLStringGetLength (line), kPLStringEncodingUTF8);
    char * text = size < 0 ? nullptr : static_cast<char *> (std::malloc (std::size_t (size) + 1));
    if (text != nullptr && PLStringGetCString (line, text, size + 1, kPLStringEncodingUTF8))
        PlatformLog (text);
    std::free (text);
}

// "<store>.damaged-<UTC time>", and when that is taken "...-<number>".
PLStringRef CopyDamagedPath (PLStringRef path, CivilTime const & now, int number)
{
    PLStringRef stamp = PLStringCreateWithFormat (kPLAllocatorDefault, nullptr, PLSTR ("%@.damaged-%04lld%02lld%02lldT%02lld%02lld%02lldZ"),
        path, (long long) now.fYear, (long long) now.fMonth, (long long) now.fDay, (long long) now.fHour,
        (long long) now.fMinute, (long long) now.fSecond);
    if (number == 1 || stamp == nullptr)
        return stamp;
    PLStringRef numbered = PLStringCreateWithFormat (kPLAllocatorDefault, nullptr, PLSTR ("%@-%d"), stamp, number);
    PLRelease (stamp);
    return numbered;
}

// A damaged store isn't left to fail every synchronisation for ever, nor overwritten: its bytes
// are kept in a new file beside it, which one line names, and its values start afresh. False when
// they can't be kept.
bool KeepDamaged (PLStringRef path, PLDataRef contents, ParseFailure const & damage)
{
    CivilTime now = CivilFromSeconds (int64_t (std::time (nullptr)));
    for (int number = 1; number < 100; ++number) {
        PLStringRef aside = CopyDamagedPath (path, now, number);
        PLDataRef existing = nullptr;
        bool taken = aside == nullptr || ! PlatformCopyFileContents (aside, existing) || existing != nullptr;
        bool kept = ! taken && ReplaceFile (aside, PLDataGetBytePtr (contents), std::size_t (PLDataGetLength (contents)));
        if (kept) {
            PLStringRef at = damage.fHasOffset ? PLStringCreateWithFormat (kPLAllocatorDefault, nullptr, PLSTR (", at byte %llu"),
                (unsigned long long) damage.fOffset) : PLSTR ("");
            PLStringRef line = PLStringCreateWithFormat (kPLAllocatorDefault, nullptr,
                PLSTR ("Plinth: the preferences file %@ is damaged (%s%@); its bytes are kept in %@, and its values start afresh"),
                path, damage.fReason, at, aside);
            PLRelease (at);
            Log (line);
            PLRelease (line);
        }
        PLRelease (existing);
        PLRelease (aside);
        if (aside == nullptr || ! taken)
            return kept;
    }
    return false;
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

// Under the lock file, so that no other process's synchronisation comes between: reads the store
// of `name`, applies `changes` (only the keys this process changed) and replaces the store; false,
// with the store as it was, when any step fails. A damaged store is kept aside first.
bool WriteChanges (PLStringRef name, PLDictionaryRef changes)
{
    StorePaths paths (name);
    PlatformFileLock * lock = paths.Made () && PlatformMakeDirectories (paths.fDirectory) ? PlatformLockFile (paths.fLock) : nullptr;
    if (lock == nullptr)
        return false;
    PLMutableDictionaryRef values = nullptr;
    PLDataRef contents = nullptr;
    ParseFailure damage;
    bool done = ReadStore (paths.fFile, values, contents, damage) && MergeChanges (values, changes)
        && (damage.fReason == nullptr || KeepDamaged (paths.fFile, contents, damage)) && ReplaceStore (paths.fFile, values);
    PlatformUnlockFile (lock);
    PLRelease (contents);
    PLRelease (values);
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
