// skerry-deps: the tree of libraries that an executable or DLL imports, directly and by delay
// load, on the public interface of LibSkerry (ExecutableImageFile). The README shows an example.
//
// Each import is resolved as the loader of a program started from the image would find it: the
// image's own directory, the system directory, the Windows directory, the current directory, then
// PATH. The tree shows each library once, where it is first met; later mentions say "(see above)",
// libraries that aren't found "(missing)", delay-loaded ones "(delay-loaded)". The walk reads each
// image's import directories bounded by the image (ExecutableImageFile::kBoundedByImage), so that
// the programs and DLLs that GNU ld links show their imports too.
//
// Exit status: 0 when every library was found and read, 1 when one is missing or a failure
// happened (one line each on standard error: "skerry-deps: FILE: function: the library's words"),
// 2 for a wrong command line.
#include <LibSkerry/ExecutableImageFile>
#include <LibSkerry/Exceptions>

#include "LibraryFailure.h"

#include <cstdio>
#include <cwchar>
#include <new>
#include <set>
#include <string>

#include <windows.h>
#include <shellapi.h>

namespace {

char const kUsage [] =
    "usage: skerry-deps [-flat] [-depth N] IMAGE\n"
    "       skerry-deps -h | --help | --version\n"
    "\n"
    "Prints the libraries that IMAGE (an executable or DLL) imports, directly and by delay load,\n"
    "and theirs in turn, as a tree with the path each resolves to. -flat lists each library once\n"
    "instead, in the order the tree meets them; -depth N stops N levels below IMAGE. The exit\n"
    "status is 1 when a library is missing or can't be read.\n";

std::string Narrow (const std::wstring & text)
{
    int size = ::WideCharToMultiByte (CP_ACP, 0, text.c_str (), -1, nullptr, 0, nullptr, nullptr);
    std::string result (size > 0 ? size - 1 : 0, '\0');
    if (size > 1)
        ::WideCharToMultiByte (CP_ACP, 0, text.c_str (), -1, &result [0], size, nullptr, nullptr);
    return result;
}

std::wstring Wide (const std::string & text)
{
    int size = ::MultiByteToWideChar (CP_ACP, 0, text.c_str (), -1, nullptr, 0);
    std::wstring result (size > 0 ? size - 1 : 0, L'\0');
    if (size > 1)
        ::MultiByteToWideChar (CP_ACP, 0, text.c_str (), -1, &result [0], size);
    return result;
}

// The caught exception as one line on standard error, worded as every tool words the library's
// failures.
void Report (const std::wstring & file)
{
    std::fflush (stdout);
    std::string text;
    try {
        text = SkerryTool::LibraryFailureText ();
    }
    catch (const std::exception & e) {
        text = e.what ();
    }
    std::fprintf (stderr, "skerry-deps: %s: %s\n", Narrow (file).c_str (), text.c_str ());
}

class Walker {
public:
    Walker (const std::wstring & image, bool flat, unsigned depth)
        : fFlat (flat), fDepth (depth)
    {
        wchar_t * name = nullptr;
        wchar_t full [MAX_PATH * 4];
        DWORD length = ::GetFullPathNameW (image.c_str (), MAX_PATH * 4, full, &name);
        fRoot = length > 0 && length < MAX_PATH * 4 ? full : image;
        std::wstring::size_type slash = fRoot.find_last_of (L"\\/");
        std::wstring directory = slash == std::wstring::npos ? L"." : fRoot.substr (0, slash);
        fSearchPath = directory + L";" + Directory (::GetSystemDirectoryW) + L";" + Directory (::GetWindowsDirectoryW)
            + L";.";
        if (DWORD size = ::GetEnvironmentVariableW (L"PATH", nullptr, 0)) {
            std::wstring path (size, L'\0');
            path.resize (::GetEnvironmentVariableW (L"PATH", &path [0], size));
            fSearchPath += L";" + path;
        }
    }

    int Run ()
    {
        std::printf ("%s\n", Narrow (fRoot).c_str ());
        fSeen.insert (Key (fRoot.substr (fRoot.find_last_of (L"\\/") + 1)));
        Visit (fRoot, 1);
        return fFailed ? 1 : 0;
    }

private:
    static std::wstring Directory (UINT (WINAPI * get) (wchar_t *, UINT))
    {
        wchar_t buffer [MAX_PATH * 2];
        UINT length = get (buffer, MAX_PATH * 2);
        return length > 0 && length < MAX_PATH * 2 ? std::wstring (buffer, length) : std::wstring ();
    }

    // Library names are compared as the loader compares them, without regard to case.
    static std::wstring Key (const std::wstring & name)
    {
        std::wstring key (name);
        if (! key.empty ())
            ::CharUpperBuffW (&key [0], DWORD (key.size ()));
        return key;
    }

    std::wstring Resolve (const std::wstring & name) const
    {
        wchar_t found [MAX_PATH * 4];
        DWORD length = ::SearchPathW (fSearchPath.c_str (), name.c_str (), nullptr, MAX_PATH * 4, found, nullptr);
        return length > 0 && length < MAX_PATH * 4 ? std::wstring (found, length) : std::wstring ();
    }

    void Visit (const std::wstring & image, unsigned level)
    {
        if (level > fDepth)
            return;
        try {
            Skerry::ExecutableImageFile file (image.c_str (), Skerry::ExecutableImageFile::kBoundedByImage, false);
            for (unsigned int i = 0; i < file.CountImportLibraries (); ++i) {
                const Skerry::ExecutableImageFile::ImportLibrary & library = file.GetImportLibrary (i);
                Show (Wide (library.fName), library.fDelayLoaded, level);
            }
        }
        catch (...) {
            Report (image);
            fFailed = true;
        }
    }

    void Show (const std::wstring & name, bool delayLoaded, unsigned level)
    {
        bool first = fSeen.insert (Key (name)).second;
        if (fFlat && ! first)
            return;
        std::wstring path = first ? Resolve (name) : std::wstring ();
        std::string line = std::string (fFlat ? 2 : 2 * level, ' ') + Narrow (name);
        if (delayLoaded)
            line += " (delay-loaded)";
        line += ! first ? "  (see above)" : path.empty () ? "  (missing)" : "  " + Narrow (path);
        std::printf ("%s\n", line.c_str ());
        if (first && path.empty ())
            fFailed = true;
        if (first && ! path.empty ())
            Visit (path, level + 1);
    }

    bool fFlat;
    unsigned fDepth;
    bool fFailed = false;
    std::wstring fRoot;
    std::wstring fSearchPath;
    std::set<std::wstring> fSeen;
};

int Wrong (const char * problem)
{
    std::fprintf (stderr, "skerry-deps: %s\n%s", problem, kUsage);
    return 2;
}

}

int main ()
{
    int count = 0;
    wchar_t ** arguments = ::CommandLineToArgvW (::GetCommandLineW (), &count);
    if (arguments == nullptr)
        return Wrong ("can't read the command line");
    bool flat = false;
    unsigned depth = ~0u;
    std::wstring image;
    for (int i = 1; i < count; ++i) {
        std::wstring argument (arguments [i]);
        if (argument == L"-h" || argument == L"--help") {
            std::fputs (kUsage, stdout);
            return 0;
        }
        if (argument == L"--version") {
            std::printf ("skerry-deps %s\n", SKERRY_DEPS_VERSION);
            return 0;
        }
        if (argument == L"-flat")
            flat = true;
        else if (argument == L"-depth") {
            wchar_t * end = nullptr;
            if (++i == count || (depth = unsigned (std::wcstoul (arguments [i], &end, 10))) == 0 || *end != L'\0')
                return Wrong ("-depth wants a number of levels, 1 or more");
        }
        else if (image.empty () && ! argument.empty () && argument [0] != L'-')
            image = argument;
        else
            return Wrong (("unexpected argument \"" + Narrow (argument) + "\"").c_str ());
    }
    ::LocalFree (arguments);
    if (image.empty ())
        return Wrong ("no IMAGE given");
    try {
        return Walker (image, flat, depth).Run ();
    }
    catch (...) {
        Report (image);
        return 1;
    }
}
