// Process services of Skerry::Miscellany.

#include <LibSkerry/Utilities>
#include <LibSkerry/Exceptions>

#include <windows.h>

namespace Skerry {
namespace Miscellany {

HINSTANCE__ * EnsureLibrary (const wchar_t * name, void * & slot)
{
    SKERRY_SITE ("Skerry::Miscellany::EnsureLibrary");
    if (slot != NULL)
        return static_cast <HINSTANCE__ *> (slot);
    HMODULE module = ::LoadLibraryW (name);
    if (module == NULL)
        SKERRY_THROW_WIN32 (::GetLastError ());
    // Only the first store survives; a thread that lost the race gives its own reference back.
    if (::InterlockedCompareExchangePointer (&slot, module, NULL) != NULL)
        if (! ::FreeLibrary (module))
            SKERRY_THROW_WIN32 (::GetLastError ());
    return static_cast <HINSTANCE__ *> (slot);
}

}
}
