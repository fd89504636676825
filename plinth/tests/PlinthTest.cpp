#include "PlinthTest.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>
#include <sstream>

#ifdef _WIN32
#include <windows.h>
#endif

namespace PlinthTest {

PLStringRef CreateString (char const * utf8) { return PLStringCreateWithCString (kPLAllocatorDefault, utf8, kPLStringEncodingUTF8); }

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

PLNumberRef Integer (int64_t value) { return PLNumberCreate (kPLAllocatorDefault, kPLNumberSInt64Type, &value); }
PLNumberRef Real (double value) { return PLNumberCreate (kPLAllocatorDefault, kPLNumberFloat64Type, &value); }

std::string Reason (PLStringRef error) { return error == nullptr ? "" : UTF8 (Owned<PLStringRef> (error)); }

PLTypeRef Parse (std::string const & bytes, PLOptionFlags options, std::string * reason, PLPropertyListFormat * format)
{
    Owned<PLDataRef> data (PLDataCreate (kPLAllocatorDefault, reinterpret_cast<uint8_t const *> (bytes.data ()), PLIndex (bytes.size ())));
    PLStringRef error = nullptr;
    PLTypeRef value = PLPropertyListCreateWithData (kPLAllocatorDefault, data, options, format, &error);
    std::string text = Reason (error);
    if (reason != nullptr)
        *reason = text;
    return value;
}

PLURLRef FileURL (std::string const & path, bool directory)
{
#ifdef _WIN32
    PLURLPathStyle const style = kPLURLWindowsPathStyle;
#else
    PLURLPathStyle const style = kPLURLPOSIXPathStyle;
#endif
    return PLURLCreateWithFileSystemPath (kPLAllocatorDefault, Owned<PLStringRef> (CreateString (path.c_str ())), style, directory);
}

void SetVariable (char const * name, char const * value)
{
#ifdef _WIN32
    ::SetEnvironmentVariableA (name, value);
#else
    value == nullptr ? unsetenv (name) : setenv (name, value, 1);
#endif
}

ScratchPreferences::ScratchPreferences ()
    : fDirectory ((std::filesystem::temp_directory_path () / ("PlinthTest" + std::to_string (std::random_device () ()))).string ())
{
    std::filesystem::create_directory (fDirectory);
    SetVariable ("PLINTH_PREFERENCES_DIRECTORY", fDirectory.c_str ());
}

ScratchPreferences::~ScratchPreferences ()
{
    std::error_code ignored;
    std::filesystem::remove_all (fDirectory, ignored);
    SetVariable ("PLINTH_PREFERENCES_DIRECTORY", nullptr);
}

std::string ScratchPreferences::File (char const * name) const { return (std::filesystem::path (fDirectory) / name).string (); }

void ScratchPreferences::WriteFile (std::string const & path, std::string const & contents) { std::ofstream (path, std::ios::binary) << contents; }

std::string ScratchPreferences::ReadFile (std::string const & path)
{
    std::ostringstream contents;
    contents << std::ifstream (path, std::ios::binary).rdbuf ();
    return contents.str ();
}

}
