// Plinth's dictionary and string comparison against the standard library, on a million entries
// with string keys: filling the table, looking up keys that are equal to the stored ones but other
// objects, and the same with a key made for each lookup; then a case-insensitive comparison
// against a case-sensitive one. Built natively (make bench, make native's tree) and for Wine.
#include <Plinth/Plinth.h>

#include "Harness.h"

#include <string>
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
