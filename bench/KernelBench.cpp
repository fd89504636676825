// The kernel-object wrappers against the raw calls they make: what owning, checking and the
// strict outcome table cost on the success path. Each pair is measured in alternating batches:
// both sides are a call into the kernel (a server round trip under Wine) and differ by a few
// instructions.
#include <LibSkerry/Utilities>

#include "Harness.h"

#include <windows.h>

namespace {

template <typename Library, typename Baseline>
void Compare (const char * name, Library library, Baseline baseline)
{
    std::pair<double, double> medians = SkerryBench::AlternatingMedians (library, baseline);
    SkerryBench::Report (name, medians.first, medians.second, 1.05);
}

}

int main ()
{
    SkerryBench::Header ("Kernel objects");
    Skerry::Event event (true, false);
    HANDLE raw = ::CreateEventW (NULL, TRUE, FALSE, NULL);
    Compare ("Event Set + Reset vs SetEvent + ResetEvent",
        [&] { event.Set (); event.Reset (); }, [&] { ::SetEvent (raw); ::ResetEvent (raw); });
    Compare ("Handle copy vs DuplicateHandle + CloseHandle", [&] { Skerry::Event copy (event); }, [&] {
        HANDLE copy;
        ::DuplicateHandle (::GetCurrentProcess (), raw, ::GetCurrentProcess (), &copy, 0, FALSE, DUPLICATE_SAME_ACCESS);
        ::CloseHandle (copy);
    });

    Skerry::Mutex mutex (false);
    HANDLE rawMutex = ::CreateMutexW (NULL, FALSE, NULL);
    Compare ("Mutex Wait + Release vs WaitForSingleObject + ReleaseMutex", [&] { mutex.Wait (INFINITE); mutex.Release (); },
        [&] { ::WaitForSingleObject (rawMutex, INFINITE); ::ReleaseMutex (rawMutex); });

    event.Set ();
    ::SetEvent (raw);
    Compare ("Miscellany::WaitForSingleObject vs raw, signalled",
        [&] { Skerry::Miscellany::WaitForSingleObject (event, INFINITE, false); },
        [&] { ::WaitForSingleObject (raw, INFINITE); });

    // What the machine's noise alone makes of two identical operations on two objects: ratios
    // closer to 1 than this say nothing.
    HANDLE other = ::CreateEventW (NULL, TRUE, FALSE, NULL);
    std::pair<double, double> noise = SkerryBench::AlternatingMedians ([&] { ::SetEvent (raw); ::ResetEvent (raw); },
        [&] { ::SetEvent (other); ::ResetEvent (other); });
    SkerryBench::Breakdown ("noise floor: SetEvent + ResetEvent on two events", noise.first, noise.second);

    ::CloseHandle (other);
    ::CloseHandle (rawMutex);
    ::CloseHandle (raw);
    return 0;
}
