// LibSkerry's Plinth wrappers against Plinth's own calls, in one run: a lookup in a dictionary with
// case-insensitive keys against one with Plinth's keys, on 100,000 string keys, and a PlinthString
// made from wide text (and released) against PLStringCreateWithCharacters.
#include <LibSkerry/Plinth>

#include "Harness.h"

#include <string>
#include <vector>

using Skerry::PlinthMutableDictionary;
using Skerry::PlinthString;

namespace {

constexpr unsigned kKeys = 100000;

std::wstring Key (unsigned i)
{
    return L"Software\\Tolvane\\Setting" + std::to_wstring (i * 2654435761u % 1000000007u);
}

}

int main ()
{
    // The probes are other objects than the stored keys, with the same text, and upper-cased.
    PlinthMutableDictionary sensitive, insensitive (false);
    std::vector<std::wstring> texts;
    std::vector<PlinthString> probes, upperProbes;
    for (unsigned i = 0; i < kKeys; ++i) {
        texts.push_back (Key (i));
        std::wstring text = texts.back ();
        PlinthString key (text);
        sensitive.SetValue (key, kPLBooleanTrue);
        insensitive.SetValue (key, kPLBooleanTrue);
        probes.emplace_back (text);
        for (wchar_t & unit : text)
            unit = wchar_t (::towupper (unit));
        upperProbes.emplace_back (text);
    }
    SkerryBench::Options options;
    options.fOperationsPerBatch = 20000;
    unsigned next = 0, found = 0;
    auto lookup = [&] (PlinthMutableDictionary const & dictionary, std::vector<PlinthString> const & keys) {
        return [&] {
            found += dictionary.ContainsKey (keys [next].Raw ());
            next = (next + 7919) % kKeys;
        };
    };
    SkerryBench::Header ("Dictionary lookup, 100,000 string keys: case-insensitive against Plinth's own keys");
    std::pair<double, double> keys = SkerryBench::AlternatingMedians (lookup (insensitive, probes), lookup (sensitive, probes),
        options);
    SkerryBench::Report ("ContainsKey, case-insensitive vs case-sensitive", keys.first, keys.second, 2.0);
    SkerryBench::Breakdown ("the same with upper-case probes", SkerryBench::Median (lookup (insensitive, upperProbes), options),
        keys.second);
    // Where the difference goes: a Plinth string knows its hash once it has been hashed, while the
    // case-insensitive hash lowers a copy of the units and hashes a string made over them, each time.
    auto madeAndLookedUp = [&] (PlinthMutableDictionary const & dictionary) {
        return [&] {
            found += dictionary.ContainsKey (PlinthString (texts [next]).Raw ());
            next = (next + 7919) % kKeys;
        };
    };
    std::pair<double, double> made = SkerryBench::AlternatingMedians (madeAndLookedUp (insensitive), madeAndLookedUp (sensitive),
        options);
    SkerryBench::Breakdown ("key made from wide text for each lookup", made.first, made.second);
    PlinthString probe (texts [1]);
    wchar_t scratch [64];
    std::pair<double, double> hash = SkerryBench::AlternatingMedians (
        [&] { found += PlinthMutableDictionary::kCaseInsensitiveKeyCallbacks.hash (probe.Raw ()) != 0; },
        [&] { found += ::CharLowerBuffW (wcscpy (scratch, texts [1].c_str ()), DWORD (texts [1].size ())) != 0; }, options);
    SkerryBench::Breakdown ("the case-insensitive hash vs CharLowerBuffW alone", hash.first, hash.second);

    SkerryBench::Header ("PlinthString from wide text against PLStringCreateWithCharacters, 33 units, made and released");
    std::wstring text = Key (1);
    PLUniChar const * units = reinterpret_cast<PLUniChar const *> (text.data ());
    options.fOperationsPerBatch = 50000;
    auto raw = [&] { PLRelease (PLStringCreateWithCharacters (kPLAllocatorDefault, units, PLIndex (text.size ()))); };
    std::pair<double, double> wide = SkerryBench::AlternatingMedians ([&] { PlinthString string (text); }, raw, options);
    SkerryBench::Report ("PlinthString (std::wstring) vs raw", wide.first, wide.second, 1.10);
    std::pair<double, double> terminated = SkerryBench::AlternatingMedians (
        [&] { PlinthString string (text.c_str ()); },
        [&] { PLRelease (PLStringCreateWithCharacters (kPLAllocatorDefault, units, PLIndex (std::wcslen (text.c_str ())))); },
        options);
    SkerryBench::Breakdown ("PlinthString (wchar_t const *) vs raw with wcslen", terminated.first, terminated.second);
    // What the machine's noise alone makes of one operation against itself: ratios closer to 1 than
    // this say nothing.
    std::pair<double, double> noise = SkerryBench::AlternatingMedians (raw, raw, options);
    SkerryBench::Breakdown ("noise floor: the raw call against itself", noise.first, noise.second);
    return found == 0;   // a lookup that finds nothing measured nothing
}
