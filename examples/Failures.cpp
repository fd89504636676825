// The library's one way of failing, as a program meets it: a worker thread whose failed Win32
// call becomes an HRESULT and a log line, and a handler that keeps what it caught as text, with
// a trace whose every frame is named.
#include <LibSkerry/LibSkerry>

#include <windows.h>

#include <cstdio>

namespace Settings {

// Not inlined, so that the trace shows it by name.
__attribute__ ((noinline)) HKEY Open (const wchar_t * path)
{
    SKERRY_SITE ("Settings::Open");
    HKEY key;
    LONG error = ::RegOpenKeyExW (HKEY_CURRENT_USER, path, 0, KEY_READ, &key);
    if (error != ERROR_SUCCESS)
        SKERRY_THROW_WIN32 (error);    // Skerry::Exceptions::Win32: code, site and stack
    return key;
}

// Its last act is a call with the arguments it was given. Compiled with sibling calls (plain -O2),
// it would jump to Open and be missing from the trace; LibSkerry::Traceable keeps it.
__attribute__ ((noinline)) HKEY Load (const wchar_t * path)
{
    return Open (path);
}

const wchar_t kMissing [] = L"Software\\LibSkerry Examples\\Missing";

}

// No exception may leave a thread: the handler catches everything, logs it with its trace
// through jot and gives the thread's caller an HRESULT.
DWORD WINAPI Worker (void *)
{
    try {
        ::RegCloseKey (Settings::Load (Settings::kMissing));
        return S_OK;
    }
    catch (...) {
        return DWORD (Skerry::Exceptions::LogAndTranslateFunc ("Worker", __FILE__, __LINE__));
    }
}

int main ()
{
    HANDLE thread = ::CreateThread (NULL, 0, Worker, NULL, 0, NULL);
    Skerry::Miscellany::WaitForSingleObject (thread, INFINITE, false);
    DWORD result = 0;
    ::GetExitCodeThread (thread, &result);
    ::CloseHandle (thread);
    std::printf ("the worker's result: 0x%08lX\n", result);

    try {
        ::RegCloseKey (Settings::Load (Settings::kMissing));
    }
    catch (...) {
        Skerry::Exceptions::Description what;           // kind, HRESULT, site, message, trace as text
        std::printf ("%s exception, HRESULT 0x%08lX, from %s (%s, line %u); trace:\n%s", what.fType.c_str (),
            static_cast<unsigned long> (what.fResult), what.fFunction.c_str (), what.fFile.c_str (),
            unsigned (what.fLine), what.fStackTrace.c_str ());
    }
    return 0;
}
