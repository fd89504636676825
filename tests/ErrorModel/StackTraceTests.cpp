// Stack capture: what a trace keeps, through the real capture and through a stand-in for the
// platform's capture function.
#include <LibSkerry/Exceptions>
#include <LibSkerry/StackTrace>

#include "ChildProcess.h"
#include "Interposer.h"

#include <gtest/gtest.h>

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

__attribute__ ((noinline)) Skerry::Exceptions::Win32 ThrowHere ()
{
    try {
        Skerry::Exceptions::ThrowWin32ErrorFunc ("F", "S", 1, 2);
    }
    catch (const Skerry::Exceptions::Win32 & e) {
        return e;
    }
    return Skerry::Exceptions::Win32 ("unreached", "S", 0, 0);
}

}

TEST (StackTrace, KeepsTheInnermostSixtyFramesWithoutSpareRoom)
{
    StackTrace deep = CaptureAtDepth (100);
    EXPECT_EQ (deep.size (), 60u);
    EXPECT_EQ (deep.capacity (), deep.size ());
    StackTrace shallow = CaptureAtDepth (3);
    ASSERT_FALSE (shallow.empty ());
    EXPECT_LT (shallow.size (), 60u);
    EXPECT_EQ (shallow.capacity (), shallow.size ());
    for (void * address : shallow)
        EXPECT_NE (address, nullptr);      // the platform's closing null is not kept
    StackTrace copy (shallow);
    EXPECT_EQ (copy, shallow);
}

TEST (StackTrace, AnExceptionsTraceStartsAtTheThrowingSite)
{
    Skerry::Exceptions::Win32 e = ThrowHere ();
    std::uintptr_t site = reinterpret_cast<std::uintptr_t> (&ThrowHere);
    int found = -1;
    for (int i = 0; i < 3 && i < int (e.size ()); ++i) {
        std::uintptr_t address = reinterpret_cast<std::uintptr_t> (e [i]);
        if (address > site && address < site + 256)
            found = i;
    }
    EXPECT_GE (found, 0) << "no return address into the throwing function among the first frames";
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

void * Address (std::uintptr_t value)
{
    return reinterpret_cast<void *> (value);
}

}

TEST (InChild, CaptureThroughStandIn)
{
    SKERRY_INTERPOSE (lookup, "KERNEL32.dll", GetProcAddress);
    lookup.Replace ([] (HMODULE, LPCSTR) { return reinterpret_cast<FARPROC> (reinterpret_cast<void *> (&FakeCapture)); });
    sHash = reinterpret_cast<PULONG> (1);
    for (std::uintptr_t i = 1; i <= 60; ++i)
        sFrames.push_back (Address (i));
    StackTrace full;
    EXPECT_EQ (sSkip, 2ul);
    EXPECT_EQ (sCount, 60ul);
    EXPECT_EQ (sHash, nullptr);
    EXPECT_FALSE (sWroteSlot61);
    EXPECT_EQ (static_cast<const std::vector<void *> &> (full), sFrames);
    EXPECT_EQ (full.capacity (), 60u);

    sFrames = {Address (0x401000), Address (0x402000), nullptr, nullptr};
    StackTrace closedByNulls;
    EXPECT_EQ (closedByNulls.size (), 2u);

    sFrames = {nullptr, Address (0x401000)};    // only trailing nulls go
    EXPECT_EQ (StackTrace ().size (), 2u);

    sFrames.clear ();
    StackTrace none;
    EXPECT_TRUE (none.empty ());
    EXPECT_TRUE (StackTrace (none).empty ());
    EXPECT_EQ (none.Symbolicate (), "(no frames found)");
    // The capture function was looked up once, at the first trace.
    EXPECT_EQ (lookup.Calls (), 1u);
    EXPECT_STREQ (std::get<1> (lookup.CallArguments () [0]), "RtlCaptureStackBackTrace");
}

TEST (StackTrace, CaptureFunctionStandIn)
{
    SkerryTest::ChildResult child = SkerryTest::RunInChild ("CaptureThroughStandIn");
    EXPECT_EQ (child.fExitCode, 0ul);
}
