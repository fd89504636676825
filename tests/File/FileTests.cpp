// File handles, streams, mappings, attributes, safe names and object identifiers, on real files in
// a scratch directory of the temporary directory, removed after each test; every test that opens
// files ends with the handles it found open. Platform failures come through the interposer.
#include <LibSkerry/File>

#include "Expect.h"
#include "Handles.h"
#include "Interposer.h"

#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>

using namespace Skerry::File;
using SkerryTest::Failure;

namespace {

const __int64 k4GiB = 0x100000000LL;
const std::string kConstruct = " | Skerry::File::MappingBase::Construct | File";
const std::string kUnmap = "Win32 487 | Skerry::File::MappingBase::~MappingBase | File";

// The view of a mapping, which the library leaves to derived classes.
struct Mapping : MappingBase {
    using MappingBase::MappingBase;
    explicit Mapping (const std::wstring & path, unsigned long access = FILE_READ_DATA, bool executable = false)
        : MappingBase (path, access, OPEN_EXISTING, 0, executable, true) {}
    char * View () const { return static_cast<char *> (fView); }
};

// A scratch directory around each test; with HandleLeakTest as base, the test also ends with the
// handles it found open. Files are made past the library, so that no interposer sees them.
template <typename Base>
class Scratch : public Base {
protected:
    void SetUp () override
    {
        std::filesystem::create_directory (fDirectory);
        Base::SetUp ();
    }

    void TearDown () override
    {
        EXPECT_GT (std::filesystem::remove_all (fDirectory), 0u);
        Base::TearDown ();
    }

    std::wstring Path (const std::wstring & name) const { return (fDirectory / name).wstring (); }

    std::wstring Make (const wchar_t * name, const std::string & bytes)
    {
        std::ofstream (fDirectory / name, std::ios::binary) << bytes;
        return Path (name);
    }

    Stream Open (const std::wstring & path) { return Stream (path, GENERIC_READ, FILE_SHARE_READ, OPEN_EXISTING, 0, true); }

    std::filesystem::path fDirectory = std::filesystem::temp_directory_path () /
        (L"SkerryFileTests-" + std::to_wstring (::GetCurrentProcessId ()));
};

using FileTest = Scratch<SkerryTest::HandleLeakTest>;
using ScratchTest = Scratch<::testing::Test>;

std::string Bytes (const Skerry::PlinthData & data)
{
    return std::string (static_cast<const char *> (data.GetBytes ()), size_t (data.GetLength ()));
}

}

TEST_F (FileTest, StreamsAndClosing)
{
    std::wstring path = Make (L"hundred", std::string (100, 'x'));
    EXPECT_EQ (Failure ([&] { Open (Path (L"missing")); }), "Win32 2 | Skerry::File::Handle::Handle | File");
    SKERRY_INTERPOSE (close, "KERNEL32.dll", CloseHandle);
    {
        Stream failed (Path (L"missing").c_str (), GENERIC_READ, 0, OPEN_EXISTING, 0, false), copy (failed);
        EXPECT_FALSE (copy);
        EXPECT_EQ (copy.GetCreateError (), 2ul);
        Stream stream (path, GENERIC_READ | GENERIC_WRITE, 0, OPEN_EXISTING, 0, true);
        EXPECT_EQ (stream.GetPointer (), 0);
        EXPECT_EQ (stream.Write ("head", 4), 4ul);
        EXPECT_EQ (stream.SetPointer (10, FILE_BEGIN), 10);
        Stream shared (stream);    // the same file pointer
        EXPECT_EQ (Bytes (shared.Read ()), std::string (90, 'x'));
        char buffer [6];
        EXPECT_EQ (stream.Read (buffer, 6), 0ul);
        EXPECT_EQ (stream.SetPointer (-100, FILE_END), 0);
        EXPECT_EQ (stream.Read (buffer, 6), 6ul);
        EXPECT_EQ (std::string (buffer, 6), "headxx");
            shared.Close ();
        stream.Close ();
        EXPECT_EQ (close.Calls (), 2u);
    }
    EXPECT_EQ (close.Calls (), 2u);    // none for the failed open, none after Close

    // A failed close raises from the destructor and from Close, and is not tried again.
    void * raw [2];
    close.Fail (FALSE, 6, 2);
    EXPECT_EQ (Failure ([&] { raw [0] = Open (path); }), "Win32 6 | Skerry::Handle::~Handle | Utilities");
    Stream stream = Open (path);
    raw [1] = stream;
    EXPECT_EQ (Failure ([&] { stream.Close (); }), "Win32 6 | Skerry::Handle::~Handle | Utilities");
    EXPECT_EQ (close.Calls (), 4u);
    for (void * handle : raw)
        ::CloseHandle (handle);
}

TEST_F (FileTest, StreamPlatformFailuresAndObjectIdentifiers)
{
    Stream stream = Open (Make (L"ten", "0123456789"));
    // Wine's file system keeps no object identifiers: its answer is raised as it is.
    EXPECT_EQ (Failure ([&] { stream.CreateOrGetObjectID (); }), "Win32 50 | Skerry::File::CreateOrGetObjectID | File");
    SKERRY_INTERPOSE (read, "KERNEL32.dll", ReadFile);
    SKERRY_INTERPOSE (write, "KERNEL32.dll", WriteFile);
    SKERRY_INTERPOSE (seek, "KERNEL32.dll", SetFilePointerEx);
    SKERRY_INTERPOSE (size, "KERNEL32.dll", GetFileSizeEx);
    read.Fail (FALSE, 5, 2);
    write.Fail (FALSE, 112);
    seek.Fail (FALSE, 6, 2);
    size.Fail (FALSE, 1, 2);
    char buffer [10];
    EXPECT_EQ (Failure ([&] { stream.Read (buffer, 10); }), "Win32 5 | Skerry::File::Stream::Read | File");
    EXPECT_EQ (Failure ([&] { stream.Write (buffer, 10); }), "Win32 112 | Skerry::File::Stream::Write | File");
    EXPECT_EQ (Failure ([&] { stream.SetPointer (1, FILE_BEGIN); }), "Win32 6 | Skerry::File::Stream::SetPointer | File");
    EXPECT_EQ (Failure ([&] { stream.GetPointer (); }), "Win32 6 | Skerry::File::Stream::SetPointer | File");
    EXPECT_EQ (Failure ([&] { stream.GetSize (); }), "Win32 1 | Skerry::File::Stream::GetSize | File");
    EXPECT_EQ (Failure ([&] { stream.Read (); }), "Win32 1 | Skerry::File::Stream::GetSize | File");
    EXPECT_EQ (Failure ([&] { stream.Read (); }), "Win32 5 | Skerry::File::Stream::Read | File");

    // A short read is returned as it is, and the whole-file read keeps what its one read gave.
    read.Replace ([&] (HANDLE file, void * to, DWORD count, DWORD * done, OVERLAPPED *) {
        return read.Original (file, to, count > 4 ? 4 : count, done, NULL);
    });
    EXPECT_EQ (stream.Read (buffer, 10), 4ul);
    EXPECT_EQ (Bytes (stream.Read ()), "4567");
    // Sizes that don't fit a signed 32-bit number are refused before anything is allocated or read.
    for (__int64 tooLarge : { 0x80000000LL, k4GiB + 1 }) {
        size.Replace ([tooLarge] (HANDLE, LARGE_INTEGER * to) { to->QuadPart = tooLarge; return TRUE; });
        EXPECT_EQ (Failure ([&] { stream.Read (); }), "Skerry 9 | Skerry::File::Stream::Read | File");
    }
    EXPECT_EQ (read.Calls (), 4u);

    // Windows' answer, and one of the wrong size.
    SKERRY_INTERPOSE (control, "KERNEL32.dll", DeviceIoControl);
    DWORD answered = 64;
    control.Replace ([&] (HANDLE, DWORD code, void *, DWORD, void * out, DWORD outSize, DWORD * returned, OVERLAPPED *) {
        EXPECT_EQ (code, 0x900C0ul);
        for (DWORD i = 0; i < outSize; ++i)
            static_cast<unsigned char *> (out) [i] = (unsigned char) (i + 1);
        *returned = answered;
        return TRUE;
    });
    GUID id = stream.CreateOrGetObjectID ();
    EXPECT_EQ (id.Data1, 0x04030201ul);
    EXPECT_EQ (id.Data4 [7], 16);
    answered = 48;
    EXPECT_EQ (Failure ([&] { CreateOrGetObjectID (stream); }), "unexpected buffer size | Skerry::File::CreateOrGetObjectID | File");
}

TEST_F (FileTest, WholeFilesAndLargeFiles)
{
    std::string large (5 << 20, '\0');
    for (size_t i = 0; i < large.size (); ++i)
        large [i] = char (i * 7919 >> 3);
    for (const std::string & bytes : { std::string (), std::string ("\x00", 1), large })
        EXPECT_TRUE (Bytes (Open (Make (L"whole", bytes)).Read ()) == bytes);

    // A sparse file past 4 GiB: positions and sizes are 64-bit all the way.
    Stream big (Path (L"big"), GENERIC_READ | GENERIC_WRITE, 0, CREATE_ALWAYS, 0, true);
    EXPECT_EQ (big.SetPointer (k4GiB + 10, FILE_BEGIN), k4GiB + 10);
    EXPECT_EQ (big.Write ("xyz", 3), 3ul);
    EXPECT_EQ (big.GetSize (), k4GiB + 13);
    FILE_STANDARD_INFO disk;    // sparse: the 4 GiB before the bytes take no room
    ASSERT_TRUE (::GetFileInformationByHandleEx (big, FileStandardInfo, &disk, sizeof disk));
    EXPECT_LT (disk.AllocationSize.QuadPart, 1 << 20);
    EXPECT_EQ (big.SetPointer (-3, FILE_END), k4GiB + 10);
    char buffer [3];
    EXPECT_EQ (big.Read (buffer, 3), 3ul);
    EXPECT_EQ (std::string (buffer, 3), "xyz");
    EXPECT_EQ (big.SetPointer (k4GiB + 1, FILE_BEGIN), k4GiB + 1);
    EXPECT_EQ (Failure ([&] { big.Read (); }), "Skerry 9 | Skerry::File::Stream::Read | File");
    EXPECT_EQ (big.GetPointer (), k4GiB + 1);
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
    {
        Mapping writable (path.c_str (), FILE_READ_DATA | FILE_WRITE_DATA, OPEN_EXISTING, 0, false, false), copy (writable);
        EXPECT_EQ (Failure ([&] { Open (path); }), "Win32 32 | Skerry::File::Handle::Handle | File");
        std::memcpy (writable.View (), "MAPPED", 6);
        EXPECT_NE (copy.View (), writable.View ());    // a view of its own over the same bytes
        EXPECT_EQ (std::string (copy.View (), 12), "MAPPED bytes");
        copy = Mapping (Make (L"other", "other"));
        EXPECT_EQ (std::string (copy.View (), 5), "other");
    }
    EXPECT_EQ (Bytes (Open (path).Read ()), "MAPPED bytes");
    EXPECT_EQ (unmap.Calls (), 8u);    // one for each view, the replaced one and the temporary's included

    auto map = [&] (const std::wstring & p, unsigned long access, bool throwOnFailure) {
        return Failure ([&] { MappingBase (p, access, OPEN_EXISTING, 0, false, throwOnFailure); });
    };
    EXPECT_EQ (map (path, FILE_WRITE_DATA, true), "assertion failed: FILE_READ_DATA & fileAccess | GetProtection | File");
    EXPECT_EQ (map (Make (L"empty", ""), FILE_READ_DATA, true), "Win32 1006" + kConstruct);
    EXPECT_EQ (map (Path (L"missing"), FILE_READ_DATA, true), "Win32 2 | Skerry::File::Handle::Handle | File");
    EXPECT_EQ (map (Path (L"missing"), FILE_READ_DATA, false), "Win32 87" + kConstruct);
    // Each failure closes what was opened by then: the mapping first, then the file.
    unsigned closed = close.Calls ();
    create.Fail (NULL, 8);
    EXPECT_EQ (map (path, FILE_READ_DATA, true), "Win32 8" + kConstruct);
    size.Fail (FALSE, 1);
    EXPECT_EQ (map (path, FILE_READ_DATA, true), "Win32 1" + kConstruct);
    view.Fail (NULL, 8);
    EXPECT_EQ (map (path, FILE_READ_DATA, true), "Win32 8" + kConstruct);
    EXPECT_EQ (close.Calls (), closed + 5);

    // A failed unmap, in the destructor and in Close, still closes both handles; the views it
    // left are unmapped here, past the library.
    void * leftOver = NULL;
    unmap.Fail (FALSE, 487, 2);
    EXPECT_EQ (Failure ([&] { leftOver = Mapping (path).View (); }), kUnmap);
    EXPECT_TRUE (::UnmapViewOfFile (leftOver));
    {
        Mapping mapping (path);
        leftOver = mapping.View ();
        EXPECT_EQ (Failure ([&] { mapping.Close (); }), kUnmap);
        EXPECT_EQ (close.Calls (), closed + 9);
    }
    EXPECT_TRUE (::UnmapViewOfFile (leftOver));
    // Close, then destruction: one unmap, one close of each handle, and nothing after.
    {
        Mapping mapping (path);
        mapping.Close ();
    }
    EXPECT_EQ (unmap.Calls (), 11u);
    EXPECT_EQ (close.Calls (), closed + 11);
}

TEST_F (ScratchTest, AttributesChangeOnlyWhenNeeded)
{
    std::wstring path = Make (L"attributes", "");
    EXPECT_EQ (Failure ([&] { Attributes (Path (L"missing")); }), "Win32 2 | Skerry::File::Attributes::Attributes | File");
    SKERRY_INTERPOSE (set, "KERNEL32.dll", SetFileAttributesW);
    Attributes attributes (path);
    EXPECT_FALSE (attributes.EnsureFlagsAreSet (FILE_ATTRIBUTE_ARCHIVE));
    EXPECT_FALSE (attributes.EnsureFlagsAreClear (0));
    EXPECT_EQ (set.Calls (), 0u);
    set.Fail (FALSE, 5);
    EXPECT_EQ (Failure ([&] { attributes.EnsureFlagsAreSet (FILE_ATTRIBUTE_HIDDEN); }),
        "Win32 5 | Skerry::File::Attributes::EnsureFlagsAreSet | File");
    EXPECT_EQ (attributes.GetAttributes (), DWORD (FILE_ATTRIBUTE_ARCHIVE));
    EXPECT_TRUE (attributes.EnsureFlagsAreSet (FILE_ATTRIBUTE_READONLY | FILE_ATTRIBUTE_HIDDEN));
    EXPECT_FALSE (attributes.EnsureFlagsAreSet (FILE_ATTRIBUTE_READONLY));
    EXPECT_EQ (Attributes (path.c_str ()).GetAttributes (), DWORD (0x23));
    EXPECT_TRUE (attributes.EnsureFlagsAreClear (FILE_ATTRIBUTE_READONLY));
    EXPECT_EQ (std::get<1> (set.CallArguments ().back ()), DWORD (0x22));    // the whole value
    set.Fail (FALSE, 2);
    EXPECT_EQ (Failure ([&] { attributes.EnsureFlagsAreClear (FILE_ATTRIBUTE_HIDDEN); }),
        "Win32 2 | Skerry::File::Attributes::EnsureFlagsAreClear | File");
}

TEST (SanitizedName, HostileText)
{
    struct { const wchar_t * fSource; unsigned fMax; const wchar_t * fName; } rows [] = {
        { L"report.txt", 20, L"report.txt" }, { L"  report", 20, L"report" }, { L"report  ", 20, L"report" },
        { L"report.", 20, L"report\u2026" }, { L"report. . ", 20, L"report\u2026" }, { L"...", 20, L"\u2026" },
        { L".", 20, L"\u2026" }, { L"   ", 20, L"" }, { L"a/b:c?d", 20, L"a_b_c_d" }, { L"abcdefghij", 5, L"abcd\u2026" },
        { L"abc  defgh", 5, L"abc\u2026" }, { L"abc..defgh", 5, L"abc\u2026" }, { L"abcd", 4, L"abcd" },
        { L"abcd.", 4, L"abc\u2026" }, { L"abcde", 1, L"\u2026" }, { L"abcde", 0, L"" },
        { L"\t\r\n a<b>c\"d\\e|f*g", 20, L"a_b_c_d_e_f_g" }, { L"<>:\"/\\|?*", 20, L"_________" },
        { L"x\x01\x1f\x7fy", 20, L"x__\x7fy" }, { L"CON", 20, L"CON" }, { L" .. a.b  c .", 20, L".. a.b  c\u2026" },
        { L"Gr\u00f6\u00dfe \u65e5\u672c \u0416", 20, L"Gr\u00f6\u00dfe \u65e5\u672c \u0416" },
    };
    for (auto & row : rows)
        EXPECT_EQ (SanitizedName (std::wstring (row.fSource), row.fMax), row.fName) << row.fMax;
    EXPECT_EQ (SanitizedName (std::wstring (L"a\0b", 3), 9), L"a_b");
    EXPECT_EQ (SanitizedName (L"  ab", 1, 9), L"");    // a length shorter than the leading blanks
    EXPECT_EQ (SanitizedName (nullptr, 0, 10), L"");
    EXPECT_EQ (Failure ([] { SanitizedName (L"", 5, 10); }),
        "assertion failed: source && *source | Skerry::File::SanitizedName::Construct | File");
}
