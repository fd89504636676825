// Temporary paths, wild-card walks and command lines: real files in a scratch directory, every
// platform call failing, two processes taking temporary files at once, and the platform's
// splitting rules on cases written out by hand. Every test ends with the handles it found open.
#include <LibSkerry/Utilities>

#include "ChildProcess.h"
#include "Expect.h"
#include "Handles.h"
#include "Interposer.h"

#include <gtest/gtest.h>

#include <shellapi.h>

#include <filesystem>
#include <fstream>
#include <set>
#include <string>
#include <vector>

using namespace Skerry;
using SkerryTest::ExpectAssertion;
using SkerryTest::Failure;

namespace {

const wchar_t kRaceReady [] = L"Local\\SkerryPathsTestsReady", kRaceGo [] = L"Local\\SkerryPathsTestsGo";
const unsigned kRaceFiles = 60;

std::filesystem::path RaceList (DWORD process)
{
    return SkerryTest::ProgramDirectory () + L"paths-race-" + std::to_wstring (process) + L".txt";
}

// A fresh directory beside the test program, removed with what it holds.
struct Scratch : std::wstring {
    Scratch () : std::wstring (SkerryTest::ProgramDirectory () + L"paths-scratch\\")
    {
        std::filesystem::remove_all (c_str ());
        std::filesystem::create_directory (c_str ());
    }
    ~Scratch () { std::filesystem::remove_all (c_str ()); }
};

class Paths : public SkerryTest::HandleLeakTest {
protected:

    // Creates `name` in the scratch directory, a directory when it ends in a backslash.
    void Make (const std::wstring & name, DWORD attributes = FILE_ATTRIBUTE_NORMAL)
    {
        if (name.back () == L'\\')
            std::filesystem::create_directory (fScratch + name);
        else
            std::ofstream (std::filesystem::path (fScratch + name));
        ASSERT_TRUE (::SetFileAttributesW ((fScratch + name).c_str (), attributes));
    }

    // The names a walk of `pattern` delivers, directories with a trailing backslash.
    std::multiset<std::wstring> Walk (const std::wstring & pattern)
    {
        std::multiset<std::wstring> names;
        for (WildCardExpander match (fScratch + pattern); match; match.Next ())
            names.insert (match.CopyName () + (match.IsDirectory () ? L"\\" : L""));
        return names;
    }

    Scratch fScratch;
};

}

// The sub-directory is made once and stays; each file is new, empty, named by its prefix, and goes
// with the first of its copies, never with an emptied or an assigned-over path.
TEST_F (Paths, TemporaryFiles)
{
    TempDirectoryPath directory, again;
    EXPECT_EQ (directory, again);
    EXPECT_EQ (directory.substr (directory.length () - 14), L"\\Tolvane Inc.\\");
    std::wstring assignedOver, emptied, copied;
    {
        TempFilePath byDefault, byNull (nullptr), three (L"Abc"), one (L"Z"), copy (one), assigned;
        for (const auto & made : { std::make_pair (&byDefault, L"TVL"), std::make_pair (&byNull, L"TVL"),
                 std::make_pair (&three, L"Abc"), std::make_pair (&one, L"Z") }) {
            EXPECT_EQ (made.first->substr (0, directory.length () + wcslen (made.second)), directory + made.second);
            EXPECT_EQ (std::filesystem::file_size (made.first->c_str ()), 0u);
        }
        EXPECT_TRUE (::DeleteFileW (three.c_str ()));   // gone already: no failure
        copied = one;
        assignedOver = assigned;
        assigned = byDefault;
        emptied.swap (byNull);
    }
    EXPECT_FALSE (std::filesystem::exists (copied));
    EXPECT_TRUE (::DeleteFileW (assignedOver.c_str ()) && ::DeleteFileW (emptied.c_str ()));

    SKERRY_INTERPOSE (name, "KERNEL32.dll", GetTempFileNameW);
    SKERRY_INTERPOSE (create, "KERNEL32.dll", CreateDirectoryW);
    for (const wchar_t * prefix : { L"", L"ABCD" })
        ExpectAssertion ([&] { TempFilePath refused (prefix); }, "assertion failed: length > 0 && length < 4",
            "Skerry::TempFilePath::TempFilePath", "Utilities");
    EXPECT_EQ (create.Calls (), 2u);
    EXPECT_EQ (name.Calls (), 0u);
}

// Each platform call failing, with its code and site; the directory already there is no failure;
// a temporary directory longer than the first buffer.
TEST_F (Paths, TemporaryPathFailures)
{
    SKERRY_INTERPOSE (tempPath, "KERNEL32.dll", GetTempPathW);
    SKERRY_INTERPOSE (create, "KERNEL32.dll", CreateDirectoryW);
    SKERRY_INTERPOSE (name, "KERNEL32.dll", GetTempFileNameW);
    SKERRY_INTERPOSE (remove, "KERNEL32.dll", DeleteFileW);
    auto directory = [] { TempDirectoryPath path; };
    auto file = [] { TempFilePath path; };
    tempPath.Fail (0, ERROR_ACCESS_DENIED, 2);
    EXPECT_EQ (Failure (directory), "Win32 5 | Skerry::TempDirectoryPath::TempDirectoryPath | Utilities");
    EXPECT_EQ (Failure (file), "Win32 5 | Skerry::TempDirectoryPath::TempDirectoryPath | Utilities");
    create.Fail (FALSE, ERROR_ALREADY_EXISTS);
    EXPECT_EQ (Failure (directory), "nothing thrown");
    create.Fail (FALSE, ERROR_WRITE_PROTECT);
    EXPECT_EQ (Failure (file), "Win32 19 | Skerry::TempDirectoryPath::TempDirectoryPath | Utilities");
    name.Fail (0, ERROR_DIRECTORY);
    EXPECT_EQ (Failure (file), "Win32 267 | Skerry::TempFilePath::TempFilePath | Utilities");
    for (DWORD error : { 32ul, 2ul }) {
        std::wstring left;
        remove.Fail (FALSE, error);
        EXPECT_EQ (Failure ([&] { TempFilePath path; left = path; }),
            error == 2 ? "nothing thrown" : "Win32 32 | Skerry::TempFilePath::~TempFilePath | Utilities");
        EXPECT_TRUE (::DeleteFileW (left.c_str ()));
    }

    // As Windows answers: the size needed, terminator included. "." keeps the same directory.
    std::wstring longPath = TempDirectoryPath ();
    longPath.resize (longPath.length () - 13);
    for (int i = 0; i < 150; ++i)
        longPath += L".\\";
    tempPath.Replace ([&] (DWORD room, LPWSTR buffer) -> DWORD {
        if (room <= longPath.length ())
            return DWORD (longPath.length () + 1);
        return DWORD (wcslen (wcscpy (buffer, longPath.c_str ())));
    });
    unsigned before = tempPath.Calls ();
    EXPECT_EQ (TempDirectoryPath (), longPath + L"Tolvane Inc.\\");
    EXPECT_EQ (tempPath.Calls () - before, 2u);
    EXPECT_EQ (TempFilePath (L"L").substr (0, longPath.length () + 14), longPath + L"Tolvane Inc.\\L");
}

// Two processes taking files of one prefix at the same moment never get the same one.
TEST_F (Paths, TemporaryFilesOfTwoProcesses)
{
    HANDLE ready = ::CreateSemaphoreW (nullptr, 0, 2, kRaceReady), go = ::CreateEventW (nullptr, TRUE, FALSE, kRaceGo);
    PROCESS_INFORMATION racers [] = { SkerryTest::StartInChild ("TakeTemporaryFiles"),
        SkerryTest::StartInChild ("TakeTemporaryFiles") };
    for (int i = 0; i < 2; ++i)
        EXPECT_EQ (::WaitForSingleObject (ready, 120000), WAIT_OBJECT_0);
    ::SetEvent (go);
    std::set<std::wstring> names;
    for (PROCESS_INFORMATION & racer : racers) {
        DWORD status = 1;
        ::WaitForSingleObject (racer.hProcess, 120000);
        ::GetExitCodeProcess (racer.hProcess, &status);
        EXPECT_EQ (status, 0u);
        {
            std::wifstream list (RaceList (racer.dwProcessId));
            for (std::wstring line; std::getline (list, line);)
                EXPECT_TRUE (names.insert (line).second && ::DeleteFileW (line.c_str ()));
        }
        std::filesystem::remove (RaceList (racer.dwProcessId));
        ::CloseHandle (racer.hThread);
        ::CloseHandle (racer.hProcess);
    }
    ::CloseHandle (ready);
    ::CloseHandle (go);
    EXPECT_EQ (names.size (), 2 * kRaceFiles);
}

// One racer: keeps its files (their paths emptied) and lists them for the parent.
TEST (InChild, TakeTemporaryFiles)
{
    HANDLE ready = ::OpenSemaphoreW (SEMAPHORE_MODIFY_STATE, FALSE, kRaceReady), go = ::OpenEventW (SYNCHRONIZE, FALSE, kRaceGo);
    ::ReleaseSemaphore (ready, 1, nullptr);
    ASSERT_EQ (::WaitForSingleObject (go, 120000), WAIT_OBJECT_0);
    std::vector<std::wstring> names (kRaceFiles);
    for (std::wstring & name : names)
        TempFilePath (L"Rc").swap (name);
    std::wofstream list (RaceList (::GetCurrentProcessId ()));
    for (const std::wstring & name : names)
        list << name << L"\n";
}

// Every entry but "." and ".." in the platform's order, hidden ones and directories included; the
// end is final, and the find handle is closed once, at the end or with the object.
TEST_F (Paths, WildCards)
{
    EXPECT_FALSE (WildCardExpander (fScratch + L"*"));   // only the dot entries
    Make (L"only.txt");
    {
        WildCardExpander one (fScratch + L"*");
        EXPECT_EQ (one.CopyName (), L"only.txt");
        EXPECT_FALSE (one.Next ());
        EXPECT_FALSE (one);
        ExpectAssertion ([&] { one.Next (); }, "assertion failed: fFindHandle && fFindData",
            "Skerry::WildCardExpander::Next", "Utilities");
    }
    Make (L".x");
    Make (L"hidden.txt", FILE_ATTRIBUTE_HIDDEN);
    Make (L"Sub\\", FILE_ATTRIBUTE_HIDDEN | FILE_ATTRIBUTE_DIRECTORY);
    Make (L"\u010Ce\u0125-\u65E5\u672C.txt");
    EXPECT_EQ (Walk (L"*"), (std::multiset<std::wstring> { L".x", L"Sub\\", L"hidden.txt", L"only.txt",
        L"\u010Ce\u0125-\u65E5\u672C.txt" }));
    EXPECT_EQ (Walk (L"\u010C*"), (std::multiset<std::wstring> { L"\u010Ce\u0125-\u65E5\u672C.txt" }));

    SKERRY_INTERPOSE (close, "KERNEL32.dll", FindClose);
    Walk (L"*");
    { WildCardExpander left (std::wstring (fScratch + L"*")); }
    EXPECT_EQ (close.Calls (), 2u);
    EXPECT_EQ (Failure ([&] { WildCardExpander none (fScratch + L"*.none"); }),
        "Win32 2 | Skerry::WildCardExpander::Construct | Utilities");
    EXPECT_EQ (close.Calls (), 2u);
}

// Each platform call of a walk failing, with its code and site, and nothing left open.
TEST_F (Paths, WildCardFailures)
{
    Make (L"a");
    Make (L"b");
    SKERRY_INTERPOSE (first, "KERNEL32.dll", FindFirstFileW);
    SKERRY_INTERPOSE (next, "KERNEL32.dll", FindNextFileW);
    SKERRY_INTERPOSE (close, "KERNEL32.dll", FindClose);
    first.Fail (INVALID_HANDLE_VALUE, ERROR_ACCESS_DENIED);
    EXPECT_EQ (Failure ([&] { Walk (L"*"); }), "Win32 5 | Skerry::WildCardExpander::Construct | Utilities");
    next.Fail (FALSE, ERROR_NOT_READY);   // while skipping the dots
    EXPECT_EQ (Failure ([&] { Walk (L"*"); }), "Win32 21 | Skerry::WildCardExpander::Next | Utilities");
    EXPECT_EQ (close.Calls (), 1u);
    {
        WildCardExpander walk (fScratch + L"*");
        std::wstring name = walk.CopyName ();
        next.Fail (FALSE, ERROR_NOT_READY);
        EXPECT_EQ (Failure ([&] { walk.Next (); }), "Win32 21 | Skerry::WildCardExpander::Next | Utilities");
        EXPECT_TRUE (walk);
        EXPECT_EQ (walk.CopyName (), name);
    }
    EXPECT_EQ (close.Calls (), 2u);
    // A failed close counts as a close: the object ends all the same, and closes nothing again.
    close.Fail (FALSE, ERROR_INVALID_HANDLE, 2);
    EXPECT_EQ (Failure ([&] { Walk (L"*"); }), "Win32 6 | Skerry::WildCardExpander::Destruct | Utilities");
    EXPECT_EQ (Failure ([&] { WildCardExpander dying (fScratch + L"*"); }),
        "Win32 6 | Skerry::WildCardExpander::Destruct | Utilities");
    EXPECT_EQ (close.Calls (), 4u);
    for (unsigned i = 2; i < 4; ++i)
        EXPECT_TRUE (close.Original (std::get<0> (close.CallArguments () [i])));
}

// The platform's splitting rules, on cases whose arguments are written out by hand.
TEST_F (Paths, CommandLines)
{
    const struct { const wchar_t * fLine; std::vector<std::wstring> fArguments; } cases [] = {
        { L"prog.exe \"a b\" c\\\"d \"e\\\\\" f", { L"prog.exe", L"a b", L"c\"d", L"e\\", L"f" } },
        { L"\"C:\\Program Files\\x\\\" -v", { L"C:\\Program Files\\x\\", L"-v" } },
        { L"p a\\\\b a\\\\\\\\\"b c\" a\\\\\\\"b", { L"p", L"a\\\\b", L"a\\\\b c", L"a\\\"b" } },
        { L"p \"\" x \"\"", { L"p", L"", L"x", L"" } },
        { L"p\ta\t\t b \"c\td\"", { L"p", L"a", L"b", L"c\td" } },
        { L"p \"open ended", { L"p", L"open ended" } },
        { L"p a\"b c\"d", { L"p", L"ab cd" } },
    };
    for (const auto & c : cases) {
        CommandLine split (c.fLine);
        std::vector<std::wstring> arguments;
        for (unsigned i = 0; i < split.size (); ++i)
            arguments.push_back (split [i]);
        EXPECT_EQ (arguments, c.fArguments);
    }

    wchar_t program [MAX_PATH];
    ::GetModuleFileNameW (nullptr, program, MAX_PATH);
    CommandLine empty (L"");
    EXPECT_EQ (empty.size (), 1u);
    EXPECT_STREQ (empty [0], program);
    EXPECT_GE (CommandLine ().size (), 1u);

    std::wstring longest = L"p " + std::wstring (32764, L'x');
    CommandLine one (longest.c_str ());
    EXPECT_EQ (one.size (), 2u);
    EXPECT_EQ (wcslen (one [1]), 32764u);
    ExpectAssertion ([&] { (void) one [2]; }, "assertion failed: int (index) < fArgumentCount",
        "Skerry::CommandLine::operator []", "Utilities");
    for (unsigned index : { 0x80000000u, 0xFFFFFFFFu })
        ExpectAssertion ([&] { (void) one [index]; }, "assertion failed: index < unsigned (fArgumentCount)",
            "Skerry::CommandLine::operator []", "Utilities");
}

TEST_F (Paths, CommandLineFailures)
{
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
