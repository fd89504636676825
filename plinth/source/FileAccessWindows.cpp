// Files of the streams on Windows, through CreateFileW, ReadFile, WriteFile and CloseHandle.
#include "FileAccess.h"

#include <windows.h>

#include <cstdlib>

namespace Plinth {

struct PlatformFile {
    HANDLE fHandle;
};

PLURLPathStyle PlatformPathStyle () { return kPLURLWindowsPathStyle; }

PlatformFile * PlatformOpenFile (PLStringRef path, bool forWriting)
{
    wchar_t * name = CopyTerminated (path);
    if (name == nullptr)
        return nullptr;
    HANDLE handle = forWriting
        ? ::CreateFileW (name, GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr)
        : ::CreateFileW (name, GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_DELETE, nullptr, OPEN_EXISTING,
            FILE_ATTRIBUTE_NORMAL, nullptr);
    std::free (name);
    if (handle == INVALID_HANDLE_VALUE)
        return nullptr;
    PlatformFile * file = static_cast<PlatformFile *> (std::malloc (sizeof (PlatformFile)));
    if (file == nullptr) {
        ::CloseHandle (handle);
        return nullptr;
    }
    file->fHandle = handle;
    return file;
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

bool PlatformCloseFile (PlatformFile * file)
{
    bool closed = ::CloseHandle (file->fHandle) != 0;
    std::free (file);
    return closed;
}

}
