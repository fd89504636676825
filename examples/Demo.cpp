// The main job: a program that uses LibSkerry the way an application does. It makes a real
// platform call fail, lets the library raise, catches the exception and shows all it carries.
#include <LibSkerry/LibSkerry>

#include <windows.h>

#include <cstdio>

namespace {

// Opens a registry key that isn't there: the platform answers ERROR_FILE_NOT_FOUND, and the site
// raises it as a Win32 exception with its own name, source name and line.
HKEY OpenSettings (const wchar_t * path)
{
    SKERRY_SITE ("Demo::OpenSettings");
    HKEY key = NULL;
    LONG error = ::RegOpenKeyExW (HKEY_CURRENT_USER, path, 0, KEY_READ, &key);
    if (error != ERROR_SUCCESS)
        SKERRY_THROW_WIN32 (error);
    return key;
}

void CheckName (const char * name)
{
    SKERRY_SITE ("Demo::CheckName");
    SKERRY_ASSERT (name != NULL && name [0] != '\0');
}

void ShowFrames (const Skerry::StackTrace & trace)
{
    std::printf ("  frames:   %u\n", unsigned (trace.size ()));
    for (size_t i = 0; i < trace.size (); ++i)
        std::printf ("    [%2u] %p\n", unsigned (i), trace [i]);
    std::printf ("  by module:\n%s", trace.Symbolicate ().c_str ());
}

void ShowSite (const char * kind, const Skerry::Exceptions::Base & e)
{
    std::printf ("  kind:     %s\n  function: %s\n  file:     %s\n  line:     %u\n", kind, e.fFunction, e.fFile,
        unsigned (e.fLine));
}

}

int main ()
{
    std::printf ("Opening HKEY_CURRENT_USER\\Software\\Tolvane Demo\\Missing ...\n");
    try {
        ::RegCloseKey (OpenSettings (L"Software\\Tolvane Demo\\Missing"));
        std::printf ("unexpectedly, the key exists\n");
        return 1;
    }
    catch (const Skerry::Exceptions::Win32 & e) {
        std::printf ("Caught a LibSkerry exception:\n");
        ShowSite ("Win32", e);
        std::printf ("  code:     %lu\n", e.fCode);
        ShowFrames (e);
    }

    std::printf ("\nChecking an empty name ...\n");
    try {
        CheckName ("");
    }
    catch (const Skerry::Exceptions::String & e) {
        std::printf ("Caught a LibSkerry assertion:\n");
        ShowSite ("String", e);
        std::printf ("  message:  %s\n", e.fMessage);
        std::printf ("  frames:   %u\n", unsigned (e.size ()));
    }
    return 0;
}
