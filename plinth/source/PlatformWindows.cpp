// The platform part on Windows: the executable's name from GetModuleFileNameW, preferences under
// %PLINTH_PREFERENCES_DIRECTORY% or %APPDATA%\Plinth\Preferences, and files replaced by writing a
// temporary file beside them and moving it over the old one.
// rand_s is declared only when this is defined before the C runtime's headers.
#define _CRT_RAND_S
#include "String.h"

#include <windows.h>

#include <cstdlib>
#include <cstring>
#include <cwchar>

using namespace Plinth;

namespace Plinth {

// A terminated copy of a string's units, freed by the caller (also for the streams' files).
wchar_t * CopyTerminated (PLStringRef string)
{
    PLIndex length = PLStringGetLength (string);
    wchar_t * text = static_cast<wchar_t *> (std::malloc ((std::size_t (length) + 1) * sizeof (wchar_t)));
    if (text == nullptr)
        return nullptr;
    PLStringGetCharacters (string, PLRangeMake (0, length), reinterpret_cast<PLUniChar *> (text));
    text [length] = 0;
    return text;
}

}

namespace {

PLStringRef CopyVariable (wchar_t const * name)
{
    wchar_t value [32768];
    DWORD length = ::GetEnvironmentVariableW (name, value, sizeof value / sizeof value [0]);
    if (length == 0 || length >= sizeof value / sizeof value [0])
        return nullptr;
    return PLStringCreateWithCharacters (kPLAllocatorDefault, reinterpret_cast<PLUniChar const *> (value), PLIndex (length));
}

}

namespace Plinth {

PLUniChar PlatformPathSeparator () { return '\\'; }

void PlatformYield () { ::SwitchToThread (); }

// rand_s, of the C runtime Plinth already imports, draws from the system's generator
// (RtlGenRandom) without a library more to load.
bool PlatformRandomBytes (void * bytes, std::size_t size)
{
    uint8_t * at = static_cast<uint8_t *> (bytes);
    for (std::size_t i = 0; i < size; i += sizeof (unsigned int)) {
        unsigned int word = 0;
        if (rand_s (&word) != 0)
            return false;
        std::memcpy (at + i, &word, size - i < sizeof word ? size - i : sizeof word);
    }
    return true;
}

// A slim reader/writer lock taken exclusively: it needs no setup nor cleanup, so that a static one
// serves the whole process.
namespace {
SRWLOCK sWriters = SRWLOCK_INIT;
}

void PlatformLockWriters () { ::AcquireSRWLockExclusive (&sWriters); }
void PlatformUnlockWriters () { ::ReleaseSRWLockExclusive (&sWriters); }

PLStringRef PlatformCopyExecutableName ()
{
    wchar_t path [32768];
    DWORD length = ::GetModuleFileNameW (nullptr, path, sizeof path / sizeof path [0]);
    if (length == 0 || length >= sizeof path / sizeof path [0])
        return nullptr;
    wchar_t const * name = path;
    for (wchar_t const * p = path; *p != 0; ++p)
        if (*p == L'\\' || *p == L'/' || *p == L':')
            name = p + 1;
    std::size_t size = std::wcslen (name);
    wchar_t const * dot = std::wcsrchr (name, L'.');
    if (dot != nullptr && dot != name)
        size = std::size_t (dot - name);
    return PLStringCreateWithCharacters (kPLAllocatorDefault, reinterpret_cast<PLUniChar const *> (name), PLIndex (size));
}

PLStringRef PlatformCopyPreferencesDirectory ()
{
    PLStringRef redirected = CopyVariable (L"PLINTH_PREFERENCES_DIRECTORY");
    if (redirected != nullptr)
        return redirected;
    PLStringRef appData = CopyVariable (L"APPDATA");
    if (appData == nullptr)
        return nullptr;
    UnitBuffer path;
    path.AppendString (appData);
    path.AppendASCII ("\\Plinth\\Preferences");
    PLRelease (appData);
    return path.CreateString (kPLAllocatorDefault);
}

bool PlatformCopyFileContents (PLStringRef path, PLDataRef & contents)
{
    contents = nullptr;
    wchar_t * name = CopyTerminated (path);
    if (name == nullptr)
        return false;
    HANDLE file = ::CreateFileW (name, GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_DELETE, nullptr, OPEN_EXISTING,
        FILE_ATTRIBUTE_NORMAL, nullptr);
    std::free (name);
    if (file == INVALID_HANDLE_VALUE) {
        DWORD error = ::GetLastError ();
        return error == ERROR_FILE_NOT_FOUND || error == ERROR_PATH_NOT_FOUND;
    }
    PLMutableDataRef data = PLDataCreateMutable (kPLAllocatorDefault, 0);
    bool failed = data == nullptr;
    while (! failed) {
        uint8_t buffer [65536];
        DWORD got = 0;
        if (! ::ReadFile (file, buffer, sizeof buffer, &got, nullptr)) {
            failed = true;
            break;
        }
        if (got == 0)
            break;
        PLIndex had = PLDataGetLength (data);
        PLDataAppendBytes (data, buffer, PLIndex (got));
        failed = PLDataGetLength (data) != had + PLIndex (got);
    }
    ::CloseHandle (file);
    if (failed) {
        PLRelease (data);
        return false;
    }
    contents = data;
    return true;
}

bool PlatformReplaceFile (PLStringRef directory, PLStringRef path, PLDataRef contents)
{
    wchar_t * folder = CopyTerminated (directory);
    if (folder == nullptr)
        return false;
    // Each missing level of the directory, from the top; a level that exists fails harmlessly.
    for (wchar_t * p = folder; *p != 0; ++p)
        if ((*p == L'\\' || *p == L'/') && p > folder && p [-1] != L':' && p [-1] != L'\\') {
            wchar_t kept = *p;
            *p = 0;
            ::CreateDirectoryW (folder, nullptr);
            *p = kept;
        }
    bool made = ::CreateDirectoryW (folder, nullptr) || ::GetLastError () == ERROR_ALREADY_EXISTS;
    std::free (folder);
    if (! made)
        return false;
    wchar_t * target = CopyTerminated (path);
    if (target == nullptr)
        return false;
    std::size_t size = std::wcslen (target) + 32;
    wchar_t * temporary = static_cast<wchar_t *> (std::malloc (size * sizeof (wchar_t)));
    bool written = false;
    if (temporary != nullptr) {
        // %ls: the C99 printf of this runtime reads %s as narrow text even in wide formats.
        std::swprintf (temporary, size, L"%ls.%lu.tmp", target, static_cast<unsigned long> (::GetCurrentProcessId ()));
        HANDLE file = ::CreateFileW (temporary, GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
        if (file != INVALID_HANDLE_VALUE) {
            DWORD length = DWORD (PLDataGetLength (contents));
            DWORD put = 0;
            written = ::WriteFile (file, PLDataGetBytePtr (contents), length, &put, nullptr) && put == length;
            written = ::CloseHandle (file) && written;
            written = written && ::MoveFileExW (temporary, target, MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH);
            if (! written)
                ::DeleteFileW (temporary);
        }
    }
    std::free (temporary);
    std::free (target);
    return written;
}

}
