// The main job: a program that uses LibSkerry the way an application does. It makes a real
// platform call fail, lets the library raise, catches the exception and shows all it carries;
// then it waits on kernel objects the strict way, reads its DLL's version, takes text through
// Base64 and two code pages and back, keeps settings in a property-list file and in the
// registry; copies a file through streams, makes a file name safe, lists the drives and a Shell
// folder.
#include <LibSkerry/LibSkerry>

#include <windows.h>

#include <cstdio>
#include <cstring>
#include <string>

#include "FileDemo.h"
#include "PropertyListFileDemo.h"
#include "ShellDemo.h"

namespace Demo {

// Opens a registry key that isn't there: the platform answers ERROR_FILE_NOT_FOUND, and the site
// raises it as a Win32 exception with its own name, source name and line. Not inlined, so that
// the trace shows it by name.
__attribute__ ((noinline)) HKEY OpenSettings (const wchar_t * path)
{
    SKERRY_SITE ("Demo::OpenSettings");
    HKEY key = NULL;
    LONG error = ::RegOpenKeyExW (HKEY_CURRENT_USER, path, 0, KEY_READ, &key);
    if (error != ERROR_SUCCESS)
        SKERRY_THROW_WIN32 (error);
    return key;
}

__attribute__ ((noinline)) void CheckName (const char * name)
{
    SKERRY_SITE ("Demo::CheckName");
    SKERRY_ASSERT (name != NULL && name [0] != '\0');
}

}

namespace {

void ShowFrames (const Skerry::StackTrace & trace)
{
    std::printf ("  frames:   %u\n", unsigned (trace.size ()));
    for (size_t i = 0; i < trace.size (); ++i)
        std::printf ("    [%2u] %p\n", unsigned (i), trace [i]);
}

// What a handler keeps of the exception it is handling: a Description, all text, with the trace
// symbolicated.
void ShowDescription ()
{
    Skerry::Exceptions::Description description;
    std::printf ("As a Description:\n  type:     %s\n  result:   0x%08lX\n  function: %s\n  file:     %s\n"
        "  line:     %u\n  trace:\n%s", description.fType.c_str (), static_cast<unsigned long> (description.fResult),
        description.fFunction.c_str (), description.fFile.c_str (), unsigned (description.fLine),
        description.fStackTrace.c_str ());
}

void ShowSite (const char * kind, const Skerry::Exceptions::Base & e)
{
    std::printf ("  kind:     %s\n  function: %s\n  file:     %s\n  line:     %u\n", kind, e.fFunction, e.fFile,
        unsigned (e.fLine));
}

// Text as C escapes, so that line breaks and bytes above 0x7F show.
std::string Escaped (const std::string & text)
{
    std::string shown;
    for (unsigned char c : text) {
        if (c == '\r')
            shown += "\\r";
        else if (c == '\n')
            shown += "\\n";
        else if (c < 0x20 || c > 0x7E) {
            char hex [8];
            std::snprintf (hex, sizeof hex, "\\x%02x", c);
            shown += hex;
        }
        else
            shown += char (c);
    }
    return shown;
}

// A greeting in Windows-1252 becomes UTF-16, then UTF-8; its UTF-8 bytes become Base64 text and
// are decoded again.
bool ShowText ()
{
    const char greeting [] = "Gr\xfc\xdf" "e aus Tolvane \x80 5";
    std::printf ("Windows-1252 bytes:  \"%s\" (%u bytes)\n", Escaped (greeting).c_str (), unsigned (sizeof greeting - 1));
    Skerry::WideStringFromANSI wide (greeting, sizeof greeting - 1, 1252);
    std::printf ("as UTF-16:           %u units, the last but two U+%04X\n", unsigned (wide.size ()),
        unsigned (wide [wide.size () - 3]));
    Skerry::ANSIStringFromWide utf8 (wide, 65001);
    std::printf ("as UTF-8:            \"%s\" (%u bytes, code page %u)\n", Escaped (utf8).c_str (),
        unsigned (utf8.size ()), utf8.GetCodePage ());
    Skerry::Base64::String text (utf8.data (), unsigned (utf8.size ()));
    std::printf ("Base64:              \"%s\"\n", Escaped (text).c_str ());
    Skerry::Base64::Binary decoded (text);
    bool same = decoded.fSize == utf8.size () && std::memcmp (decoded, utf8.data (), utf8.size ()) == 0;
    std::printf ("decoded again:       %lu bytes, %s\n", decoded.fSize, same ? "the same" : "DIFFERENT");
    return same;
}

// A strict wait that times out, a mutex that knows it created what it holds, and the version
// resource of the library's own DLL.
void ShowKernelObjects ()
{
    Skerry::Event nobodySetsThis (true, false);
    unsigned long result = Skerry::Miscellany::WaitForSingleObject (nobodySetsThis, 100, false);
    std::printf ("waited 100 ms for an event no one sets: %s (0x%03lX)\n",
        result == WAIT_TIMEOUT ? "WAIT_TIMEOUT" : "signalled?", result);
    Skerry::Mutex lock (true, L"Local\\Tolvane Demo");
    std::printf ("named mutex: created %s, owned %s\n", lock.Created () ? "yes" : "no", lock.Owned () ? "yes" : "no");
    wchar_t path [MAX_PATH];
    ::GetModuleFileNameW (::GetModuleHandleW (L"LibSkerry.dll"), path, MAX_PATH);
    unsigned __int64 version = Skerry::Miscellany::GetVersion (path);
    std::printf ("LibSkerry.dll file version: %u.%u.%u.%u\n", unsigned (version >> 48), unsigned (version >> 32) & 0xFFFF,
        unsigned (version >> 16) & 0xFFFF, unsigned (version) & 0xFFFF);
}

// Settings of the demo under HKEY_CURRENT_USER\Software\Tolvane Demo, made afresh: values of three
// types and two sub-keys, read back the strict way; a string stored without its terminator,
// refused; the sub-keys as a snapshot. `make demo` then exports the tree with regplist.
void ShowRegistry ()
{
    using Skerry::Registry::Key;
    if (Key::Exists (HKEY_CURRENT_USER, L"Software\\Tolvane Demo"))
        Key::DeleteTree (HKEY_CURRENT_USER, L"Software\\Tolvane Demo");
    Key settings (HKEY_CURRENT_USER, L"Software\\Tolvane Demo\\Settings", true, KEY_ALL_ACCESS);
    settings.SetValue (L"Greeting", L"Hello from Tolvane");
    const wchar_t cache [] = L"%TEMP%\\Tolvane";
    settings.SetValue (L"Cache", cache, sizeof cache, REG_EXPAND_SZ);
    settings.SetValue (L"Window width", 1280ul);
    Key (settings, L"Recent files", true, KEY_ALL_ACCESS).SetValue (L"1", L"C:\\report.txt");
    Key (settings, L"Plug-ins", true, KEY_ALL_ACCESS);
    unsigned long width = 0;
    settings.GetValue (L"Window width", width);
    std::printf ("Greeting (REG_SZ):          \"%s\"\n", Skerry::ANSIStringFromWide (settings.GetValue (L"Greeting"), 65001).c_str ());
    std::printf ("Cache (REG_EXPAND_SZ):      \"%s\"\n", Skerry::ANSIStringFromWide (settings.GetValue (L"Cache"), 65001).c_str ());
    std::printf ("Window width (REG_DWORD):   %lu\n", width);
    // Six bytes, and the character after them isn't zero: the registry stores them as they are.
    settings.SetValue (L"Broken", L"abcX", 6, REG_SZ);
    try {
        settings.GetValue (L"Broken");
        std::printf ("unexpectedly, a string without terminator was read\n");
    }
    catch (const Skerry::Exceptions::Win32 & e) {
        std::printf ("Broken (REG_SZ, 6 bytes, no terminator): refused, Win32 error %lu from %s\n", e.fCode, e.fFunction);
    }
    Skerry::Registry::SubKeys subKeys (settings);
    for (unsigned int i = 0; i < subKeys.size (); ++i)
        std::printf ("sub-key %u:                  \"%s\"\n", i, Skerry::ANSIStringFromWide (subKeys [i].name, 65001).c_str ());
}

}

int main ()
{
    std::printf ("Opening HKEY_CURRENT_USER\\Software\\Tolvane Demo\\Missing ...\n");
    try {
        ::RegCloseKey (Demo::OpenSettings (L"Software\\Tolvane Demo\\Missing"));
        std::printf ("unexpectedly, the key exists\n");
        return 1;
    }
    catch (const Skerry::Exceptions::Win32 & e) {
        std::printf ("Caught a LibSkerry exception:\n");
        ShowSite ("Win32", e);
        std::printf ("  code:     %lu\n", e.fCode);
        ShowFrames (e);
        ShowDescription ();
    }

    std::printf ("\nChecking an empty name ...\n");
    try {
        Demo::CheckName ("");
    }
    catch (const Skerry::Exceptions::String & e) {
        std::printf ("Caught a LibSkerry assertion:\n");
        ShowSite ("String", e);
        std::printf ("  message:  %s\n", e.fMessage);
        std::printf ("  frames:   %u\n", unsigned (e.size ()));
    }

    std::printf ("\nKernel objects ...\n");
    ShowKernelObjects ();

    std::printf ("\nA dictionary in a property-list file ...\n");
    if (! Demo::ShowPropertyListFile ())
        return 1;

    std::printf ("\nFiles ...\n");
    if (! Demo::ShowFiles ())
        return 1;
    Demo::ShowVolumes ();

    std::printf ("\nA Shell folder ...\n");
    if (! Demo::ShowShellFolder ())
        return 1;

    std::printf ("\nTaking text through code pages and Base64 ...\n");
    try {
        if (! ShowText ())
            return 1;
        std::printf ("\nDecoding text that isn't Base64 ...\n");
        Skerry::Base64::Binary bytes (std::string ("not Base64!"));
        std::printf ("unexpectedly, it decoded to %lu bytes\n", bytes.fSize);
        return 1;
    }
    catch (const Skerry::Exceptions::Win32 & e) {
        std::printf ("Caught a LibSkerry exception:\n");
        ShowSite ("Win32", e);
        std::printf ("  code:     %lu\n", e.fCode);
    }

    std::printf ("\nThe registry ...\n");
    ShowRegistry ();
    return 0;
}
