// Miscellany::EnsureLibrary: one module per slot, whatever the threads do.
#include <LibSkerry/Exceptions>
#include <LibSkerry/Utilities>

#include "Expect.h"
#include "Interposer.h"
#include "Rendezvous.h"

#include <gtest/gtest.h>

#include <thread>

using Skerry::Exceptions::Win32;
using Skerry::Miscellany::EnsureLibrary;
using SkerryTest::Expect;

namespace {

const char kFunction [] = "Skerry::Miscellany::EnsureLibrary";

}

TEST (EnsureLibrary, LoadsOnceAndAFilledSlotMakesNoCall)
{
    void * slot = nullptr;
    HMODULE version = EnsureLibrary (L"version", slot);
    EXPECT_EQ (version, ::GetModuleHandleW (L"version.dll"));
    EXPECT_EQ (slot, version);
    SKERRY_INTERPOSE (load, "KERNEL32.dll", LoadLibraryW);
    EXPECT_EQ (EnsureLibrary (L"version", slot), version);
    slot = reinterpret_cast<void *> (0x12340000);
    EXPECT_EQ (EnsureLibrary (L"no such library at all", slot), reinterpret_cast<HINSTANCE__ *> (0x12340000));
    EXPECT_EQ (load.Calls (), 0u);
}

TEST (EnsureLibrary, PlatformFailuresRaiseWin32)
{
    void * slot = nullptr;
    EXPECT_EQ (Expect<Win32> ([&] { EnsureLibrary (L"NoSuchLibrary", slot); }, kFunction, "Utilities").fCode, 126ul);
    EXPECT_EQ (slot, nullptr);

    // Another thread stores its module while this one loads; giving this one's back fails.
    SKERRY_INTERPOSE (load, "KERNEL32.dll", LoadLibraryW);
    SKERRY_INTERPOSE (release, "KERNEL32.dll", FreeLibrary);
    HMODULE winner = ::LoadLibraryW (L"version");
    load.Replace ([&] (LPCWSTR name) { slot = winner; return load.Original (name); });
    release.Fail (FALSE, ERROR_MOD_NOT_FOUND);
    EXPECT_EQ (Expect<Win32> ([&] { EnsureLibrary (L"version", slot); }, kFunction, "Utilities").fCode, 126ul);
    EXPECT_EQ (slot, winner);
    EXPECT_EQ (release.Calls (), 1u);
}

TEST (EnsureLibrary, RacingThreadsShareOneModule)
{
    // Both threads are inside LoadLibraryW before either stores, so one of them loses the race
    // and gives its reference back.
    SKERRY_INTERPOSE (load, "KERNEL32.dll", LoadLibraryW);
    SKERRY_INTERPOSE (release, "KERNEL32.dll", FreeLibrary);
    SkerryTest::Rendezvous bothInside (2);
    load.Replace ([&] (LPCWSTR name) {
        HMODULE module = load.Original (name);
        bothInside.Arrive ();
        return module;
    });
    void * slot = nullptr;
    HINSTANCE__ * results [2] = {};
    std::thread a ([&] { results [0] = EnsureLibrary (L"msimg32", slot); });
    std::thread b ([&] { results [1] = EnsureLibrary (L"msimg32", slot); });
    a.join ();
    b.join ();
    EXPECT_NE (results [0], nullptr);
    EXPECT_EQ (results [0], results [1]);
    EXPECT_EQ (results [0], slot);
    EXPECT_EQ (load.Calls (), 2u);
    EXPECT_EQ (release.Calls (), 1u);
    EXPECT_EQ (std::get<0> (release.CallArguments () [0]), results [0]);
}
