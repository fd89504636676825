// Item identifier lists, special folders, Shell folders and their enumeration (Skerry::WinShell).

#include <LibSkerry/Shell>
#include <LibSkerry/Exceptions>
#include <LibSkerry/Utilities>

#include <windows.h>
#include <objbase.h>
#include <shlobj.h>

#include <cstring>
#include <cwchar>

namespace Skerry {
namespace WinShell {

namespace {

// The library's error number for a Shell name in a form other than STRRET_WSTR.
const unsigned long kNameForm = 7;

// The eaten count of a successful parse of `name`, as the checks read it. Wine reports 0 for
// every successful parse, where Windows reports the whole length; a parse that consumed nothing
// of a non-empty name named nothing by it, so 0 is read as a count not reported, which the
// checks pass as they pass a folder that leaves the count alone.
ULONG EatenCount (ULONG eaten, const wchar_t * name)
{
    return eaten == 0 ? ULONG (std::wcslen (name)) : eaten;
}

// Gives a Shell name back however the copy of it ends.
struct TaskMemory {
    void * fBlock;
    ~TaskMemory () { ::CoTaskMemFree (fBlock); }
};

}

ItemIdentifierList::ItemIdentifierList (const FolderInterface & folder, const wchar_t * child, HWND__ * owner)
    : fItem (NULL)
{
    Construct (folder, child, owner);
}

ItemIdentifierList::ItemIdentifierList (const FolderInterface & folder, const std::wstring & child, HWND__ * owner)
    : fItem (NULL)
{
    Construct (folder, child.c_str (), owner);
}

ItemIdentifierList::ItemIdentifierList (int specialFolder, HWND__ * owner)
    : fItem (NULL)
{
    SKERRY_SITE ("Skerry::WinShell::ItemIdentifierList::ItemIdentifierList");
    HRESULT result = ::SHGetSpecialFolderLocation (owner, specialFolder, &fItem);
    if (FAILED (result))
        SKERRY_THROW_HRESULT (result);
}

ItemIdentifierList::ItemIdentifierList (const ItemIdentifierList & other)
    : fItem (NULL)
{
    SKERRY_SITE ("Skerry::WinShell::ItemIdentifierList::ItemIdentifierList");
    unsigned long size = other.Size ();
    fItem = static_cast<_ITEMIDLIST *> (::CoTaskMemAlloc (size));
    if (fItem == NULL)
        SKERRY_THROW_HRESULT (E_OUTOFMEMORY);
    std::memcpy (fItem, other.fItem, size);
}

ItemIdentifierList::ItemIdentifierList (ItemIdentifierList && other) noexcept
    : fItem (other.fItem)
{
    other.fItem = NULL;
}

ItemIdentifierList & ItemIdentifierList::operator = (const ItemIdentifierList & other)
{
    SKERRY_SITE ("Skerry::WinShell::ItemIdentifierList::operator =");
    if (&other == this)
        return *this;
    if (other.fItem == NULL) {
        ::CoTaskMemFree (fItem);
        fItem = NULL;
        return *this;
    }
    unsigned long size = ::ILGetSize (other.fItem);
    void * copy = ::CoTaskMemAlloc (size);
    if (copy == NULL)
        SKERRY_THROW_HRESULT (E_OUTOFMEMORY);
    std::memcpy (copy, other.fItem, size);
    ::CoTaskMemFree (fItem);
    fItem = static_cast<_ITEMIDLIST *> (copy);
    return *this;
}

ItemIdentifierList & ItemIdentifierList::operator = (ItemIdentifierList && other) noexcept
{
    if (&other != this) {
        if (fItem != NULL)
            ::CoTaskMemFree (fItem);
        fItem = other.fItem;
        other.fItem = NULL;
    }
    return *this;
}

ItemIdentifierList::~ItemIdentifierList ()
{
    if (fItem != NULL)
        ::CoTaskMemFree (fItem);
    fItem = NULL;
}

unsigned long ItemIdentifierList::Size () const
{
    SKERRY_SITE ("Skerry::WinShell::ItemIdentifierList::Size");
    SKERRY_ASSERT (fItem);
    return ::ILGetSize (fItem);
}

unsigned long ItemIdentifierList::Copy (void * destination, unsigned long size) const
{
    SKERRY_SITE ("Skerry::WinShell::ItemIdentifierList::Copy");
    unsigned long needed = Size ();
    if (size < needed)
        SKERRY_THROW_HRESULT (E_OUTOFMEMORY);
    std::memcpy (destination, fItem, needed);
    return needed;
}

void ItemIdentifierList::Construct (const FolderInterface & folder, const wchar_t * child, HWND__ * owner)
{
    SKERRY_SITE ("Skerry::WinShell::ItemIdentifierList::Construct");
    SKERRY_ASSERT (child);
    SKERRY_ASSERT (sizeof (ULONG) == sizeof (size_t));
    ULONG eaten = ULONG (std::wcslen (child));
    HRESULT result = folder->ParseDisplayName (owner, NULL, const_cast<wchar_t *> (child), &eaten, &fItem, NULL);
    if (FAILED (result))
        SKERRY_THROW_HRESULT (result);
    eaten = EatenCount (eaten, child);
    if (eaten != std::wcslen (child)) {
        // The destructor of an object whose constructor raises never runs.
        ItemIdentifierList refused (fItem);
        fItem = NULL;
        SKERRY_ASSERT (eaten == wcslen (child));
    }
}

FolderPath::FolderPath (int specialFolder)
    : std::wstring (L"\\\\?\\")
{
    SKERRY_SITE ("Skerry::WinShell::FolderPath::FolderPath");
    wchar_t buffer [MAX_PATH];
    HRESULT result = ::SHGetFolderPathW (NULL, specialFolder, NULL, SHGFP_TYPE_CURRENT, buffer);
    if (FAILED (result))
        SKERRY_THROW_HRESULT (result);
    append (buffer);
}

unsigned __int64 GetAPIVersion ()
{
    // Through the generic function pointer: the module is found by the address alone.
    return LoadedLibrary (reinterpret_cast<int (*) ()> (reinterpret_cast<void (*) ()> (&::SHGetDesktopFolder))).GetVersion ();
}

FolderInterface::FolderInterface ()
    : ObjectHolder (Construct (), false)
{
}

FolderInterface::FolderInterface (const FolderInterface & parent, const ItemIdentifierList & child)
    : ObjectHolder (Construct (parent, child), false)
{
}

IShellFolder * FolderInterface::Construct ()
{
    SKERRY_SITE ("Skerry::WinShell::FolderInterface::Construct");
    IShellFolder * folder = NULL;
    HRESULT result = ::SHGetDesktopFolder (&folder);
    if (FAILED (result))
        SKERRY_THROW_HRESULT (result);
    return folder;
}

IShellFolder * FolderInterface::Construct (const FolderInterface & parent, const ItemIdentifierList & child)
{
    SKERRY_SITE ("Skerry::WinShell::FolderInterface::Construct");
    IShellFolder * folder = NULL;
    HRESULT result = parent->BindToObject (child.fItem, NULL, IID_IShellFolder, reinterpret_cast<void **> (&folder));
    if (FAILED (result))
        SKERRY_THROW_HRESULT (result);
    return folder;
}

ItemIdentifierList FolderInterface::ParsePathName (const wchar_t * displayName) const
{
    SKERRY_SITE ("Skerry::WinShell::FolderInterface::ParsePathName");
    SKERRY_ASSERT (fObject);
    SKERRY_ASSERT (displayName);
    ULONG charsEaten = ULONG (std::wcslen (displayName));
    _ITEMIDLIST * item = NULL;
    HRESULT result = (*this)->ParseDisplayName (NULL, NULL, const_cast<wchar_t *> (displayName), &charsEaten, &item, NULL);
    if (FAILED (result))
        SKERRY_THROW_HRESULT (result);
    ItemIdentifierList parsed (item);
    charsEaten = EatenCount (charsEaten, displayName);
    SKERRY_ASSERT (wcslen (displayName) == charsEaten);
    return parsed;
}

ItemIdentifierList FolderInterface::ParsePathName (const std::wstring & displayName) const
{
    return ParsePathName (displayName.c_str ());
}

unsigned long FolderInterface::GetAttributesOf (const ItemIdentifierList & item, unsigned long attributes) const
{
    SKERRY_SITE ("Skerry::WinShell::FolderInterface::GetAttributesOf");
    const _ITEMIDLIST * items [] = { item.fItem };
    HRESULT result = (*this)->GetAttributesOf (1, items, &attributes);
    if (FAILED (result))
        SKERRY_THROW_HRESULT (result);
    return attributes;
}

std::wstring FolderInterface::GetNameOf (const ItemIdentifierList & item, tagSHGDN flags) const
{
    SKERRY_SITE ("Skerry::WinShell::FolderInterface::GetNameOf");
    SKERRY_ASSERT (fObject);
    STRRET name;
    HRESULT result = (*this)->GetDisplayNameOf (item.fItem, flags, &name);
    if (FAILED (result))
        SKERRY_THROW_HRESULT (result);
    if (name.uType != STRRET_WSTR)
        SKERRY_THROW_SKERRY (kNameForm);
    TaskMemory freed { name.pOleStr };
    return std::wstring (name.pOleStr);
}

std::wstring FolderInterface::GetFileSystemNameOf (const ItemIdentifierList & item) const
{
    return GetNameOf (item, tagSHGDN (SHGDN_INFOLDER | SHGDN_FORPARSING));
}

void FolderInterface::AppendItems (std::vector<ItemIdentifierList> & items, unsigned long flags) const
{
    Enumerator enumerator (*this, flags, NULL);
    for (ItemIdentifierList item = enumerator.Next (); item; item = enumerator.Next ())
        items.push_back (item);
}

Enumerator::Enumerator (const FolderInterface & folder, unsigned long flags, HWND__ * owner)
    : ObjectHolder (Construct (folder, flags, owner), false)
{
}

IEnumIDList * Enumerator::Construct (const FolderInterface & folder, unsigned long flags, HWND__ * owner)
{
    SKERRY_SITE ("Skerry::WinShell::Enumerator::Construct");
    IEnumIDList * list = NULL;
    HRESULT result = folder->EnumObjects (owner, flags, &list);
    if (FAILED (result))
        SKERRY_THROW_HRESULT (result);
    return list;
}

ItemIdentifierList Enumerator::Next ()
{
    SKERRY_SITE ("Skerry::WinShell::Enumerator::Next");
    _ITEMIDLIST * item = NULL;
    ULONG fetched = 0;
    HRESULT result = (*this)->Next (1, &item, &fetched);
    // Adopted at once, so that whatever the enumerator gave goes back on every path.
    ItemIdentifierList next (item);
    if (result == S_FALSE)
        return ItemIdentifierList (nullptr);
    if (FAILED (result))
        SKERRY_THROW_HRESULT (result);
    SKERRY_ASSERT (1 == fetched);
    return next;
}

}
}
