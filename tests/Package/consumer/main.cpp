#include <LibSkerry/LibSkerry>

#include <windows.h>

#include <cstdio>

int main ()
{
    try {
        SKERRY_SITE ("Consumer::Open");
        HKEY key;
        LONG error = ::RegOpenKeyExW (HKEY_CURRENT_USER, L"Software\\No Such Key For Consumer", 0, KEY_READ, &key);
        if (error != ERROR_SUCCESS)
            SKERRY_THROW_WIN32 (error);
        ::RegCloseKey (key);
    }
    catch (const Skerry::Exceptions::Win32 & e) {
        std::printf ("caught Win32 %lu from %s\n", e.fCode, e.fFunction);
        return 0;
    }
    return 1;
}
