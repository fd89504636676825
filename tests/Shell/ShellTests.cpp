// COM holders, item lists and Shell folders: counted references, failures through a desktop that
// passes calls on to Wine's and fails where told, and the real Shell on a scratch directory.
#include <LibSkerry/Shell>
#include <LibSkerry/Utilities>

#include "Expect.h"
#include "Interposer.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <set>

using namespace Skerry::WinShell;
using Skerry::COM::ObjectHolder;
using SkerryTest::Failure;

// A counting COM object; as the desktop, and its enumerators, that the library gets from
// SHGetDesktopFolder, it passes calls on to Wine's, except the one named fFailing, which answers
// fResult with empty results (no list, no count, a name in the narrow form), or with Wine's list
// and a short eaten count for a parse that succeeds.
struct Desktop : IShellFolder, IEnumIDList {
    ULONG fCount = 1;
    IShellFolder * fReal = nullptr;
    IEnumIDList * fList = nullptr;
    std::string fFailing;
    HRESULT fResult = E_FAIL;
    std::set<void *> fLive;    // the lists given and not yet freed
    unsigned fGiven = 0;
    ~Desktop () { fReal ? fReal->Release () : 0; fList ? fList->Release () : 0; }
    bool Fails (const char * method) { return fFailing == method; }
    HRESULT Given (HRESULT result, _ITEMIDLIST ** list) { fGiven += *list && fLive.insert (*list).second; return result; }
    HRESULT STDMETHODCALLTYPE QueryInterface (REFIID, void **) override { return E_NOINTERFACE; }
    ULONG STDMETHODCALLTYPE AddRef () override { return ++fCount; }
    ULONG STDMETHODCALLTYPE Release () override { return --fCount; }
    HRESULT STDMETHODCALLTYPE ParseDisplayName (HWND w, IBindCtx * b, LPWSTR n, ULONG * e, PIDLIST_RELATIVE * l, ULONG * a) override
    {
        HRESULT result = Fails ("Parse") && FAILED (fResult) ? fResult : Given (fReal->ParseDisplayName (w, b, n, e, l, a), l);
        return *e = Fails ("Parse") ? 1 : *e, result;
    }
    HRESULT STDMETHODCALLTYPE EnumObjects (HWND w, SHCONTF f, IEnumIDList ** l) override
    {
        fList = fList ? (fList->Release (), nullptr) : nullptr;
        *l = Fails ("EnumObjects") ? nullptr : this;
        return *l ? (AddRef (), fReal->EnumObjects (w, f, &fList)) : fResult;
    }
    HRESULT STDMETHODCALLTYPE BindToObject (PCUIDLIST_RELATIVE l, IBindCtx * b, REFIID i, void ** o) override { return Fails ("BindToObject") ? fResult : fReal->BindToObject (l, b, i, o); }
    HRESULT STDMETHODCALLTYPE GetAttributesOf (UINT c, PCUITEMID_CHILD_ARRAY l, SFGAOF * a) override { return Fails ("GetAttributesOf") ? fResult : fReal->GetAttributesOf (c, l, a); }
    HRESULT STDMETHODCALLTYPE GetDisplayNameOf (PCUITEMID_CHILD l, SHGDNF f, STRRET * n) override { return *n = STRRET { STRRET_CSTR, {} }, Fails ("GetDisplayNameOf") ? fResult : fReal->GetDisplayNameOf (l, f, n); }
    HRESULT STDMETHODCALLTYPE Next (ULONG c, PITEMID_CHILD * l, ULONG * f) override { return *f = 0, Fails ("Next") ? fResult : Given (fList->Next (c, l, f), l); }
    HRESULT STDMETHODCALLTYPE BindToStorage (PCUIDLIST_RELATIVE, IBindCtx *, REFIID, void **) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE CompareIDs (LPARAM, PCUIDLIST_RELATIVE, PCUIDLIST_RELATIVE) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE CreateViewObject (HWND, REFIID, void **) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE GetUIObjectOf (HWND, UINT, PCUITEMID_CHILD_ARRAY, REFIID, UINT *, void **) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE SetNameOf (HWND, PCUITEMID_CHILD, LPCWSTR, SHGDNF, PITEMID_CHILD *) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE Skip (ULONG) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE Reset () override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE Clone (IEnumIDList **) override { return E_NOTIMPL; }
};

class ShellTest : public ::testing::Test {
protected:
    ShellTest ()
    {
        ::CoInitializeEx (NULL, COINIT_APARTMENTTHREADED);
        std::filesystem::create_directories (fDirectory / L"sub");
        for (const wchar_t * name : { L"a.txt", L"b.txt", L"hidden.txt", L"sub\\inner.txt" })
            std::ofstream (fDirectory / name) << "x";
        ::SetFileAttributesW ((fDirectory / L"hidden.txt").c_str (), FILE_ATTRIBUTE_HIDDEN);
    }
    ~ShellTest () override { std::filesystem::remove_all (fDirectory); ::CoUninitialize (); }

    std::filesystem::path fDirectory = std::filesystem::temp_directory_path () / (L"SkerryShellTests-" + std::to_wstring (::GetCurrentProcessId ()));
};

TEST_F (ShellTest, Holders)
{
    Desktop object, other;
    IUnknown * objectPointer = static_cast<IShellFolder *> (&object), * otherPointer = static_cast<IShellFolder *> (&other);
    {
        ObjectHolder held (objectPointer, true), copy (held), another (otherPointer, true);
        copy = copy;
        copy = held;
        another = held;
        EXPECT_EQ (std::make_pair (object.fCount, other.fCount), std::make_pair (4ul, 1ul));
    }
    ObjectHolder (objectPointer, false);
    EXPECT_EQ (object.fCount, 0u);
    EXPECT_EQ (Failure ([] { ObjectHolder (nullptr, false); }), "assertion failed: fObject | Skerry::COM::ObjectHolder::ObjectHolder | COM");
    EXPECT_EQ (Failure ([] { ObjectHolder (IID_IUnknown, IID_IUnknown); }), "COM 0x80040154 | Skerry::COM::ObjectHolder::ObjectHolder | COM");

    SKERRY_INTERPOSE (allocate, "OLEAUT32.dll", SysAllocStringLen);
    SKERRY_INTERPOSE (free, "OLEAUT32.dll", SysFreeString);
    {
        Skerry::COM::String empty (L""), cut (std::wstring (L"ab\0cd", 5)), copy (cut);
        EXPECT_EQ (std::make_pair (::SysStringLen (empty), ::SysStringLen (copy)), std::make_pair (0u, 2u));
        empty = empty;
        empty = copy;
        EXPECT_STREQ (empty, L"ab");
        allocate.Fail (nullptr, 0);
        EXPECT_EQ (Failure ([&] { copy = cut; }), "Skerry 20 | Skerry::COM::String::operator = | COM");
        EXPECT_EQ (Failure ([] { Skerry::COM::String (nullptr); }), "Skerry 20 | ConstructCOMString | COM");
    }
    // Each BSTR once, the one of the failed assignment's target among them.
    std::vector<std::tuple<BSTR>> freed = free.CallArguments ();
    EXPECT_EQ (std::set<std::tuple<BSTR>> (freed.begin (), freed.end ()).size (), 4u);
    EXPECT_EQ (freed.size (), 4u);
}

TEST_F (ShellTest, Failures)
{
    Desktop desktop;
    ::SHGetDesktopFolder (&desktop.fReal);
    std::wstring directory = fDirectory.wstring ();
    SKERRY_INTERPOSE (get, "SHELL32.dll", SHGetDesktopFolder);
    get.Replace ([&] (IShellFolder ** folder) { *folder = &desktop; desktop.AddRef (); return S_OK; });
    SKERRY_INTERPOSE (free, "ole32.dll", CoTaskMemFree);
    free.Replace ([&] (void * block) { desktop.fLive.erase (block); free.Original (block); });
    struct { const char * fMethod; HRESULT fResult; std::function<void ()> fRun; std::string fFailure; } rows [] = {
        { "Parse", HRESULT_FROM_WIN32 (ERROR_FILE_NOT_FOUND), [&] { FolderInterface ().ParsePathName (directory); }, "COM 0x80070002 | Skerry::WinShell::FolderInterface::ParsePathName | Shell" },
        { "Parse", E_FAIL, [&] { ItemIdentifierList (FolderInterface (), directory, NULL); }, "COM 0x80004005 | Skerry::WinShell::ItemIdentifierList::Construct | Shell" },
        // Windows' count of a parse that left a tail: the list goes back before the refusal.
        { "Parse", S_OK, [&] { FolderInterface ().ParsePathName (directory); }, "assertion failed: wcslen (displayName) == charsEaten | Skerry::WinShell::FolderInterface::ParsePathName | Shell" },
        { "Parse", S_OK, [&] { ItemIdentifierList (FolderInterface (), directory, NULL); }, "assertion failed: eaten == wcslen (child) | Skerry::WinShell::ItemIdentifierList::Construct | Shell" },
        { "BindToObject", E_NOINTERFACE, [&] { FolderInterface folder; FolderInterface (folder, folder.ParsePathName (directory)); }, "COM 0x80004002 | Skerry::WinShell::FolderInterface::Construct | Shell" },
        { "GetAttributesOf", E_INVALIDARG, [&] { FolderInterface folder; folder.GetAttributesOf (folder.ParsePathName (directory), SFGAO_FOLDER); }, "COM 0x80070057 | Skerry::WinShell::FolderInterface::GetAttributesOf | Shell" },
        { "GetDisplayNameOf", E_ACCESSDENIED, [&] { FolderInterface folder; folder.GetFileSystemNameOf (folder.ParsePathName (directory)); }, "COM 0x80070005 | Skerry::WinShell::FolderInterface::GetNameOf | Shell" },
        { "GetDisplayNameOf", S_OK, [&] { FolderInterface folder; folder.GetNameOf (folder.ParsePathName (directory), SHGDN_NORMAL); }, "Skerry 7 | Skerry::WinShell::FolderInterface::GetNameOf | Shell" },
        { "EnumObjects", E_OUTOFMEMORY, [&] { std::vector<ItemIdentifierList> items; FolderInterface ().AppendItems (items, SHCONTF_FOLDERS); }, "COM 0x8007000E | Skerry::WinShell::Enumerator::Construct | Shell" },
        { "EnumObjects", S_FALSE, [&] { Enumerator (FolderInterface (), SHCONTF_FOLDERS, NULL); }, "assertion failed: fObject | Skerry::COM::ObjectHolder::ObjectHolder | COM" },
        { "Next", E_UNEXPECTED, [&] { std::vector<ItemIdentifierList> items; FolderInterface ().AppendItems (items, SHCONTF_FOLDERS); }, "COM 0x8000FFFF | Skerry::WinShell::Enumerator::Next | Shell" },
        { "Next", S_OK, [&] { Enumerator (FolderInterface (), SHCONTF_FOLDERS, NULL).Next (); }, "assertion failed: 1 == fetched | Skerry::WinShell::Enumerator::Next | Shell" },
        { "", 0, [&] { get.Fail (E_FAIL, 0); FolderInterface (); }, "COM 0x80004005 | Skerry::WinShell::FolderInterface::Construct | Shell" },
        { "", 0, SKERRY_FAILING ("SHELL32.dll", SHGetSpecialFolderLocation, (E_INVALIDARG, 0), ItemIdentifierList (CSIDL_APPDATA, NULL)), "COM 0x80070057 | Skerry::WinShell::ItemIdentifierList::ItemIdentifierList | Shell" },
        { "", 0, SKERRY_FAILING ("SHELL32.dll", SHGetFolderPathW, (E_ACCESSDENIED, 0), FolderPath (CSIDL_APPDATA)), "COM 0x80070005 | Skerry::WinShell::FolderPath::FolderPath | Shell" },
        { "", 0, SKERRY_FAILING ("ole32.dll", CoTaskMemAlloc, (nullptr, 0), ItemIdentifierList root (CSIDL_DESKTOP, NULL); ItemIdentifierList (CSIDL_APPDATA, NULL) = root), "COM 0x8007000E | Skerry::WinShell::ItemIdentifierList::operator = | Shell" },
        { "", 0, SKERRY_FAILING ("ole32.dll", CoTaskMemAlloc, (nullptr, 0), std::vector<ItemIdentifierList> items; FolderInterface ().AppendItems (items, SHCONTF_FOLDERS)), "COM 0x8007000E | Skerry::WinShell::ItemIdentifierList::ItemIdentifierList | Shell" },
    };
    for (auto & row : rows) {
        desktop.fFailing = row.fMethod;
        desktop.fResult = row.fResult;
        EXPECT_EQ (Failure (row.fRun), row.fFailure);
        EXPECT_EQ (desktop.fCount, 1u) << row.fFailure;
    }
    // Every list that the desktop gave went back.
    EXPECT_TRUE (desktop.fLive.empty ());
    EXPECT_EQ (desktop.fGiven, 7u);
}

TEST_F (ShellTest, RealShell)
{
    FolderInterface desktop;
    // Wine's eaten count for a name it parsed whole, which the library reads as not reported.
    ULONG eaten = 9;
    ITEMIDLIST * raw = nullptr;
    EXPECT_EQ (desktop->ParseDisplayName (NULL, NULL, &fDirectory.wstring () [0], &eaten, &raw, NULL), S_OK);
    ::CoTaskMemFree (raw);
    EXPECT_EQ (eaten, 0u);
    FolderInterface folder (desktop, ItemIdentifierList (desktop, fDirectory.wstring (), NULL));
    std::vector<ItemIdentifierList> items;
    folder.AppendItems (items, SHCONTF_FOLDERS | SHCONTF_NONFOLDERS);    // no hidden file, nothing inside sub
    folder.AppendItems (items, SHCONTF_FOLDERS | SHCONTF_NONFOLDERS | SHCONTF_INCLUDEHIDDEN);
    std::vector<std::wstring> names;
    for (const ItemIdentifierList & item : items)
        names.push_back (folder.GetFileSystemNameOf (item) + (folder.GetAttributesOf (item, SFGAO_FOLDER) & SFGAO_FOLDER ? L"/" : L""));
    std::sort (names.begin (), names.end ());
    EXPECT_EQ (names, (std::vector<std::wstring> { L"a.txt", L"a.txt", L"b.txt", L"b.txt", L"hidden.txt", L"sub/", L"sub/" }));

    ItemIdentifierList a = folder.ParsePathName (L"a.txt");
    std::wstring forms;    // normal, in folder, for parsing, both, for the address bar
    for (int flags : { 0x0, 0x1, 0x8000, 0x8001, 0x4000 })
        forms += folder.GetNameOf (a, tagSHGDN (flags)) + L"|";
    EXPECT_EQ (forms, L"a.txt|a.txt|" + fDirectory.wstring () + L"\\a.txt|a.txt|a.txt|");

    // Two copies share one position; the end is an empty list, and stays so.
    Enumerator one (folder, SHCONTF_NONFOLDERS, NULL), two (one);
    ItemIdentifierList first = one.Next (), second = two.Next ();
    EXPECT_NE (folder.GetFileSystemNameOf (first), folder.GetFileSystemNameOf (second));
    ItemIdentifierList empty = one.Next ();
    EXPECT_FALSE (empty || two.Next ());
    char bytes [256];
    EXPECT_EQ (a.Copy (bytes, a.Size ()), a.Size ());
    EXPECT_EQ (Failure ([&] { a.Copy (bytes, a.Size () - 1); }), "COM 0x8007000E | Skerry::WinShell::ItemIdentifierList::Copy | Shell");
    EXPECT_EQ (Failure ([&] { ItemIdentifierList { empty }; }), "assertion failed: fItem | Skerry::WinShell::ItemIdentifierList::Size | Shell");
    ItemIdentifierList copy (a);
    EXPECT_FALSE (copy = empty);

    EXPECT_EQ (FolderPath (CSIDL_APPDATA), L"\\\\?\\C:\\users\\" + std::wstring (_wgetenv (L"USERNAME")) + L"\\AppData\\Roaming");
    EXPECT_EQ (GetAPIVersion (), Skerry::LoadedLibrary (L"shell32.dll", 0).GetVersion ());
}
