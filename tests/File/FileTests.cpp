// File handles, streams, mappings, attributes, safe names and object identifiers, on real files in
// a scratch directory of the temporary directory, removed after each test; every test that opens
// files ends with the handles it found open. Platform failures come through the interposer.
#include <LibSkerry/File>

#include "Expect.h"
#include "Handles.h"
#include "Interposer.h"

#include <gtest/gtest.h>

#include <cstring>
#include <new>
#include <string>

using namespace Skerry::File;
using SkerryTest::Failure;

namespace {

const __int64 k4GiB = 0x100000000LL;

// The view of a mapping, which the library leaves to derived classes.
struct Mapping : MappingBase {
    using MappingBase::MappingBase;
    char * View () const { return static_cast<char *> (fView); }
};

// A scratch directory around each test; with HandleLeakTest as base, the test also ends with the
// handles it found open.
template <typename Base>
class Scratch : public Base {
protected:
    void SetUp () override
    {
        ::CreateDirectoryW (fDirectory.c_str (), NULL);
        Base::SetUp ();
    }

    void TearDown () override
    {
        WIN32_FIND_DATAW found;
        HANDLE find = ::FindFirstFileW ((fDirectory + L"*").c_str (), &found);
        for (BOOL more = find != INVALID_HANDLE_VALUE; more; more = ::FindNextFileW (find, &found)) {
            ::SetFileAttributesW (Path (found.cFileName).c_str (), FILE_ATTRIBUTE_NORMAL);
            ::DeleteFileW (Path (found.cFileName).c_str ());
        }
        ::FindClose (find);
        EXPECT_TRUE (::RemoveDirectoryW (fDirectory.c_str ()));
        Base::TearDown ();
    }

    std::wstring Path (const std::wstring & name) const { return fDirectory + name; }

    // A file of `bytes`, written past the library.
    std::wstring Make (const wchar_t * name, const std::string & bytes)
    {
        HANDLE file = ::CreateFileW (Path (name).c_str (), GENERIC_WRITE, 0, NULL, CREATE_ALWAYS, 0, NULL);
        DWORD written = 0;
        EXPECT_TRUE (::WriteFile (file, bytes.data (), DWORD (bytes.size ()), &written, NULL));
        ::CloseHandle (file);
        return Path (name);
    }

    Stream Open (const std::wstring & path, unsigned long access = GENERIC_READ)
    {
        return Stream (path, access, FILE_SHARE_READ | FILE_SHARE_WRITE, OPEN_EXISTING, 0, true);
    }

    static std::wstring Temp ()
    {
        wchar_t path [MAX_PATH];
        ::GetTempPathW (MAX_PATH, path);
        return path;
    }

    std::wstring fDirectory = Temp () + L"SkerryFileTests-" + std::to_wstring (::GetCurrentProcessId ()) + L"\\";
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
    {
        std::wstring path = Make (L"hundred", std::string (100, 'x'));
        EXPECT_EQ (Failure ([&] { Open (Path (L"missing")); }), "Win32 2 | Skerry::File::Handle::Handle | File");
        SKERRY_INTERPOSE (close, "KERNEL32.dll", CloseHandle);
        {
            Handle failed (Path (L"missing").c_str (), GENERIC_READ, 0, OPEN_EXISTING, 0, false);
            EXPECT_FALSE (failed);
            EXPECT_EQ (failed.GetCreateError (), 2ul);
            Handle copy (failed);
            EXPECT_EQ (copy.GetCreateError (), 2ul);
        }
        EXPECT_EQ (close.Calls (), 0u);

        {
            Stream stream (path, GENERIC_READ | GENERIC_WRITE, 0, OPEN_EXISTING, 0, true);
            EXPECT_EQ (stream.GetPointer (), 0);
            EXPECT_EQ (stream.GetSize (), 100);
            EXPECT_EQ (stream.Write ("head", 4), 4ul);
            EXPECT_EQ (stream.SetPointer (10, FILE_BEGIN), 10);
            Stream copy (stream);    // the same file pointer
            EXPECT_EQ (Bytes (copy.Read ()), std::string (90, 'x'));
            EXPECT_EQ (stream.GetPointer (), 100);
            char buffer [100];
            EXPECT_EQ (stream.Read (buffer, 100), 0ul);
            EXPECT_EQ (stream.SetPointer (-100, FILE_END), 0);
            EXPECT_EQ (stream.Read (buffer, 6), 6ul);
            EXPECT_EQ (std::string (buffer, 6), "headxx");
            EXPECT_EQ (Failure ([&] { stream.SetPointer (-5, FILE_BEGIN); }), "Win32 131 | Skerry::File::Stream::SetPointer | File");

            // Close, then destruction: one close for each handle, and none after.
            copy.Close ();
            stream.Close ();
            EXPECT_FALSE (stream);
            EXPECT_EQ (close.Calls (), 2u);
        }
        EXPECT_EQ (close.Calls (), 2u);
    }
    {
        std::wstring path = Make (L"f", "");
        SKERRY_INTERPOSE (close, "KERNEL32.dll", CloseHandle);
        close.Fail (FALSE, 6, 2);
        void * raw [2];
        EXPECT_EQ (Failure ([&] {
            Stream stream = Open (path);
            raw [0] = stream;
        }), "Win32 6 | Skerry::Handle::~Handle | Utilities");
        Stream stream = Open (path);
        raw [1] = stream;
        EXPECT_EQ (Failure ([&] { stream.Close (); }), "Win32 6 | Skerry::Handle::~Handle | Utilities");
        EXPECT_EQ (close.Calls (), 2u);
        for (void * handle : raw)
            ::CloseHandle (handle);
    }
}

TEST_F (FileTest, StreamPlatformFailuresAndObjectIdentifiers)
{
    {
        Stream stream = Open (Make (L"ten", "0123456789"));
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

        // A short read is returned as it is, and the whole-file read keeps what the one read gave.
        read.Replace ([&] (HANDLE file, void * to, DWORD count, DWORD * done, OVERLAPPED *) {
            return read.Original (file, to, count > 4 ? 4 : count, done, NULL);
        });
        EXPECT_EQ (stream.Read (buffer, 10), 4ul);
        EXPECT_EQ (Bytes (stream.Read ()), "4567");
        EXPECT_EQ (read.Calls (), 4u);

        // Sizes that don't fit a signed 32-bit number are refused before anything is allocated or read.
        __int64 reported = 0;
        size.Replace ([&] (HANDLE, LARGE_INTEGER * to) { to->QuadPart = reported; return TRUE; });
        for (__int64 tooLarge : { 0x80000000LL, k4GiB + 1 }) {
            reported = tooLarge;
            EXPECT_EQ (Failure ([&] { stream.Read (); }), "Skerry 9 | Skerry::File::Stream::Read | File");
        }
        EXPECT_EQ (read.Calls (), 4u);
        reported = 0x7FFFFFFF;    // accepted: then the allocation or the read decides
        try {
            EXPECT_EQ (Failure ([&] { stream.Read (); }), "nothing thrown");
        }
        catch (const std::bad_alloc &) {
        }
    }
    {
        Stream stream = Open (Make (L"id", "x"));
        // Wine's file system keeps no object identifiers: its answer is raised as it is.
        EXPECT_EQ (Failure ([&] { stream.CreateOrGetObjectID (); }), "Win32 50 | Skerry::File::CreateOrGetObjectID | File");
        SKERRY_INTERPOSE (control, "KERNEL32.dll", DeviceIoControl);
        DWORD answered = 64;
        control.Replace ([&] (HANDLE, DWORD code, void *, DWORD, void * out, DWORD outSize, DWORD * returned, OVERLAPPED *) {
            EXPECT_EQ (code, 0x900C0ul);
            EXPECT_EQ (outSize, 64ul);
            for (DWORD i = 0; i < outSize; ++i)
                static_cast<unsigned char *> (out) [i] = (unsigned char) (i + 1);
            *returned = answered;
            return TRUE;
        });
        GUID id = stream.CreateOrGetObjectID ();
        EXPECT_EQ (id.Data1, 0x04030201ul);
        EXPECT_EQ (id.Data4 [7], 16);
        answered = 48;
        EXPECT_EQ (Failure ([&] { CreateOrGetObjectID (stream); }),
            "unexpected buffer size | Skerry::File::CreateOrGetObjectID | File");
    }
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
    EXPECT_EQ (big.GetPointer (), k4GiB + 13);
    EXPECT_EQ (big.SetPointer (k4GiB + 1, FILE_BEGIN), k4GiB + 1);
    EXPECT_EQ (Failure ([&] { big.Read (); }), "Skerry 9 | Skerry::File::Stream::Read | File");
    EXPECT_EQ (big.GetPointer (), k4GiB + 1);
}

TEST_F (FileTest, Mappings)
{
    {
        std::wstring path = Make (L"map", "mapped bytes");
        SKERRY_INTERPOSE (create, "KERNEL32.dll", CreateFileMappingW);
        SKERRY_INTERPOSE (view, "KERNEL32.dll", MapViewOfFile);
        struct { unsigned long fAccess; bool fExecutable; DWORD fProtection, fView; } rows [] = {
            { FILE_READ_DATA, false, PAGE_READONLY, FILE_MAP_READ },
            { FILE_READ_DATA | FILE_WRITE_DATA, false, PAGE_READWRITE, FILE_MAP_WRITE },
            // Wine maps FILE_MAP_EXECUTE alone without access: these views are not read here.
            { FILE_READ_DATA, true, PAGE_EXECUTE_READ, FILE_MAP_EXECUTE },
            { FILE_READ_DATA | FILE_WRITE_DATA | FILE_EXECUTE, true, PAGE_EXECUTE_READWRITE, FILE_MAP_EXECUTE },
        };
        for (auto & row : rows) {
            Mapping mapping (path, row.fAccess, OPEN_EXISTING, 0, row.fExecutable, true);
            EXPECT_EQ (std::get<2> (create.CallArguments ().back ()), row.fProtection);
            EXPECT_EQ (std::get<1> (view.CallArguments ().back ()), row.fView);
            EXPECT_EQ (mapping.GetSize (), 12);
        }
        {
            Mapping writable (path.c_str (), FILE_READ_DATA | FILE_WRITE_DATA, OPEN_EXISTING, 0, false, false);
            EXPECT_EQ (Failure ([&] { Open (path); }), "Win32 32 | Skerry::File::Handle::Handle | File");
            std::memcpy (writable.View (), "MAPPED", 6);
            Mapping copy (writable);    // a view of its own over the same bytes
            EXPECT_NE (copy.View (), writable.View ());
            EXPECT_EQ (std::string (copy.View (), 12), "MAPPED bytes");
            Mapping other (Make (L"other", "other"), FILE_READ_DATA, OPEN_EXISTING, 0, false, true);
            copy = other;
            EXPECT_EQ (std::string (copy.View (), 5), "other");
            EXPECT_EQ (copy.GetSize (), 5);
        }
        EXPECT_EQ (Bytes (Open (path).Read ()), "MAPPED bytes");

        const char * construct = "Skerry::File::MappingBase::Construct | File";
        auto map = [&] (const std::wstring & p, unsigned long access, bool throwOnFailure) {
            return Failure ([&] { Mapping (p, access, OPEN_EXISTING, 0, false, throwOnFailure); });
        };
        EXPECT_EQ (map (path, FILE_WRITE_DATA, true), "assertion failed: FILE_READ_DATA & fileAccess | GetProtection | File");
        EXPECT_EQ (map (path, GENERIC_READ, true), "assertion failed: FILE_READ_DATA & fileAccess | GetProtection | File");
        EXPECT_EQ (map (Make (L"empty", ""), FILE_READ_DATA, true), "Win32 1006 | " + std::string (construct));
        EXPECT_EQ (map (Path (L"missing"), FILE_READ_DATA, true), "Win32 2 | Skerry::File::Handle::Handle | File");
        EXPECT_EQ (map (Path (L"missing"), FILE_READ_DATA, false), "Win32 87 | " + std::string (construct));
    }
    {
        std::wstring path = Make (L"map", "mapped bytes");
        SKERRY_INTERPOSE (close, "KERNEL32.dll", CloseHandle);
        SKERRY_INTERPOSE (create, "KERNEL32.dll", CreateFileMappingW);
        SKERRY_INTERPOSE (size, "KERNEL32.dll", GetFileSizeEx);
        SKERRY_INTERPOSE (view, "KERNEL32.dll", MapViewOfFile);
        SKERRY_INTERPOSE (unmap, "KERNEL32.dll", UnmapViewOfFile);
        auto map = [&] { return Failure ([&] { Mapping (path, FILE_READ_DATA, OPEN_EXISTING, 0, false, true); }); };
        // Each failure closes what was opened by then: the mapping first, then the file.
        create.Fail (NULL, 8);
        EXPECT_EQ (map (), "Win32 8 | Skerry::File::MappingBase::Construct | File");
        EXPECT_EQ (close.Calls (), 1u);
        size.Fail (FALSE, 1);
        EXPECT_EQ (map (), "Win32 1 | Skerry::File::MappingBase::Construct | File");
        view.Fail (NULL, 8);
        EXPECT_EQ (map (), "Win32 8 | Skerry::File::MappingBase::Construct | File");
        EXPECT_EQ (close.Calls (), 5u);
        EXPECT_EQ (unmap.Calls (), 0u);

        // A failed unmap, in the destructor and in Close, still closes both handles.
        // The views that the failed unmaps left are unmapped here, past the library.
        void * leftOver = NULL;
        unmap.Fail (FALSE, 487, 2);
        EXPECT_EQ (Failure ([&] { leftOver = Mapping (path, FILE_READ_DATA, OPEN_EXISTING, 0, false, true).View (); }),
            "Win32 487 | Skerry::File::MappingBase::~MappingBase | File");
        EXPECT_EQ (close.Calls (), 7u);
        EXPECT_TRUE (::UnmapViewOfFile (leftOver));
        {
            Mapping mapping (path, FILE_READ_DATA, OPEN_EXISTING, 0, false, true);
            leftOver = mapping.View ();
            EXPECT_EQ (Failure ([&] { mapping.Close (); }), "Win32 487 | Skerry::File::MappingBase::~MappingBase | File");
            EXPECT_EQ (close.Calls (), 9u);
        }
        EXPECT_TRUE (::UnmapViewOfFile (leftOver));

        // Close, then destruction: one unmap, one close of each handle, and nothing after.
        {
            Mapping mapping (path, FILE_READ_DATA, OPEN_EXISTING, 0, false, true);
            mapping.Close ();
            EXPECT_EQ (unmap.Calls (), 3u);
            EXPECT_EQ (close.Calls (), 11u);
        }
        EXPECT_EQ (unmap.Calls (), 3u);
        EXPECT_EQ (close.Calls (), 11u);
    }
}


TEST_F (ScratchTest, AttributesChangeOnlyWhenNeeded)
{
    std::wstring path = Make (L"attributes", "");
    EXPECT_EQ (Failure ([&] { Attributes (Path (L"missing")); }), "Win32 2 | Skerry::File::Attributes::Attributes | File");
    SKERRY_INTERPOSE (set, "KERNEL32.dll", SetFileAttributesW);
    Attributes attributes (path);
    EXPECT_EQ (attributes.GetAttributes (), DWORD (FILE_ATTRIBUTE_ARCHIVE));
    EXPECT_FALSE (attributes.EnsureFlagsAreSet (FILE_ATTRIBUTE_ARCHIVE));
    EXPECT_FALSE (attributes.EnsureFlagsAreClear (0));
    EXPECT_EQ (set.Calls (), 0u);
    set.Fail (FALSE, 5);
    EXPECT_EQ (Failure ([&] { attributes.EnsureFlagsAreSet (FILE_ATTRIBUTE_HIDDEN); }),
        "Win32 5 | Skerry::File::Attributes::EnsureFlagsAreSet | File");
    EXPECT_EQ (attributes.GetAttributes (), DWORD (FILE_ATTRIBUTE_ARCHIVE));
    EXPECT_TRUE (attributes.EnsureFlagsAreSet (FILE_ATTRIBUTE_READONLY | FILE_ATTRIBUTE_HIDDEN));
    EXPECT_FALSE (attributes.EnsureFlagsAreSet (FILE_ATTRIBUTE_READONLY));
    EXPECT_EQ (std::get<1> (set.CallArguments ().back ()), DWORD (0x23));    // the whole value
    EXPECT_EQ (Attributes (path).GetAttributes (), DWORD (0x23));
    EXPECT_TRUE (attributes.EnsureFlagsAreClear (FILE_ATTRIBUTE_READONLY));
    EXPECT_EQ (::GetFileAttributesW (path.c_str ()), DWORD (0x22));
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

