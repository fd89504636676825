// The cost of failing: a library throw against what it must at least do (a C++ throw and a
// capture of the stack), and a StackTrace against the bare platform capture.
#include <LibSkerry/Exceptions>
#include <LibSkerry/StackTrace>

#include "Harness.h"

#include <jot.h>

#include <windows.h>

#include <cstdarg>
#include <vector>

namespace {

typedef USHORT (WINAPI * CaptureFunction) (ULONG, ULONG, PVOID *, PULONG);
CaptureFunction sCapture;
volatile unsigned sSink;

__attribute__ ((noinline)) void RawCapture ()
{
    void * frames [61];
    sSink = sSink + sCapture (2, 60, frames, NULL);
}

__attribute__ ((noinline)) void BareThrow ()
{
    try {
        throw 7;
    }
    catch (int value) {
        sSink = sSink + unsigned (value);
    }
}

__attribute__ ((noinline)) void LibraryThrow ()
{
    try {
        Skerry::Exceptions::ThrowWin32ErrorFunc ("Bench::LibraryThrow", "ErrorModelBench", 1, 2);
    }
    catch (const Skerry::Exceptions::Win32 & e) {
        sSink = sSink + unsigned (e.size ());
    }
}

// What the throw spends outside the library: its one log line, as the library writes it.
__attribute__ ((noinline)) void LogLine (const char * format, ...)
{
    jot_client * client = ::jot_open (NULL, "Exceptions", 0);
    va_list arguments;
    va_start (arguments, format);
    ::jot_vlog (client, NULL, 5, format, arguments);
    va_end (arguments);
    ::jot_close (client);
}

__attribute__ ((noinline)) void OneLogLine ()
{
    LogLine ("%s: throwing exception due to Win32 error %lu on line %d of file %s", "Bench::LibraryThrow", 2ul, 1,
        "ErrorModelBench");
}

// What owning the addresses costs on top of the capture: one exact-size allocation.
__attribute__ ((noinline)) void RawCaptureAndAllocation ()
{
    void * frames [61];
    unsigned count = sCapture (2, 60, frames, NULL);
    std::vector<void *> owned (frames, frames + count);
    sSink = sSink + unsigned (owned.size ());
}

__attribute__ ((noinline)) void LibraryCapture ()
{
    Skerry::StackTrace trace;
    sSink = sSink + unsigned (trace.size ());
}

}

int main ()
{
    // The throw is measured as a program meets it with no log file configured.
    ::SetEnvironmentVariableW (L"JOT_LOG_FILE", NULL);
    sCapture = reinterpret_cast<CaptureFunction> (reinterpret_cast<void *> (::GetProcAddress (
        ::GetModuleHandleW (L"kernel32"), "RtlCaptureStackBackTrace")));

    SkerryBench::Header ("Error model, 70 frames deep");
    double bare = 0, raw = 0, thrown = 0, captured = 0, logged = 0, owned = 0;
    SkerryBench::AtDepth (70, [&] {
        bare = SkerryBench::Median (BareThrow);
        raw = SkerryBench::Median (RawCapture);
        thrown = SkerryBench::Median (LibraryThrow);
        captured = SkerryBench::Median (LibraryCapture);
        logged = SkerryBench::Median (OneLogLine);
        owned = SkerryBench::Median (RawCaptureAndAllocation);
    });
    SkerryBench::Report ("ThrowWin32ErrorFunc vs C++ throw + raw capture", thrown, bare + raw, 1.5);
    SkerryBench::Breakdown ("the throw less its log line through jot", thrown - logged, bare + raw);
    SkerryBench::Breakdown ("the log line alone (open, vlog, close)", logged, bare + raw);
    SkerryBench::Report ("StackTrace vs raw RtlCaptureStackBackTrace", captured, raw, 1.2);
    SkerryBench::Breakdown ("vs raw capture + one exact-size allocation", captured, owned);
    std::printf ("(C++ throw of an int alone: %.0f ns, raw capture of 60 frames alone: %.0f ns)\n", bare, raw);
    return 0;
}
