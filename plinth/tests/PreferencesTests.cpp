// Preferences: values visible at once, lasting after synchronisation, removed by null; the current
// application's name; refused names and values; stores that are never lost, whatever the file or
// another process does.
#include "PlinthTest.h"

#include <cstdlib>
#include <filesystem>
#ifdef _WIN32
#include <windows.h>
#else
#include <sys/wait.h>
#include <unistd.h>
#endif

using namespace PlinthTest;

namespace {

PLStringRef const kApplication = PLSTR ("PlinthPreferencesTest");

std::string StringValue (PLStringRef key, PLStringRef application = kApplication)
{
    Owned<PLTypeRef> value (PLPreferencesCopyAppValue (key, application));
    if (value.Get () == nullptr)
        return "(none)";
    EXPECT_EQ (PLGetTypeID (value), PLStringGetTypeID ());
    return UTF8 (static_cast<PLStringRef> (value.Get ()));
}

std::string Magic (std::string const & path) { return ScratchPreferences::ReadFile (path).substr (0, 8); }

}

TEST (Preferences, ValuesAreSeenAtOnceLastAndUnfitOnesAreRefused)
{
    ScratchPreferences scratch;
    NoLeaks noLeaks;
    Owned<PLStringRef> path (CreateString ("C:\\symbols"));
    PLPreferencesSetAppValue (PLSTR ("Path"), path, kApplication);
    EXPECT_EQ (PLGetRetainCount (path), 1);   // a copy waits until synchronized, not the caller's string
    EXPECT_EQ (StringValue (PLSTR ("Path")), "C:\\symbols");
    EXPECT_TRUE (PLPreferencesAppSynchronize (kApplication));
    EXPECT_EQ (Magic (scratch.File ("PlinthPreferencesTest.plist")) + StringValue (PLSTR ("Path")), "bplist00C:\\symbols");
    PLPreferencesSetAppValue (PLSTR ("Path"), nullptr, kApplication);
    EXPECT_EQ (StringValue (PLSTR ("Path")), "(none)");
    EXPECT_TRUE (PLPreferencesAppSynchronize (kApplication));
    EXPECT_EQ (StringValue (PLSTR ("Path")), "(none)");

    // What waits is an immutable copy made when set: neither the caller's later change nor one
    // through what a reader is given reaches it.
    Owned<PLMutableDictionaryRef> settings (PLDictionaryCreateMutable (kPLAllocatorDefault, 0,
        &kPLTypeDictionaryKeyCallBacks, &kPLTypeDictionaryValueCallBacks));
    PLPreferencesSetAppValue (PLSTR ("Settings"), settings, kApplication);
    PLDictionarySetValue (settings, PLSTR ("a"), PLSTR ("b"));
    Owned<PLTypeRef> pending (PLPreferencesCopyAppValue (PLSTR ("Settings"), kApplication));
    PLDictionarySetValue (static_cast<PLMutableDictionaryRef> (const_cast<void *> (pending.Get ())), PLSTR ("c"), PLSTR ("d"));
    EXPECT_EQ (PLDictionaryGetCount (static_cast<PLDictionaryRef> (pending.Get ())), 0);
    EXPECT_TRUE (PLPreferencesAppSynchronize (kApplication));

    // Refused names and values.
    for (char const * name : { "a/b", "a\\b", "..", "", "c:x" }) {
        Owned<PLStringRef> bad (CreateString (name));
        PLPreferencesSetAppValue (PLSTR ("k"), PLSTR ("v"), bad);
        EXPECT_EQ (PLPreferencesCopyAppValue (PLSTR ("k"), bad), nullptr) << name;
        EXPECT_FALSE (PLPreferencesAppSynchronize (bad)) << name;
    }
    Owned<PLURLRef> url (PLURLCreateWithFileSystemPath (kPLAllocatorDefault, PLSTR ("C:\\"), kPLURLWindowsPathStyle, true));
    PLPreferencesSetAppValue (PLSTR ("k"), url, kApplication);   // a URL has no stored form: refused
    EXPECT_EQ (PLPreferencesCopyAppValue (PLSTR ("k"), kApplication), nullptr);
    EXPECT_EQ (PLPreferencesCopyAppValue (nullptr, kApplication), nullptr);
}

TEST (Preferences, TheCurrentApplicationAndTheDefaultDirectory)
{
    ScratchPreferences scratch;
    PLPreferencesSetAppValue (PLSTR ("TolvaneInternalSymbolServerPath"), PLSTR ("srv*c:\\sym"),
        kPLPreferencesCurrentApplication);
    ASSERT_TRUE (PLPreferencesAppSynchronize (kPLPreferencesCurrentApplication));
    EXPECT_EQ (StringValue (PLSTR ("TolvaneInternalSymbolServerPath"), PLSTR ("PlinthTests")), "srv*c:\\sym");

    // Without redirection: in the user's application data, for which the scratch directory stands.
#ifdef _WIN32
    char const * variable = "APPDATA", * under = "\\Plinth\\Preferences\\";
#else
    char const * variable = "HOME", * under = "/.config/Plinth/Preferences/";
#endif
    char const * previous = std::getenv (variable);
    std::string kept = previous == nullptr ? "" : previous;
    SetVariable ("PLINTH_PREFERENCES_DIRECTORY", nullptr);
    SetVariable (variable, scratch.Directory ().c_str ());
    PLPreferencesSetAppValue (PLSTR ("k"), PLSTR ("v"), kApplication);
    EXPECT_TRUE (PLPreferencesAppSynchronize (kApplication));
    SetVariable (variable, previous == nullptr ? nullptr : kept.c_str ());
    EXPECT_EQ (Magic (scratch.Directory () + under + "PlinthPreferencesTest.plist"), "bplist00");
}

// A store that can't be read or replaced now fails the synchronisation and stays byte for byte,
// with no file left beside it but the lock; one in XML is read, its keys kept, and written back
// binary; a damaged one is kept aside under the name that one line gives, and starts afresh.
TEST (Preferences, NoStoredByteIsLost)
{
    ScratchPreferences scratch;
    NoLeaks noLeaks;
    std::string file = scratch.File ("PlinthPreferencesTest.plist"), log, aside;
    std::string xml = "<plist><dict><key>Kept</key><string>x</string></dict></plist>", damaged ("bplist00\xD5\x05\x00\x00\x00", 13);
    auto synchronize = [&] {
        PLPreferencesSetAppValue (PLSTR ("k"), PLSTR ("v"), kApplication);
        testing::internal::CaptureStderr ();
        bool done = PLPreferencesAppSynchronize (kApplication);
        log = testing::internal::GetCapturedStderr ();
        return done;
    };
    auto unchanged = [&] (char const * how, auto hold, auto release) {
        ScratchPreferences::WriteFile (file, xml);
        bool done = (hold (), synchronize ());
        EXPECT_FALSE ((release (), done)) << how;
        EXPECT_EQ (ScratchPreferences::ReadFile (file), xml) << how;
        EXPECT_EQ (std::distance (std::filesystem::directory_iterator (scratch.Directory ()), std::filesystem::directory_iterator ()), 2) << how;
    };
    auto writes = std::filesystem::perms::owner_write | std::filesystem::perms::group_write | std::filesystem::perms::others_write;
    unchanged ("read-only", [&] { std::filesystem::permissions (file, writes, std::filesystem::perm_options::remove); },
        [&] { std::filesystem::permissions (file, writes, std::filesystem::perm_options::add); });
#ifdef _WIN32
    HANDLE held = INVALID_HANDLE_VALUE;   // another program's handle: not shared, then shared for reading only
    for (DWORD sharing : { DWORD (0), DWORD (FILE_SHARE_READ) })
        unchanged ("held", [&] { held = ::CreateFileA (file.c_str (), GENERIC_READ, sharing, nullptr, OPEN_EXISTING, 0, nullptr); },
            [&] { ::CloseHandle (held); });
#else
    unchanged ("unreadable", [&] { std::filesystem::remove (file), std::filesystem::create_directory (file); },
        [&] { std::filesystem::remove (file), ScratchPreferences::WriteFile (file, xml); });
#endif
    ASSERT_TRUE (synchronize ());
    EXPECT_EQ (Magic (file) + StringValue (PLSTR ("Kept")) + log, "bplist00x");

    ScratchPreferences::WriteFile (file, damaged);
    ASSERT_TRUE (synchronize ());
    for (auto const & entry : std::filesystem::directory_iterator (scratch.Directory ()))
        aside = entry.path ().string ().find (".damaged-") != std::string::npos ? entry.path ().string () : aside;
    EXPECT_EQ (ScratchPreferences::ReadFile (aside), damaged);
    EXPECT_EQ (log, "Plinth: the preferences file " + file + " is damaged (file too short for a binary property list, at byte 13); "
        "its bytes are kept in " + aside + ", and its values start afresh\n");
    EXPECT_EQ (StringValue (PLSTR ("k")) + StringValue (PLSTR ("Kept")), "v(none)");
}

#ifndef _WIN32
// Two processes synchronising their own keys at once keep each other's.
TEST (Preferences, TwoProcessesKeepEachOthersKeys)
{
    ScratchPreferences scratch;
    pid_t child = fork ();
    int failures = 0;
    for (int i = 0; i < 100; ++i) {
        Owned<PLStringRef> key (PLStringCreateWithFormat (nullptr, nullptr, PLSTR ("%d%d"), child == 0, i));
        PLPreferencesSetAppValue (key, key, kApplication);
        failures += PLPreferencesAppSynchronize (kApplication) ? 0 : 1;
    }
    if (child == 0)
        _exit (failures);
    int status = -1;
    EXPECT_EQ (waitpid (child, &status, 0) == child ? status + failures : -1, 0);
    EXPECT_EQ (PLArrayGetCount (Owned<PLArrayRef> (PLPreferencesCopyKeyList (kApplication))), 200);
}
#endif
