// Kernel objects through their owners: an overlapped read whose OVERLAPPED owns its event, a
// strict wait that times out, a named mutex that knows who created it, and the file version of
// LibSkerry.dll. Every handle here is closed by its owner, and a failing close raises.
#include <LibSkerry/LibSkerry>

#include <windows.h>

#include <cstdio>

int main ()
{
    // The first two bytes of this program, read the overlapped way.
    wchar_t path [MAX_PATH];
    ::GetModuleFileNameW (NULL, path, MAX_PATH);
    HANDLE file = ::CreateFileW (path, GENERIC_READ, FILE_SHARE_READ, NULL, OPEN_EXISTING, FILE_FLAG_OVERLAPPED, NULL);
    char buffer [2];
    Skerry::Event done (true, false);
    Skerry::Overlapped reading (done);                 // an OVERLAPPED that owns its event
    ::ReadFile (file, buffer, sizeof buffer, NULL, &reading);
    unsigned long bytes, error = reading.GetResult (file, &bytes, true);
    ::CloseHandle (file);
    std::printf ("read %lu bytes, \"%.2s\", error %lu\n", bytes, buffer, error);

    Skerry::Event nobodySetsThis (true, false);
    unsigned long result = Skerry::Miscellany::WaitForSingleObject (nobodySetsThis, 100, false);   // WAIT_TIMEOUT, or raises
    std::printf ("waited 100 ms for an event no one sets: 0x%03lX\n", result);

    Skerry::Mutex lock (false, L"Local\\LibSkerry Examples");   // Created () tells who came first
    if (lock.Wait (5000)) {
        std::printf ("named mutex: created %s, owned %s\n", lock.Created () ? "here" : "elsewhere",
            lock.Owned () ? "here" : "elsewhere");
        lock.Release ();
    }

    wchar_t library [MAX_PATH];
    ::GetModuleFileNameW (::GetModuleHandleW (L"LibSkerry.dll"), library, MAX_PATH);
    unsigned __int64 version = Skerry::Miscellany::GetVersion (library);
    std::printf ("LibSkerry.dll file version: %u.%u.%u.%u\n", unsigned (version >> 48), unsigned (version >> 32) & 0xFFFF,
        unsigned (version >> 16) & 0xFFFF, unsigned (version) & 0xFFFF);
    return 0;
}
