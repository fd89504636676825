// A folder of 1,000 files listed through FolderInterface::AppendItems into a vector of item lists
// against the raw EnumObjects and Next loop that collects the Shell's own lists, in a directory
// of the temporary directory made for the run and removed after it.
#include <LibSkerry/Shell>

#include "Harness.h"

#include <windows.h>
#include <objbase.h>
#include <shlobj.h>

#include <string>
#include <vector>

namespace {

const int kFiles = 1000;
const DWORD kFlags = SHCONTF_FOLDERS | SHCONTF_NONFOLDERS;

// The raw loop: the lists as the Shell gives them, kept in a vector, then freed.
size_t RawList (IShellFolder * folder)
{
    IEnumIDList * list = NULL;
    if (FAILED (folder->EnumObjects (NULL, kFlags, &list)) || list == NULL)
        return 0;
    std::vector<ITEMIDLIST *> items;
    ITEMIDLIST * item = NULL;
    ULONG fetched = 0;
    while (list->Next (1, &item, &fetched) == S_OK && fetched == 1)
        items.push_back (item);
    list->Release ();
    for (ITEMIDLIST * each : items)
        ::CoTaskMemFree (each);
    return items.size ();
}

}

int main ()
{
    ::CoInitializeEx (NULL, COINIT_APARTMENTTHREADED);
    wchar_t temporary [MAX_PATH];
    ::GetTempPathW (MAX_PATH, temporary);
    std::wstring directory = std::wstring (temporary) + L"ShellBench-" + std::to_wstring (::GetCurrentProcessId ());
    ::CreateDirectoryW (directory.c_str (), NULL);
    for (int i = 0; i < kFiles; ++i)
        ::CloseHandle (::CreateFileW ((directory + L"\\file " + std::to_wstring (i) + L".txt").c_str (),
            GENERIC_WRITE, 0, NULL, CREATE_ALWAYS, 0, NULL));
    {
        Skerry::WinShell::FolderInterface desktop;
        Skerry::WinShell::FolderInterface folder (desktop, desktop.ParsePathName (directory));
        SkerryBench::Options few;
        few.fBatches = 7;
        few.fOperationsPerBatch = 2;

        SkerryBench::Header ("Shell folders (a folder of 1,000 files)");
        size_t listed = 0;
        auto whole = SkerryBench::AlternatingMedians (
            [&] {
                std::vector<Skerry::WinShell::ItemIdentifierList> items;
                folder.AppendItems (items, kFlags);
                listed = items.size ();
            },
            [&] { RawList (folder.operator -> ()); }, few);
        SkerryBench::Report ("list into a vector vs EnumObjects and Next", whole.first, whole.second, 1.10);
        std::printf ("(%u items a listing)\n", unsigned (listed));
    }
    for (int i = 0; i < kFiles; ++i)
        ::DeleteFileW ((directory + L"\\file " + std::to_wstring (i) + L".txt").c_str ());
    ::RemoveDirectoryW (directory.c_str ());
    ::CoUninitialize ();
    return 0;
}
