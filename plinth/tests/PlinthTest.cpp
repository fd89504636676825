#include "PlinthTest.h"

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>

#ifdef _WIN32
#include <windows.h>
#else
#include <dirent.h>
#include <unistd.h>
#endif

namespace PlinthTest {

PLStringRef CreateString (char const * utf8)
{
    return PLStringCreateWithCString (kPLAllocatorDefault, utf8, kPLStringEncodingUTF8);
}

PLStringRef CreateString (std::u16string const & units)
{
    return PLStringCreateWithCharacters (kPLAllocatorDefault, reinterpret_cast<PLUniChar const *> (units.data ()),
        PLIndex (units.size ()));
}

std::u16string Units (PLStringRef string)
{
    std::u16string units (std::size_t (PLStringGetLength (string)), u'\0');
    PLStringGetCharacters (string, PLRangeMake (0, PLIndex (units.size ())), reinterpret_cast<PLUniChar *> (&units [0]));
    return units;
}

ScratchPreferences::ScratchPreferences ()
{
#ifdef _WIN32
    char base [MAX_PATH];
    ::GetTempPathA (MAX_PATH, base);
    static unsigned sequence = 0;
    fDirectory = std::string (base) + "PlinthTest" + std::to_string (::GetCurrentProcessId ()) + "-"
        + std::to_string (++sequence);
    ::CreateDirectoryA (fDirectory.c_str (), nullptr);
    ::SetEnvironmentVariableA ("PLINTH_PREFERENCES_DIRECTORY", fDirectory.c_str ());
#else
    char pattern [] = "/tmp/PlinthTestXXXXXX";
    fDirectory = mkdtemp (pattern);
    setenv ("PLINTH_PREFERENCES_DIRECTORY", fDirectory.c_str (), 1);
#endif
}

ScratchPreferences::~ScratchPreferences ()
{
#ifdef _WIN32
    WIN32_FIND_DATAA found;
    HANDLE search = ::FindFirstFileA ((fDirectory + "\\*").c_str (), &found);
    if (search != INVALID_HANDLE_VALUE) {
        do
            ::DeleteFileA ((fDirectory + "\\" + found.cFileName).c_str ());
        while (::FindNextFileA (search, &found));
        ::FindClose (search);
    }
    ::RemoveDirectoryA (fDirectory.c_str ());
    ::SetEnvironmentVariableA ("PLINTH_PREFERENCES_DIRECTORY", nullptr);
#else
    if (DIR * directory = opendir (fDirectory.c_str ())) {
        while (dirent * entry = readdir (directory))
            std::remove ((fDirectory + "/" + entry->d_name).c_str ());
        closedir (directory);
    }
    rmdir (fDirectory.c_str ());
    unsetenv ("PLINTH_PREFERENCES_DIRECTORY");
#endif
}

std::string ScratchPreferences::File (char const * name) const
{
#ifdef _WIN32
    return fDirectory + "\\" + name;
#else
    return fDirectory + "/" + name;
#endif
}

void ScratchPreferences::WriteFile (std::string const & path, std::string const & contents)
{
    std::ofstream (path, std::ios::binary) << contents;
}

std::string ScratchPreferences::ReadFile (std::string const & path)
{
    std::ostringstream contents;
    contents << std::ifstream (path, std::ios::binary).rdbuf ();
    return contents.str ();
}

}
