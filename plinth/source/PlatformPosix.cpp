// The platform part on POSIX systems (the native build, where the portable core is tested):
// the executable's name from /proc/self/exe, preferences under PLINTH_PREFERENCES_DIRECTORY or
// $HOME/.config/Plinth/Preferences, files read through stdio, the writers' lock a mutex and the
// processes' lock a lock file taken with flock.
#include "Internal.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <pthread.h>
#include <sched.h>
#include <sys/file.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace Plinth;

namespace {

// The UTF-8 form of a path, in a buffer the caller frees; null when it doesn't convert.
char * CopyNativePath (PLStringRef path)
{
    PLIndex length = PLStringGetLength (path);
    PLIndex size = PLStringGetMaximumSizeForEncoding (length, kPLStringEncodingUTF8);
    char * text = size < 0 ? nullptr : static_cast<char *> (std::malloc (std::size_t (size) + 1));
    if (text != nullptr && ! PLStringGetCString (path, text, size + 1, kPLStringEncodingUTF8)) {
        std::free (text);
        return nullptr;
    }
    return text;
}

}

namespace Plinth {

PLUniChar PlatformPathSeparator () { return '/'; }

void PlatformYield () { sched_yield (); }

bool PlatformRandomBytes (void * bytes, std::size_t size)
{
    uint8_t * at = static_cast<uint8_t *> (bytes);
    while (size > 0) {
        ssize_t got = getrandom (at, size, 0);
        if (got < 0 && errno == EINTR)
            continue;
        if (got <= 0)
            return false;
        at += got;
        size -= std::size_t (got);
    }
    return true;
}

namespace {
pthread_mutex_t sWriters = PTHREAD_MUTEX_INITIALIZER;
}

void PlatformLockWriters () { pthread_mutex_lock (&sWriters); }
void PlatformUnlockWriters () { pthread_mutex_unlock (&sWriters); }

PLStringRef PlatformCopyExecutableName ()
{
    char path [4096];
    ssize_t length = readlink ("/proc/self/exe", path, sizeof path - 1);
    if (length <= 0)
        return nullptr;
    path [length] = 0;
    char const * name = std::strrchr (path, '/');
    name = name == nullptr ? path : name + 1;
    std::size_t size = std::strlen (name);
    char const * dot = std::strrchr (name, '.');
    if (dot != nullptr && dot != name)
        size = std::size_t (dot - name);
    return PLStringCreateWithBytes (kPLAllocatorDefault, reinterpret_cast<uint8_t const *> (name), PLIndex (size),
        kPLStringEncodingUTF8, false);
}

PLStringRef PlatformCopyPreferencesDirectory ()
{
    // NOLINTBEGIN(concurrency-mt-unsafe): getenv races only with a setenv, and Plinth sets no variable
    char const * redirected = std::getenv ("PLINTH_PREFERENCES_DIRECTORY");
    if (redirected != nullptr && *redirected != 0)
        return PLStringCreateWithCString (kPLAllocatorDefault, redirected, kPLStringEncodingUTF8);
    char const * home = std::getenv ("HOME");
    // NOLINTEND(concurrency-mt-unsafe)
    if (home == nullptr || *home == 0)
        return nullptr;
    UnitBuffer path;
    path.AppendUTF8 (home, std::strlen (home));
    path.AppendASCII ("/.config/Plinth/Preferences");
    return path.CreateString (kPLAllocatorDefault);
}

bool PlatformCopyFileContents (PLStringRef path, PLDataRef & contents)
{
    contents = nullptr;
    char * native = CopyNativePath (path);
    if (native == nullptr)
        return false;
    std::FILE * file = std::fopen (native, "rb");
    std::free (native);
    if (file == nullptr)
        return errno == ENOENT || errno == ENOTDIR;
    PLMutableDataRef data = PLDataCreateMutable (kPLAllocatorDefault, 0);
    bool failed = data == nullptr;
    uint8_t buffer [65536];
    std::size_t got;
    while (! failed && (got = std::fread (buffer, 1, sizeof buffer, file)) > 0) {
        PLIndex had = PLDataGetLength (data);
        PLDataAppendBytes (data, buffer, PLIndex (got));
        failed = PLDataGetLength (data) != had + PLIndex (got);
    }
    failed = std::ferror (file) != 0 || failed;
    std::fclose (file);
    if (failed) {
        PLRelease (data);
        return false;
    }
    contents = data;
    return true;
}

bool PlatformMakeDirectories (PLStringRef directory)
{
    char * folder = CopyNativePath (directory);
    bool made = folder != nullptr && *folder != 0;
    for (char * slash = made ? folder : nullptr; made && slash != nullptr;) {
        slash = std::strchr (slash + 1, '/');
        if (slash != nullptr)
            *slash = 0;
        made = mkdir (folder, 0777) == 0 || errno == EEXIST;
        if (slash != nullptr)
            *slash = '/';
    }
    std::free (folder);
    return made;
}

struct PlatformFileLock {
    int fDescriptor;
};

// flock, not fcntl's record locks: those belong to the process and go with the first descriptor
// of the file that it closes, wherever in the process that happens.
PlatformFileLock * PlatformLockFile (PLStringRef path)
{
    char * native = CopyNativePath (path);
    int descriptor = native == nullptr ? -1 : ::open (native, O_RDWR | O_CREAT | O_CLOEXEC, 0666);
    std::free (native);
    int locked = -1;
    while (descriptor >= 0 && (locked = ::flock (descriptor, LOCK_EX)) != 0 && errno == EINTR)
        continue;
    PlatformFileLock * lock = locked == 0 ? static_cast<PlatformFileLock *> (std::malloc (sizeof (PlatformFileLock))) : nullptr;
    if (lock == nullptr) {
        if (descriptor >= 0)
            ::close (descriptor);   // which drops the lock too
        return nullptr;
    }
    lock->fDescriptor = descriptor;
    return lock;
}

void PlatformUnlockFile (PlatformFileLock * lock)
{
    ::close (lock->fDescriptor);
    std::free (lock);
}

void PlatformLog (char const * line)
{
    std::fprintf (stderr, "%s\n", line);
}

}
