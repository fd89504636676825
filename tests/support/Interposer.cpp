#include "Interposer.h"

#include <cstring>
#include <cwchar>
#include <string>

namespace SkerryTest {

namespace {

std::string Narrow (const wchar_t * text) { return std::string (text, text + std::wcslen (text)); }

}

void ** FindImportSlot (const wchar_t * module, const char * dll, const char * function)
{
    HMODULE base = ::GetModuleHandleW (module);
    if (base == NULL)
        throw std::runtime_error ("interposer: module " + Narrow (module) + " is not loaded");
    BYTE * image = reinterpret_cast<BYTE *> (base);
    const IMAGE_NT_HEADERS * nt = reinterpret_cast<const IMAGE_NT_HEADERS *> (
        image + reinterpret_cast<const IMAGE_DOS_HEADER *> (image)->e_lfanew);
    const IMAGE_DATA_DIRECTORY & directory = nt->OptionalHeader.DataDirectory [IMAGE_DIRECTORY_ENTRY_IMPORT];
    // GNU ld's import-directory size covers all of .idata, so walk to the null descriptor.
    for (const IMAGE_IMPORT_DESCRIPTOR * import = reinterpret_cast<const IMAGE_IMPORT_DESCRIPTOR *> (
             image + directory.VirtualAddress); import->Name != 0; ++import) {
        if (::lstrcmpiA (reinterpret_cast<const char *> (image + import->Name), dll) != 0)
            continue;
        const IMAGE_THUNK_DATA * names = reinterpret_cast<const IMAGE_THUNK_DATA *> (
            image + (import->OriginalFirstThunk != 0 ? import->OriginalFirstThunk : import->FirstThunk));
        IMAGE_THUNK_DATA * addresses = reinterpret_cast<IMAGE_THUNK_DATA *> (image + import->FirstThunk);
        for (; names->u1.AddressOfData != 0; ++names, ++addresses) {
            if (IMAGE_SNAP_BY_ORDINAL (names->u1.Ordinal))
                continue;
            const IMAGE_IMPORT_BY_NAME * byName = reinterpret_cast<const IMAGE_IMPORT_BY_NAME *> (
                image + names->u1.AddressOfData);
            if (std::strcmp (reinterpret_cast<const char *> (byName->Name), function) == 0)
                return reinterpret_cast<void **> (&addresses->u1.Function);
        }
    }
    throw std::runtime_error ("interposer: " + Narrow (module) + " imports no " + function + " from " + dll);
}

void * ExchangeImportSlot (void ** slot, void * value)
{
    DWORD protection = 0;
    if (! ::VirtualProtect (slot, sizeof *slot, PAGE_READWRITE, &protection))
        throw std::runtime_error ("interposer: VirtualProtect failed");
    void * previous = ::InterlockedExchangePointer (slot, value);
    ::VirtualProtect (slot, sizeof *slot, protection, &protection);
    return previous;
}

}
