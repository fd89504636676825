// Files of the streams on Windows, through CreateFileW, ReadFile, WriteFile and CloseHandle; a
// file written is a sibling moved over its path by MoveFileExW when the stream is done.
#include "FileAccess.h"

#include <windows.h>

#include <cstdlib>
#include <cwchar>

namespace Plinth {

struct PlatformFile {
    HANDLE fHandle;
    // For a file written through a sibling: the path to replace and the sibling's, both owned;
    // null for a file read, or written in place.
    wchar_t * fPath;
    wchar_t * fSibling;
};

namespace {

// The sibling's name: in the directory of the path, so that the rename never crosses volumes and
// keeps the form of the path (a long "\\?\" path stays one), and short, so that a name near the
// limit of a component still has a sibling. No two streams of the machine share it at once.
wchar_t * SiblingName (wchar_t const * path)
{
    static LONG volatile sCounter = 0;
    std::size_t directory = std::wcslen (path);
    while (directory > 0 && path [directory - 1] != L'\\' && path [directory - 1] != L'/' && path [directory - 1] != L':')
        --directory;
    std::size_t size = directory + 40;
    wchar_t * sibling = static_cast<wchar_t *> (std::malloc (size * sizeof (wchar_t)));
    if (sibling != nullptr)
        std::swprintf (sibling, size, L"%.*ls.plinth-%lx-%lx.tmp", int (directory), path, ::GetCurrentProcessId (),
            static_cast<unsigned long> (::InterlockedIncrement (&sCounter)));
    return sibling;
}

PlatformFile * NewFile (HANDLE handle, wchar_t * path, wchar_t * sibling)
{
    PlatformFile * file = static_cast<PlatformFile *> (std::malloc (sizeof (PlatformFile)));
    if (file == nullptr) {
        ::CloseHandle (handle);
        if (sibling != nullptr)
            ::DeleteFileW (sibling);
        std::free (path);
        std::free (sibling);
        return nullptr;
    }
    file->fHandle = handle;
    file->fPath = path;
    file->fSibling = sibling;
    return file;
}

// A path too long for the plain form takes the long one, "\\?\C:\..." or "\\?\UNC\server\...",
// which the URL dropped (it names the same file).
wchar_t * LongForm (wchar_t * name)
{
    if (name == nullptr)
        return nullptr;
    std::size_t length = std::wcslen (name);
    bool drive = length > 2 && name [1] == L':' && name [2] == L'\\';
    bool unc = length > 2 && name [0] == L'\\' && name [1] == L'\\' && name [2] != L'?' && name [2] != L'.';
    if (length < MAX_PATH || ! (drive || unc))
        return name;
    wchar_t const * prefix = drive ? L"\\\\?\\" : L"\\\\?\\UNC";
    std::size_t size = length + 9;
    wchar_t * longer = static_cast<wchar_t *> (std::malloc (size * sizeof (wchar_t)));
    if (longer != nullptr)
        std::swprintf (longer, size, L"%ls%ls", prefix, drive ? name : name + 1);
    std::free (name);
    return longer;
}

PlatformFile * OpenForReading (wchar_t * name)
{
    HANDLE handle = ::CreateFileW (name, GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_DELETE, nullptr, OPEN_EXISTING,
        FILE_ATTRIBUTE_NORMAL, nullptr);
    std::free (name);
    return handle == INVALID_HANDLE_VALUE ? nullptr : NewFile (handle, nullptr, nullptr);
}

// A directory or a read-only file can't be replaced: refused now rather than found at the close,
// which can tell nobody. A device path ("\\.\pipe\...") names no file to replace, and is written
// in place.
PlatformFile * OpenForWriting (wchar_t * name)
{
    DWORD attributes = ::GetFileAttributesW (name);
    bool exists = attributes != INVALID_FILE_ATTRIBUTES;
    if (exists && (attributes & (FILE_ATTRIBUTE_DIRECTORY | FILE_ATTRIBUTE_READONLY)) != 0) {
        std::free (name);
        return nullptr;
    }
    if (std::wcsncmp (name, L"\\\\.\\", 4) == 0) {
        HANDLE handle = ::CreateFileW (name, GENERIC_WRITE, 0, nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
        std::free (name);
        return handle == INVALID_HANDLE_VALUE ? nullptr : NewFile (handle, nullptr, nullptr);
    }
    wchar_t * sibling = SiblingName (name);
    HANDLE handle = sibling == nullptr ? INVALID_HANDLE_VALUE
        : ::CreateFileW (sibling, GENERIC_WRITE, 0, nullptr, CREATE_NEW, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (handle == INVALID_HANDLE_VALUE) {
        std::free (name);
        std::free (sibling);
        return nullptr;
    }
    return NewFile (handle, name, sibling);
}

}

// A move over a file open without FILE_SHARE_DELETE fails with ERROR_ACCESS_DENIED; a read-only
// file, which gives the same, is refused before the move.
bool WaitWhileShared (unsigned long error, unsigned & waited)
{
    constexpr unsigned kPause = 20, kWait = 1000;
    if ((error != ERROR_SHARING_VIOLATION && error != ERROR_LOCK_VIOLATION && error != ERROR_ACCESS_DENIED) || waited >= kWait)
        return false;
    ::Sleep (kPause);
    waited += kPause;
    return true;
}

PLURLPathStyle PlatformPathStyle () { return kPLURLWindowsPathStyle; }

PlatformFile * PlatformOpenFile (PLStringRef path, bool forWriting)
{
    wchar_t * name = LongForm (CopyTerminated (path));
    if (name == nullptr)
        return nullptr;
    return forWriting ? OpenForWriting (name) : OpenForReading (name);
}

PLIndex PlatformReadFile (PlatformFile * file, uint8_t * buffer, PLIndex length)
{
    DWORD got = 0;
    return ::ReadFile (file->fHandle, buffer, DWORD (length), &got, nullptr) ? PLIndex (got) : -1;
}

bool PlatformWriteFile (PlatformFile * file, uint8_t const * buffer, PLIndex length)
{
    DWORD put = 0;
    return ::WriteFile (file->fHandle, buffer, DWORD (length), &put, nullptr) && put == DWORD (length);
}

// The sibling reaches the disk before it takes the path's place, so that a crash leaves the old
// file or the new one, never a name on nothing.
bool PlatformCloseFile (PlatformFile * file, bool keep)
{
    bool replacing = file->fSibling != nullptr;
    bool flushed = ! replacing || ! keep || ::FlushFileBuffers (file->fHandle);
    bool closed = ::CloseHandle (file->fHandle) != 0 && flushed;
    if (replacing) {
        unsigned waited = 0;
        while (closed && keep && ! ::MoveFileExW (file->fSibling, file->fPath, MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH))
            closed = WaitWhileShared (::GetLastError (), waited);
        closed = closed && keep;
        if (! closed)
            ::DeleteFileW (file->fSibling);
    }
    std::free (file->fPath);
    std::free (file->fSibling);
    std::free (file);
    return closed;
}

}
