// Kernel objects (Handle, Event, Overlapped, Mutex) and the process services of
// Skerry::Miscellany.

#include <LibSkerry/Utilities>
#include <LibSkerry/Exceptions>

#include "LogLine.h"

#include <windows.h>
#include <rpc.h>

#include <exception>

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
    if (fInvalid)
        return;
    if (! ::CloseHandle (fHandle))
        RaiseUnlessUnwinding ("Skerry::Handle::~Handle", __FILE__, __LINE__, ::GetLastError ());
    fInvalid = true;
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
}
