// Preferences: values visible at once, lasting after synchronisation, merged with what the file
// holds, removed by null; the current application's name; refused names, values and files.
#include "PlinthTest.h"

#include <cstdlib>

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

std::string Magic (std::string const & path)
{
    return ScratchPreferences::ReadFile (path).substr (0, 8);
}

}

TEST (Preferences, ValuesAreSeenAtOnceAndLastAfterSynchronizing)
{
    ScratchPreferences scratch;
    NoLeaks noLeaks;
    EXPECT_EQ (StringValue (PLSTR ("Path")), "(none)");
    Owned<PLStringRef> path (CreateString ("C:\\symbols"));
    PLPreferencesSetAppValue (PLSTR ("Path"), path, kApplication);
    EXPECT_EQ (PLGetRetainCount (path), 1);   // a copy waits until synchronized, not the caller's string
    EXPECT_EQ (StringValue (PLSTR ("Path")), "C:\\symbols");
    EXPECT_TRUE (PLPreferencesAppSynchronize (kApplication));
    EXPECT_EQ (PLGetRetainCount (path), 1);
    EXPECT_EQ (Magic (scratch.File ("PlinthPreferencesTest.plist")), "bplist00");
    EXPECT_EQ (StringValue (PLSTR ("Path")), "C:\\symbols");

    // Another writer's keys stay when this process synchronizes its own change.
    PLPreferencesSetAppValue (PLSTR ("Other"), PLSTR ("x"), kApplication);
    EXPECT_TRUE (PLPreferencesAppSynchronize (kApplication));
    PLPreferencesSetAppValue (PLSTR ("Path"), nullptr, kApplication);
    EXPECT_EQ (StringValue (PLSTR ("Path")), "(none)");
    EXPECT_TRUE (PLPreferencesAppSynchronize (kApplication));
    EXPECT_EQ (StringValue (PLSTR ("Path")) + StringValue (PLSTR ("Other")), "(none)x");
    EXPECT_EQ (PLArrayGetCount (Owned<PLArrayRef> (PLPreferencesCopyKeyList (kApplication))), 1);
    EXPECT_TRUE (PLPreferencesAppSynchronize (kApplication));   // nothing pending: nothing to do

    // Every property-list kind survives the file.
    uint8_t bytes [] = { 0, 1, 0xFF };
    Owned<PLNumberRef> a (Integer (-1234567890123ll)), b (Real (0.1));
    Owned<PLDataRef> c (PLDataCreate (kPLAllocatorDefault, bytes, 3));
    Owned<PLDateRef> d (PLDateCreate (kPLAllocatorDefault, 12.5));
    Owned<PLStringRef> e (CreateString (u8"\u00E4\U0001F600"));
    void const * items [] = { a.Get (), b.Get (), c.Get (), d.Get (), e.Get (), kPLBooleanTrue, kPLBooleanFalse };
    Owned<PLArrayRef> array (PLArrayCreate (kPLAllocatorDefault, items, 7, &kPLTypeArrayCallBacks));
    PLPreferencesSetAppValue (PLSTR ("Tree"), array, kApplication);
    ASSERT_TRUE (PLPreferencesAppSynchronize (kApplication));
    Owned<PLTypeRef> back (PLPreferencesCopyAppValue (PLSTR ("Tree"), kApplication));
    EXPECT_TRUE (back.Get () != array.Get () && PLEqual (back, array));

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
}

TEST (Preferences, TheCurrentApplicationAndTheDefaultDirectory)
{
    ScratchPreferences scratch;
    PLPreferencesSetAppValue (PLSTR ("TolvaneInternalSymbolServerPath"), PLSTR ("srv*c:\\sym"),
        kPLPreferencesCurrentApplication);
    ASSERT_TRUE (PLPreferencesAppSynchronize (kPLPreferencesCurrentApplication));
    EXPECT_EQ (Magic (scratch.File ("PlinthTests.plist")), "bplist00");
    EXPECT_EQ (StringValue (PLSTR ("TolvaneInternalSymbolServerPath"), PLSTR ("PlinthTests")), "srv*c:\\sym");

    // Without redirection, preferences live in the user's application data (here the scratch
    // directory stands for the user's own).
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

TEST (Preferences, RefusedNamesValuesAndFiles)
{
    ScratchPreferences scratch;
    NoLeaks noLeaks;
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

    // A file that isn't in the stored form reads as no values, and isn't overwritten by a read.
    std::string file = scratch.File ("PlinthPreferencesTest.plist");
    ScratchPreferences::WriteFile (file, std::string ("bplist00\xD5\x05\x00\x00\x00", 13));
    EXPECT_EQ (PLPreferencesCopyAppValue (PLSTR ("k"), kApplication), nullptr);
    EXPECT_EQ (ScratchPreferences::ReadFile (file).size (), 13u);
    PLPreferencesSetAppValue (PLSTR ("k"), PLSTR ("v"), kApplication);
    EXPECT_FALSE (PLPreferencesAppSynchronize (kApplication));   // no merge over what can't be read
    PLPreferencesSetAppValue (PLSTR ("k"), nullptr, kApplication);
    ScratchPreferences::WriteFile (file, "");
    EXPECT_TRUE (PLPreferencesAppSynchronize (kApplication));
}
