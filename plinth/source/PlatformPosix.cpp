// The platform part on POSIX systems (the native build, where the portable core is tested):
// the executable's name from /proc/self/exe, preferences under PLINTH_PREFERENCES_DIRECTORY or
// $HOME/.config/Plinth/Preferences, files through stdio and rename, the writers' lock a mutex.
#include "Internal.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <pthread.h>
#include <sched.h>
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

bool PlatformReplaceFile (PLStringRef directory, PLStringRef path, PLDataRef contents)
{
    char * folder = CopyNativePath (directory);
    if (folder == nullptr)
        return false;
    for (char * slash = std::strchr (folder + 1, '/');; slash = std::strchr (slash + 1, '/')) {
        if (slash != nullptr)
            *slash = 0;
        if (mkdir (folder, 0777) != 0 && errno != EEXIST) {
            std::free (folder);
            return false;
        }
        if (slash == nullptr)
            break;
        *slash = '/';
    }
    std::free (folder);
    char * target = CopyNativePath (path);
    if (target == nullptr)
        return false;
    std::size_t size = std::strlen (target) + 32;
    char * temporary = static_cast<char *> (std::malloc (size));
    bool written = false;
    if (temporary != nullptr) {
        std::snprintf (temporary, size, "%s.%ld.tmp", target, long (getpid ()));
        std::FILE * file = std::fopen (temporary, "wb");
        if (file != nullptr) {
            std::size_t length = std::size_t (PLDataGetLength (contents));
            written = std::fwrite (PLDataGetBytePtr (contents), 1, length, file) == length;
            written = std::fclose (file) == 0 && written;
            written = written && std::rename (temporary, target) == 0;
            if (! written)
                std::remove (temporary);
        }
    }
    std::free (temporary);
    std::free (target);
    return written;
}

}
