// LoadedLibrary on ResourceLibrary.dll (strings, raw resources and a version by windres): each
// platform call failing with its code, function and source; the growth of the string and path
// buffers, counted; the missing string on both platforms' terms; a path beyond 300 characters;
// references given back.
#include <LibSkerry/Utilities>

#include "ChildProcess.h"
#include "Expect.h"
#include "Handles.h"
#include "Interposer.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

using Skerry::LoadedLibrary;
using SkerryTest::Failure;

namespace {

class Library : public SkerryTest::HandleLeakTest {};

const wchar_t kLibrary [] = L"ResourceLibrary.dll";

}

// The constructors and the destructor are inline: they call from this program, whose own import
// slots are diverted. The compiler may keep a slot's value for later calls of the same function,
// so nothing here calls the platform after the interposers are gone.
TEST_F (Library, InlineFailures)
{
    {
        SKERRY_INTERPOSE_IN (load, L"ImageTests.exe", "KERNEL32.dll", LoadLibraryExW);
        SKERRY_INTERPOSE_IN (find, L"ImageTests.exe", "KERNEL32.dll", GetModuleHandleExW);
        SKERRY_INTERPOSE_IN (release, L"ImageTests.exe", "KERNEL32.dll", FreeLibrary);
        load.Fail (NULL, ERROR_ACCESS_DENIED);
        find.Fail (FALSE, ERROR_NOT_ENOUGH_MEMORY);
        release.Fail (FALSE, ERROR_INVALID_HANDLE);
        EXPECT_EQ (Failure ([] { LoadedLibrary (kLibrary, 0); }),
            "Win32 5 | Skerry::LoadedLibrary::LoadedLibrary | LibSkerry/Utilities");
        EXPECT_EQ (Failure ([] { LoadedLibrary (reinterpret_cast<int (*) ()> (reinterpret_cast<void *> (&::FreeLibrary))); }),
            "Win32 8 | Skerry::LoadedLibrary::LoadedLibrary | LibSkerry/Utilities");
        EXPECT_EQ (std::get<1> (find.CallArguments () [0]), reinterpret_cast<LPCWSTR> (&::FreeLibrary));
        EXPECT_EQ (std::get<0> (find.CallArguments () [0]), 4u);
        HMODULE taken = NULL;
        EXPECT_EQ (Failure ([&] { LoadedLibrary again (kLibrary, 0); taken = again.fModule; }),
            "Win32 6 | Skerry::LoadedLibrary::~LoadedLibrary | LibSkerry/Utilities");
        EXPECT_TRUE (::FreeLibrary (taken));
    }
}

TEST_F (Library, PlatformFailures)
{
    LoadedLibrary library (kLibrary, 0);
    SKERRY_INTERPOSE (find, "KERNEL32.dll", FindResourceExW);
    SKERRY_INTERPOSE (load, "KERNEL32.dll", LoadResource);
    SKERRY_INTERPOSE (lock, "KERNEL32.dll", LockResource);
    SKERRY_INTERPOSE (loadString, "USER32.dll", LoadStringW);
    SKERRY_INTERPOSE (fileName, "KERNEL32.dll", GetModuleFileNameW);
    find.Fail (NULL, ERROR_RESOURCE_LANG_NOT_FOUND);
    load.Fail (NULL, ERROR_NOT_ENOUGH_MEMORY);
    lock.Fail (NULL, 0);
    loadString.Fail (0, ERROR_ACCESS_DENIED);
    fileName.Fail (0, ERROR_INSUFFICIENT_BUFFER);
    EXPECT_EQ (Failure ([&] { library.GetResource (200, 10, 0); }),
        "Win32 1815 | Skerry::LoadedLibrary::GetResource | Utilities");
    EXPECT_EQ (Failure ([&] { library.GetResource (200, 10, 0); }), "Win32 8 | Skerry::LoadedLibrary::GetResource | Utilities");
    EXPECT_EQ (Failure ([&] { library.GetResource (200, 10, 0); }),
        "LockResource failed | Skerry::LoadedLibrary::GetResource | Utilities");
    EXPECT_EQ (Failure ([&] { library.GetString (3); }), "Win32 5 | Skerry::LoadedLibrary::GetString | Utilities");
    EXPECT_EQ (Failure ([&] { library.GetPath (); }), "Win32 122 | Skerry::LoadedLibrary::GetPath | Utilities");
    EXPECT_EQ (std::get<1> (find.CallArguments () [0]), MAKEINTRESOURCEW (10)) << "type before name";
    EXPECT_EQ (std::get<2> (find.CallArguments () [0]), MAKEINTRESOURCEW (200));
}

// All four forms reach the same bytes; missing names and types raise the platform's codes.
TEST_F (Library, Resources)
{
    LoadedLibrary library (kLibrary, 0);
    const void * data = library.GetResource (200, 10, 0);
    EXPECT_STREQ (static_cast<const char *> (data), "abc");
    EXPECT_EQ (library.GetResource (MAKEINTRESOURCEW (200), 10, 0), data);
    EXPECT_EQ (library.GetResource (200, MAKEINTRESOURCEW (10), 0), data);
    EXPECT_EQ (library.GetResource (MAKEINTRESOURCEW (200), MAKEINTRESOURCEW (10), 0x409), data);
    EXPECT_EQ (std::memcmp (library.GetResource (L"DATA", L"BLOB", 0), "named", 6), 0);
    EXPECT_EQ (Failure ([&] { library.GetResource (201, 10, 0); }), "Win32 1814 | Skerry::LoadedLibrary::GetResource | Utilities");
    EXPECT_EQ (Failure ([&] { library.GetResource (L"DATA", L"NONE", 0); }),
        "Win32 1813 | Skerry::LoadedLibrary::GetResource | Utilities");
    EXPECT_EQ (library.GetVersion (), 0x0001000200030004u);
}

// 148 characters fit the first buffer of 150; 149 need a second pass at 300. A missing string
// raises 1814 whatever the last error was before.
TEST_F (Library, Strings)
{
    LoadedLibrary library (kLibrary, 0);
    SKERRY_INTERPOSE (loadString, "USER32.dll", LoadStringW);
    EXPECT_EQ (library.GetString (1), std::wstring (148, L'a'));
    EXPECT_EQ (library.GetString (2), std::wstring (149, L'b'));
    EXPECT_EQ (library.GetString (3), L"short");
    std::string sizes;
    for (const auto & call : loadString.CallArguments ())
        sizes += std::to_string (std::get<3> (call)) + " ";
    EXPECT_EQ (sizes, "150 150 300 150 ");
    for (unsigned int id : { 4u, 100u }) {
        ::SetLastError (0xDEAD);
        EXPECT_EQ (Failure ([&] { library.GetString (id); }), "Win32 1814 | Skerry::LoadedLibrary::GetString | Utilities") << id;
    }
}

// A reference taken from an address is given back: once both objects are gone, the library is.
TEST_F (Library, ReferencesAndPaths)
{
    {
        LoadedLibrary library (kLibrary, 0);
        int (* marker) () = reinterpret_cast<int (*) ()> (::GetProcAddress (library.fModule, "ResourceLibraryMarker"));
        LoadedLibrary found (marker);
        EXPECT_EQ (found.fModule, library.fModule);
        std::wstring path = found.GetPath ();
        EXPECT_EQ (path, SkerryTest::ProgramDirectory () + kLibrary);
    }
    EXPECT_EQ (::GetModuleHandleW (kLibrary), nullptr);
    EXPECT_EQ (Failure ([] { LoadedLibrary (reinterpret_cast<int (*) ()> (0x10)); }),
        "Win32 126 | Skerry::LoadedLibrary::LoadedLibrary | LibSkerry/Utilities");
}

// A copy of the library under a directory path of more than 300 characters: the path comes back
// whole, at the second pass (600).
TEST_F (Library, LongPath)
{
    std::wstring directory = L"\\\\?\\" + SkerryTest::ProgramDirectory () + std::wstring (150, L'd');
    std::wstring inner = directory + L"\\" + std::wstring (150, L'e');
    std::wstring copy = inner + L"\\" + kLibrary;
    ::CreateDirectoryW (directory.c_str (), NULL);
    ::CreateDirectoryW (inner.c_str (), NULL);
    ASSERT_TRUE (::CopyFileW ((SkerryTest::ProgramDirectory () + kLibrary).c_str (), copy.c_str (), FALSE));
    {
        LoadedLibrary library (copy.c_str (), DONT_RESOLVE_DLL_REFERENCES);
        SKERRY_INTERPOSE (fileName, "KERNEL32.dll", GetModuleFileNameW);
        std::wstring path = library.GetPath ();
        EXPECT_GT (path.size (), 300u);
        EXPECT_EQ (path.substr (path.size () - copy.size () + 4), copy.substr (4));
        ASSERT_EQ (fileName.Calls (), 2u);
        EXPECT_EQ (std::get<2> (fileName.CallArguments () [1]), 600u);
    }
    EXPECT_TRUE (::DeleteFileW (copy.c_str ()));
    EXPECT_TRUE (::RemoveDirectoryW (inner.c_str ()));
    EXPECT_TRUE (::RemoveDirectoryW (directory.c_str ()));
}
