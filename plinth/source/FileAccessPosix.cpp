// Files of the streams on POSIX systems, through open, read, write and close; a file written is a
// sibling made by mkstemp and renamed over its path when the stream is done.
#include "FileAccess.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace Plinth {

struct PlatformFile {
    int fDescriptor;
    // For a file written through a sibling: the path to replace and the sibling's, both owned;
    // null for a file read, or written in place.
    char * fPath;
    char * fSibling;
};

namespace {

char * NativePath (PLStringRef path)
{
    PLIndex length = PLStringGetLength (path);
    PLIndex size = PLStringGetMaximumSizeForEncoding (length, kPLStringEncodingUTF8);
    char * native = size < 0 ? nullptr : static_cast<char *> (std::malloc (std::size_t (size) + 1));
    if (native != nullptr && ! PLStringGetCString (path, native, size + 1, kPLStringEncodingUTF8)) {
        std::free (native);
        native = nullptr;
    }
    return native;
}

PlatformFile * NewFile (int descriptor, char * path, char * sibling)
{
    PlatformFile * file = static_cast<PlatformFile *> (std::malloc (sizeof (PlatformFile)));
    if (file == nullptr) {
        ::close (descriptor);
        if (sibling != nullptr)
            ::unlink (sibling);
        std::free (path);
        std::free (sibling);
        return nullptr;
    }
    file->fDescriptor = descriptor;
    file->fPath = path;
    file->fSibling = sibling;
    return file;
}

// The sibling, in the path's directory so that the rename stays on one file system, gets the mode
// of the file it replaces, or the one a new file would get.
PlatformFile * OpenSibling (char * native, struct stat const * old)
{
    char const * slash = std::strrchr (native, '/');
    std::size_t directory = slash == nullptr ? 0 : std::size_t (slash - native) + 1;
    char * sibling = static_cast<char *> (std::malloc (directory + sizeof (".plinth-XXXXXX")));
    int descriptor = -1;
    if (sibling != nullptr) {
        std::memcpy (sibling, native, directory);
        std::memcpy (sibling + directory, ".plinth-XXXXXX", sizeof (".plinth-XXXXXX"));
        descriptor = ::mkstemp (sibling);
    }
    mode_t mask = ::umask (0);
    ::umask (mask);
    if (descriptor >= 0 && ::fchmod (descriptor, old != nullptr ? old->st_mode & 07777 : 0666 & ~mask) != 0) {
        ::close (descriptor);
        ::unlink (sibling);
        descriptor = -1;
    }
    if (descriptor < 0) {
        std::free (native);
        std::free (sibling);
        return nullptr;
    }
    ::fcntl (descriptor, F_SETFD, FD_CLOEXEC);
    return NewFile (descriptor, native, sibling);
}

// A directory can't be replaced, nor a read-only file: one that nobody may write, or this process
// may not (the rename would replace it all the same, as the directory allows it). A device or a
// pipe is written in place, as it must be.
PlatformFile * OpenForWriting (char * native)
{
    struct stat old;
    bool exists = ::stat (native, &old) == 0;
    bool readOnly = exists && S_ISREG (old.st_mode) && ((old.st_mode & 0222) == 0 || ::access (native, W_OK) != 0);
    if ((exists && S_ISDIR (old.st_mode)) || readOnly) {
        std::free (native);
        return nullptr;
    }
    if (! exists || S_ISREG (old.st_mode))
        return OpenSibling (native, exists ? &old : nullptr);
    int descriptor = ::open (native, O_WRONLY | O_CLOEXEC);
    std::free (native);
    return descriptor < 0 ? nullptr : NewFile (descriptor, nullptr, nullptr);
}

}

PLURLPathStyle PlatformPathStyle () { return kPLURLPOSIXPathStyle; }

PlatformFile * PlatformOpenFile (PLStringRef path, bool forWriting)
{
    char * native = NativePath (path);
    if (native == nullptr)
        return nullptr;
    if (forWriting)
        return OpenForWriting (native);
    int descriptor = ::open (native, O_RDONLY | O_CLOEXEC);
    std::free (native);
    return descriptor < 0 ? nullptr : NewFile (descriptor, nullptr, nullptr);
}

PLIndex PlatformReadFile (PlatformFile * file, uint8_t * buffer, PLIndex length)
{
    ssize_t got;
    do
        got = ::read (file->fDescriptor, buffer, std::size_t (length));
    while (got < 0 && errno == EINTR);
    return got < 0 ? -1 : PLIndex (got);
}

bool PlatformWriteFile (PlatformFile * file, uint8_t const * buffer, PLIndex length)
{
    std::size_t done = 0;
    while (done < std::size_t (length)) {
        ssize_t put = ::write (file->fDescriptor, buffer + done, std::size_t (length) - done);
        if (put < 0 && errno == EINTR)
            continue;
        if (put <= 0)
            return false;
        done += std::size_t (put);
    }
    return true;
}

// The sibling reaches the disk before it takes the path's place, so that a crash leaves the old
// file or the new one, never a name on nothing.
bool PlatformCloseFile (PlatformFile * file, bool keep)
{
    bool replacing = file->fSibling != nullptr;
    bool synced = ! replacing || ! keep || ::fsync (file->fDescriptor) == 0;
    bool closed = ::close (file->fDescriptor) == 0 && synced;
    if (replacing) {
        closed = closed && keep && ::rename (file->fSibling, file->fPath) == 0;
        if (! closed)
            ::unlink (file->fSibling);
    }
    std::free (file->fPath);
    std::free (file->fSibling);
    std::free (file);
    return closed;
}

}
