// Temporary paths, wild-card walks and command lines: each platform call failing, with its code and
// site. The names a walk delivers and the splitting rules are the skerry-glob test's.
#include <LibSkerry/Utilities>

#include "ChildProcess.h"
#include "Expect.h"
#include "Handles.h"
#include "Interposer.h"

#include <shellapi.h>

#include <filesystem>

using namespace Skerry;
using SkerryTest::Failure;
using Paths = SkerryTest::HandleLeakTest;

// The directory is made before a prefix is refused, and the platform picks the number, creating
// the file, so that two processes never get the same one; a directory longer than the first buffer.
TEST_F (Paths, TemporaryPaths)
{
    std::wstring directory = TempDirectoryPath (), left;
    SKERRY_INTERPOSE (tempPath, "KERNEL32.dll", GetTempPathW);
    SKERRY_INTERPOSE (create, "KERNEL32.dll", CreateDirectoryW);
    SKERRY_INTERPOSE (name, "KERNEL32.dll", GetTempFileNameW);
    SKERRY_INTERPOSE (remove, "KERNEL32.dll", DeleteFileW);
    for (const wchar_t * prefix : { L"", L"ABCD" })
        EXPECT_EQ (Failure ([&] { TempFilePath refused (prefix); }),
            "assertion failed: length > 0 && length < 4 | Skerry::TempFilePath::TempFilePath | Utilities");
    EXPECT_EQ (create.Calls (), 2u);
    EXPECT_EQ (name.Calls (), 0u);
    auto file = [&] { TempFilePath path; left = path; };
    tempPath.Fail (0, ERROR_ACCESS_DENIED);
    EXPECT_EQ (Failure (file), "Win32 5 | Skerry::TempDirectoryPath::TempDirectoryPath | Utilities");
    create.Fail (FALSE, ERROR_WRITE_PROTECT);
    EXPECT_EQ (Failure (file), "Win32 19 | Skerry::TempDirectoryPath::TempDirectoryPath | Utilities");
    name.Fail (0, ERROR_DIRECTORY);
    EXPECT_EQ (Failure (file), "Win32 267 | Skerry::TempFilePath::TempFilePath | Utilities");
    EXPECT_EQ (std::get<2> (name.CallArguments () [0]), 0u);
    for (DWORD error : { DWORD (ERROR_FILE_NOT_FOUND), DWORD (ERROR_SHARING_VIOLATION) }) {
        remove.Fail (FALSE, error);   // a file gone already is no failure
        EXPECT_EQ (Failure (file), error == 2 ? "nothing thrown" : "Win32 32 | Skerry::TempFilePath::~TempFilePath | Utilities");
        EXPECT_TRUE (left.find (directory + L"TVL") == 0 && ::DeleteFileW (left.c_str ()));
    }

    // As Windows answers: the size needed, terminator included. "." keeps the same directory.
    std::wstring longPath = directory.substr (0, directory.length () - 13);
    for (int i = 0; i < 150; ++i)
        longPath += L".\\";
    tempPath.Replace ([&] (DWORD room, LPWSTR buffer) {
        return room <= longPath.length () ? DWORD (longPath.length () + 1) : DWORD (wcslen (wcscpy (buffer, longPath.c_str ())));
    });
    EXPECT_EQ (TempFilePath (L"L").find (longPath + L"Tolvane Inc.\\L"), 0u);
}

const wchar_t kRaceReady [] = L"Local\\SkerryTempRaceReady", kRaceGo [] = L"Local\\SkerryTempRaceGo";
const unsigned kRaceFiles = 40;

// Two processes taking files of one prefix at the same moment never get the same one: they keep
// what they took, and the directory then holds every file. Files of the prefix are swept before.
TEST_F (Paths, TemporaryFilesOfTwoProcesses)
{
    auto sweep = [] {
        unsigned swept = 0;
        for (const auto & entry : std::filesystem::directory_iterator (std::wstring (TempDirectoryPath ())))
            swept += entry.path ().filename ().wstring ().rfind (L"Rc", 0) == 0 && std::filesystem::remove (entry);
        return swept;
    };
    sweep ();
    HANDLE ready = ::CreateSemaphoreW (nullptr, 0, 2, kRaceReady), go = ::CreateEventW (nullptr, TRUE, FALSE, kRaceGo);
    PROCESS_INFORMATION racers [] = { SkerryTest::StartInChild ("TakeTemporaryFiles"), SkerryTest::StartInChild ("TakeTemporaryFiles") };
    for (int i = 0; i < 2; ++i)
        EXPECT_EQ (::WaitForSingleObject (ready, 120000), WAIT_OBJECT_0);
    ::SetEvent (go);
    for (PROCESS_INFORMATION & racer : racers) {
        DWORD status = 1;
        ::WaitForSingleObject (racer.hProcess, 120000);
        EXPECT_TRUE (::GetExitCodeProcess (racer.hProcess, &status) && status == 0);
        EXPECT_TRUE (::CloseHandle (racer.hThread) && ::CloseHandle (racer.hProcess));
    }
    EXPECT_TRUE (::CloseHandle (ready) && ::CloseHandle (go));
    EXPECT_EQ (sweep (), 2 * kRaceFiles);
}

TEST (InChild, TakeTemporaryFiles)
{
    HANDLE ready = ::OpenSemaphoreW (SEMAPHORE_MODIFY_STATE, FALSE, kRaceReady), go = ::OpenEventW (SYNCHRONIZE, FALSE, kRaceGo);
    ASSERT_TRUE (::ReleaseSemaphore (ready, 1, nullptr));
    ASSERT_EQ (::WaitForSingleObject (go, 120000), WAIT_OBJECT_0);
    for (unsigned i = 0; i < kRaceFiles; ++i)
        TempFilePath (L"Rc").clear ();    // the file stays
}

// A failed Next leaves the walk on its entry; the end is final; the find handle is closed once, at
// the end or with the object, a failed close counting as a close.
TEST_F (Paths, WildCards)
{
    TempFilePath only (L"W");
    const std::wstring everything = TempDirectoryPath () + L"*";
    SKERRY_INTERPOSE (first, "KERNEL32.dll", FindFirstFileW);
    SKERRY_INTERPOSE (next, "KERNEL32.dll", FindNextFileW);
    SKERRY_INTERPOSE (close, "KERNEL32.dll", FindClose);
    std::filesystem::create_directory (only + L"-empty");
    EXPECT_FALSE (WildCardExpander (only + L"-empty\\*"));   // only the dot entries
    std::filesystem::remove (only + L"-empty");
    {
        WildCardExpander one (only);
        next.Fail (FALSE, ERROR_NOT_READY);
        EXPECT_EQ (Failure ([&] { one.Next (); }), "Win32 21 | Skerry::WildCardExpander::Next | Utilities");
        EXPECT_EQ (TempDirectoryPath () + one.CopyName (), only);
        EXPECT_FALSE (one.Next ());
        EXPECT_EQ (Failure ([&] { one.Next (); }),
            "assertion failed: fFindHandle && fFindData | Skerry::WildCardExpander::Next | Utilities");
    }
    first.Fail (INVALID_HANDLE_VALUE, ERROR_ACCESS_DENIED);
    EXPECT_EQ (Failure ([&] { WildCardExpander walk (everything); }),
        "Win32 5 | Skerry::WildCardExpander::Construct | Utilities");
    next.Fail (FALSE, ERROR_NOT_READY);   // while skipping the dots
    EXPECT_EQ (Failure ([&] { WildCardExpander walk (everything.c_str ()); }),
        "Win32 21 | Skerry::WildCardExpander::Next | Utilities");
    EXPECT_EQ (close.Calls (), 3u);
    close.Fail (FALSE, ERROR_INVALID_HANDLE, 2);
    EXPECT_EQ (Failure ([&] { WildCardExpander (only).Next (); }),
        "Win32 6 | Skerry::WildCardExpander::Destruct | Utilities");
    EXPECT_EQ (Failure ([&] { WildCardExpander dying (everything); }),
        "Win32 6 | Skerry::WildCardExpander::Destruct | Utilities");
    EXPECT_EQ (close.Calls (), 5u);
    for (unsigned i = 3; i < 5; ++i)
        EXPECT_TRUE (close.Original (std::get<0> (close.CallArguments () [i])));
}

// The bounds of the index; each platform call failing, and nothing given back that was not had.
TEST_F (Paths, CommandLines)
{
    CommandLine one (L"p");
    for (unsigned index : { 1u, 0x80000000u, 0xFFFFFFFFu })
        EXPECT_EQ (Failure ([&] { (void) one [index]; }), std::string ("assertion failed: ")
            + (index == 1 ? "int (index) < fArgumentCount" : "index < unsigned (fArgumentCount)")
            + " | Skerry::CommandLine::operator [] | Utilities");
    SKERRY_INTERPOSE (own, "KERNEL32.dll", GetCommandLineW);
    SKERRY_INTERPOSE (split, "SHELL32.dll", CommandLineToArgvW);
    SKERRY_INTERPOSE (release, "KERNEL32.dll", LocalFree);
    own.Fail (nullptr, ERROR_SUCCESS);
    EXPECT_EQ (Failure ([] { CommandLine line; }), "Win32 1359 | Skerry::CommandLine::CommandLine | Utilities");
    split.Fail (nullptr, ERROR_NOT_ENOUGH_MEMORY);
    EXPECT_EQ (Failure ([] { CommandLine line (L"p"); }), "Win32 8 | Skerry::CommandLine::CommandLine | Utilities");
    EXPECT_EQ (release.Calls (), 0u);
    release.Fail (HLOCAL (1), ERROR_INVALID_HANDLE);
    EXPECT_EQ (Failure ([] { CommandLine line (L"p"); }), "Win32 6 | Skerry::CommandLine::~CommandLine | Utilities");
    EXPECT_EQ (::LocalFree (std::get<0> (release.CallArguments () [0])), nullptr);
}
