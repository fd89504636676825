#include "Files.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#ifdef _WIN32
#include <windows.h>
#else
#include <sys/stat.h>
#include <unistd.h>
#endif

namespace PlistTool {

namespace {

PLURLRef CreateURL (PLStringRef path)
{
#ifdef _WIN32
    return PLURLCreateWithFileSystemPath (kPLAllocatorDefault, path, kPLURLWindowsPathStyle, false);
#else
    return PLURLCreateWithFileSystemPath (kPLAllocatorDefault, path, kPLURLPOSIXPathStyle, false);
#endif
}

#ifdef _WIN32

std::wstring Wide (PLStringRef string)
{
    std::wstring text (std::size_t (PLStringGetLength (string)), L'\0');
    PLStringGetCharacters (string, PLRangeMake (0, PLIndex (text.size ())), reinterpret_cast<PLUniChar *> (&text [0]));
    return text;
}

// The full path: ReplaceFileW under Wine fails with ERROR_DIRECTORY on relative ones.
std::wstring FullPath (std::wstring const & path)
{
    std::wstring full (MAX_PATH, L'\0');
    DWORD length = ::GetFullPathNameW (path.c_str (), DWORD (full.size ()), &full [0], nullptr);
    if (length >= full.size ()) {
        full.resize (length);
        length = ::GetFullPathNameW (path.c_str (), DWORD (full.size ()), &full [0], nullptr);
    }
    return length > 0 && length < full.size () ? full.substr (0, length) : path;
}

void Replace (Argument const & file, std::string const & bytes)
{
    std::wstring path = FullPath (Wide (file.fString));
    std::size_t separator = path.find_last_of (L"\\/:");
    std::wstring directory = separator == std::wstring::npos ? L"." : path.substr (0, separator + 1);
    wchar_t temporary [MAX_PATH];
    bool written = ::GetTempFileNameW (directory.c_str (), L"plt", 0, temporary) != 0;
    DWORD error = ::GetLastError ();
    if (written) {
        HANDLE handle = ::CreateFileW (temporary, GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
        DWORD done = 0;
        written = handle != INVALID_HANDLE_VALUE && ::WriteFile (handle, bytes.data (), DWORD (bytes.size ()), &done,
            nullptr) && done == bytes.size () && ::FlushFileBuffers (handle);
        written = handle != INVALID_HANDLE_VALUE && ::CloseHandle (handle) && written;
        // ReplaceFileW keeps what belongs to the old file (attributes, security, identity); a
        // new file is only moved into place.
        if (written && ::GetFileAttributesW (path.c_str ()) != INVALID_FILE_ATTRIBUTES)
            written = ::ReplaceFileW (path.c_str (), temporary, nullptr, REPLACEFILE_IGNORE_MERGE_ERRORS, nullptr,
                nullptr);
        else if (written)
            written = ::MoveFileExW (temporary, path.c_str (), MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH);
        error = ::GetLastError ();
        if (! written)
            ::DeleteFileW (temporary);
    }
    if (! written)
        throw Failure { "can't be written (error " + std::to_string (error) + ")", file.fText };
}

#else

bool WriteFully (int descriptor, std::string const & bytes)
{
    for (std::size_t done = 0; done < bytes.size ();) {
        ssize_t wrote = ::write (descriptor, bytes.data () + done, bytes.size () - done);
        if (wrote < 0 && errno != EINTR)
            return false;
        done += wrote > 0 ? std::size_t (wrote) : 0;
    }
    return true;
}

void Replace (Argument const & file, std::string const & bytes)
{
    // Through a symbolic link to the file that it names, so that the link stays one.
    char * real = ::realpath (file.fText.c_str (), nullptr);
    std::string path = real != nullptr ? real : file.fText;
    std::free (real);
    std::size_t slash = path.rfind ('/');
    std::string temporary = (slash == std::string::npos ? "" : path.substr (0, slash + 1)) + ".plist-tool-XXXXXX";
    int descriptor = ::mkstemp (&temporary [0]);
    int error = errno;
    if (descriptor >= 0) {
        // The old file's permissions, or those that a new file gets.
        struct stat old;
        mode_t mask = ::umask (0);
        ::umask (mask);
        mode_t mode = ::stat (path.c_str (), &old) == 0 ? old.st_mode & 07777 : 0666 & ~mask;
        bool written = ::fchmod (descriptor, mode) == 0 && WriteFully (descriptor, bytes) && ::fsync (descriptor) == 0;
        written = ::close (descriptor) == 0 && written && ::rename (temporary.c_str (), path.c_str ()) == 0;
        error = errno;
        if (written)
            return;
        ::unlink (temporary.c_str ());
    }
    throw Failure { std::string ("can't be written: ") + std::strerror (error), file.fText };
}

#endif

}

namespace {

// Why `file` can't be opened for reading, in the C runtime's words ("No such file or directory",
// "Is a directory"); empty when it can. Asked before Plinth's stream opens the file, since the
// stream says only that it failed, and a directory opens on POSIX and fails only at the read.
std::string WhyNotReadable (Argument const & file)
{
#ifdef _WIN32
    std::wstring path = Wide (file.fString);
    DWORD attributes = ::GetFileAttributesW (path.c_str ());
    if (attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0)
        return "Is a directory";
    FILE * probe = ::_wfopen (path.c_str (), L"rb");
#else
    struct stat status;
    if (::stat (file.fText.c_str (), &status) == 0 && S_ISDIR (status.st_mode))
        return "Is a directory";
    FILE * probe = std::fopen (file.fText.c_str (), "rb");
#endif
    if (probe == nullptr)
        return std::strerror (errno);    // NOLINT(concurrency-mt-unsafe): the tool runs on one thread
    std::fclose (probe);
    return "";
}

}

bool IsStandardStream (Argument const & file)
{
    return file.fText == "-";
}

std::string InputName (Argument const & file)
{
    return IsStandardStream (file) ? "(standard input)" : file.fText;
}

std::string ReadAll (Argument const & file)
{
    std::string bytes;
    uint8_t buffer [65536];
    if (IsStandardStream (file)) {
        while (std::size_t got = std::fread (buffer, 1, sizeof buffer, stdin))
            bytes.append (reinterpret_cast<char const *> (buffer), got);
        if (std::ferror (stdin))
            throw Failure { "can't be read", "" };
        return bytes;
    }
    std::string reason = WhyNotReadable (file);
    if (! reason.empty ())
        throw Failure { "can't be opened for reading: " + reason, "" };
    Owned<PLURLRef> url (CreateURL (file.fString));
    Owned<PLReadStreamRef> stream (PLReadStreamCreateWithFile (kPLAllocatorDefault, url));
    if (stream.Get () == nullptr || ! PLReadStreamOpen (stream))
        throw Failure { "can't be opened for reading", "" };
    PLIndex got;
    while ((got = PLReadStreamRead (stream, buffer, PLIndex (sizeof buffer))) > 0)
        bytes.append (reinterpret_cast<char const *> (buffer), std::size_t (got));
    if (got < 0)
        throw Failure { "can't be read", "" };
    return bytes;
}

void WriteAll (Argument const & file, std::string const & bytes)
{
    if (! IsStandardStream (file))
        return Replace (file, bytes);
    if (std::fwrite (bytes.data (), 1, bytes.size (), stdout) != bytes.size () || std::fflush (stdout) != 0)
        throw Failure { "can't be written", "(standard output)" };
}

}
