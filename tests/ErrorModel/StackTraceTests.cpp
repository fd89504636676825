// Stack capture: what a trace keeps, through the real capture and through a stand-in for the
// platform's capture function.
#include <LibSkerry/Exceptions>
#include <LibSkerry/StackTrace>

#include "ChildProcess.h"
#include "Interposer.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>

using Skerry::StackTrace;

namespace {

__attribute__ ((noinline)) StackTrace CaptureAtDepth (int depth)
{
    if (depth > 0) {
        StackTrace deeper = CaptureAtDepth (depth - 1);
        asm volatile ("" ::: "memory");     // keeps the recursion a real call, not a loop
        return deeper;
    }
    return StackTrace ();
}

}

// Where an exception's trace starts: Symbolicate.NamesTheFramesOfTheLibraryAndTheProgram.
TEST (StackTrace, KeepsTheInnermostSixtyFramesWithoutSpareRoom)
{
    StackTrace deep = CaptureAtDepth (100), shallow = CaptureAtDepth (3);
    EXPECT_EQ (deep.size (), 60u);
    EXPECT_EQ (deep.capacity (), deep.size ());
    EXPECT_TRUE (! shallow.empty () && shallow.size () < 60u && shallow.capacity () == shallow.size ());
    EXPECT_EQ (std::count (shallow.begin (), shallow.end (), nullptr), 0);      // the platform's closing null is not kept
    EXPECT_EQ (StackTrace (shallow), shallow);
}

namespace {

// Stands in for the platform's capture function: records what it is asked, and writes what the
// scenario tells it to.
ULONG sSkip, sCount;
PULONG sHash;
std::vector<void *> sFrames;
bool sWroteSlot61;

USHORT WINAPI FakeCapture (ULONG skip, ULONG count, PVOID * frames, PULONG hash)
{
    sSkip = skip;
    sCount = count;
    sHash = hash;
    sWroteSlot61 = frames [60] != nullptr;
    for (size_t i = 0; i < sFrames.size (); ++i)
        frames [i] = sFrames [i];
    return USHORT (sFrames.size ());
}

void * Address (std::uintptr_t value) { return reinterpret_cast<void *> (value); }

}

TEST (InChild, CaptureThroughStandIn)
{
    SKERRY_INTERPOSE (lookup, "KERNEL32.dll", GetProcAddress);
    lookup.Replace ([] (HMODULE, LPCSTR) { return reinterpret_cast<FARPROC> (reinterpret_cast<void *> (&FakeCapture)); });
    sHash = reinterpret_cast<PULONG> (1);
    for (std::uintptr_t i = 1; i <= 60; ++i)
        sFrames.push_back (Address (i));
    StackTrace full;
    // Wine's capture leaves out one frame of its own accord, and is asked for one less.
    HMODULE ntdll = ::GetModuleHandleW (L"ntdll");
    bool wine = ::GetProcAddress (ntdll, "wine_get_version") != nullptr;
    EXPECT_EQ (sSkip, wine ? 1ul : 2ul);
    EXPECT_EQ (sCount, 60ul);
    EXPECT_EQ (sHash, nullptr);
    EXPECT_FALSE (sWroteSlot61);
    EXPECT_EQ (static_cast<const std::vector<void *> &> (full), sFrames);
    EXPECT_EQ (full.capacity (), 60u);

    sFrames = {Address (0x401000), Address (0x402000), nullptr, nullptr};
    EXPECT_EQ (StackTrace ().size (), 2u);
    sFrames = {nullptr, Address (0x401000)};    // only trailing nulls go
    EXPECT_EQ (StackTrace ().size (), 2u);

    sFrames.clear ();
    StackTrace none;
    EXPECT_TRUE (none.empty ());
    EXPECT_TRUE (StackTrace (none).empty ());
    EXPECT_EQ (none.Symbolicate (), "(no frames found)");
    // The capture function was looked up once, at the first trace, and Wine with it.
    EXPECT_EQ (lookup.Calls (), 2u);
    EXPECT_STREQ (std::get<1> (lookup.CallArguments () [0]), "RtlCaptureStackBackTrace");
    EXPECT_STREQ (std::get<1> (lookup.CallArguments () [1]), "wine_get_version");
}

TEST (StackTrace, CaptureFunctionStandIn)
{
    SkerryTest::ChildResult child = SkerryTest::RunInChild ("CaptureThroughStandIn");
    EXPECT_EQ (child.fExitCode, 0ul);
}
