// The registry classes against the raw calls they make, on a key of HKEY_CURRENT_USER made for the
// run and removed after it: a string read through Registry::Key against the two-call
// RegQueryValueExW sequence, and a snapshot of 1,000 sub-keys against an enumeration that opens
// each. Each pair is measured in alternating batches.
#include <LibSkerry/Utilities>

#include "Harness.h"

#include <windows.h>

#include <string>
#include <vector>

namespace {

using Skerry::Registry::Key;

const unsigned kSubKeyCount = 1000;

std::wstring RawString (HKEY key, const wchar_t * name)
{
    DWORD type = 0, size = 0;
    ::RegQueryValueExW (key, name, NULL, &type, NULL, &size);
    std::wstring text (size / sizeof (wchar_t), L'\0');
    ::RegQueryValueExW (key, name, NULL, &type, reinterpret_cast<BYTE *> (&text [0]), &size);
    text.resize (size / sizeof (wchar_t) - 1);
    return text;
}

// Every sub-key of `key` opened with full access, as a snapshot opens them; `copy` also takes the
// duplicate and closes the first handle, as the snapshot does for each element it keeps.
void RawSnapshot (HKEY key, bool copy)
{
    std::vector<HKEY> opened;
    wchar_t name [256];
    DWORD size = 256;
    for (DWORD index = 0; ::RegEnumKeyExW (key, index, name, &size, NULL, NULL, NULL, NULL) == ERROR_SUCCESS;
         ++index, size = 256) {
        HKEY subKey = NULL;
        ::RegOpenKeyExW (key, name, 0, KEY_ALL_ACCESS, &subKey);
        if (copy) {
            HANDLE duplicate = NULL;
            ::DuplicateHandle (::GetCurrentProcess (), subKey, ::GetCurrentProcess (), &duplicate, 0, FALSE,
                DUPLICATE_SAME_ACCESS);
            ::RegCloseKey (subKey);
            subKey = static_cast<HKEY> (duplicate);
        }
        opened.push_back (subKey);
    }
    for (HKEY subKey : opened)
        ::RegCloseKey (subKey);
}

}

int main ()
{
    const wchar_t kPath [] = L"Software\\SkerryRegistryBench";
    if (Key::Exists (HKEY_CURRENT_USER, kPath))
        Key::DeleteTree (HKEY_CURRENT_USER, kPath);
    {
        SkerryBench::Header ("Registry");
        Key root (HKEY_CURRENT_USER, kPath, true, KEY_ALL_ACCESS);
        HKEY raw = static_cast<HKEY> (static_cast<void *> (root));
        root.SetValue (L"Folder", L"C:\\Program Files\\Tolvane\\Settings");
        std::pair<double, double> read = SkerryBench::AlternatingMedians ([&] { root.GetValue (L"Folder"); },
            [&] { RawString (raw, L"Folder"); });
        SkerryBench::Report ("string read: Key::GetValue vs RegQueryValueExW twice", read.first, read.second, 1.10);
        // What the machine's noise alone makes of two identical reads of two values: ratios closer
        // to 1 than this say nothing.
        root.SetValue (L"Other", L"C:\\Program Files\\Tolvane\\Settings");
        std::pair<double, double> noise = SkerryBench::AlternatingMedians ([&] { RawString (raw, L"Other"); },
            [&] { RawString (raw, L"Folder"); });
        SkerryBench::Breakdown ("noise floor: the raw read of two values", noise.first, noise.second);

        Key many (root, L"Many", true, KEY_ALL_ACCESS);
        for (unsigned i = 0; i < kSubKeyCount; ++i)
            Key (many, L"Sub" + std::to_wstring (i), true, KEY_READ);
        HKEY rawMany = static_cast<HKEY> (static_cast<void *> (many));
        SkerryBench::Options options;
        options.fBatches = 5;
        options.fOperationsPerBatch = 1;
        std::pair<double, double> snapshot = SkerryBench::AlternatingMedians ([&] { Skerry::Registry::SubKeys all (many); },
            [&] { RawSnapshot (rawMany, false); }, options);
        SkerryBench::Report ("SubKeys of 1,000 vs enumerate + open each", snapshot.first, snapshot.second, 1.10);
        // What the snapshot's copy of each opened key into its vector costs: a duplicate and a close.
        std::pair<double, double> copied = SkerryBench::AlternatingMedians ([&] { RawSnapshot (rawMany, true); },
            [&] { RawSnapshot (rawMany, false); }, options);
        SkerryBench::Breakdown ("raw, plus a duplicate and a close per key", copied.first, copied.second);
    }
    Key::DeleteTree (HKEY_CURRENT_USER, kPath);
    return 0;
}
