// What the tools print of a library failure: one line's text for the exception being handled,
// "function: the library's words" ("ConstructKey: Win32 error 2 (File not found.)"). Shared by
// every tool in tools/, so that they all report alike.
#ifndef SKERRY_TOOLS_LIBRARY_FAILURE
#define SKERRY_TOOLS_LIBRARY_FAILURE

#include <LibSkerry/CodePages>
#include <LibSkerry/Exceptions>

#include <new>
#include <string>

#include <windows.h>

namespace SkerryTool {

// The platform's words for a Win32 code in parentheses, without the line end it puts after them;
// nothing when it has none.
inline std::string Win32Words (unsigned long code)
{
    wchar_t * message = nullptr;
    if (::FormatMessageW (FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS,
            nullptr, code, 0, reinterpret_cast<wchar_t *> (&message), 0, nullptr) == 0)
        return std::string ();
    std::wstring words (message);
    ::LocalFree (message);
    while (! words.empty () && (words.back () == L'\n' || words.back () == L'\r' || words.back () == L' '))
        words.pop_back ();
    return " (" + Skerry::ANSIStringFromWide (words, 65001) + ")";
}

// Inside a handler only: re-raises the exception being handled, of the library's kinds or
// std::bad_alloc, and gives its text; any other kind goes on.
inline std::string LibraryFailureText ()
{
    try {
        throw;
    }
    catch (const Skerry::Exceptions::Win32 & e) {
        return std::string (e.fFunction) + ": Win32 error " + std::to_string (e.fCode) + Win32Words (e.fCode);
    }
    catch (const Skerry::Exceptions::String & e) {
        return std::string (e.fFunction) + ": " + e.fMessage;
    }
    catch (const Skerry::Exceptions::Skerry & e) {
        return std::string (e.fFunction) + ": Skerry error " + std::to_string (e.fCode);
    }
    catch (const std::bad_alloc &) {
        return "out of memory";
    }
}

}

#endif
