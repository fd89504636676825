// A folder of the temporary directory listed through the Shell: each item's display name, its
// file name and whether it is a folder, then where the Shell keeps the user's application data.
// Included by Demo.cpp, which calls Demo::ShowShellFolder ().
#ifndef DEMO_SHELL
#define DEMO_SHELL

#include <LibSkerry/CodePages>
#include <LibSkerry/Shell>

#include <windows.h>
#include <objbase.h>

#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

namespace Demo {

inline std::string UTF8 (const std::wstring & text)
{
    return Skerry::ANSIStringFromWide (text, 65001);
}

inline void ListShellFolder (const std::wstring & path)
{
    Skerry::WinShell::FolderInterface desktop;
    Skerry::WinShell::FolderInterface folder (desktop, desktop.ParsePathName (path));
    std::vector<Skerry::WinShell::ItemIdentifierList> items;
    folder.AppendItems (items, SHCONTF_FOLDERS | SHCONTF_NONFOLDERS);
    std::vector<std::string> lines;
    for (const Skerry::WinShell::ItemIdentifierList & item : items) {
        bool isFolder = (folder.GetAttributesOf (item, SFGAO_FOLDER) & SFGAO_FOLDER) != 0;
        lines.push_back ("  " + UTF8 (folder.GetNameOf (item, SHGDN_INFOLDER)) + " (file name \"" +
            UTF8 (folder.GetFileSystemNameOf (item)) + "\", " + (isFolder ? "a folder" : "a file") + ")");
    }
    std::sort (lines.begin (), lines.end ());
    std::printf ("%u items in the Shell folder \"%s\":\n", unsigned (items.size ()),
        UTF8 (folder.GetNameOf (desktop.ParsePathName (path), SHGDN_INFOLDER)).c_str ());
    for (const std::string & line : lines)
        std::printf ("%s\n", line.c_str ());
    std::printf ("application data: %s\n", UTF8 (Skerry::WinShell::FolderPath (CSIDL_APPDATA)).c_str ());
}

inline bool ShowShellFolder ()
{
    wchar_t temporary [MAX_PATH];
    ::GetTempPathW (MAX_PATH, temporary);
    std::wstring path = std::wstring (temporary) + L"Tolvane Demo Folder";
    ::CreateDirectoryW (path.c_str (), NULL);
    ::CreateDirectoryW ((path + L"\\Archive").c_str (), NULL);
    for (const wchar_t * name : { L"\\Notes.txt", L"\\Plans.txt" })
        ::CloseHandle (::CreateFileW ((path + name).c_str (), GENERIC_WRITE, 0, NULL, CREATE_ALWAYS, 0, NULL));
    // The library never sets COM up: the thread that uses the Shell does.
    ::CoInitializeEx (NULL, COINIT_APARTMENTTHREADED);
    bool listed = true;
    try {
        ListShellFolder (path);
    }
    catch (const Skerry::Exceptions::Base & e) {
        std::printf ("the Shell failed in %s\n", e.fFunction);
        listed = false;
    }
    ::CoUninitialize ();
    ::DeleteFileW ((path + L"\\Notes.txt").c_str ());
    ::DeleteFileW ((path + L"\\Plans.txt").c_str ());
    ::RemoveDirectoryW ((path + L"\\Archive").c_str ());
    ::RemoveDirectoryW (path.c_str ());
    return listed;
}

}

#endif
