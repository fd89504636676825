// Plinth's dictionary and string comparison against the standard library, on a million entries
// with string keys: filling the table, looking up keys that are equal to the stored ones but other
// objects, and the same with a key made for each lookup; then a case-insensitive comparison
// against a case-sensitive one; and how long a thread waits to read a preference while another
// synchronises a large store. Built natively (make bench, make native's tree) and for Wine.
#include <Plinth/Plinth.h>

#include "Harness.h"

#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

namespace {

constexpr std::size_t kEntries = 1000000;

std::u16string Key (std::size_t i)
{
    std::string text = "Software/Tolvane/Setting" + std::to_string (i * 2654435761u % 1000000007u);
    return std::u16string (text.begin (), text.end ());
}

PLStringRef MakeString (std::u16string const & units)
{
    return PLStringCreateWithCharacters (kPLAllocatorDefault, reinterpret_cast<PLUniChar const *> (units.data ()),
        PLIndex (units.size ()));
}

// Median time per insertion of filling a fresh table, over a few rounds.
template <typename Fill>
double PerInsertion (Fill fill)
{
    std::vector<double> rounds;
    for (int round = 0; round < 5; ++round)
        rounds.push_back (fill () / double (kEntries));
    std::sort (rounds.begin (), rounds.end ());
    return rounds [rounds.size () / 2];
}

void SetVariable (char const * name, char const * value)
{
#ifdef _WIN32
    ::SetEnvironmentVariableA (name, value);
#else
    value == nullptr ? unsetenv (name) : setenv (name, value, 1);
#endif
}

// One thread reads a pending preference (the symbol path, say) while another synchronises a store
// of 20,000 values of another application, over and over: each read, timed alone, against the
// same read with nothing else running, and the slowest against one synchronisation. A reader that
// waited on the other thread's file work would take as long as a synchronisation.
void PreferencesWhileSynchronizing ()
{
    std::filesystem::path directory = std::filesystem::temp_directory_path () / "PlinthBenchPreferences";
    std::filesystem::create_directories (directory);
    SetVariable ("PLINTH_PREFERENCES_DIRECTORY", directory.string ().c_str ());
    PLStringRef large = PLSTR ("PlinthBenchLarge"), reader = PLSTR ("PlinthBenchReader"), key = PLSTR ("SymbolPath");
    for (int i = 0; i < 20000; ++i) {
        PLStringRef name = MakeString (Key (std::size_t (i)));
        PLPreferencesSetAppValue (name, name, large);
        PLRelease (name);
    }
    PLPreferencesAppSynchronize (large);
    PLPreferencesSetAppValue (key, PLSTR ("srv*C:\\Symbols"), reader);
    auto reads = [&] (std::atomic<int> const & until, int count) {
        std::vector<double> times;
        while (until.load () < count) {
            double start = SkerryBench::Now ();
            PLRelease (PLPreferencesCopyAppValue (key, reader));
            times.push_back (SkerryBench::Now () - start);
        }
        return times;
    };
    std::atomic<int> done (0);
    std::atomic<double> synchronizing (0);
    std::thread writer ([&] {
        for (int i = 0; i < 10; ++i) {
            PLPreferencesSetAppValue (PLSTR ("Tick"), i % 2 == 0 ? kPLBooleanTrue : kPLBooleanFalse, large);
            double start = SkerryBench::Now ();
            PLPreferencesAppSynchronize (large);
            synchronizing = synchronizing + (SkerryBench::Now () - start);
            ++done;
        }
    });
    std::vector<double> busy = reads (done, 10);
    writer.join ();
    std::vector<double> idle;
    for (std::size_t i = 0; i < busy.size (); ++i) {
        double start = SkerryBench::Now ();
        PLRelease (PLPreferencesCopyAppValue (key, reader));
        idle.push_back (SkerryBench::Now () - start);
    }
    SkerryBench::Header ("Plinth preferences: a read of a pending value while another thread synchronises 20,000 values");
    SkerryBench::Report ("read, median, against the same read alone", SkerryBench::MedianOf (busy),
        SkerryBench::MedianOf (idle), 3.0);
    SkerryBench::Report ("slowest read, against one synchronisation", *std::max_element (busy.begin (), busy.end ()),
        synchronizing / 10, 0.5);
    PLPreferencesSetAppValue (key, nullptr, reader);
    SetVariable ("PLINTH_PREFERENCES_DIRECTORY", nullptr);
    std::error_code ignored;
    std::filesystem::remove_all (directory, ignored);
}

}

int main ()
{
    std::vector<std::u16string> units;
    std::vector<PLStringRef> stored, probes;
    for (std::size_t i = 0; i < kEntries; ++i) {
        units.push_back (Key (i));
        stored.push_back (MakeString (units.back ()));
        probes.push_back (MakeString (units.back ()));
    }

    SkerryBench::Header ("Plinth dictionary, 1,000,000 string keys, against std::unordered_map<std::u16string, int>");
    double plinthSet = PerInsertion ([&] {
        PLMutableDictionaryRef d = PLDictionaryCreateMutable (kPLAllocatorDefault, 0, &kPLTypeDictionaryKeyCallBacks,
            &kPLTypeDictionaryValueCallBacks);
        double start = SkerryBench::Now ();
        for (PLStringRef key : stored)
            PLDictionarySetValue (d, key, kPLBooleanTrue);
        double elapsed = SkerryBench::Now () - start;
        PLRelease (d);
        return elapsed;
    });
    double mapSet = PerInsertion ([&] {
        std::unordered_map<std::u16string, int> map;
        double start = SkerryBench::Now ();
        for (std::u16string const & key : units)
            map.emplace (key, 1);
        return SkerryBench::Now () - start;
    });
    SkerryBench::Report ("set, fresh table", plinthSet, mapSet, 2.0);

    PLMutableDictionaryRef d = PLDictionaryCreateMutable (kPLAllocatorDefault, 0, &kPLTypeDictionaryKeyCallBacks,
        &kPLTypeDictionaryValueCallBacks);
    std::unordered_map<std::u16string, int> map;
    for (std::size_t i = 0; i < kEntries; ++i) {
        PLDictionarySetValue (d, stored [i], kPLBooleanTrue);
        map.emplace (units [i], 1);
    }
    SkerryBench::Options options;
    options.fBatches = 9;
    options.fOperationsPerBatch = 200000;
    std::size_t next = 0;
    std::size_t found = 0;
    // The probes are other objects than the keys; after their first use they know their hash, as
    // every Plinth string does once hashed.
    double plinthGet = SkerryBench::Median ([&] {
        found += PLDictionaryGetValue (d, probes [next]) != nullptr;
        next = (next + 7919) % kEntries;
    }, options);
    double mapGet = SkerryBench::Median ([&] {
        found += map.find (units [next]) != map.end ();
        next = (next + 7919) % kEntries;
    }, options);
    SkerryBench::Report ("lookup, key objects equal to the stored ones", plinthGet, mapGet, 2.0);
    double plinthFresh = SkerryBench::Median ([&] {
        PLStringRef key = MakeString (units [next]);
        found += PLDictionaryGetValue (d, key) != nullptr;
        PLRelease (key);
        next = (next + 7919) % kEntries;
    }, options);
    double mapFresh = SkerryBench::Median ([&] {
        std::u16string key (units [next]);
        found += map.find (key) != map.end ();
        next = (next + 7919) % kEntries;
    }, options);
    SkerryBench::Breakdown ("lookup, key made for each lookup", plinthFresh, mapFresh);

    SkerryBench::Header ("Plinth string comparison: case-insensitive against case-sensitive, equal 30-unit keys");
    PLStringRef upper = MakeString (u"SOFTWARE/TOLVANE/SETTING123456");
    PLStringRef lower = MakeString (u"software/tolvane/setting123456");
    PLStringRef same = MakeString (u"software/tolvane/setting123456");
    options.fOperationsPerBatch = 1000000;
    int order = 0;
    double sensitive = SkerryBench::Median ([&] { order += PLStringCompare (lower, same, 0); }, options);
    double insensitive = SkerryBench::Median ([&] { order += PLStringCompare (upper, lower, kPLCompareCaseInsensitive); },
        options);
    SkerryBench::Report ("compare, case-insensitive vs case-sensitive", insensitive, sensitive, 4.0);
    std::u16string a (u"software/tolvane/setting123456"), b (a);
    double standard = SkerryBench::Median ([&] { order += a.compare (b) == 0; }, options);
    SkerryBench::Breakdown ("case-sensitive vs std::u16string::compare", sensitive, standard);

    PreferencesWhileSynchronizing ();
    std::printf ("(%zu found, %d)\n", found, order);
    PLRelease (d);
    PLRelease (upper);
    PLRelease (lower);
    PLRelease (same);
    for (std::size_t i = 0; i < kEntries; ++i) {
        PLRelease (stored [i]);
        PLRelease (probes [i]);
    }
    return 0;
}
