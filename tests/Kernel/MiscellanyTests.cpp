// Miscellany: the strict waits' outcome table, cancellation, file versions, UUIDs, paths,
// environment expansion, and libraries loaded once per slot whatever the threads do.
#include <LibSkerry/Utilities>

#include "ChildProcess.h"
#include "Expect.h"
#include "Handles.h"
#include "Interposer.h"
#include "Rendezvous.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <thread>

namespace Misc = Skerry::Miscellany;
using Skerry::Exceptions::String;
using Skerry::Exceptions::Win32;
using SkerryTest::Expect;
using SkerryTest::ProgramDirectory;

namespace {

class Miscellany : public SkerryTest::HandleLeakTest {
protected:
    // Without a network address, the platform's first sequential identifier opens a handle that
    // it keeps: made before any test counts.
    static void SetUpTestSuite ()
    {
        UUID uuid;
        (void) ::UuidCreateSequential (&uuid);
    }
};

}

// Every row of the outcome table, for both waits. The multiple one waits on three handles: its
// second and third are beyond the single one's range.
TEST_F (Miscellany, WaitOutcomes)
{
    struct Row { DWORD result, timeout; bool allowAbandoned; const char * raised; } const rows [] = {
        { WAIT_FAILED, 0, true, "Win32 6" }, { WAIT_TIMEOUT, 10, false, "" }, { WAIT_TIMEOUT, INFINITE, true, "Skerry 1" },
        { WAIT_ABANDONED, 0, true, "" }, { WAIT_ABANDONED + 2, 0, true, "" }, { WAIT_ABANDONED, 0, false, "Skerry 2" },
        { WAIT_ABANDONED + 2, 0, false, "Skerry 2" }, { WAIT_OBJECT_0, INFINITE, false, "" },
        { WAIT_OBJECT_0 + 2, 0, false, "" }, { WAIT_OBJECT_0 + 3, 0, true, "Win32 1359" },
        { WAIT_ABANDONED + 3, 0, true, "Win32 1359" }, { WAIT_IO_COMPLETION, 0, true, "Win32 1359" },
    };
    SKERRY_INTERPOSE (single, "KERNEL32.dll", WaitForSingleObject);
    SKERRY_INTERPOSE (multiple, "KERNEL32.dll", WaitForMultipleObjects);
    void * const handles [3] = {};
    for (const Row & row : rows)
        for (bool many : { false, true }) {
            single.Fail (row.result, 6);
            multiple.Fail (row.result, 6);
            std::string function = many ? "Skerry::Miscellany::WaitForMultipleObjects" : "Skerry::Miscellany::WaitForSingleObject";
            bool beyond = ! many && (row.result == WAIT_OBJECT_0 + 2 || row.result == WAIT_ABANDONED + 2);
            std::string raised = beyond ? "Win32 1359" : row.raised;
            unsigned long result = 0;
            std::string failure = SkerryTest::Failure ([&] {
                result = many ? Misc::WaitForMultipleObjects (3, handles, row.timeout, row.allowAbandoned)
                              : Misc::WaitForSingleObject (nullptr, row.timeout, row.allowAbandoned);
            });
            EXPECT_EQ (failure == "nothing thrown" ? std::to_string (result) : failure,
                raised.empty () ? std::to_string (row.result) : raised + " | " + function + " | Utilities");
        }
    EXPECT_EQ (std::get<2> (multiple.CallArguments () [0]), FALSE);    // any one handle, never all
}

// Real handles: the second of two signalled; a pipe read incomplete, then cancelled. A read that
// completes, and a single wait that times out: Example.KernelObjects.
TEST_F (Miscellany, RealWaitsAndCancellation)
{
    Skerry::Event quiet (true, false), signalled (true, true);
    void * const both [2] = { quiet, signalled };
    EXPECT_EQ (Misc::WaitForMultipleObjects (2, both, 0, false), WAIT_OBJECT_0 + 1);

    const wchar_t name [] = L"\\\\.\\pipe\\SkerryCancelTest";
    HANDLE server = ::CreateNamedPipeW (name, PIPE_ACCESS_INBOUND | FILE_FLAG_OVERLAPPED, 0, 1, 64, 64, 0, nullptr);
    HANDLE client = ::CreateFileW (name, GENERIC_WRITE, 0, nullptr, OPEN_EXISTING, 0, nullptr);
    Skerry::Overlapped reading (quiet);
    char buffer [8];
    unsigned long bytes = 0;
    EXPECT_FALSE (::ReadFile (server, buffer, sizeof buffer, nullptr, &reading));
    EXPECT_EQ (reading.GetResult (server, &bytes, false), DWORD (ERROR_IO_INCOMPLETE));
    EXPECT_FALSE (Misc::CancelIo (reinterpret_cast<void *> (0x1234), signalled, true));
    EXPECT_FALSE (Misc::CancelIo (server, nullptr, true));    // the wait inside raises
    reading.Recycle ();
    ::ReadFile (server, buffer, sizeof buffer, nullptr, &reading);
    EXPECT_TRUE (Misc::CancelIo (server, reading.hEvent, false));
    ::CloseHandle (client);
    ::CloseHandle (server);
}

// 1.2.3.4 from a resource; a file without one, each platform call failing, a wrong fixed block.
TEST_F (Miscellany, GetVersion)
{
    std::wstring directory = ProgramDirectory ();
    EXPECT_EQ (Misc::GetVersion (directory + L"VersionedLibrary.dll"), 0x0001000200030004ull);
    SKERRY_INTERPOSE (info, "VERSION.dll", GetFileVersionInfoW);
    SKERRY_INTERPOSE (query, "VERSION.dll", VerQueryValueW);
    VS_FIXEDFILEINFO wrong {};
    auto giveWrong = [&] (DWORD signature, DWORD structureVersion) {
        wrong.dwSignature = signature, wrong.dwStrucVersion = structureVersion;
        query.Replace ([&] (LPCVOID, LPCWSTR, LPVOID * result, PUINT) { *result = &wrong; return TRUE; });
    };
    struct { const char * message; const wchar_t * file; std::function<void ()> arrange; } const rows [] = {
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

TEST_F (Miscellany, SequentialUUIDAndPaths)
{
    // The platform's own answer depends on the machine (one without a network address gets "local
    // only"), so each answer is given here, over a real identifier.
    SKERRY_INTERPOSE (create, "RPCRT4.dll", UuidCreateSequential);
    RPC_STATUS answer = RPC_S_OK;
    create.Replace ([&] (UUID * uuid) { create.Original (uuid); return answer; });
    bool localOnly = true;
    EXPECT_NE (Misc::CreateSequentialUUID (&localOnly), Misc::CreateSequentialUUID (nullptr));
    EXPECT_FALSE (localOnly);
    answer = RPC_S_UUID_LOCAL_ONLY;
    Misc::CreateSequentialUUID (nullptr);
    Misc::CreateSequentialUUID (&localOnly);
    EXPECT_TRUE (localOnly);
    create.Fail (RPC_S_UUID_NO_ADDRESS, 0);
    EXPECT_STREQ (Expect<String> ([] { Misc::CreateSequentialUUID (nullptr); },
        "Skerry::Miscellany::CreateSequentialUUID", "Utilities").fMessage, "UuidCreateSequential failed");

    std::wstring directory = ProgramDirectory ();
    bool isDirectory = true;
    EXPECT_TRUE (Misc::FileSystemObjectExists (directory + L"LibSkerry.dll", &isDirectory) && ! isDirectory);
    EXPECT_TRUE (Misc::FileSystemObjectExists (directory.c_str (), &isDirectory) && isDirectory);
    EXPECT_FALSE (Misc::FileSystemObjectExists (directory + L"missing.dll", nullptr));
    EXPECT_EQ (Expect<Win32> ([&] { Misc::FileSystemObjectExists (directory + L"missing\\file", nullptr); },
        "Skerry::Miscellany::FileSystemObjectExists", "Utilities").fCode, 3ul);
}

TEST_F (Miscellany, ExpandsEnvironmentReferences)
{
    const char kFunction [] = "Skerry::Miscellany::ExpandEnvironmentStringsW";
    SKERRY_INTERPOSE (expand, "KERNEL32.dll", ExpandEnvironmentStringsW);
    EXPECT_EQ (Misc::ExpandEnvironmentStringsW (L""), L"");
    EXPECT_EQ (expand.Calls (), 0u);
    ::SetEnvironmentVariableW (L"SKERRY_EXPANDED", L"value");
    EXPECT_EQ (Misc::ExpandEnvironmentStringsW (L"a %SKERRY_EXPANDED% b"), L"a value b");
    EXPECT_EQ (Misc::ExpandEnvironmentStringsW (L"plain % text"), L"plain % text");
    expand.Fail (0, 8);
    EXPECT_EQ (Expect<Win32> ([] { Misc::ExpandEnvironmentStringsW (L"%PATH%"); }, kFunction, "Utilities").fCode, 8ul);
    expand.Fail (7, 0, 1, 1);    // the environment grew between the two calls
    SkerryTest::ExpectAssertion ([] { Misc::ExpandEnvironmentStringsW (L"%SKERRY_EXPANDED%"); },
        "assertion failed: actualBufferSize == requestedBufferSize", kFunction, "Utilities");
}

// A filled slot makes no call; a failed load, or a failed release of the module that lost the
// race to another thread's, raises. Threads that are both inside LoadLibraryW before either stores
// share one module: the loser gives its reference back.
TEST (EnsureLibrary, LoadsOnceRacesAndFailures)
{
    const char kFunction [] = "Skerry::Miscellany::EnsureLibrary";
    void * slot = nullptr;
    HMODULE version = Misc::EnsureLibrary (L"version", slot);
    EXPECT_TRUE (version == ::GetModuleHandleW (L"version.dll") && slot == version);
    SKERRY_INTERPOSE (load, "KERNEL32.dll", LoadLibraryW);
    SKERRY_INTERPOSE (release, "KERNEL32.dll", FreeLibrary);
    slot = reinterpret_cast<void *> (0x12340000);
    EXPECT_EQ (Misc::EnsureLibrary (L"no such library at all", slot), reinterpret_cast<HINSTANCE__ *> (0x12340000));
    EXPECT_EQ (load.Calls (), 0u);

    slot = nullptr;
    EXPECT_EQ (Expect<Win32> ([&] { Misc::EnsureLibrary (L"NoSuchLibrary", slot); }, kFunction, "Utilities").fCode, 126ul);
    EXPECT_EQ (slot, nullptr);
    HMODULE winner = ::LoadLibraryW (L"version");
    load.Replace ([&] (LPCWSTR name) { slot = winner; return load.Original (name); });
    release.Fail (FALSE, ERROR_MOD_NOT_FOUND);
    EXPECT_EQ (Expect<Win32> ([&] { Misc::EnsureLibrary (L"version", slot); }, kFunction, "Utilities").fCode, 126ul);
    EXPECT_EQ (slot, winner);
    EXPECT_EQ (release.Calls (), 1u);

    SkerryTest::Rendezvous bothInside (2);
    load.Replace ([&] (LPCWSTR name) {
        HMODULE module = load.Original (name);
        bothInside.Arrive ();
        return module;
    });
    slot = nullptr;
    HINSTANCE__ * results [2] = {};
    std::thread a ([&] { results [0] = Misc::EnsureLibrary (L"msimg32", slot); });
    std::thread b ([&] { results [1] = Misc::EnsureLibrary (L"msimg32", slot); });
    a.join ();
    b.join ();
    EXPECT_TRUE (results [0] != nullptr && results [0] == results [1] && results [0] == slot);
    EXPECT_EQ (load.Calls (), 4u);
    ASSERT_EQ (release.Calls (), 2u);
    EXPECT_EQ (std::get<0> (release.CallArguments () [1]), results [0]);
}
