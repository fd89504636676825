// Files of the streams on POSIX systems, through open, read, write and close.
#include "FileAccess.h"

#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <unistd.h>

namespace Plinth {

struct PlatformFile {
    int fDescriptor;
};

PLURLPathStyle PlatformPathStyle () { return kPLURLPOSIXPathStyle; }

PlatformFile * PlatformOpenFile (PLStringRef path, bool forWriting)
{
    PLIndex length = PLStringGetLength (path);
    PLIndex size = PLStringGetMaximumSizeForEncoding (length, kPLStringEncodingUTF8);
    char * native = size < 0 ? nullptr : static_cast<char *> (std::malloc (std::size_t (size) + 1));
    if (native == nullptr)
        return nullptr;
    int descriptor = -1;
    if (PLStringGetCString (path, native, size + 1, kPLStringEncodingUTF8))
        descriptor = forWriting ? ::open (native, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666)
            : ::open (native, O_RDONLY | O_CLOEXEC);
    std::free (native);
    if (descriptor < 0)
        return nullptr;
    PlatformFile * file = static_cast<PlatformFile *> (std::malloc (sizeof (PlatformFile)));
    if (file == nullptr) {
        ::close (descriptor);
        return nullptr;
    }
    file->fDescriptor = descriptor;
    return file;
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

bool PlatformCloseFile (PlatformFile * file)
{
    bool closed = ::close (file->fDescriptor) == 0;
    std::free (file);
    return closed;
}

}
