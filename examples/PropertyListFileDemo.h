// A dictionary of settings written to a property-list file in the temporary directory, read back
// and printed entry by entry. Included by Demo.cpp, which calls Demo::ShowPropertyListFile ().
#ifndef DEMO_PROPERTY_LIST_FILE
#define DEMO_PROPERTY_LIST_FILE

#include <LibSkerry/CodePages>
#include <LibSkerry/Plinth>

#include <windows.h>

#include <cstdio>
#include <string>

namespace Demo {

inline bool ShowPropertyListFile ()
{
    wchar_t directory [MAX_PATH];
    ::GetTempPathW (MAX_PATH, directory);
    std::wstring path = std::wstring (directory) + L"Tolvane Demo Settings.plist";
    Skerry::PlinthMutableDictionary settings;
    settings.SetValue (Skerry::PlinthString (L"Name"), Skerry::PlinthString (L"Tolvane Demo"));
    settings.SetValue (Skerry::PlinthString (L"Greeting"), Skerry::PlinthString (L"Gr\u00fc\u00dfe \u20ac"));
    settings.SetValue (Skerry::PlinthString (L"Path"), Skerry::PlinthString (path));
    settings.Write (Skerry::PlinthURL (path, false));
    std::printf ("wrote %ld entries to %s\n", settings.Count (), Skerry::ANSIStringFromWide (path, 65001).c_str ());
    Skerry::PlinthDictionary back ((Skerry::PlinthURL (path)));
    Skerry::PlinthDictionaryPairs pairs (back);
    std::printf ("read back %u entries:\n", pairs.size ());
    for (unsigned int i = 0; i < pairs.size (); ++i)
        std::printf ("  %s = \"%s\"\n", Skerry::ANSIStringFromPlinth (Skerry::PlinthString (pairs [i].key), 65001).c_str (),
            Skerry::ANSIStringFromPlinth (Skerry::PlinthString (pairs [i].value), 65001).c_str ());
    ::DeleteFileW (path.c_str ());
    return back == settings;
}

}

#endif
