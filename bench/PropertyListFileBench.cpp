// A dictionary of 10,000 entries written to a property-list file and read back, through the
// library (PlinthDictionary::Write, PlinthDictionary (url)) against the same through Plinth's raw
// stream and property-list calls, in one run.
#include <LibSkerry/Plinth>

#include "Harness.h"

#include <string>

using Skerry::PlinthDictionary;
using Skerry::PlinthMutableDictionary;
using Skerry::PlinthString;
using Skerry::PlinthURL;

namespace {

constexpr unsigned kEntries = 10000;

std::wstring TemporaryFile (const wchar_t * name)
{
    wchar_t directory [MAX_PATH];
    ::GetTempPathW (MAX_PATH, directory);
    return std::wstring (directory) + name;
}

// Plinth's own calls, as a program without the library would make them.
PLIndex RawWriteAndRead (PLDictionaryRef dictionary, PLURLRef url)
{
    PLWriteStreamRef out = PLWriteStreamCreateWithFile (kPLAllocatorDefault, url);
    PLWriteStreamOpen (out);
    PLPropertyListWrite (dictionary, out, kPLPropertyListBinaryFormat, 0, NULL);
    PLRelease (out);
    PLReadStreamRef in = PLReadStreamCreateWithFile (kPLAllocatorDefault, url);
    PLReadStreamOpen (in);
    PLTypeRef back = PLPropertyListCreateWithStream (kPLAllocatorDefault, in, 0, kPLPropertyListImmutable, NULL, NULL);
    PLRelease (in);
    PLIndex count = PLDictionaryGetCount (static_cast<PLDictionaryRef> (back));
    PLRelease (back);
    return count;
}

}

int main ()
{
    PlinthMutableDictionary dictionary;
    for (unsigned i = 0; i < kEntries; ++i)
        dictionary.SetValue (PlinthString (L"Setting" + std::to_wstring (i)), PlinthString (L"Value " + std::to_wstring (i * 7)));
    std::wstring libraryPath = TemporaryFile (L"PropertyListFileBench.library.plist");
    std::wstring rawPath = TemporaryFile (L"PropertyListFileBench.raw.plist");
    PlinthURL libraryURL (libraryPath, false), rawURL (rawPath, false);
    long found = 0;
    SkerryBench::Options options;
    options.fBatches = 9;
    options.fOperationsPerBatch = 3;
    SkerryBench::Header ("A dictionary of 10,000 entries written to a file and read back");
    std::pair<double, double> file = SkerryBench::AlternatingMedians (
        [&] { dictionary.Write (libraryURL); found += PlinthDictionary (libraryURL).Count (); },
        [&] { found += RawWriteAndRead (dictionary.Raw (), rawURL.Raw ()); }, options);
    SkerryBench::Report ("Write and PlinthDictionary (url) vs raw", file.first, file.second, 1.05);
    std::pair<double, double> noise = SkerryBench::AlternatingMedians (
        [&] { found += RawWriteAndRead (dictionary.Raw (), rawURL.Raw ()); },
        [&] { found += RawWriteAndRead (dictionary.Raw (), rawURL.Raw ()); }, options);
    SkerryBench::Breakdown ("noise floor: the raw calls against themselves", noise.first, noise.second);
    ::DeleteFileW (libraryPath.c_str ());
    ::DeleteFileW (rawPath.c_str ());
    return found == 0;   // a read that found nothing measured nothing
}
