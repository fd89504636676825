// Plinth's property-list formats against Debian's libplist (as a black box, through its public
// functions) and Python's plistlib (run as a child process), on one document of about 10 MB:
// nested dictionaries and arrays of strings, numbers, data and dates. Each library writes and
// reads the same document, in the binary format and in XML; the figure is the median of a few
// rounds, and the ratios are Plinth's time over the peer's (0.50x is twice the throughput).
// Targets: binary write and read at least twice libplist's throughput and three times plistlib's;
// the peak memory of Plinth's binary read at most four times the file's size (measured in a child
// process: `PropertyListBench --peak FILE`). Built natively, and for Windows, where Plinth.dll is
// measured alone (no peers there) for its throughput and the memory of a 32-bit read; `make bench`
// runs both.
#include <Plinth/Plinth.h>

#include "Harness.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#ifdef _WIN32
#include <psapi.h>
#else
#include <plist/plist.h>
#include <unistd.h>
#endif

namespace {

constexpr int kRecords = 47000;   // about 10 MB in the binary format
constexpr int kRounds = 5;

PLStringRef Text (std::string const & text)
{
    return PLStringCreateWithCString (kPLAllocatorDefault, text.c_str (), kPLStringEncodingUTF8);
}

void Set (PLMutableDictionaryRef dictionary, char const * key, PLTypeRef value)
{
    PLDictionarySetValue (dictionary, __PLStringMakeConstantString (key), value);
    PLRelease (value);
}

// {"records": [ {name, index, ratio, payload, created, tags [..], details {..}} ... ], "count": n}
PLTypeRef MakeDocument ()
{
    PLMutableArrayRef records = PLArrayCreateMutable (kPLAllocatorDefault, 0, &kPLTypeArrayCallBacks);
    for (int i = 0; i < kRecords; ++i) {
        PLMutableDictionaryRef record = PLDictionaryCreateMutable (kPLAllocatorDefault, 0,
            &kPLTypeDictionaryKeyCallBacks, &kPLTypeDictionaryValueCallBacks);
        Set (record, "name", Text ("Record number " + std::to_string (i) + " of the benchmark document"));
        int64_t index = int64_t (i) * 7919;
        Set (record, "index", PLNumberCreate (kPLAllocatorDefault, kPLNumberSInt64Type, &index));
        double ratio = i * 0.37 + 0.001;
        Set (record, "ratio", PLNumberCreate (kPLAllocatorDefault, kPLNumberFloat64Type, &ratio));
        uint8_t payload [48];
        for (std::size_t b = 0; b < sizeof payload; ++b)
            payload [b] = uint8_t (i * 31 + b * 7);
        Set (record, "payload", PLDataCreate (kPLAllocatorDefault, payload, sizeof payload));
        Set (record, "created", PLDateCreate (kPLAllocatorDefault, 600000000.0 + i * 60.0));
        PLMutableArrayRef tags = PLArrayCreateMutable (kPLAllocatorDefault, 0, &kPLTypeArrayCallBacks);
        for (int t = 0; t < 3; ++t) {
            PLStringRef tag = Text ("tag-" + std::to_string ((i + t * 13) % 500));
            PLArrayAppendValue (tags, tag);
            PLRelease (tag);
        }
        Set (record, "tags", tags);
        PLMutableDictionaryRef details = PLDictionaryCreateMutable (kPLAllocatorDefault, 0,
            &kPLTypeDictionaryKeyCallBacks, &kPLTypeDictionaryValueCallBacks);
        Set (details, "enabled", PLRetain (i % 3 == 0 ? kPLBooleanTrue : kPLBooleanFalse));
        Set (details, "owner", Text ("user" + std::to_string (i % 977) + "@example.org"));
        int64_t size = int64_t (i) * 1048573;
        Set (details, "size", PLNumberCreate (kPLAllocatorDefault, kPLNumberSInt64Type, &size));
        Set (record, "details", details);
        PLArrayAppendValue (records, record);
        PLRelease (record);
    }
    PLMutableDictionaryRef top = PLDictionaryCreateMutable (kPLAllocatorDefault, 0, &kPLTypeDictionaryKeyCallBacks,
        &kPLTypeDictionaryValueCallBacks);
    int32_t count = kRecords;
    Set (top, "count", PLNumberCreate (kPLAllocatorDefault, kPLNumberSInt32Type, &count));
    Set (top, "records", records);
    return top;
}

// Median seconds of `operation` over the rounds. What it made is freed by `cleanup`, untimed:
// the figures are of making the encoding or the objects, for every library alike.
template <typename Operation, typename Cleanup>
double Seconds (Operation operation, Cleanup cleanup, int count = kRounds)
{
    std::vector<double> rounds;
    for (int round = 0; round < count; ++round) {
        double start = SkerryBench::Now ();
        operation ();
        rounds.push_back ((SkerryBench::Now () - start) / 1e9);
        cleanup ();
    }
    std::sort (rounds.begin (), rounds.end ());
    return rounds [rounds.size () / 2];
}

std::string Bytes (PLDataRef data)
{
    return std::string (reinterpret_cast<char const *> (PLDataGetBytePtr (data)), std::size_t (PLDataGetLength (data)));
}

struct Times {
    double fBinaryWrite, fBinaryRead, fXMLWrite, fXMLRead;
};

Times MeasurePlinth (PLTypeRef document, std::string const & binary, std::string const & xml)
{
    Times times;
    PLTypeRef made = nullptr;
    auto release = [&] { PLRelease (made); };
    auto write = [&] (PLPropertyListFormat format) {
        return Seconds ([&] { made = PLPropertyListCreateData (kPLAllocatorDefault, document, format, 0, nullptr); }, release);
    };
    auto read = [&] (std::string const & bytes) {
        PLDataRef data = PLDataCreateWithBytesNoCopy (kPLAllocatorDefault, reinterpret_cast<uint8_t const *> (bytes.data ()),
            PLIndex (bytes.size ()), kPLAllocatorNull);
        double seconds = Seconds ([&] {
            made = PLPropertyListCreateWithData (kPLAllocatorDefault, data, 0, nullptr, nullptr);
            if (made == nullptr)
                std::abort ();
        }, release);
        PLRelease (data);
        return seconds;
    };
    times.fBinaryWrite = write (kPLPropertyListBinaryFormat);
    times.fBinaryRead = read (binary);
    times.fXMLWrite = write (kPLPropertyListXMLFormat);
    times.fXMLRead = read (xml);
    return times;
}

#ifndef _WIN32
// libplist: its own tree, read from the same bytes, written back.
Times MeasureLibplist (std::string const & binary, std::string const & xml)
{
    Times times;
    plist_t tree = nullptr;
    plist_from_bin (binary.data (), uint32_t (binary.size ()), &tree);
    if (tree == nullptr)
        std::abort ();
    char * out = nullptr;
    uint32_t length = 0;
    plist_t read = nullptr;
    auto freeOut = [&] { std::free (out); out = nullptr; };   // this libplist has no plist_mem_free
    auto freeRead = [&] { plist_free (read); read = nullptr; };
    // One round: this libplist's binary writer takes tens of seconds on the document.
    times.fBinaryWrite = Seconds ([&] { plist_to_bin (tree, &out, &length); }, freeOut, 1);
    times.fBinaryRead = Seconds ([&] { plist_from_bin (binary.data (), uint32_t (binary.size ()), &read); }, freeRead);
    times.fXMLWrite = Seconds ([&] { plist_to_xml (tree, &out, &length); }, freeOut);
    times.fXMLRead = Seconds ([&] { plist_from_xml (xml.data (), uint32_t (xml.size ()), &read); }, freeRead);
    plist_free (tree);
    return times;
}

char const kPlistlibScript [] = R"(
import plistlib, sys, time
def median(f):
    times = []
    for _ in range(3):
        start = time.perf_counter(); f(); times.append(time.perf_counter() - start)
    return sorted(times)[1]
binary = open(sys.argv[1], 'rb').read(); xml = open(sys.argv[2], 'rb').read()
value = plistlib.loads(binary)
print(median(lambda: plistlib.dumps(value, fmt=plistlib.FMT_BINARY)), median(lambda: plistlib.loads(binary)),
      median(lambda: plistlib.dumps(value, fmt=plistlib.FMT_XML)), median(lambda: plistlib.loads(xml)))
)";

bool MeasurePlistlib (std::string const & binaryPath, std::string const & xmlPath, Times & times)
{
    std::string script = binaryPath + ".py";
    std::ofstream (script) << kPlistlibScript;
    std::string command = "python3 " + script + " " + binaryPath + " " + xmlPath;
    FILE * pipe = popen (command.c_str (), "r");
    bool read = pipe != nullptr && std::fscanf (pipe, "%lf %lf %lf %lf", &times.fBinaryWrite, &times.fBinaryRead,
        &times.fXMLWrite, &times.fXMLRead) == 4;
    if (pipe != nullptr)
        pclose (pipe);
    std::remove (script.c_str ());
    return read;
}
#endif

// The resident set now, and its peak so far, in kilobytes.
#ifdef _WIN32
long ResidentKilobytes (bool peak)
{
    PROCESS_MEMORY_COUNTERS counters;
    if (! ::GetProcessMemoryInfo (::GetCurrentProcess (), &counters, sizeof counters))
        return -1;
    return long ((peak ? counters.PeakWorkingSetSize : counters.WorkingSetSize) / 1024);
}

std::string TemporaryPath (char const * name)
{
    char directory [MAX_PATH];
    ::GetTempPathA (MAX_PATH, directory);
    return std::string (directory) + "PropertyListBench-" + std::to_string (::GetCurrentProcessId ()) + "-" + name;
}

#else
long ResidentKilobytes (bool peak)
{
    char const * field = peak ? "VmHWM:" : "VmRSS:";
    std::ifstream status ("/proc/self/status");
    for (std::string line; std::getline (status, line);)
        if (line.compare (0, std::strlen (field), field) == 0)
            return std::atol (line.c_str () + std::strlen (field));
    return -1;
}

std::string TemporaryPath (char const * name)
{
    return "/tmp/PropertyListBench-" + std::to_string (getpid ()) + "-" + name;
}
#endif

// In a fresh process: the growth of the resident set, at its peak, while reading `path`.
int Peak (char const * path)
{
    std::ostringstream contents;
    contents << std::ifstream (path, std::ios::binary).rdbuf ();
    std::string bytes = contents.str ();
    PLDataRef data = PLDataCreateWithBytesNoCopy (kPLAllocatorDefault, reinterpret_cast<uint8_t const *> (bytes.data ()),
        PLIndex (bytes.size ()), kPLAllocatorNull);
    long before = ResidentKilobytes (false);
    PLTypeRef value = PLPropertyListCreateWithData (kPLAllocatorDefault, data, 0, nullptr, nullptr);
    long peak = ResidentKilobytes (true);
    std::printf ("%ld\n", value == nullptr ? -1 : peak - before);
    PLRelease (value);
    PLRelease (data);
    return 0;
}

double MegabytesPerSecond (std::size_t bytes, double seconds)
{
    return double (bytes) / 1e6 / seconds;
}

#ifndef _WIN32
bool Line (char const * name, std::size_t bytes, double plinth, double peer, double target)
{
    std::printf ("%-34s %9.1f MB/s %9.1f MB/s %7.2fx", name, MegabytesPerSecond (bytes, plinth),
        MegabytesPerSecond (bytes, peer), plinth / peer);
    if (target > 0)
        std::printf (" %7.2fx%s", target, plinth / peer <= target ? "" : "  (over target)");
    std::printf ("\n");
    return target <= 0 || plinth / peer <= target;
}
#endif

}

int main (int argc, char ** argv)
{
    if (argc == 3 && std::strcmp (argv [1], "--peak") == 0)
        return Peak (argv [2]);
    PLTypeRef document = MakeDocument ();
    PLDataRef binaryData = PLPropertyListCreateData (kPLAllocatorDefault, document, kPLPropertyListBinaryFormat, 0, nullptr);
    PLDataRef xmlData = PLPropertyListCreateData (kPLAllocatorDefault, document, kPLPropertyListXMLFormat, 0, nullptr);
    std::string binary = Bytes (binaryData), xml = Bytes (xmlData);
    PLRelease (binaryData);
    PLRelease (xmlData);
    std::string binaryPath = TemporaryPath ("document.binary"), xmlPath = TemporaryPath ("document.xml");
    std::ofstream (binaryPath, std::ios::binary) << binary;
    std::ofstream (xmlPath, std::ios::binary) << xml;

    Times plinth = MeasurePlinth (document, binary, xml);
#ifdef _WIN32
    std::printf ("\nProperty lists in Plinth.dll: one document, %zu bytes binary, %zu bytes XML (median of %d rounds)\n",
        binary.size (), xml.size (), kRounds);
    std::printf ("%-34s %9.1f MB/s\n%-34s %9.1f MB/s\n%-34s %9.1f MB/s\n%-34s %9.1f MB/s\n",
        "binary write", MegabytesPerSecond (binary.size (), plinth.fBinaryWrite),
        "binary read", MegabytesPerSecond (binary.size (), plinth.fBinaryRead),
        "XML write", MegabytesPerSecond (xml.size (), plinth.fXMLWrite),
        "XML read", MegabytesPerSecond (xml.size (), plinth.fXMLRead));
#else
    Times libplist = MeasureLibplist (binary, xml);
    Times plistlib {};
    bool havePlistlib = MeasurePlistlib (binaryPath, xmlPath, plistlib);

    std::printf ("\nProperty lists: one document, %zu bytes binary, %zu bytes XML (median of %d rounds)\n",
        binary.size (), xml.size (), kRounds);
    std::printf ("%-34s %14s %14s %8s %8s\n", "case (time ratio Plinth / peer)", "Plinth", "peer", "ratio", "target");
    bool met = true;
    met &= Line ("binary write vs libplist", binary.size (), plinth.fBinaryWrite, libplist.fBinaryWrite, 0.5);
    met &= Line ("binary read vs libplist", binary.size (), plinth.fBinaryRead, libplist.fBinaryRead, 0.5);
    Line ("XML write vs libplist", xml.size (), plinth.fXMLWrite, libplist.fXMLWrite, 0);
    Line ("XML read vs libplist", xml.size (), plinth.fXMLRead, libplist.fXMLRead, 0);
    if (havePlistlib) {
        met &= Line ("binary write vs plistlib", binary.size (), plinth.fBinaryWrite, plistlib.fBinaryWrite, 1.0 / 3);
        met &= Line ("binary read vs plistlib", binary.size (), plinth.fBinaryRead, plistlib.fBinaryRead, 1.0 / 3);
        Line ("XML write vs plistlib", xml.size (), plinth.fXMLWrite, plistlib.fXMLWrite, 0);
        Line ("XML read vs plistlib", xml.size (), plinth.fXMLRead, plistlib.fXMLRead, 0);
    }
    else
        std::printf ("plistlib: python3 did not run\n");
    (void) met;
#endif

    std::vector<double> peak = SkerryBench::InFreshProcess (("--peak \"" + binaryPath + "\"").c_str ());
    long kilobytes = peak.empty () ? -1 : long (peak [0]);
    double ratio = double (kilobytes) * 1024 / double (binary.size ());
    std::printf ("%-34s %9.1f MB peak for %.1f MB %7.2fx %7.2fx%s\n", "binary read, memory / file size",
        double (kilobytes) / 1024, double (binary.size ()) / 1048576, ratio, 4.0, ratio <= 4.0 ? "" : "  (over target)");
    std::remove (binaryPath.c_str ());
    std::remove (xmlPath.c_str ());
    PLRelease (document);
    // Figures, not tests: a missed target is printed, and the run goes on.
    return 0;
}
