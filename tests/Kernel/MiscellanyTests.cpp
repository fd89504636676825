// Miscellany: the strict waits' outcome table, cancellation, file versions, UUIDs, paths and
// environment expansion.
#include <LibSkerry/Utilities>

#include "Expect.h"
#include "Handles.h"
#include "Interposer.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>

namespace Misc = Skerry::Miscellany;
using Skerry::Event;
using Skerry::Exceptions::String;
using Skerry::Exceptions::Win32;
using SkerryTest::Expect;
using SkerryTest::ExpectAssertion;

namespace {

class MiscellanyTest : public SkerryTest::HandleLeakTest {};

// The directory of this test program, with its trailing separator.
std::wstring ProgramDirectory ()
{
    wchar_t path [MAX_PATH];
    std::wstring program (path, ::GetModuleFileNameW (nullptr, path, MAX_PATH));
    return program.substr (0, program.rfind (L'\\') + 1);
}

const unsigned long kReturned = 0xFFFF0000;    // the outcome is the platform's result itself

}

// Every row of the table, for both waits; the multiple wait over three handles.
TEST_F (MiscellanyTest, WaitOutcomes)
{
    struct Row {
        DWORD result;
        DWORD timeout;
        bool allowAbandoned;
        unsigned long outcome;    // kReturned, or the code raised
        bool skerryError;
    } const rows [] = {
        { WAIT_FAILED, 0, true, 6, false },
        { WAIT_TIMEOUT, 10, false, kReturned, false },
        { WAIT_TIMEOUT, INFINITE, true, 1, true },
        { WAIT_ABANDONED, 0, true, kReturned, false },
        { WAIT_ABANDONED + 2, 0, true, kReturned, false },
        { WAIT_ABANDONED, 0, false, 2, true },
        { WAIT_ABANDONED + 2, 0, false, 2, true },
        { WAIT_OBJECT_0, 0, false, kReturned, false },
        { WAIT_OBJECT_0 + 2, 0, false, kReturned, false },
        { WAIT_OBJECT_0 + 3, 0, true, ERROR_INTERNAL_ERROR, false },
        { WAIT_ABANDONED + 3, 0, true, ERROR_INTERNAL_ERROR, false },
        { WAIT_IO_COMPLETION, 0, true, ERROR_INTERNAL_ERROR, false },
    };
    SKERRY_INTERPOSE (single, "KERNEL32.dll", WaitForSingleObject);
    SKERRY_INTERPOSE (multiple, "KERNEL32.dll", WaitForMultipleObjects);
    void * const handles [3] = {};
    for (const Row & row : rows) {
        for (bool many : { false, true }) {
            if (! many && (row.result == WAIT_OBJECT_0 + 2 || row.result == WAIT_ABANDONED + 2))   // one handle
                continue;
            std::string trace = "result " + std::to_string (row.result) + (many ? ", multiple" : ", single");
            single.Fail (row.result, 6);
            multiple.Fail (row.result, 6);
            auto wait = [&] {
                return many ? Misc::WaitForMultipleObjects (3, handles, row.timeout, row.allowAbandoned)
                            : Misc::WaitForSingleObject (nullptr, row.timeout, row.allowAbandoned);
            };
            const char * function = many ? "Skerry::Miscellany::WaitForMultipleObjects"
                                         : "Skerry::Miscellany::WaitForSingleObject";
            if (row.outcome == kReturned)
                EXPECT_EQ (wait (), row.result) << trace;
            else if (row.skerryError)
                EXPECT_EQ (Expect<Skerry::Exceptions::Skerry> (wait, function, "Utilities").fCode, row.outcome) << trace;
            else
                EXPECT_EQ (Expect<Win32> (wait, function, "Utilities").fCode, row.outcome) << trace;
        }
    }
    EXPECT_EQ (std::get<2> (multiple.CallArguments () [0]), FALSE);    // any one handle, never all
}

// Real handles: signalled, not signalled, the second of two, a bad one; cancelling I/O.
TEST_F (MiscellanyTest, RealWaitsAndCancellation)
{
    Event quiet (true, false), signalled (true, true);
    void * const both [2] = { quiet, signalled };
    EXPECT_EQ (Misc::WaitForSingleObject (signalled, INFINITE, false), WAIT_OBJECT_0);
    EXPECT_EQ (Misc::WaitForSingleObject (quiet, 0, false), DWORD (WAIT_TIMEOUT));
    EXPECT_EQ (Misc::WaitForMultipleObjects (2, both, 0, false), WAIT_OBJECT_0 + 1);
    EXPECT_EQ (Expect<Win32> ([] { Misc::WaitForSingleObject (nullptr, 0, true); },
        "Skerry::Miscellany::WaitForSingleObject", "Utilities").fCode, 6ul);

    EXPECT_FALSE (Misc::CancelIo (reinterpret_cast<void *> (0x1234), signalled, true));
    const wchar_t name [] = L"\\\\.\\pipe\\SkerryCancelTest";
    HANDLE server = ::CreateNamedPipeW (name, PIPE_ACCESS_INBOUND | FILE_FLAG_OVERLAPPED, 0, 1, 64, 64, 0, nullptr);
    HANDLE client = ::CreateFileW (name, GENERIC_WRITE, 0, nullptr, OPEN_EXISTING, 0, nullptr);
    Skerry::Overlapped reading (quiet);
    char buffer [8];
    ::ReadFile (server, buffer, sizeof buffer, nullptr, &reading);
    EXPECT_FALSE (Misc::CancelIo (server, nullptr, true));    // the wait inside raises
    reading.Recycle ();
    ::ReadFile (server, buffer, sizeof buffer, nullptr, &reading);
    EXPECT_TRUE (Misc::CancelIo (server, reading.hEvent, false));
    ::CloseHandle (client);
    ::CloseHandle (server);
}

TEST_F (MiscellanyTest, GetVersion)
{
    std::wstring directory = ProgramDirectory ();
    EXPECT_EQ (Misc::GetVersion (directory + L"VersionedLibrary.dll"), 0x0001000200030004ull);

    // A file without a version resource, each platform call failing, the fixed block made wrong.
    SKERRY_INTERPOSE (info, "VERSION.dll", GetFileVersionInfoW);
    SKERRY_INTERPOSE (query, "VERSION.dll", VerQueryValueW);
    VS_FIXEDFILEINFO wrong {};
    auto giveWrong = [&] (DWORD signature, DWORD structureVersion) {
        wrong.dwSignature = signature, wrong.dwStrucVersion = structureVersion;
        query.Replace ([&] (LPCVOID, LPCWSTR, LPVOID * result, PUINT length) {
            *result = &wrong;
            *length = sizeof wrong;
            return TRUE;
        });
    };
    struct {
        const char * message;
        const wchar_t * file;
        std::function<void ()> arrange;
    } const rows [] = {
        { "GetFileVersionInfoSize failed", L"KernelObjectTests.exe", [] {} },
        { "GetFileVersionInfo failed", L"VersionedLibrary.dll", [&] { info.Fail (FALSE, 0); } },
        { "VerQueryValue failed", L"VersionedLibrary.dll", [&] { query.Fail (FALSE, 0); } },
        { "wild VS_FIXEDFILEINFO signature", L"VersionedLibrary.dll", [&] { giveWrong (0xFEEF04BE, 0x10000); } },
        { "unknown VS_FIXEDFILEINFO format", L"VersionedLibrary.dll", [&] { giveWrong (0xFEEF04BD, 0x20000); } },
    };
    for (const auto & row : rows) {
        row.arrange ();
        EXPECT_STREQ (Expect<String> ([&] { Misc::GetVersion (directory + row.file); }, "Skerry::Miscellany::GetVersion",
            "Utilities").fMessage, row.message);
    }
}

TEST_F (MiscellanyTest, SequentialUUID)
{
    SKERRY_INTERPOSE (create, "RPCRT4.dll", UuidCreateSequential);
    bool localOnly = true;
    GUID first = Misc::CreateSequentialUUID (&localOnly);
    EXPECT_FALSE (localOnly);
    EXPECT_NE (first, Misc::CreateSequentialUUID (nullptr));
    create.Replace ([&] (UUID * uuid) { create.Original (uuid); return RPC_S_UUID_LOCAL_ONLY; });
    Misc::CreateSequentialUUID (&localOnly);
    EXPECT_TRUE (localOnly);
    Misc::CreateSequentialUUID (nullptr);
    create.Fail (RPC_S_UUID_NO_ADDRESS, 0);
    EXPECT_STREQ (Expect<String> ([] { Misc::CreateSequentialUUID (nullptr); },
        "Skerry::Miscellany::CreateSequentialUUID", "Utilities").fMessage, "UuidCreateSequential failed");
}

TEST_F (MiscellanyTest, FileSystemObjectExists)
{
    std::wstring directory = ProgramDirectory ();
    bool isDirectory = true;
    EXPECT_TRUE (Misc::FileSystemObjectExists (directory + L"LibSkerry.dll", &isDirectory));
    EXPECT_FALSE (isDirectory);
    EXPECT_TRUE (Misc::FileSystemObjectExists (directory.c_str (), &isDirectory));
    EXPECT_TRUE (isDirectory);
    EXPECT_FALSE (Misc::FileSystemObjectExists (directory + L"missing.dll", &isDirectory));
    EXPECT_TRUE (isDirectory);
    EXPECT_TRUE (Misc::FileSystemObjectExists (directory, nullptr));
    EXPECT_EQ (Expect<Win32> ([&] { Misc::FileSystemObjectExists (directory + L"missing\\file", nullptr); },
        "Skerry::Miscellany::FileSystemObjectExists", "Utilities").fCode, 3ul);
}

TEST_F (MiscellanyTest, ExpandsEnvironmentReferences)
{
    SKERRY_INTERPOSE (expand, "KERNEL32.dll", ExpandEnvironmentStringsW);
    EXPECT_EQ (Misc::ExpandEnvironmentStringsW (L""), L"");
    EXPECT_EQ (expand.Calls (), 0u);
    ::SetEnvironmentVariableW (L"SKERRY_EXPANDED", L"value");
    EXPECT_EQ (Misc::ExpandEnvironmentStringsW (L"a %SKERRY_EXPANDED% b"), L"a value b");
    EXPECT_EQ (Misc::ExpandEnvironmentStringsW (L"plain % text"), L"plain % text");
    const char kFunction [] = "Skerry::Miscellany::ExpandEnvironmentStringsW";
    expand.Fail (0, ERROR_NOT_ENOUGH_MEMORY);
    EXPECT_EQ (Expect<Win32> ([] { Misc::ExpandEnvironmentStringsW (L"%PATH%"); }, kFunction, "Utilities").fCode, 8ul);
    expand.Fail (7, 0, 1, 1);    // the environment grew between the two calls
    ExpectAssertion ([] { Misc::ExpandEnvironmentStringsW (L"%SKERRY_EXPANDED%"); },
        "assertion failed: actualBufferSize == requestedBufferSize", kFunction, "Utilities");
    ::SetEnvironmentVariableW (L"SKERRY_EXPANDED", nullptr);
}
