// File handles, streams, mappings, attributes, safe names and object identifiers, on real files in
// a scratch directory removed after each test, which ends with the handles it found open.
#include <LibSkerry/File>

#include "ChildProcess.h"
#include "Expect.h"
#include "Handles.h"
#include "Interposer.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <numeric>

using namespace Skerry::File;
using SkerryTest::Failure;

const __int64 k4GiB = 0x100000000LL;

struct Mapping : MappingBase {
    explicit Mapping (const std::wstring & path, unsigned long access = FILE_READ_DATA, bool executable = false)
        : MappingBase (path, access, OPEN_EXISTING, 0, executable, true) {}
    char * View () const { return static_cast<char *> (fView); }
};

class FileTest : public SkerryTest::HandleLeakTest {
protected:
    FileTest () { std::filesystem::create_directory (fDirectory); }
    ~FileTest () override { std::filesystem::remove_all (fDirectory); }

    std::wstring Make (const wchar_t * name, const std::string & bytes = "")
    {
        std::ofstream (fDirectory / name, std::ios::binary) << bytes;
        return (fDirectory / name).wstring ();
    }

    Stream Open (const std::wstring & path) { return Stream (path, GENERIC_READ, FILE_SHARE_READ, OPEN_EXISTING, 0, true); }
    static std::string Bytes (const Skerry::PlinthData & data) { return { (const char *) data.GetBytes (), size_t (data.GetLength ()) }; }

    std::filesystem::path fDirectory = std::filesystem::temp_directory_path () /
        (L"SkerryFileTests-" + std::to_wstring (::GetCurrentProcessId ()));
    std::wstring fMissing = (fDirectory / L"missing").wstring ();
};

TEST_F (FileTest, Streams)
{
    for (const std::string & bytes : { std::string (), std::string (5 << 20, '\0') + "end" })
        EXPECT_TRUE (Bytes (Open (Make (L"whole", bytes)).Read ()) == bytes);
    // A sparse file past 4 GiB: positions are 64-bit all the way.
    Stream big (Make (L"big"), GENERIC_READ | GENERIC_WRITE, 0, OPEN_EXISTING, 0, true);
    EXPECT_EQ (big.SetPointer (k4GiB + 10, FILE_BEGIN), k4GiB + 10);
    EXPECT_EQ (big.Write ("xyz", 3), 3ul);
    EXPECT_EQ (big.GetPointer (), k4GiB + 13);

    EXPECT_EQ (Failure ([&] { Open (fMissing); }), "Win32 2 | Skerry::File::Handle::Handle | File");
    Stream stream = Open (Make (L"ten", "0123456789"));
    // Wine's file system keeps no object identifiers: its answer is raised as it is.
    EXPECT_EQ (Failure ([&] { stream.CreateOrGetObjectID (); }), "Win32 50 | Skerry::File::CreateOrGetObjectID | File");
    SKERRY_INTERPOSE (read, "KERNEL32.dll", ReadFile);
    SKERRY_INTERPOSE (write, "KERNEL32.dll", WriteFile);
    SKERRY_INTERPOSE (seek, "KERNEL32.dll", SetFilePointerEx);
    SKERRY_INTERPOSE (size, "KERNEL32.dll", GetFileSizeEx);
    read.Fail (FALSE, 5);
    write.Fail (FALSE, 112);
    seek.Fail (FALSE, 6);
    size.Fail (FALSE, 1);
    EXPECT_EQ (Failure ([&] { stream.Read (nullptr, 10); }), "Win32 5 | Skerry::File::Stream::Read | File");
    EXPECT_EQ (Failure ([&] { stream.Write (nullptr, 10); }), "Win32 112 | Skerry::File::Stream::Write | File");
    EXPECT_EQ (Failure ([&] { stream.GetPointer (); }), "Win32 6 | Skerry::File::Stream::SetPointer | File");
    EXPECT_EQ (Failure ([&] { stream.GetSize (); }), "Win32 1 | Skerry::File::Stream::GetSize | File");
    // A whole read keeps what its one read gave, and reads nothing of a size past a signed 32 bits.
    read.Replace ([&] (HANDLE file, void * to, DWORD, DWORD * done, OVERLAPPED *) {
        return read.Original (file, to, 4, done, NULL);
    });
    EXPECT_EQ (Bytes (stream.Read ()), "0123");
    for (__int64 tooLarge : { 0x80000000LL, k4GiB + 1 }) {
        size.Replace ([tooLarge] (HANDLE, LARGE_INTEGER * to) { to->QuadPart = tooLarge; return TRUE; });
        EXPECT_EQ (Failure ([&] { stream.Read (); }), "Skerry 9 | Skerry::File::Stream::Read | File");
    }
    EXPECT_EQ (read.Calls (), 2u);

    // Windows' answer, and one of the wrong size.
    SKERRY_INTERPOSE (control, "KERNEL32.dll", DeviceIoControl);
    control.Replace ([&] (HANDLE, DWORD code, void *, DWORD, void * out, DWORD outSize, DWORD * returned, OVERLAPPED *) {
        std::iota (static_cast<unsigned char *> (out), static_cast<unsigned char *> (out) + outSize, 1);
        *returned = code == 0x900C0 ? outSize : 0;
        return TRUE;
    });
    GUID id = stream.CreateOrGetObjectID ();
    EXPECT_EQ (id.Data1, 0x04030201ul);
    EXPECT_EQ (id.Data4 [7], 16);
    control.Fail (TRUE, 0);    // and nothing returned
    EXPECT_EQ (Failure ([&] { CreateOrGetObjectID (stream); }), "unexpected buffer size | Skerry::File::CreateOrGetObjectID | File");

    SKERRY_INTERPOSE (close, "KERNEL32.dll", CloseHandle);
    {
        Stream failed (fMissing.c_str (), GENERIC_READ, 0, OPEN_EXISTING, 0, false), copy (failed);
        EXPECT_EQ (copy.GetCreateError (), 2ul);
    }
    stream.Close ();
    EXPECT_EQ (close.Calls (), 1u);    // none for the failed open, none after Close
    // A failed close raises from the destructor and from Close, and is not tried again.
    close.Replace ([&] (HANDLE handle) { close.Original (handle); ::SetLastError (6); return FALSE; });
    EXPECT_EQ (Failure ([&] { Open (Make (L"closed")); }), "Win32 6 | Skerry::Handle::~Handle | Utilities");
    EXPECT_EQ (Failure ([&] { Open (Make (L"closed")).Close (); }), "Win32 6 | Skerry::Handle::~Handle | Utilities");
    EXPECT_EQ (close.Calls (), 3u);
}

TEST_F (FileTest, Mappings)
{
    std::wstring path = Make (L"map", "mapped bytes");
    SKERRY_INTERPOSE (close, "KERNEL32.dll", CloseHandle);
    SKERRY_INTERPOSE (create, "KERNEL32.dll", CreateFileMappingW);
    SKERRY_INTERPOSE (size, "KERNEL32.dll", GetFileSizeEx);
    SKERRY_INTERPOSE (view, "KERNEL32.dll", MapViewOfFile);
    SKERRY_INTERPOSE (unmap, "KERNEL32.dll", UnmapViewOfFile);
    // Wine maps FILE_MAP_EXECUTE alone without any access: those views are not read.
    struct { unsigned long fAccess; bool fExecutable; DWORD fProtection, fView; } rows [] = {
        { FILE_READ_DATA, false, PAGE_READONLY, FILE_MAP_READ },
        { FILE_READ_DATA | FILE_WRITE_DATA, false, PAGE_READWRITE, FILE_MAP_WRITE },
        { FILE_READ_DATA, true, PAGE_EXECUTE_READ, FILE_MAP_EXECUTE },
        { FILE_READ_DATA | FILE_WRITE_DATA | FILE_EXECUTE, true, PAGE_EXECUTE_READWRITE, FILE_MAP_EXECUTE },
    };
    for (auto & row : rows) {
        EXPECT_EQ (Mapping (path, row.fAccess, row.fExecutable).GetSize (), 12);
        EXPECT_EQ (std::get<2> (create.CallArguments ().back ()), row.fProtection);
        EXPECT_EQ (std::get<1> (view.CallArguments ().back ()), row.fView);
    }
    auto map = [&] (const std::wstring & p, unsigned long access, bool throwOnFailure) {
        return Failure ([&] { MappingBase (p.c_str (), access, OPEN_EXISTING, 0, false, throwOnFailure); });
    };
    {
        Mapping writable (path, FILE_READ_DATA | FILE_WRITE_DATA), copy (writable);
        EXPECT_EQ (map (path, FILE_READ_DATA, true), "Win32 32 | Skerry::File::Handle::Handle | File");
        writable.View () [0] = 'M';
        EXPECT_EQ (std::string (copy.View (), 12), "Mapped bytes");    // a view of its own, the same bytes
        copy = Mapping (Make (L"other", "other"));
        EXPECT_EQ (std::string (copy.View (), 5), "other");
    }
    EXPECT_EQ (map (path, FILE_WRITE_DATA, true), "assertion failed: FILE_READ_DATA & fileAccess | GetProtection | File");
    EXPECT_EQ (map (fMissing, FILE_READ_DATA, false), "Win32 87 | Skerry::File::MappingBase::Construct | File");
    // Each failure closes what was opened by then, once; so does a failed unmap, also in Close.
    create.Fail (NULL, 8);
    EXPECT_EQ (map (path, FILE_READ_DATA, true), "Win32 8 | Skerry::File::MappingBase::Construct | File");
    size.Fail (FALSE, 1);
    EXPECT_EQ (map (path, FILE_READ_DATA, true), "Win32 1 | Skerry::File::MappingBase::Construct | File");
    view.Fail (NULL, 8);
    EXPECT_EQ (map (path, FILE_READ_DATA, true), "Win32 8 | Skerry::File::MappingBase::Construct | File");
    unmap.Replace ([&] (const void * view) { unmap.Original (view); ::SetLastError (487); return FALSE; });
    EXPECT_EQ (Failure ([&] { Mapping { path }; }), "Win32 487 | Skerry::File::MappingBase::~MappingBase | File");
    Mapping mapping (path);    // kept past its failed Close, which still closes both handles
    EXPECT_EQ (Failure ([&] { mapping.Close (); }), "Win32 487 | Skerry::File::MappingBase::~MappingBase | File");
    EXPECT_EQ (unmap.Calls (), 10u);    // one for each view, the replaced one and the temporary's included
    EXPECT_EQ (close.Calls (), 26u);    // the file and mapping of each of twelve, the file of two refused
}

TEST_F (FileTest, AttributesChangeOnlyWhenNeeded)
{
    EXPECT_EQ (Failure ([&] { Attributes { fMissing }; }), "Win32 2 | Skerry::File::Attributes::Attributes | File");
    Attributes attributes (Make (L"attributes").c_str ());
    SKERRY_INTERPOSE (set, "KERNEL32.dll", SetFileAttributesW);
    EXPECT_FALSE (attributes.EnsureFlagsAreSet (FILE_ATTRIBUTE_ARCHIVE));
    EXPECT_EQ (set.Calls (), 0u);
    set.Fail (FALSE, 5);
    EXPECT_EQ (Failure ([&] { attributes.EnsureFlagsAreSet (FILE_ATTRIBUTE_HIDDEN); }), "Win32 5 | Skerry::File::Attributes::EnsureFlagsAreSet | File");
    EXPECT_EQ (attributes.GetAttributes (), DWORD (FILE_ATTRIBUTE_ARCHIVE));
    EXPECT_TRUE (attributes.EnsureFlagsAreSet (FILE_ATTRIBUTE_READONLY | FILE_ATTRIBUTE_HIDDEN));
    EXPECT_TRUE (attributes.EnsureFlagsAreClear (FILE_ATTRIBUTE_READONLY));
    EXPECT_EQ (std::get<1> (set.CallArguments ().back ()), DWORD (0x22));    // the whole value, from the cache
    set.Fail (FALSE, 2);
    EXPECT_EQ (Failure ([&] { attributes.EnsureFlagsAreClear (FILE_ATTRIBUTE_HIDDEN); }), "Win32 2 | Skerry::File::Attributes::EnsureFlagsAreClear | File");
}

TEST (SanitizedName, HostileText)
{
    struct { const wchar_t * fSource; unsigned fMax; const wchar_t * fName; } rows [] = {
        { L"report  ", 20, L"report" }, { L"report.", 20, L"report\u2026" }, { L"report. . ", 20, L"report\u2026" },
        { L"...", 20, L"\u2026" }, { L"   ", 20, L"" }, { L"abcdefghij", 5, L"abcd\u2026" }, { L"abc  defgh", 5, L"abc\u2026" },
        { L"abcd", 4, L"abcd" }, { L"abcde", 1, L"\u2026" }, { L"abcde", 0, L"" }, { L"CON", 20, L"CON" },
        { L"\t\r\n a<b>c\"d\\e|f*g:h/i?j", 20, L"a_b_c_d_e_f_g_h_i_j" }, { L"x\x01\x1f\x7fy", 20, L"x__\x7fy" },
        { L" .. a.b  c .", 20, L".. a.b  c\u2026" }, { L"Gr\u00f6\u00dfe \u65e5\u672c \u0416", 20, L"Gr\u00f6\u00dfe \u65e5\u672c \u0416" },
    };
    for (auto & row : rows)
        EXPECT_EQ (SanitizedName (std::wstring (row.fSource), row.fMax), row.fName) << row.fMax;
    EXPECT_EQ (SanitizedName (std::wstring (L"a\0b", 3), 9), L"a_b");
    EXPECT_EQ (SanitizedName (L"  ab", 1, 9), L"");    // a length shorter than the leading blanks
    EXPECT_EQ (SanitizedName (nullptr, 0, 10), L"");
    EXPECT_EQ (Failure ([] { SanitizedName (L"", 5, 10); }), "assertion failed: source && *source | Skerry::File::SanitizedName::Construct | File");
}

// Every volume is asked, the last listed first: one not ready is passed over, and the answer is
// what the platform tells of the file's own drive. Under Wine, C: is listed first and Z: last.
TEST_F (FileTest, VolumeOfAFile)
{
    Stream file = Open (Make (L"volume"));
    wchar_t label [MAX_PATH + 1], system [MAX_PATH + 1];
    DWORD serial, longest, flags;
    ASSERT_TRUE (::GetVolumeInformationW (fDirectory.root_path ().c_str (), label, MAX_PATH + 1, &serial, &longest, &flags, system, MAX_PATH + 1));
    // Wine gives files on Z:, where this program lies, the serial number 0: no volume has it.
    EXPECT_EQ (Failure ([] { Stream (SkerryTest::ProgramDirectory () + L"FileTests.exe", GENERIC_READ, FILE_SHARE_READ,
        OPEN_EXISTING, 0, true).GetVolumeInfo (); }), "Win32 1173 | GetVolumeForSerialNumber | File");
    Volumes all;
    std::vector<std::wstring> asked, notReady { all [all.size () - 1] };
    SKERRY_INTERPOSE (ask, "KERNEL32.dll", GetVolumeInformationW);
    ask.Replace ([&] (const wchar_t * name, auto... rest) {
        asked.push_back (name);
        ::SetLastError (ERROR_NOT_READY);
        return std::count (notReady.begin (), notReady.end (), name) == 0 && ask.Original (name, rest...);
    });
    Stream::VolumeInfo info = file.GetVolumeInfo ();
    EXPECT_TRUE (info.fVolumeName == label && info.fSerialNumber == serial && info.fMaximumComponentLength == longest
        && info.fFileSystemFlags == flags && info.fFileSystemName == system);
    EXPECT_EQ (asked [0], notReady [0]);
    ask.Fail (FALSE, ERROR_ACCESS_DENIED, 1, unsigned (asked.size ()) - 1);    // the last call, for the facts
    EXPECT_EQ (Failure ([&] { file.GetVolumeInfo (); }), "Win32 5 | Skerry::File::Stream::VolumeInfo::VolumeInfo | File");
    ask.Fail (FALSE, ERROR_ACCESS_DENIED);
    EXPECT_EQ (Failure ([&] { file.GetVolumeInfo (); }), "Win32 5 | GetVolumeForSerialNumber | File");
    // One volume, not ready: no volume has the number.
    SKERRY_INTERPOSE (next, "KERNEL32.dll", FindNextVolumeW);
    next.Fail (FALSE, ERROR_NO_MORE_FILES, 2);
    Volumes one;
    ASSERT_EQ (one.size (), 1u);
    notReady = { one [0] };
    EXPECT_EQ (Failure ([&] { file.GetVolumeInfo (); }), "Win32 1173 | GetVolumeForSerialNumber | File");
    for (unsigned index : { 1u, 0x80000000u })
        EXPECT_EQ (Failure ([&] { (void) one [index]; }), "assertion failed: index < fStrings.size () | Skerry::File::HiddenVectorOfStrings::operator [] | File");
}

// Each listing call failing; the find handle closed once whatever fails, and a failed close raised
// in place of the failure before it. A drive that appears between the calls is asked for again.
TEST_F (FileTest, ListingVolumesAndDrives)
{
    const std::string volumes = " | Skerry::File::Volumes::Volumes | File", drives = " | Skerry::File::LogicalDrives::LogicalDrives | File";
    SKERRY_INTERPOSE (close, "KERNEL32.dll", FindVolumeClose);
    EXPECT_EQ (Failure (SKERRY_FAILING ("KERNEL32.dll", FindFirstVolumeW, (INVALID_HANDLE_VALUE, 5), Volumes ())), "Win32 5" + volumes);
    EXPECT_EQ (Failure (SKERRY_FAILING ("KERNEL32.dll", FindNextVolumeW, (FALSE, 21), Volumes ())), "Win32 21" + volumes);
    close.Fail (FALSE, 6, 2);
    EXPECT_EQ (Failure ([] { Volumes (); }), "Win32 6" + volumes);
    EXPECT_EQ (Failure (SKERRY_FAILING ("KERNEL32.dll", FindNextVolumeW, (FALSE, 21), Volumes ())), "Win32 6" + volumes);
    ASSERT_EQ (close.Calls (), 3u);
    for (unsigned i = 1; i < 3; ++i)
        EXPECT_TRUE (close.Original (std::get<0> (close.CallArguments () [i])));
    SKERRY_INTERPOSE (list, "KERNEL32.dll", GetLogicalDriveStringsW);
    for (unsigned skip : { 0u, 1u }) {
        list.Fail (0, 5, 1, skip);
        EXPECT_EQ (Failure ([] { LogicalDrives (); }), "Win32 5" + drives);
    }
    unsigned call = 0;
    list.Replace ([&] (DWORD room, wchar_t * buffer) {
        std::wstring given (L"C:\\\0Q:\\\0", ++call < 2 ? 4 : 8);    // Q: appears after the first call
        return room <= given.size () ? DWORD (given.size () + 1) : DWORD (given.copy (buffer, room));
    });
    LogicalDrives grown;
    EXPECT_EQ (call, 3u);
    ASSERT_EQ (grown.size (), 2u);
    EXPECT_EQ (grown [1], L"Q:\\");
}
