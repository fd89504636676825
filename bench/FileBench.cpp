// Files against the raw calls they make, on files of the temporary directory made for the run and
// removed after it: a 64 MiB file read whole into a PlinthData against ReadFile into a buffer (and
// the peak memory of that read, measured in a fresh process: `FileBench --peak`), 4 KiB sequential
// reads and writes through File::Stream against ReadFile and WriteFile, and a 64 MiB file mapped
// through MappingBase with every page touched against the raw mapping calls; the volumes listed
// through File::Volumes against FindFirstVolumeW, FindNextVolumeW and FindVolumeClose.
#include <LibSkerry/File>

#include "Harness.h"

#include <windows.h>
#include <psapi.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

namespace {

using Skerry::File::Stream;

const DWORD kLargeSize = 64 << 20;
const DWORD kBlock = 4096;
const DWORD kSmallSize = 1 << 20;

std::wstring TemporaryPath (const wchar_t * name)
{
    wchar_t directory [MAX_PATH];
    ::GetTempPathW (MAX_PATH, directory);
    return std::wstring (directory) + L"FileBench-" + name;
}

void MakeFile (const std::wstring & path, DWORD size)
{
    std::vector<char> bytes (size);
    for (DWORD i = 0; i < size; ++i)
        bytes [i] = char (i * 31 >> 5);
    HANDLE file = ::CreateFileW (path.c_str (), GENERIC_WRITE, 0, NULL, CREATE_ALWAYS, 0, NULL);
    DWORD written = 0;
    ::WriteFile (file, bytes.data (), size, &written, NULL);
    ::CloseHandle (file);
}

long PeakKilobytes ()
{
    PROCESS_MEMORY_COUNTERS counters;
    ::GetProcessMemoryInfo (::GetCurrentProcess (), &counters, sizeof counters);
    return long (counters.PeakWorkingSetSize / 1024);
}

// In a fresh process: how far the resident set rose, at its peak, in a whole-file read.
int Peak ()
{
    long before = PeakKilobytes ();
    long length = Stream (TemporaryPath (L"large"), GENERIC_READ, FILE_SHARE_READ, OPEN_EXISTING, 0, true).Read ().GetLength ();
    std::printf ("%ld %ld\n", PeakKilobytes () - before, length / 1024);
    return 0;
}

// With `copy`, the bytes are copied once more into a block of their own, as the data's are.
void RawWholeRead (const std::wstring & path, bool copy)
{
    HANDLE file = ::CreateFileW (path.c_str (), GENERIC_READ, FILE_SHARE_READ, NULL, OPEN_EXISTING, 0, NULL);
    LARGE_INTEGER size;
    ::GetFileSizeEx (file, &size);
    char * buffer = static_cast<char *> (::operator new (size_t (size.QuadPart)));
    DWORD read = 0;
    ::ReadFile (file, buffer, DWORD (size.QuadPart), &read, NULL);
    if (copy) {
        char * copied = static_cast<char *> (::operator new (read));
        std::memcpy (copied, buffer, read);
        ::operator delete (copied);
    }
    ::operator delete (buffer);
    ::CloseHandle (file);
}

// One block a call; back to the start at the end of the file.
struct RawSequence {
    HANDLE fFile;
    char fBlock [kBlock] {};
    void Read ()
    {
        DWORD done = 0;
        if (::ReadFile (fFile, fBlock, kBlock, &done, NULL) && done == 0)
            ::SetFilePointer (fFile, 0, NULL, FILE_BEGIN);
    }
    void Write ()
    {
        DWORD done = 0;
        ::WriteFile (fFile, fBlock, kBlock, &done, NULL);
        LARGE_INTEGER zero {}, position;
        if (::SetFilePointerEx (fFile, zero, &position, FILE_CURRENT) && position.QuadPart >= kSmallSize)
            ::SetFilePointer (fFile, 0, NULL, FILE_BEGIN);
    }
};

struct StreamSequence {
    Stream fStream;
    char fBlock [kBlock] {};
    void Read ()
    {
        if (fStream.Read (fBlock, kBlock) == 0)
            fStream.SetPointer (0, FILE_BEGIN);
    }
    void Write ()
    {
        fStream.Write (fBlock, kBlock);
        if (fStream.GetPointer () >= kSmallSize)
            fStream.SetPointer (0, FILE_BEGIN);
    }
};

struct Mapping : Skerry::File::MappingBase {
    using MappingBase::MappingBase;
    const volatile char * View () const { return static_cast<const volatile char *> (fView); }
};

unsigned Touch (const volatile char * view, __int64 size)
{
    unsigned sum = 0;
    for (__int64 offset = 0; offset < size; offset += 4096)
        sum += view [offset];
    return sum;
}

void RawMapAndTouch (const std::wstring & path)
{
    HANDLE file = ::CreateFileW (path.c_str (), FILE_READ_DATA, 0, NULL, OPEN_EXISTING, 0, NULL);
    HANDLE mapping = ::CreateFileMappingW (file, NULL, PAGE_READONLY, 0, 0, NULL);
    LARGE_INTEGER size;
    ::GetFileSizeEx (file, &size);
    void * view = ::MapViewOfFile (mapping, FILE_MAP_READ, 0, 0, 0);
    Touch (static_cast<const volatile char *> (view), size.QuadPart);
    ::UnmapViewOfFile (view);
    ::CloseHandle (mapping);
    ::CloseHandle (file);
}

}

// The names that Volumes gathers, by the calls it makes.
unsigned RawVolumes ()
{
    std::vector<std::wstring> names;
    wchar_t name [MAX_PATH];
    HANDLE find = ::FindFirstVolumeW (name, MAX_PATH);
    do
        names.push_back (name);
    while (::FindNextVolumeW (find, name, MAX_PATH));
    ::FindVolumeClose (find);
    return unsigned (names.size ());
}

int main (int argc, char ** argv)
{
    if (argc == 2 && std::strcmp (argv [1], "--peak") == 0)
        return Peak ();
    std::wstring large = TemporaryPath (L"large"), small = TemporaryPath (L"small");
    MakeFile (large, kLargeSize);
    MakeFile (small, kSmallSize);
    SkerryBench::Options few;
    few.fBatches = 5;
    few.fOperationsPerBatch = 1;
    SkerryBench::Options blocks;
    blocks.fBatches = 9;
    blocks.fOperationsPerBatch = 500;

    SkerryBench::Header ("Files (64 MiB for whole reads and mappings, 4 KiB blocks of a 1 MiB file)");
    auto whole = SkerryBench::AlternatingMedians (
        [&] { Stream (large, GENERIC_READ, FILE_SHARE_READ, OPEN_EXISTING, 0, true).Read (); },
        [&] { RawWholeRead (large, false); }, few);
    SkerryBench::Report ("whole file into PlinthData vs ReadFile", whole.first, whole.second, 1.10);
    double copied = SkerryBench::Median ([&] { RawWholeRead (large, true); }, few);
    SkerryBench::Breakdown ("the same vs ReadFile and one copy", whole.first, copied);
    {
        RawSequence raw { ::CreateFileW (small.c_str (), GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE,
            NULL, OPEN_EXISTING, 0, NULL) };
        StreamSequence stream { Stream (small, GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE,
            OPEN_EXISTING, 0, true) };
        auto reads = SkerryBench::AlternatingMedians ([&] { stream.Read (); }, [&] { raw.Read (); }, blocks);
        SkerryBench::Report ("4 KiB read through Stream vs ReadFile", reads.first, reads.second, 1.05);
        auto writes = SkerryBench::AlternatingMedians ([&] { stream.Write (); }, [&] { raw.Write (); }, blocks);
        SkerryBench::Report ("4 KiB write through Stream vs WriteFile", writes.first, writes.second, 1.05);
        ::CloseHandle (raw.fFile);
    }
    auto mapped = SkerryBench::AlternatingMedians (
        [&] {
            Mapping mapping (large, FILE_READ_DATA, OPEN_EXISTING, 0, false, true);
            Touch (mapping.View (), mapping.GetSize ());
        },
        [&] { RawMapAndTouch (large); }, few);
    SkerryBench::Report ("map and touch every page vs raw mapping", mapped.first, mapped.second, 1.05);

    SkerryBench::Options listings;
    listings.fBatches = 9;
    listings.fOperationsPerBatch = 50;
    auto volumes = SkerryBench::AlternatingMedians ([] { Skerry::File::Volumes (); }, [] { RawVolumes (); }, listings);
    SkerryBench::Report ("volume list through Volumes vs FindNextVolumeW", volumes.first, volumes.second, 1.05);

    std::vector<double> peak = SkerryBench::InFreshProcess ("--peak");
    if (peak.size () == 2)
        std::printf ("peak memory of a whole read: %.0f KiB over %.0f KiB of file, %.2f times its size (target at most 2: "
            "the scratch block and one copy)\n", peak [0], peak [1], peak [0] / peak [1]);
    ::DeleteFileW (large.c_str ());
    ::DeleteFileW (small.c_str ());
    return 0;
}
