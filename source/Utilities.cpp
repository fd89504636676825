// Kernel objects (Handle, Event, Overlapped, Mutex), the process services of Skerry::Miscellany,
// registry keys, values and sub-key snapshots (Skerry::Registry), temporary paths, wild-card
// walks and command lines.

#include <LibSkerry/Utilities>
#include <LibSkerry/Exceptions>

#include "LogLine.h"

#include <windows.h>
#include <rpc.h>
#include <shellapi.h>
#include <shlwapi.h>

#include <algorithm>
#include <cstring>
#include <cwchar>
#include <exception>
#include <utility>

namespace Skerry {

namespace {

// A new handle of this process on the kernel object of `handle` (a handle of `process`), with the
// same access, not inheritable; GetLastError () tells why when it gives false.
bool DuplicateIntoThisProcess (void * process, void * handle, void * * duplicate)
{
    return ::DuplicateHandle (process, handle, ::GetCurrentProcess (), duplicate, 0, FALSE,
        DUPLICATE_SAME_ACCESS) != FALSE;
}

}

Handle::Handle (void * handle)
    : fHandle (handle), fInvalid (true)
{
}

Handle::Handle (void * handle, void * process)
    : fHandle (NULL), fInvalid (true)
{
    SKERRY_SITE ("Skerry::Handle::Handle");
    if (! DuplicateIntoThisProcess (process, handle, &fHandle))
        SKERRY_THROW_WIN32 (::GetLastError ());
    fInvalid = false;
}

// A copy of an object that owns nothing leaves fHandle unset and makes no call.
Handle::Handle (const Handle & other)
    : fInvalid (true)
{
    SKERRY_SITE ("Skerry::Handle::Handle");
    if (other.fInvalid)
        return;
    if (! DuplicateIntoThisProcess (::GetCurrentProcess (), other.fHandle, &fHandle))
        SKERRY_THROW_WIN32 (::GetLastError ());
    fInvalid = false;
}

// Duplicate first, close second: until the last two stores nothing of this object has changed,
// so every failure leaves it as it was.
Handle & Handle::operator = (const Handle & other)
{
    SKERRY_SITE ("Skerry::Handle::operator =");
    if (&other == this || (other.fInvalid && fInvalid))
        return *this;
    if (other.fInvalid) {
        if (! ::CloseHandle (fHandle))
            SKERRY_THROW_WIN32 (::GetLastError ());
        fHandle = other.fHandle;
        fInvalid = true;
        return *this;
    }
    void * duplicate = NULL;
    if (! DuplicateIntoThisProcess (::GetCurrentProcess (), other.fHandle, &duplicate))
        SKERRY_THROW_WIN32 (::GetLastError ());
    if (! fInvalid && ! ::CloseHandle (fHandle)) {
        DWORD error = ::GetLastError ();
        if (! ::CloseHandle (duplicate))
            error = ::GetLastError ();
        SKERRY_THROW_WIN32 (error);
    }
    fHandle = duplicate;
    fInvalid = false;
    return *this;
}

Handle::~Handle () noexcept (false)
{
    CloseIfOwned ();
}

void Handle::CloseIfOwned ()
{
    if (fInvalid)
        return;
    fInvalid = true;
    if (! ::CloseHandle (fHandle))
        RaiseUnlessUnwinding ("Skerry::Handle::~Handle", __FILE__, __LINE__, ::GetLastError ());
}

void * Handle::Detach ()
{
    fInvalid = true;
    return fHandle;
}

Handle::operator void * () const
{
    SKERRY_SITE ("Skerry::Handle::operator void *");
    SKERRY_ASSERT (!fInvalid);
    return fHandle;
}

// Raising while another exception unwinds would end the process; the failure is still told, in
// the log line that a throw writes first, worded for a throw that doesn't happen.
void Handle::RaiseUnlessUnwinding (char const * function, char const * file, int line, unsigned long error)
{
    if (std::uncaught_exceptions () == 0)
        Exceptions::ThrowWin32ErrorFunc (function, file, line, error);
    Exceptions::LogFunc ("%s: not throwing exception due to Win32 error %lu on line %d of file %s "
        "while another exception is unwinding", function, error, line, file);
}

Event::Event (bool manualReset, bool initialState, const wchar_t * name, const _SECURITY_ATTRIBUTES * attributes)
    : Handle (::CreateEventW (const_cast<_SECURITY_ATTRIBUTES *> (attributes), manualReset, initialState, name))
{
    SKERRY_SITE ("Skerry::Event::Event");
    if (fHandle == NULL)
        SKERRY_THROW_WIN32 (::GetLastError ());
    fInvalid = false;
}

Event::~Event () noexcept (false) = default;

void Event::Set ()
{
    SKERRY_SITE ("Skerry::Event::Set");
    if (! ::SetEvent (fHandle))
        SKERRY_THROW_WIN32 (::GetLastError ());
}

void Event::Reset ()
{
    SKERRY_SITE ("Skerry::Event::Reset");
    if (! ::ResetEvent (fHandle))
        SKERRY_THROW_WIN32 (::GetLastError ());
}

Overlapped::Overlapped (const Event & event)
    : _OVERLAPPED (), Event (event)
{
    hEvent = OwnEvent ();
}

Overlapped::Overlapped (const Overlapped & other)
    : _OVERLAPPED (other), Event (other)
{
    hEvent = OwnEvent ();
}

// The handle first: a failed duplicate or close leaves every field of the target as it was.
Overlapped & Overlapped::operator = (const Overlapped & other)
{
    Handle::operator = (other);
    Internal = other.Internal;
    InternalHigh = other.InternalHigh;
    Offset = other.Offset;
    OffsetHigh = other.OffsetHigh;
    hEvent = OwnEvent ();
    return *this;
}

Overlapped::~Overlapped () noexcept (false) = default;

void Overlapped::ClearOVERLAPPED (_OVERLAPPED * overlapped)
{
    overlapped->Internal = 0;
    overlapped->InternalHigh = 0;
    overlapped->Offset = 0;
    overlapped->OffsetHigh = 0;
    overlapped->hEvent = NULL;
}

void * Overlapped::OwnEvent () const
{
    return fInvalid ? NULL : fHandle;
}

void Overlapped::Recycle ()
{
    void * event = hEvent;
    ClearOVERLAPPED (this);
    hEvent = event;
}

// GetOverlappedResult never waits itself: a requested wait has happened on hEvent already.
unsigned long Overlapped::GetResult (void * file, unsigned long * bytes, bool wait)
{
    SKERRY_SITE ("Skerry::Overlapped::GetResult");
    if (wait) {
        SKERRY_ASSERT (hEvent);
        DWORD wfsoResult = ::WaitForSingleObject (hEvent, INFINITE);
        SKERRY_ASSERT (WAIT_OBJECT_0 == wfsoResult);
    }
    if (! ::GetOverlappedResult (file, this, bytes, FALSE))
        return ::GetLastError ();
    return ERROR_SUCCESS;
}

// The last error is read at once: it alone tells a created mutex from an opened one. A failure
// after the handle came closes it through the Handle part, which owns it from then on.
Mutex::Mutex (bool initialOwner, const wchar_t * name, const _SECURITY_ATTRIBUTES * attributes)
    : Handle (::CreateMutexW (const_cast<_SECURITY_ATTRIBUTES *> (attributes), initialOwner, name)),
      fOwned (false), fCreated (false)
{
    SKERRY_SITE ("Skerry::Mutex::Mutex");
    DWORD lastError = ::GetLastError ();
    if (fHandle == NULL)
        SKERRY_THROW_WIN32 (lastError);
    fInvalid = false;
    if (lastError == ERROR_ALREADY_EXISTS)
        return;
    SKERRY_ASSERT (ERROR_SUCCESS == lastError);
    fOwned = initialOwner;
    fCreated = true;
}

Mutex::~Mutex () noexcept (false)
{
    SKERRY_SITE ("Skerry::Mutex::~Mutex");
    if (! fOwned)
        return;
    if (std::uncaught_exceptions () > 0) {
        if (::ReleaseMutex (fHandle))
            fOwned = false;
        else
            RaiseUnlessUnwinding (skerrySiteFunction, __FILE__, __LINE__, ::GetLastError ());
        return;
    }
    Release ();
    SKERRY_ASSERT (!fOwned);
}

bool Mutex::Wait (unsigned long timeout)
{
    SKERRY_SITE ("Skerry::Mutex::Wait");
    SKERRY_ASSERT (!fOwned);
    DWORD wfsoResult = ::WaitForSingleObject (fHandle, timeout);
    if (wfsoResult == WAIT_FAILED)
        SKERRY_THROW_WIN32 (::GetLastError ());
    if (wfsoResult == WAIT_TIMEOUT)
        return false;
    SKERRY_ASSERT (WAIT_ABANDONED == wfsoResult || WAIT_OBJECT_0 == wfsoResult);
    fOwned = true;
    return true;
}

void Mutex::Release ()
{
    SKERRY_SITE ("Skerry::Mutex::Release");
    SKERRY_ASSERT (fOwned);
    if (! ::ReleaseMutex (fHandle))
        SKERRY_THROW_WIN32 (::GetLastError ());
    fOwned = false;
}

namespace Miscellany {

HINSTANCE__ * EnsureLibrary (const wchar_t * name, void * & slot)
{
    SKERRY_SITE ("Skerry::Miscellany::EnsureLibrary");
    if (slot != NULL)
        return static_cast <HINSTANCE__ *> (slot);
    HMODULE module = ::LoadLibraryW (name);
    if (module == NULL)
        SKERRY_THROW_WIN32 (::GetLastError ());
    // Only the first store survives; a thread that lost the race gives its own reference back.
    if (::InterlockedCompareExchangePointer (&slot, module, NULL) != NULL)
        if (! ::FreeLibrary (module))
            SKERRY_THROW_WIN32 (::GetLastError ());
    return static_cast <HINSTANCE__ *> (slot);
}

void BreakIfBeingDebugged ()
{
}

// The platform's error codes are not looked at: a version either is there and well formed, or
// it isn't, and the words say which step found out.
unsigned __int64 GetVersion (const std::wstring & path)
{
    SKERRY_SITE ("Skerry::Miscellany::GetVersion");
    DWORD handle = 0;
    DWORD size = ::GetFileVersionInfoSizeW (path.c_str (), &handle);
    if (size == 0)
        SKERRY_THROW_STRING ("GetFileVersionInfoSize failed");
    ArrayBuffer<unsigned char> buffer (size);
    if (! ::GetFileVersionInfoW (path.c_str (), handle, size, buffer))
        SKERRY_THROW_STRING ("GetFileVersionInfo failed");
    void * root = NULL;
    UINT length = 0;
    if (! ::VerQueryValueW (buffer, L"\\", &root, &length))
        SKERRY_THROW_STRING ("VerQueryValue failed");
    const VS_FIXEDFILEINFO * info = static_cast<const VS_FIXEDFILEINFO *> (root);
    if (info->dwSignature != 0xFEEF04BD)
        SKERRY_THROW_STRING ("wild VS_FIXEDFILEINFO signature");
    if (info->dwStrucVersion != 0x10000)
        SKERRY_THROW_STRING ("unknown VS_FIXEDFILEINFO format");
    return (static_cast<unsigned __int64> (info->dwFileVersionMS) << 32) | info->dwFileVersionLS;
}

_GUID CreateSequentialUUID (bool * localOnly)
{
    SKERRY_SITE ("Skerry::Miscellany::CreateSequentialUUID");
    _GUID result;
    RPC_STATUS status = ::UuidCreateSequential (&result);
    if (status != RPC_S_OK && status != RPC_S_UUID_LOCAL_ONLY)
        SKERRY_THROW_STRING ("UuidCreateSequential failed");
    if (localOnly != NULL)
        *localOnly = status == RPC_S_UUID_LOCAL_ONLY;
    return result;
}

bool FileSystemObjectExists (const wchar_t * path, bool * isDirectory)
{
    SKERRY_SITE ("Skerry::Miscellany::FileSystemObjectExists");
    DWORD attributes = ::GetFileAttributesW (path);
    if (attributes == INVALID_FILE_ATTRIBUTES) {
        DWORD error = ::GetLastError ();
        if (error == ERROR_FILE_NOT_FOUND)
            return false;
        SKERRY_THROW_WIN32 (error);
    }
    if (isDirectory != NULL)
        *isDirectory = (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
    return true;
}

bool FileSystemObjectExists (const std::wstring & path, bool * isDirectory)
{
    return FileSystemObjectExists (path.c_str (), isDirectory);
}

namespace {

// The outcome table of both waits, reported as `function`; `count` handles were waited on.
unsigned long WaitOutcome (char const * function, DWORD result, unsigned long count, unsigned long timeout,
    bool allowAbandoned)
{
    SKERRY_SITE (function);
    if (result == WAIT_FAILED)
        SKERRY_THROW_WIN32 (::GetLastError ());
    if (result == WAIT_TIMEOUT) {
        if (timeout == INFINITE)
            SKERRY_THROW_SKERRY (1);
        return result;
    }
    if (result - WAIT_ABANDONED_0 < count) {
        if (! allowAbandoned)
            SKERRY_THROW_SKERRY (2);
        return result;
    }
    if (result - WAIT_OBJECT_0 < count)
        return result;
    SKERRY_THROW_WIN32 (ERROR_INTERNAL_ERROR);
}

}

unsigned long WaitForSingleObject (void * handle, unsigned long timeout, bool allowAbandoned)
{
    DWORD result = ::WaitForSingleObject (handle, timeout);
    return WaitOutcome ("Skerry::Miscellany::WaitForSingleObject", result, 1, timeout, allowAbandoned);
}

unsigned long WaitForMultipleObjects (unsigned long count, void * const * const handles, unsigned long timeout,
    bool allowAbandoned)
{
    DWORD result = ::WaitForMultipleObjects (count, handles, FALSE, timeout);
    return WaitOutcome ("Skerry::Miscellany::WaitForMultipleObjects", result, count, timeout, allowAbandoned);
}

// Whatever the wait raises (an invalid event, an abandonment not allowed) means the cancellation
// wasn't confirmed: the answer is false, never an exception.
bool CancelIo (void * file, void * event, bool allowAbandoned)
{
    if (! ::CancelIo (file))
        return false;
    try {
        return Miscellany::WaitForSingleObject (event, INFINITE, allowAbandoned) == WAIT_OBJECT_0;
    }
    catch (...) {
        return false;
    }
}

std::wstring ExpandEnvironmentStringsW (const std::wstring & source)
{
    SKERRY_SITE ("Skerry::Miscellany::ExpandEnvironmentStringsW");
    if (source.empty ())
        return source;
    DWORD requestedBufferSize = ::ExpandEnvironmentStringsW (source.c_str (), NULL, 0);
    if (requestedBufferSize == 0)
        SKERRY_THROW_WIN32 (::GetLastError ());
    ArrayBuffer<wchar_t> buffer (requestedBufferSize);
    DWORD actualBufferSize = ::ExpandEnvironmentStringsW (source.c_str (), buffer, requestedBufferSize);
    SKERRY_ASSERT (actualBufferSize == requestedBufferSize);
    return std::wstring (buffer, requestedBufferSize - 1);
}

}

namespace {

// The platform takes a numeric name or type as a pointer whose value is the number.
const wchar_t * IntegerResource (unsigned short value)
{
    return MAKEINTRESOURCEW (value);
}

}

const void * LoadedLibrary::GetResource (const wchar_t * name, const wchar_t * type, unsigned short language) const
{
    SKERRY_SITE ("Skerry::LoadedLibrary::GetResource");
    HRSRC resource = ::FindResourceExW (fModule, type, name, language);
    if (resource == NULL)
        SKERRY_THROW_WIN32 (::GetLastError ());
    HGLOBAL loaded = ::LoadResource (fModule, resource);
    if (loaded == NULL)
        SKERRY_THROW_WIN32 (::GetLastError ());
    const void * data = ::LockResource (loaded);
    if (data == NULL)
        SKERRY_THROW_STRING ("LockResource failed");
    return data;
}

const void * LoadedLibrary::GetResource (const wchar_t * name, unsigned short type, unsigned short language) const
{
    return GetResource (name, IntegerResource (type), language);
}

const void * LoadedLibrary::GetResource (unsigned short name, const wchar_t * type, unsigned short language) const
{
    return GetResource (IntegerResource (name), type, language);
}

const void * LoadedLibrary::GetResource (unsigned short name, unsigned short type, unsigned short language) const
{
    return GetResource (IntegerResource (name), IntegerResource (type), language);
}

// A result of size - 1 may be a string cut to fit, so only a shorter one is known to be whole.
std::wstring LoadedLibrary::GetString (unsigned int id) const
{
    SKERRY_SITE ("Skerry::LoadedLibrary::GetString");
    for (unsigned int size = 150; ; size *= 2) {
        ArrayBuffer<wchar_t> buffer (size);
        // Wine leaves the last error as it was for an id missing from an existing string block,
        // where Windows sets ERROR_RESOURCE_NAME_NOT_FOUND; cleared first, so that a stale code
        // from an earlier call is never reported, and the missing string reads the same on both.
        ::SetLastError (ERROR_SUCCESS);
        int n = ::LoadStringW (fModule, id, buffer, static_cast<int> (size));
        if (n == 0) {
            DWORD error = ::GetLastError ();
            SKERRY_THROW_WIN32 (error != ERROR_SUCCESS ? error : ERROR_RESOURCE_NAME_NOT_FOUND);
        }
        if (static_cast<unsigned int> (n) < size - 1)
            return std::wstring (buffer, static_cast<unsigned int> (n));
    }
}

// A result equal to size is a path cut to fit.
std::wstring LoadedLibrary::GetPath () const
{
    SKERRY_SITE ("Skerry::LoadedLibrary::GetPath");
    for (unsigned int size = 300; ; size *= 2) {
        ArrayBuffer<wchar_t> buffer (size);
        DWORD n = ::GetModuleFileNameW (fModule, buffer, size);
        if (n == 0)
            SKERRY_THROW_WIN32 (::GetLastError ());
        if (n < size)
            return std::wstring (buffer, n);
    }
}

unsigned __int64 LoadedLibrary::GetVersion () const
{
    return Miscellany::GetVersion (GetPath ());
}

namespace Registry {

namespace {

// Opens or creates the key of a Key under construction. The registry's calls return their error
// rather than setting the last error.
HKEY ConstructKey (HKEY parent, const wchar_t * child, bool create, unsigned long access)
{
    SKERRY_SITE ("ConstructKey");
    SKERRY_ASSERT (parent);
    SKERRY_ASSERT (child || !create);
    // Checked for both paths, although only opening uses it.
    SKERRY_ASSERT (access);
    HKEY key = NULL;
    LONG error = create ? ::RegCreateKeyW (parent, child, &key) : ::RegOpenKeyExW (parent, child, 0, access, &key);
    if (error != ERROR_SUCCESS)
        SKERRY_THROW_WIN32 (error);
    return key;
}

}

Key::Key (HKEY__ * parent, const wchar_t * child, bool create, unsigned long access)
    : Handle (ConstructKey (parent, child, create, access))
{
    fInvalid = false;
}

Key::Key (HKEY__ * parent, const std::wstring & child, bool create, unsigned long access)
    : Key (parent, child.c_str (), create, access)
{
}

Key::Key (const Key & parent, const wchar_t * child, bool create, unsigned long access)
    : Key (parent.Raw (), child, create, access)
{
}

Key::Key (const Key & parent, const std::wstring & child, bool create, unsigned long access)
    : Key (parent.Raw (), child.c_str (), create, access)
{
}

Key::Key (const Key & other) = default;

Key::Key (Key && other) noexcept
    : Handle (other.fHandle)
{
    fInvalid = other.fInvalid;
    other.fInvalid = true;
}

Key & Key::operator = (const Key & other)
{
    Handle::operator = (other);
    return *this;
}

// The handle is given up before RegCloseKey is asked, whatever it answers: a failed close must not
// be followed by the Handle part's CloseHandle on the same value.
Key::~Key () noexcept (false)
{
    if (fInvalid)
        return;
    fInvalid = true;
    LONG error = ::RegCloseKey (Raw ());
    if (error != ERROR_SUCCESS)
        RaiseUnlessUnwinding ("Skerry::Registry::Key::~Key", __FILE__, __LINE__, error);
}

// The query of the child's default value, with neither buffer nor size, succeeds for any child
// that exists, whether or not the value is set.
bool Key::Exists (HKEY__ * parent, const wchar_t * child)
{
    SKERRY_SITE ("Skerry::Registry::Key::Exists");
    LONG error = ::RegQueryValueW (parent, child, NULL, NULL);
    if (error == ERROR_FILE_NOT_FOUND)
        return false;
    if (error != ERROR_SUCCESS)
        SKERRY_THROW_WIN32 (error);
    return true;
}

bool Key::Exists (HKEY__ * parent, const std::wstring & child)
{
    return Exists (parent, child.c_str ());
}

bool Key::Exists (const Key & parent, const wchar_t * child)
{
    return Exists (parent.Raw (), child);
}

bool Key::Exists (const Key & parent, const std::wstring & child)
{
    return Exists (parent.Raw (), child.c_str ());
}

void Key::Delete (HKEY__ * parent, const wchar_t * child)
{
    SKERRY_SITE ("Skerry::Registry::Key::Delete");
    SKERRY_ASSERT (parent);
    SKERRY_ASSERT (child);
    LONG error = ::RegDeleteKeyW (parent, child);
    if (error != ERROR_SUCCESS)
        SKERRY_THROW_WIN32 (error);
}

void Key::Delete (HKEY__ * parent, const std::wstring & child)
{
    Delete (parent, child.c_str ());
}

void Key::Delete (const Key & parent, const wchar_t * child)
{
    Delete (parent.Raw (), child);
}

void Key::Delete (const Key & parent, const std::wstring & child)
{
    Delete (parent.Raw (), child.c_str ());
}

void Key::DeleteTree (HKEY__ * parent, const wchar_t * child)
{
    SKERRY_SITE ("Skerry::Registry::Key::DeleteTree");
    SKERRY_ASSERT (parent);
    SKERRY_ASSERT (child);
    DWORD error = ::SHDeleteKeyW (parent, child);
    if (error != ERROR_SUCCESS)
        SKERRY_THROW_WIN32 (error);
}

void Key::NotifyChange (bool watchSubtree, unsigned long filter, void * event, bool asynchronous) const
{
    SKERRY_SITE ("Skerry::Registry::Key::NotifyChange");
    LONG error = ::RegNotifyChangeKeyValue (Raw (), watchSubtree, filter, event, asynchronous);
    if (error != ERROR_SUCCESS)
        SKERRY_THROW_WIN32 (error);
}

bool Key::EnumerateSubKeys (unsigned long index, wchar_t * name, unsigned long * nameSize) const
{
    SKERRY_SITE ("Skerry::Registry::Key::EnumerateSubKeys");
    LONG error = ::RegEnumKeyExW (Raw (), index, name, nameSize, NULL, NULL, NULL, NULL);
    if (error == ERROR_NO_MORE_ITEMS)
        return false;
    if (error != ERROR_SUCCESS)
        SKERRY_THROW_WIN32 (error);
    return true;
}

// A REG_SZ whose last whole character isn't a terminator is told as a value that didn't fit, so
// that no caller takes it for a terminated string. The buffer is the caller's, of any alignment.
unsigned long Key::GetValue (const wchar_t * name, void * data, unsigned long * size, unsigned long * type) const
{
    SKERRY_SITE ("Skerry::Registry::Key::GetValue");
    if (size == NULL || name == NULL || *name == L'\0')
        SKERRY_THROW_WIN32 (ERROR_INVALID_PARAMETER);
    unsigned long ownType = REG_NONE;
    if (type == NULL)
        type = &ownType;
    LONG error = ::RegQueryValueExW (Raw (), name, NULL, type, static_cast<BYTE *> (data), size);
    if (error == ERROR_FILE_NOT_FOUND || error == ERROR_MORE_DATA)
        return error;
    if (error != ERROR_SUCCESS)
        SKERRY_THROW_WIN32 (error);
    if (data != NULL && *type == REG_SZ && *size >= sizeof (WCHAR)) {
        WCHAR last = 0;
        std::memcpy (&last, static_cast<const BYTE *> (data) + (*size / sizeof (WCHAR) - 1) * sizeof (WCHAR), sizeof last);
        if (last != 0)
            return ERROR_MORE_DATA;
    }
    return ERROR_SUCCESS;
}

// Two passes and no retry: a value that changed in between fails the read rather than being read
// half old, half new.
std::wstring Key::GetValue (const wchar_t * name) const
{
    SKERRY_SITE ("Skerry::Registry::Key::GetValue");
    unsigned long type = REG_NONE;
    unsigned long bufferSize = GetValueSize (name, &type);
    SKERRY_ASSERT (type == REG_SZ || type == REG_EXPAND_SZ);
    SKERRY_ASSERT (0 == bufferSize % sizeof (WCHAR));
    ArrayBuffer<wchar_t> buffer (bufferSize / sizeof (WCHAR));
    unsigned long actualSize = bufferSize;
    unsigned long error = GetValue (name, static_cast<wchar_t *> (buffer), &actualSize, &type);
    if (error != ERROR_SUCCESS)
        SKERRY_THROW_WIN32 (error);
    SKERRY_ASSERT (0 == actualSize % sizeof (WCHAR));
    SKERRY_ASSERT (actualSize <= bufferSize);
    SKERRY_ASSERT (type == REG_SZ || type == REG_EXPAND_SZ);
    // A value of zero bytes has no terminator to drop: it is the empty string.
    if (actualSize == 0)
        return std::wstring ();
    // The last character is dropped unseen; zero characters before it stay.
    std::wstring result (buffer, actualSize / sizeof (WCHAR) - 1);
    if (type == REG_EXPAND_SZ)
        return Miscellany::ExpandEnvironmentStringsW (result);
    return result;
}

// `value` may have been overwritten when the type or size is refused.
void Key::GetValue (const wchar_t * name, unsigned long & value) const
{
    SKERRY_SITE ("Skerry::Registry::Key::GetValue");
    unsigned long size = sizeof value;
    unsigned long type = REG_NONE;
    unsigned long error = GetValue (name, &value, &size, &type);
    if (error != ERROR_SUCCESS)
        SKERRY_THROW_WIN32 (error);
    if (type != REG_DWORD || size != sizeof value)
        SKERRY_THROW_WIN32 (ERROR_INVALID_PARAMETER);
}

unsigned long Key::GetValueSize (const wchar_t * name, unsigned long * type) const
{
    SKERRY_SITE ("Skerry::Registry::Key::GetValueSize");
    unsigned long size = 0;
    unsigned long error = GetValue (name, NULL, &size, type);
    if (error != ERROR_SUCCESS)
        SKERRY_THROW_WIN32 (error);
    return size;
}

bool Key::ValueExists (const wchar_t * name, unsigned long * type) const
{
    SKERRY_SITE ("Skerry::Registry::Key::ValueExists");
    unsigned long size = 0;
    unsigned long error = GetValue (name, NULL, &size, type);
    if (error == ERROR_FILE_NOT_FOUND)
        return false;
    if (error != ERROR_SUCCESS)
        SKERRY_THROW_WIN32 (error);
    return true;
}

void Key::SetValue (const wchar_t * name, const void * data, unsigned long size, unsigned long type) const
{
    SKERRY_SITE ("Skerry::Registry::Key::SetValue");
    LONG error = ::RegSetValueExW (Raw (), name, 0, type, static_cast<const BYTE *> (data), size);
    if (error != ERROR_SUCCESS)
        SKERRY_THROW_WIN32 (error);
}

void Key::SetValue (const wchar_t * name, const wchar_t * value) const
{
    SKERRY_SITE ("Skerry::Registry::Key::SetValue");
    SKERRY_ASSERT (value);
    std::size_t size = (std::wcslen (value) + 1) * sizeof (WCHAR);
    SKERRY_ASSERT (size == DWORD (size));
    SetValue (name, value, DWORD (size), REG_SZ);
}

// The whole string, zero characters included, and its terminator.
void Key::SetValue (const wchar_t * name, const std::wstring & value) const
{
    SKERRY_SITE ("Skerry::Registry::Key::SetValue");
    std::size_t bufferSize = (value.length () + 1) * sizeof (WCHAR);
    SKERRY_ASSERT (DWORD (bufferSize) == bufferSize);
    SetValue (name, value.c_str (), DWORD (bufferSize), REG_SZ);
}

void Key::SetValue (const wchar_t * name, unsigned long value) const
{
    SetValue (name, &value, sizeof value, REG_DWORD);
}

void Key::DeleteValue (const wchar_t * name) const
{
    SKERRY_SITE ("Skerry::Registry::Key::DeleteValue");
    LONG error = ::RegDeleteValueW (Raw (), name);
    if (error != ERROR_SUCCESS)
        SKERRY_THROW_WIN32 (error);
}

// The name buffer holds one more than the longest name the platform allows, so it never grows.
// An empty name can only be the default value: the empty string is kept for the end.
std::wstring Key::EnumerateValues (unsigned long index, unsigned long * type, unsigned long * dataSize) const
{
    SKERRY_SITE ("Skerry::Registry::Key::EnumerateValues");
    const unsigned long kValueNameRoom = 16384;
    ArrayBuffer<wchar_t> buffer (kValueNameRoom);
    wchar_t * valueName = buffer;
    unsigned long valueNameSize = kValueNameRoom;
    LONG error = ::RegEnumValueW (Raw (), index, valueName, &valueNameSize, NULL, type, NULL, dataSize);
    if (error == ERROR_NO_MORE_ITEMS)
        return std::wstring ();
    if (error != ERROR_SUCCESS)
        SKERRY_THROW_WIN32 (error);
    SKERRY_ASSERT (valueNameSize && *valueName);
    return std::wstring (valueName, valueNameSize);
}

namespace {

// Appends a copy of `element`. A vector grows by copying elements whose destructor can raise, as a
// SubKey's can, and each copy of a key would be a duplicate and a close; moved by hand into a
// larger vector, the elements keep their handles and no platform call is made.
void Append (std::vector<SubKey> & elements, const SubKey & element)
{
    if (elements.size () == elements.capacity ()) {
        std::vector<SubKey> larger;
        larger.reserve (elements.size () * 2 + 8);
        for (SubKey & moving : elements)
            larger.push_back (std::move (moving));
        elements.swap (larger);
    }
    elements.push_back (element);
}

}

// Each sub-key is opened into a pair that the snapshot copies; the pair then closes its own
// handle, and the element keeps the duplicate. A failure leaves through the vector's destructor,
// which closes what was already taken.
SubKeys::SubKeys (const Key & parent)
{
    SKERRY_SITE ("Skerry::Registry::SubKeys::SubKeys");
    // Key names are at most 255 characters.
    const unsigned long kSubKeyNameRoom = 256;
    wchar_t subKeyName [kSubKeyNameRoom];
    unsigned long nameSize = kSubKeyNameRoom;
    for (unsigned long index = 0; parent.EnumerateSubKeys (index, subKeyName, &nameSize); ++index) {
        SKERRY_ASSERT (*subKeyName);
        SubKey opened = { Key (parent, subKeyName, false, KEY_ALL_ACCESS), std::wstring (subKeyName, nameSize) };
        Append (fSubKeys, opened);
        nameSize = kSubKeyNameRoom;
    }
}

SubKeys::SubKeys (const SubKeys & other) = default;

// A copy first, so that a failure leaves this snapshot as it was; the old elements then close
// as the copy goes.
SubKeys & SubKeys::operator = (const SubKeys & other)
{
    SubKeys copy (other);
    fSubKeys.swap (copy.fSubKeys);
    return *this;
}

// The elements close in order, each as it is moved out (its name goes first, then its key). The
// vector's own destructor can't let a failure out; so a failed close leaves this loop as an
// exception, and the vector then closes the elements not yet reached, whose failures are logged
// while that exception unwinds.
SubKeys::~SubKeys () noexcept (false)
{
    for (SubKey & element : fSubKeys)
        SubKey closing (std::move (element));
}

unsigned int SubKeys::size ()
{
    return unsigned (fSubKeys.size ());
}

SubKey & SubKeys::operator [] (unsigned int index)
{
    SKERRY_SITE ("Skerry::Registry::SubKeys::operator []");
    SKERRY_ASSERT (index < fSubKeys.size ());
    return fSubKeys [index];
}

}

namespace {

// The rule of the Handle family for a destructor whose release failed, for the owners below that
// are no handles: raised, or logged while another exception unwinds.
struct ReleaseFailure : private Handle {
    using Handle::RaiseUnlessUnwinding;
};

const wchar_t kTempSubDirectory [] = L"Tolvane Inc.\\";
const wchar_t kDefaultTempFilePrefix [] = L"TVL";

// GetTempFileNameW appends up to four hexadecimal digits and ".tmp" to the prefix.
const std::size_t kTempFileNameSuffix = 3 + 4 + 4;

// The user's temporary directory, ending in a backslash. A path longer than the buffer makes
// GetTempPathW report the size it needs, terminator included; it is asked again with that size
// until the path fits, since the environment it reads may change in between.
std::wstring UserTempDirectory ()
{
    SKERRY_SITE ("Skerry::TempDirectoryPath::TempDirectoryPath");
    DWORD room = MAX_PATH;
    for (;;) {
        ArrayBuffer<wchar_t> buffer (room);
        DWORD length = ::GetTempPathW (room, buffer);
        if (length == 0)
            SKERRY_THROW_WIN32 (::GetLastError ());
        if (length < room)
            return std::wstring (buffer, length);
        room = length;
    }
}

}

TempDirectoryPath::TempDirectoryPath ()
    : std::wstring (UserTempDirectory ())
{
    SKERRY_SITE ("Skerry::TempDirectoryPath::TempDirectoryPath");
    append (kTempSubDirectory);
    if (! ::CreateDirectoryW (c_str (), NULL)) {
        DWORD error = ::GetLastError ();
        if (error != ERROR_ALREADY_EXISTS)
            SKERRY_THROW_WIN32 (error);
    }
}

namespace {

// The directory comes first, so that it is created also when the prefix is then refused.
std::wstring ConstructTempFilePath (const wchar_t * prefix)
{
    SKERRY_SITE ("Skerry::TempFilePath::TempFilePath");
    TempDirectoryPath directory;
    if (prefix == NULL)
        prefix = kDefaultTempFilePrefix;
    std::size_t length = std::wcslen (prefix);
    SKERRY_ASSERT (length > 0 && length < 4);
    DWORD room = DWORD (std::max<std::size_t> (MAX_PATH, directory.length () + kTempFileNameSuffix + 1));
    ArrayBuffer<wchar_t> buffer (room);
    if (::GetTempFileNameW (directory.c_str (), prefix, 0, buffer) == 0)
        SKERRY_THROW_WIN32 (::GetLastError ());
    return std::wstring (buffer);
}

}

TempFilePath::TempFilePath (const wchar_t * prefix)
    : std::wstring (ConstructTempFilePath (prefix))
{
}

TempFilePath::~TempFilePath () noexcept (false)
{
    if (empty () || ::DeleteFileW (c_str ()))
        return;
    DWORD error = ::GetLastError ();
    if (error != ERROR_FILE_NOT_FOUND)
        ReleaseFailure::RaiseUnlessUnwinding ("Skerry::TempFilePath::~TempFilePath", __FILE__, __LINE__, error);
}

WildCardExpander::WildCardExpander (const wchar_t * pattern)
    : fFindData (NULL), fFindHandle (INVALID_HANDLE_VALUE)
{
    Construct (pattern);
}

WildCardExpander::WildCardExpander (const std::wstring & pattern)
    : WildCardExpander (pattern.c_str ())
{
}

WildCardExpander::~WildCardExpander () noexcept (false)
{
    if (unsigned long error = Release ())
        ReleaseFailure::RaiseUnlessUnwinding ("Skerry::WildCardExpander::Destruct", __FILE__, __LINE__, error);
}

// A constructor that raises runs no destructor: whatever SkipDots raises, the walk is ended here
// first, and the original exception goes on (a failing close then is not told).
void WildCardExpander::Construct (const wchar_t * pattern)
{
    SKERRY_SITE ("Skerry::WildCardExpander::Construct");
    fFindData = new WIN32_FIND_DATAW;
    fFindHandle = ::FindFirstFileW (pattern, fFindData);
    if (fFindHandle == INVALID_HANDLE_VALUE) {
        DWORD error = ::GetLastError ();
        Release ();
        SKERRY_THROW_WIN32 (error);
    }
    try {
        (void) SkipDots ();
    }
    catch (...) {
        (void) Release ();
        throw;
    }
}

bool WildCardExpander::Next ()
{
    SKERRY_SITE ("Skerry::WildCardExpander::Next");
    SKERRY_ASSERT (fFindHandle && fFindData);
    if (! ::FindNextFileW (fFindHandle, fFindData)) {
        DWORD error = ::GetLastError ();
        if (error != ERROR_NO_MORE_FILES)
            SKERRY_THROW_WIN32 (error);
        Destruct ();
        return false;
    }
    return SkipDots ();
}

bool WildCardExpander::SkipDots ()
{
    SKERRY_SITE ("Skerry::WildCardExpander::SkipDots");
    SKERRY_ASSERT (fFindData);
    const wchar_t * name = fFindData->cFileName;
    if (std::wcscmp (name, L".") == 0 || std::wcscmp (name, L"..") == 0)
        return Next ();
    return true;
}

bool WildCardExpander::IsDirectory () const
{
    SKERRY_SITE ("Skerry::WildCardExpander::IsDirectory");
    SKERRY_ASSERT (fFindData);
    return (fFindData->dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
}

std::wstring WildCardExpander::CopyName () const
{
    SKERRY_SITE ("Skerry::WildCardExpander::CopyName");
    SKERRY_ASSERT (fFindData);
    return fFindData->cFileName;
}

void WildCardExpander::Destruct ()
{
    SKERRY_SITE ("Skerry::WildCardExpander::Destruct");
    if (unsigned long error = Release ())
        SKERRY_THROW_WIN32 (error);
}

// Both resources are given up before a failed FindClose is told: the platform may have closed the
// handle anyway, and a second FindClose on its value could close a handle opened since.
unsigned long WildCardExpander::Release ()
{
    void * findHandle = fFindHandle;
    fFindHandle = INVALID_HANDLE_VALUE;
    delete fFindData;
    fFindData = NULL;
    if (findHandle != INVALID_HANDLE_VALUE && ! ::FindClose (findHandle))
        return ::GetLastError ();
    return ERROR_SUCCESS;
}

namespace {

wchar_t * * ConstructCommandLine (const wchar_t * commandLine, int * count)
{
    SKERRY_SITE ("Skerry::CommandLine::CommandLine");
    if (commandLine == NULL) {
        commandLine = ::GetCommandLineW ();
        if (commandLine == NULL)
            SKERRY_THROW_WIN32 (ERROR_INTERNAL_ERROR);
    }
    wchar_t * * arguments = ::CommandLineToArgvW (commandLine, count);
    if (arguments == NULL)
        SKERRY_THROW_WIN32 (::GetLastError ());
    return arguments;
}

}

CommandLine::CommandLine (const wchar_t * commandLine)
    : fArguments (NULL), fArgumentCount (0)
{
    fArguments = ConstructCommandLine (commandLine, &fArgumentCount);
}

CommandLine::~CommandLine () noexcept (false)
{
    if (::LocalFree (fArguments) != NULL)
        ReleaseFailure::RaiseUnlessUnwinding ("Skerry::CommandLine::~CommandLine", __FILE__, __LINE__, ::GetLastError ());
}

// The assertions' words are the library's messages, mixed signedness and all.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wsign-compare"

// The first assertion can't fire where unsigned int and int have the same width, and an index of
// 0x80000000 or more passes the second as a negative number: the third is the bound that holds.
const wchar_t * const & CommandLine::operator [] (unsigned int index)
{
    SKERRY_SITE ("Skerry::CommandLine::operator []");
    SKERRY_ASSERT (index == int (index));
    SKERRY_ASSERT (int (index) < fArgumentCount);
    SKERRY_ASSERT (index < unsigned (fArgumentCount));
    return fArguments [index];
}

unsigned int CommandLine::size ()
{
    SKERRY_SITE ("Skerry::CommandLine::size");
    SKERRY_ASSERT (fArgumentCount == size_t (fArgumentCount));
    SKERRY_ASSERT (fArgumentCount >= 0);
    return unsigned (fArgumentCount);
}

#pragma GCC diagnostic pop

}
