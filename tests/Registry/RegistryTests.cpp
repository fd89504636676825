// Registry keys, strict value reads, change notification and sub-key snapshots, on the real
// registry of the test prefix, under a key of HKEY_CURRENT_USER of each test's own that ends with
// the handles it found open. Values that break the read rules are written with RegSetValueExW.
#include <LibSkerry/Utilities>

#include "Expect.h"
#include "Handles.h"
#include "Interposer.h"
#include "JotLog.h"

#include <gtest/gtest.h>
#include <shlwapi.h>

#include <functional>
#include <optional>
#include <regex>
#include <string>
#include <thread>

using Skerry::Registry::Key;
using Skerry::Registry::SubKeys;
using SkerryTest::Failure;

namespace {

HKEY Raw (const Key & key) { return static_cast<HKEY> (static_cast<void *> (key)); }

// A failure as Failure gives it, raised in `function` of Skerry::Registry, or in ConstructKey.
std::string Site (const std::string & what, const std::string & function)
{
    return what + " | " + (function == "ConstructKey" ? "" : "Skerry::Registry::") + function + " | Utilities";
}

// The key is made before the handles are counted, and removed before they are counted again.
class RegistryTest : public SkerryTest::HandleLeakTest {
protected:
    ~RegistryTest () noexcept override {}

    void TearDown () override
    {
        Key::DeleteTree (HKEY_CURRENT_USER, Path ().c_str ());
        HandleLeakTest::TearDown ();
    }

    static std::wstring Path () { return L"Software\\SkerryRegistryTests-" + std::to_wstring (::GetCurrentProcessId ()); }

    Key fRoot { HKEY_CURRENT_USER, Path (), true, KEY_ALL_ACCESS };
};

}

TEST_F (RegistryTest, Keys)
{
    Key (fRoot, std::wstring (L"a\\b"), true, KEY_READ);    // the parent a as well
    EXPECT_TRUE (Key::Exists (Raw (fRoot), std::wstring (L"a\\b")));    // without a default value
    SKERRY_INTERPOSE (deleteKey, "ADVAPI32.dll", RegDeleteKeyW);
    SKERRY_INTERPOSE (deleteTree, "SHLWAPI.dll", SHDeleteKeyW);
    SKERRY_INTERPOSE (close, "ADVAPI32.dll", RegCloseKey);
    SkerryTest::ExpectFailures ({
        { [&] { Key (fRoot, L"missing", false, KEY_READ); }, Site ("Win32 2", "ConstructKey") },
        { [&] { Key (fRoot, L"c", true, 0); }, Site ("assertion failed: access", "ConstructKey") },
        { [&] { Key (fRoot, nullptr, true, KEY_READ); }, Site ("assertion failed: child || !create", "ConstructKey") },
        { [] { Key (static_cast<HKEY> (nullptr), L"c", false, KEY_READ); }, Site ("assertion failed: parent", "ConstructKey") },
        { [&] { Key::Delete (fRoot, static_cast<const wchar_t *> (nullptr)); }, Site ("assertion failed: child", "Key::Delete") },
        { [] { Key::DeleteTree (nullptr, L"a"); }, Site ("assertion failed: parent", "Key::DeleteTree") },
        { [&] { fRoot.SetValue (L"x", static_cast<const wchar_t *> (nullptr)); }, Site ("assertion failed: value", "Key::SetValue") },
    });
    EXPECT_EQ (deleteKey.Calls () + deleteTree.Calls (), 0u);
    EXPECT_EQ (Failure ([&] { Key::Delete (fRoot, L"a"); }), Site ("Win32 5", "Key::Delete"));    // it has a sub-key
    Key::DeleteTree (Raw (fRoot), L"a");
    EXPECT_FALSE (Key::Exists (fRoot, L"a"));
    // A key of its own, which the test closes: the wrapper closes nothing.
    HKEY detached = static_cast<HKEY> (Key (fRoot, nullptr, false, KEY_READ).Detach ());
    EXPECT_EQ (close.Calls (), 0u);
    EXPECT_EQ (::RegCloseKey (detached), 0);
}

// Each registry call failing with a code of its own, unlike the last error (1000): the code that
// the call returned is what is raised.
TEST_F (RegistryTest, PlatformFailures)
{
    const char * advapi = "ADVAPI32.dll";
    SkerryTest::ExpectFailures ({
        { SKERRY_FAILING (advapi, RegOpenKeyExW, (5, 1000), Key (fRoot, L"x", false, KEY_READ)), Site ("Win32 5", "ConstructKey") },
        { SKERRY_FAILING (advapi, RegCreateKeyW, (5, 1000), Key (fRoot, L"x", true, KEY_READ)), Site ("Win32 5", "ConstructKey") },
        { SKERRY_FAILING (advapi, RegQueryValueW, (5, 1000), Key::Exists (fRoot, L"x")), Site ("Win32 5", "Key::Exists") },
        { SKERRY_FAILING (advapi, RegDeleteKeyW, (5, 1000), Key::Delete (fRoot, L"x")), Site ("Win32 5", "Key::Delete") },
        { SKERRY_FAILING ("SHLWAPI.dll", SHDeleteKeyW, (5, 1000), Key::DeleteTree (Raw (fRoot), L"x")),
          Site ("Win32 5", "Key::DeleteTree") },
        { SKERRY_FAILING (advapi, RegNotifyChangeKeyValue, (6, 1000), fRoot.NotifyChange (true, REG_NOTIFY_CHANGE_NAME, nullptr, false)),
          Site ("Win32 6", "Key::NotifyChange") },
        { SKERRY_FAILING (advapi, RegEnumKeyExW, (234, 1000), SubKeys snapshot (fRoot)), Site ("Win32 234", "Key::EnumerateSubKeys") },
        // The raw read and write, which every other read and write calls.
        { SKERRY_FAILING (advapi, RegQueryValueExW, (1018, 1000), unsigned long size = 0; fRoot.GetValue (L"x", nullptr, &size, nullptr)),
          Site ("Win32 1018", "Key::GetValue") },
        { SKERRY_FAILING (advapi, RegSetValueExW, (1013, 1000), fRoot.SetValue (L"x", 7ul)), Site ("Win32 1013", "Key::SetValue") },
        { SKERRY_FAILING (advapi, RegDeleteValueW, (2, 1000), fRoot.DeleteValue (L"x")), Site ("Win32 2", "Key::DeleteValue") },
        { SKERRY_FAILING (advapi, RegEnumValueW, (1018, 1000), fRoot.EnumerateValues (0, nullptr, nullptr)),
          Site ("Win32 1018", "Key::EnumerateValues") },
    });
    SKERRY_INTERPOSE (close, "ADVAPI32.dll", RegCloseKey);
    close.Fail (6, 1000);
    EXPECT_EQ (Failure ([&] { Key dying (fRoot, nullptr, false, KEY_READ); }), Site ("Win32 6", "Key::~Key"));
    EXPECT_EQ (close.Original (std::get<0> (close.CallArguments ().back ())), 0);
}

// Stored values against the string and REG_DWORD reads: what the string read gives unless it
// raises `failure`; what the REG_DWORD read raises, or (none) 0x12345678.
TEST_F (RegistryTest, StrictReads)
{
    ::SetEnvironmentVariableW (L"SKERRY_REGISTRY_TEST", L"expanded");
    const char * typeAssertion = "assertion failed: type == REG_SZ || type == REG_EXPAND_SZ";
    struct Row { const wchar_t * name; DWORD type; std::wstring stored; DWORD size; std::wstring read;
                 const char * failure, * dwordFailure; } const rows [] = {
        { L"plain", REG_SZ, std::wstring (L"abc", 4), 8, L"abc", nullptr, "Win32 234" },
        { L"zeros", REG_SZ, std::wstring (L"ab\0\0", 4), 8, std::wstring (L"ab\0", 3), nullptr, "Win32 234" },
        { L"none", REG_SZ, L"", 0, L"", nullptr, "Win32 87" },
        { L"empty", REG_SZ, std::wstring (L"", 1), 2, L"", nullptr, "Win32 87" },
        { L"short", REG_SZ, std::wstring (L"a", 2), 4, L"a", nullptr, "Win32 87" },
        // Unterminated: the unit after the counted data is not zero, or the platform would add one.
        { L"open", REG_SZ, L"abcX", 6, L"", "Win32 234", "Win32 234" },
        { L"openShort", REG_SZ, L"abX", 4, L"", "Win32 234", "Win32 234" },
        { L"expandOpen", REG_EXPAND_SZ, L"abcX", 6, L"ab", nullptr, "Win32 234" },
        { L"expand", REG_EXPAND_SZ, std::wstring (L"%SKERRY_REGISTRY_TEST%!", 24), 48, L"expanded!", nullptr, "Win32 234" },
        { L"odd", REG_SZ, L"abcd", 7, L"", "assertion failed: 0 == bufferSize % sizeof (WCHAR)", "Win32 234" },
        { L"number", REG_DWORD, L"\x5678\x1234", 4, L"", typeAssertion, nullptr },
        { L"bytes", REG_BINARY, L"ab", 4, L"", typeAssertion, "Win32 87" },
    };
    for (const Row & row : rows)
        ASSERT_EQ (::RegSetValueExW (Raw (fRoot), row.name, 0, row.type, reinterpret_cast<const BYTE *> (row.stored.data ()),
            row.size), 0);
    for (const Row & row : rows) {
        SCOPED_TRACE (std::string (row.name, row.name + std::wcslen (row.name)));
        if (row.failure != nullptr)
            EXPECT_EQ (Failure ([&] { fRoot.GetValue (row.name); }), Site (row.failure, "Key::GetValue"));
        else
            EXPECT_EQ (fRoot.GetValue (row.name), row.read);
        unsigned long number = 0;
        EXPECT_EQ (Failure ([&] { fRoot.GetValue (row.name, number); }),
            row.dwordFailure != nullptr ? Site (row.dwordFailure, "Key::GetValue") : "nothing thrown");
        EXPECT_TRUE (row.dwordFailure != nullptr || number == 0x12345678ul) << std::hex << number;
    }
    wchar_t buffer [8];
    unsigned long size = sizeof buffer, type = 0;
    EXPECT_EQ (fRoot.GetValue (L"open", buffer, &size, &type), DWORD (ERROR_MORE_DATA));
    EXPECT_EQ (size + type, 6ul + REG_SZ);
    EXPECT_EQ (fRoot.GetValue (L"missing", buffer, &size, nullptr), DWORD (ERROR_FILE_NOT_FOUND));
    EXPECT_EQ (Failure ([&] { fRoot.GetValue (L"missing"); }), Site ("Win32 2", "Key::GetValueSize"));
    for (const wchar_t * name : { static_cast<const wchar_t *> (nullptr), L"" })
        EXPECT_EQ (Failure ([&] { fRoot.GetValue (name); }), Site ("Win32 87", "Key::GetValue"));
    EXPECT_EQ (Failure ([&] { fRoot.GetValue (L"plain", buffer, nullptr, nullptr); }), Site ("Win32 87", "Key::GetValue"));
}

// A value that changes between the string read's two passes, as the second pass sees it.
TEST_F (RegistryTest, ChangeBetweenPasses)
{
    fRoot.SetValue (L"v", L"abc");
    SKERRY_INTERPOSE (query, "ADVAPI32.dll", RegQueryValueExW);
    const struct { LONG result; DWORD size, type; const char * failure; } rows [] = {
        { ERROR_MORE_DATA, 10, REG_SZ, "Win32 234" },    // grew
        { ERROR_FILE_NOT_FOUND, 0, REG_SZ, "Win32 2" },    // deleted
        // REG_EXPAND_SZ: no terminator test in the raw read, which would come first.
        { ERROR_SUCCESS, 7, REG_EXPAND_SZ, "assertion failed: 0 == actualSize % sizeof (WCHAR)" },
        { ERROR_SUCCESS, 10, REG_EXPAND_SZ, "assertion failed: actualSize <= bufferSize" },
        { ERROR_SUCCESS, 8, REG_BINARY, "assertion failed: type == REG_SZ || type == REG_EXPAND_SZ" },
    };
    for (const auto & row : rows) {
        query.Replace ([&] (HKEY key, LPCWSTR name, LPDWORD reserved, LPDWORD type, LPBYTE data, LPDWORD size) {
            LONG result = query.Original (key, name, reserved, type, data, size);
            if (data == nullptr)
                return result;
            *size = row.size, *type = row.type;
            return row.result;
        });
        EXPECT_EQ (Failure ([&] { fRoot.GetValue (L"v"); }), Site (row.failure, "Key::GetValue"));
    }
}

// The values' operations; then a change made by another thread signals the event, nothing did before.
TEST_F (RegistryTest, ValueOperationsAndNotifyChange)
{
    fRoot.SetValue (L"empty", L"");
    fRoot.SetValue (L"number", 0ul);
    fRoot.SetValue (L"zeros", std::wstring (L"a\0b", 3));
    unsigned long type = 0, size = 0;
    EXPECT_EQ (fRoot.GetValueSize (L"empty", &type) + type, 2ul + REG_SZ);
    EXPECT_EQ (fRoot.GetValue (L"zeros"), std::wstring (L"a\0b", 3));
    EXPECT_TRUE (fRoot.ValueExists (L"number", &type) && type == REG_DWORD);
    EXPECT_EQ (fRoot.EnumerateValues (2, &type, &size), L"zeros");
    EXPECT_EQ (size + type, 8ul + REG_SZ);
    EXPECT_EQ (fRoot.EnumerateValues (3, nullptr, nullptr), L"");
    fRoot.DeleteValue (L"number");
    EXPECT_FALSE (fRoot.ValueExists (L"number", nullptr));

    fRoot.SetValue (L"", L"default");    // written, but neither read nor enumerated
    wchar_t text [8];
    size = sizeof text;
    EXPECT_EQ (::RegQueryValueExW (Raw (fRoot), L"", nullptr, nullptr, reinterpret_cast<BYTE *> (text), &size), 0);
    EXPECT_STREQ (text, L"default");
    EXPECT_EQ (Failure ([&] { fRoot.EnumerateValues (0, nullptr, nullptr); }),
        Site ("assertion failed: valueNameSize && *valueName", "Key::EnumerateValues"));
    Skerry::Event changed (true, false);
    fRoot.NotifyChange (false, REG_NOTIFY_CHANGE_LAST_SET, changed, true);
    EXPECT_EQ (::WaitForSingleObject (changed, 0), DWORD (WAIT_TIMEOUT));
    std::thread ([] { Key (HKEY_CURRENT_USER, Path (), false, KEY_SET_VALUE).SetValue (L"v", 1ul); }).join ();
    EXPECT_EQ (::WaitForSingleObject (changed, 10000), DWORD (WAIT_OBJECT_0));
}

// Enough sub-keys for the snapshot's vector to grow, which takes no handle of its own: one duplicate
// per element, as each opened key is copied in.
TEST_F (RegistryTest, SubKeysSnapshot)
{
    EXPECT_EQ (SubKeys (fRoot).size (), 0u);
    const std::wstring names = L"abcdefghijkl";
    for (wchar_t name : std::wstring (L"lkjihgfedcba"))
        Key (fRoot, std::wstring (1, name), true, KEY_READ);
    SKERRY_INTERPOSE (open, "ADVAPI32.dll", RegOpenKeyExW);
    SKERRY_INTERPOSE (duplicate, "KERNEL32.dll", DuplicateHandle);
    std::optional<SubKeys> snapshot (std::in_place, Key (HKEY_CURRENT_USER, Path (), false, KEY_READ));
    EXPECT_EQ (duplicate.Calls (), names.size ());
    SubKeys copy (*snapshot);
    ASSERT_EQ (copy.size (), names.size ());
    EXPECT_EQ (std::get<3> (open.CallArguments ().back ()), DWORD (KEY_ALL_ACCESS));
    for (unsigned int i = 0; i < names.size (); ++i) {
        EXPECT_EQ (copy [i].name, names.substr (i, 1));
        EXPECT_NE (Raw (copy [i].key), Raw ((*snapshot) [i].key));
    }
    snapshot.reset ();
    copy [1].key.SetValue (L"v", L"set through the copy");    // the parent is gone, the copy is its own
    EXPECT_EQ (Key (fRoot, L"b", false, KEY_READ).GetValue (L"v"), L"set through the copy");
    EXPECT_EQ (Failure ([&] { (void) copy [names.size ()]; }),
        Site ("assertion failed: index < fSubKeys.size ()", "SubKeys::operator []"));
    copy = SubKeys (fRoot);
    EXPECT_EQ (copy.size (), names.size ());
}

// A snapshot that fails to open or close a sub-key leaves nothing open; a destructor whose first
// close fails raises it, and logs the failure of the second while that unwinds.
TEST_F (RegistryTest, SubKeysFailures)
{
    for (const wchar_t * name : { L"a", L"b" })
        Key (fRoot, name, true, KEY_READ);
    SKERRY_INTERPOSE (open, "ADVAPI32.dll", RegOpenKeyExW);
    SKERRY_INTERPOSE (close, "ADVAPI32.dll", RegCloseKey);
    open.Fail (5, 0, 1, 1);
    EXPECT_EQ (Failure ([&] { SubKeys snapshot (fRoot); }), Site ("Win32 5", "ConstructKey"));
    unsigned before = close.Calls ();
    close.Fail (6, 0, 1, 1);    // the second temporary
    EXPECT_EQ (Failure ([&] { SubKeys snapshot (fRoot); }), Site ("Win32 6", "Key::~Key"));
    EXPECT_EQ (close.Original (std::get<0> (close.CallArguments () [before + 1])), 0);

    SkerryTest::ScopedJotLog log;
    EXPECT_EQ (Failure ([&] { SubKeys snapshot (fRoot); close.Fail (6, 0, 2); }), Site ("Win32 6", "Key::~Key"));
    std::vector<std::string> lines = log.Messages ();
    ASSERT_EQ (lines.size (), 2u);    // the throw's own line, then the unraised one
    EXPECT_TRUE (std::regex_match (lines [1], std::regex ("Skerry::Registry::Key::~Key: not throwing exception due to "
        "Win32 error 6 on line [0-9]+ of file Utilities while another exception is unwinding"))) << lines [1];
    std::vector<std::tuple<HKEY>> calls = close.CallArguments ();
    for (std::size_t i = calls.size () - 2; i < calls.size (); ++i)
        EXPECT_EQ (close.Original (std::get<0> (calls [i])), 0);
}
