// The kernel-object wrappers against the raw calls they make: what owning, checking and the
// strict outcome table cost on the success path.
#include <LibSkerry/Utilities>

#include "Harness.h"

#include <windows.h>

int main ()
{
    SkerryBench::Header ("Kernel objects");
    Skerry::Event event (true, false);
    HANDLE raw = ::CreateEventW (NULL, TRUE, FALSE, NULL);

    double library = SkerryBench::Median ([&] { event.Set (); event.Reset (); });
    double baseline = SkerryBench::Median ([&] { ::SetEvent (raw); ::ResetEvent (raw); });
    SkerryBench::Report ("Event Set + Reset vs SetEvent + ResetEvent", library, baseline, 1.05);

    library = SkerryBench::Median ([&] { Skerry::Event copy (event); });
    baseline = SkerryBench::Median ([&] {
        HANDLE copy;
        ::DuplicateHandle (::GetCurrentProcess (), raw, ::GetCurrentProcess (), &copy, 0, FALSE, DUPLICATE_SAME_ACCESS);
        ::CloseHandle (copy);
    });
    SkerryBench::Report ("Handle copy vs DuplicateHandle + CloseHandle", library, baseline, 1.05);

    Skerry::Mutex mutex (false);
    HANDLE rawMutex = ::CreateMutexW (NULL, FALSE, NULL);
    library = SkerryBench::Median ([&] { mutex.Wait (INFINITE); mutex.Release (); });
    baseline = SkerryBench::Median ([&] { ::WaitForSingleObject (rawMutex, INFINITE); ::ReleaseMutex (rawMutex); });
    SkerryBench::Report ("Mutex Wait + Release vs WaitForSingleObject + ReleaseMutex", library, baseline, 1.05);

    event.Set ();
    library = SkerryBench::Median ([&] { Skerry::Miscellany::WaitForSingleObject (event, INFINITE, false); });
    baseline = SkerryBench::Median ([&] { ::WaitForSingleObject (raw, INFINITE); });
    SkerryBench::Report ("Miscellany::WaitForSingleObject vs raw, signalled", library, baseline, 1.05);

    ::CloseHandle (rawMutex);
    ::CloseHandle (raw);
    return 0;
}
