// LoadedLibrary on ResourceLibrary.dll (strings, raw resources and a version by windres), and
// ExecutableImageFile on images written by ImageWriter and laid out by the real loader: each platform
// call failing with its code, function and source; the growth of buffers, counted; references and
// images given back; every finding of a malformed directory with its exact line.
#include <LibSkerry/ExecutableImageFile>
#include <LibSkerry/Utilities>

#include "ChildProcess.h"
#include "Expect.h"
#include "Handles.h"
#include "ImageWriter.h"
#include "Interposer.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <fstream>
#include <functional>
#include <stdexcept>
#include <string>

using Skerry::ExecutableImageFile;
using Skerry::LoadedLibrary;
using SkerryTest::Failure;
using SkerryTest::ImageWriter;

namespace {

class Library : public SkerryTest::HandleLeakTest {};
class ImageFile : public SkerryTest::HandleLeakTest {};

const wchar_t kLibrary [] = L"ResourceLibrary.dll";
constexpr std::uint32_t kPage = ImageWriter::kPage;

// What the C runtime's stderr receives while `run` runs (which raises nothing: failures are caught
// inside), through a file in text mode as a console or pipe is, where wide output is converted.
std::string Stderr (const std::function<void ()> & run)
{
    ::testing::internal::CaptureStderr ();
    run ();
    return ::testing::internal::GetCapturedStderr ();
}

// "gamma.dll alpha.dll*": the names in order, a star for delay-loaded ones.
std::string Listed (const ExecutableImageFile & image)
{
    std::string text;
    for (unsigned int i = 0; i < image.CountImportLibraries (); ++i) {
        const ExecutableImageFile::ImportLibrary & library = image.GetImportLibrary (i);
        text += (i ? " " : "") + library.fName + (library.fDelayLoaded ? "*" : "");
    }
    return text;
}

// Two imports and one delay-loaded library, gamma.dll's name first at the section's start;
// `change` spoils the image before it is written to `name` beside this program.
std::wstring WriteImage (const std::wstring & name, void (* change) (ImageWriter &) = nullptr)
{
    ImageWriter writer;
    std::uint32_t gamma = writer.Name ("gamma.dll"), alpha = writer.Name ("alpha.dll"), beta = writer.Name ("BETA.dll");
    writer.Imports ({ { 0, alpha }, { 0, beta } });
    writer.DelayLoads ({ { 1, gamma } });
    if (change)
        change (writer);
    std::wstring path = SkerryTest::ProgramDirectory () + name;
    std::vector<std::uint8_t> bytes = writer.File ();
    std::ofstream (path.c_str (), std::ios::binary).write (reinterpret_cast<const char *> (bytes.data ()),
        std::streamsize (bytes.size ()));
    return path;
}

}

// A reference taken from an address is given back: once both objects are gone, the library is.
// The constructors and the destructor are inline: their failures come from this program, whose
// own import slots are diverted. The compiler may keep a slot's value for later calls of the same
// function, so nothing here calls the platform after the interposers are gone.
TEST_F (Library, ReferencesAndInlineFailures)
{
    {
        LoadedLibrary library (kLibrary, 0);
        LoadedLibrary found (reinterpret_cast<int (*) ()> (::GetProcAddress (library.fModule, "Marker")));
        EXPECT_EQ (found.fModule, library.fModule);
        EXPECT_EQ (found.GetPath (), SkerryTest::ProgramDirectory () + kLibrary);
    }
    EXPECT_EQ (::GetModuleHandleW (kLibrary), nullptr);
    SKERRY_INTERPOSE_IN (load, L"ImageTests.exe", "KERNEL32.dll", LoadLibraryExW);
    SKERRY_INTERPOSE_IN (find, L"ImageTests.exe", "KERNEL32.dll", GetModuleHandleExW);
    SKERRY_INTERPOSE_IN (release, L"ImageTests.exe", "KERNEL32.dll", FreeLibrary);
    load.Fail (NULL, ERROR_ACCESS_DENIED);
    find.Fail (FALSE, ERROR_NOT_ENOUGH_MEMORY);
    release.Fail (FALSE, ERROR_INVALID_HANDLE);
    EXPECT_EQ (Failure ([] { LoadedLibrary (kLibrary, 0); }),
        "Win32 5 | Skerry::LoadedLibrary::LoadedLibrary | LibSkerry/Utilities");
    EXPECT_EQ (Failure ([] { LoadedLibrary (reinterpret_cast<int (*) ()> (reinterpret_cast<void *> (&::FreeLibrary))); }),
        "Win32 8 | Skerry::LoadedLibrary::LoadedLibrary | LibSkerry/Utilities");
    HMODULE taken = NULL;
    EXPECT_EQ (Failure ([&] { LoadedLibrary again (kLibrary, 0); taken = again.fModule; }),
        "Win32 6 | Skerry::LoadedLibrary::~LoadedLibrary | LibSkerry/Utilities");
    EXPECT_TRUE (::FreeLibrary (taken));
}

// All four forms reach the same bytes, the named one only with type and name in their places;
// missing resources and strings raise the platform's codes, whatever the last error was before.
TEST_F (Library, Resources)
{
    LoadedLibrary library (kLibrary, 0);
    const void * data = library.GetResource (200, 10, 0);
    EXPECT_STREQ (static_cast<const char *> (data), "abc");
    EXPECT_EQ (library.GetResource (MAKEINTRESOURCEW (200), 10, 0), data);
    EXPECT_EQ (library.GetResource (200, MAKEINTRESOURCEW (10), 0), data);
    EXPECT_EQ (library.GetResource (MAKEINTRESOURCEW (200), MAKEINTRESOURCEW (10), 0x409), data);
    EXPECT_EQ (std::memcmp (library.GetResource (L"DATA", L"BLOB", 0), "named", 6), 0);
    EXPECT_EQ (library.GetVersion (), 0x0001000200030004u);
    EXPECT_EQ (Failure ([&] { library.GetResource (201, 10, 0); }), "Win32 1814 | Skerry::LoadedLibrary::GetResource | Utilities");
    EXPECT_EQ (Failure ([&] { library.GetResource (L"DATA", L"NONE", 0); }),
        "Win32 1813 | Skerry::LoadedLibrary::GetResource | Utilities");
    for (unsigned int id : { 4u, 100u }) {
        ::SetLastError (0xDEAD);
        EXPECT_EQ (Failure ([&] { library.GetString (id); }), "Win32 1814 | Skerry::LoadedLibrary::GetString | Utilities") << id;
    }
}

// Strings: 148 characters fit the first buffer of 150, 149 need a second pass at 300. Paths: the
// platform truncates a path of 450 characters to the buffer of 300, then fills one of 600. Then
// each platform call fails.
TEST_F (Library, BuffersGrowAndPlatformFailures)
{
    LoadedLibrary library (kLibrary, 0);
    SKERRY_INTERPOSE (find, "KERNEL32.dll", FindResourceExW);
    SKERRY_INTERPOSE (load, "KERNEL32.dll", LoadResource);
    SKERRY_INTERPOSE (lock, "KERNEL32.dll", LockResource);
    SKERRY_INTERPOSE (loadString, "USER32.dll", LoadStringW);
    SKERRY_INTERPOSE (fileName, "KERNEL32.dll", GetModuleFileNameW);
    fileName.Replace ([] (HMODULE, LPWSTR buffer, DWORD size) {
        std::fill_n (buffer, std::min (size, DWORD (450)), L'p');
        return std::min (size, DWORD (450));
    });
    EXPECT_EQ (library.GetString (1), std::wstring (148, L'a'));
    EXPECT_EQ (library.GetString (2), std::wstring (149, L'b'));
    EXPECT_EQ (library.GetPath (), std::wstring (450, L'p'));
    std::string sizes;
    for (const auto & call : loadString.CallArguments ())
        sizes += std::to_string (std::get<3> (call)) + " ";
    for (const auto & call : fileName.CallArguments ())
        sizes += std::to_string (std::get<2> (call)) + " ";
    EXPECT_EQ (sizes, "150 150 300 300 600 ");

    find.Fail (NULL, ERROR_RESOURCE_LANG_NOT_FOUND);
    load.Fail (NULL, ERROR_NOT_ENOUGH_MEMORY);
    lock.Fail (NULL, 0);
    loadString.Fail (0, ERROR_ACCESS_DENIED);
    fileName.Fail (0, ERROR_INSUFFICIENT_BUFFER);
    for (const char * failure : { "Win32 1815", "Win32 8", "LockResource failed" })
        EXPECT_EQ (Failure ([&] { library.GetResource (200, 10, 0); }),
            failure + std::string (" | Skerry::LoadedLibrary::GetResource | Utilities"));
    EXPECT_EQ (Failure ([&] { library.GetString (3); }), "Win32 5 | Skerry::LoadedLibrary::GetString | Utilities");
    EXPECT_EQ (Failure ([&] { library.GetPath (); }), "Win32 122 | Skerry::LoadedLibrary::GetPath | Utilities");
}

// Each image: the list and the lines printed with verbose, for the strict walk and for the one
// bounded by the image (where its columns are null, as the strict one); without verbose the same
// lists and nothing printed; the image released after. A % stands for the path.
TEST_F (ImageFile, Directories)
{
    const char kAll [] = "alpha.dll BETA.dll gamma.dll*", kImports [] = "alpha.dll BETA.dll";
    const char kTwice [] = "gamma.dll gamma.dll*", kOutside [] = "file contains an import descriptor or library name outside the image: %\n";
    struct Row { const char * name; void (* change) (ImageWriter &);
                 const char * strict, * strictLines, * bounded = nullptr, * boundedLines = nullptr; } const rows [] = {
        { "well formed", nullptr, kAll, "" },
        { "no directories", [] (ImageWriter & w) { w.fRvaAndSizes = 1; }, "",
            "file has no imports: %\nfile has no delayed imports: %\n" },
        { "no delay-load entry", [] (ImageWriter & w) { w.fRvaAndSizes = 13; }, kImports, "file has no delayed imports: %\n" },
        { "null directories", [] (ImageWriter & w) { w.fImport [0] = w.fDelayLoad [0] = 0; }, "",
            "file contains NULL data directory for import descriptors: %\n"
            "file contains NULL data directory for delay-load descriptors: %\n" },
        { "import size 0", [] (ImageWriter & w) { w.fImport [1] = 0; }, "gamma.dll*",
            "file contains data directory too small to contain even a single import descriptor: %\n", kAll, "" },
        { "import size 30", [] (ImageWriter & w) { w.fImport [1] = 30; }, "gamma.dll*",
            "file contains data directory whose size is not an even multiple of the size of an import descriptor: %\n", kAll, "" },
        { "import size past the terminator", [] (ImageWriter & w) { w.fImport [1] = 200; }, kAll, "" },
        { "delay-load size 16", [] (ImageWriter & w) { w.fDelayLoad [1] = 16; }, kImports,
            "file contains data directory too small to contain even a single delay-load descriptor: %\n", kAll, "" },
        { "delay-load size 40", [] (ImageWriter & w) { w.fDelayLoad [1] = 40; }, kImports,
            "file contains data directory whose size is not an even multiple of the size of a delay-load descriptor: %\n", kAll, "" },
        { "second delay-load without RVAs", [] (ImageWriter & w) {
                w.DelayLoads ({ { 1, kPage }, { 0, w.Name ("delta.dll") }, { 1, kPage } }); },
            kAll, "file contains at least one delay-load descriptor which lacks RVAs (offsets): %\n" },
        { "import name past the image", [] (ImageWriter & w) {
                w.Imports ({ { 0, kPage }, { 0, w.SizeOfImage () + 16 } }); }, kTwice, kOutside },
        { "import table without terminator", [] (ImageWriter & w) {
                w.PadTo (2 * kPage - 20);
                w.Imports ({ { 0, kPage } }, false); }, kTwice, kOutside },
        { "delay-load name without terminator", [] (ImageWriter & w) {
                w.DelayLoads ({ { 1, 2 * kPage - 4 } });
                w.PadTo (2 * kPage - 4);
                w.Put ("open", 4); },
            kImports, "file contains a delay-load descriptor or library name outside the image: %\n" },
    };
    for (const Row & row : rows) {
        SCOPED_TRACE (row.name);
        std::wstring path = WriteImage (L"Image" + std::to_wstring (&row - rows) + L".dll", row.change);
        for (bool bounded : { false, true }) {
            std::string lines = bounded && row.bounded ? row.boundedLines : row.strictLines, listed;
            for (std::size_t at; (at = lines.find ('%')) != std::string::npos;)
                lines.replace (at, 1, std::string (path.begin (), path.end ()));
            for (bool verbose : { true, false }) {
                EXPECT_EQ (Stderr ([&] { EXPECT_EQ (Failure ([&] {
                    listed = Listed (bounded ? ExecutableImageFile (path.c_str (), ExecutableImageFile::kBoundedByImage, verbose)
                        : ExecutableImageFile (path.c_str (), verbose));
                }), "nothing thrown"); }), verbose ? lines : "") << bounded;
                EXPECT_EQ (listed, bounded && row.bounded ? row.bounded : row.strict) << bounded;
            }
        }
        EXPECT_EQ (::GetModuleHandleW (path.c_str ()), nullptr) << "the image stays loaded";
    }
}

// The loader's refusal passes through as it is, and prints nothing. No loader maps an image without
// its signatures: for those the loader is replaced by one that gives a buffer as the image, and the
// release is counted.
TEST_F (ImageFile, LoaderRefusalsAndMissingSignatures)
{
    std::wstring path = SkerryTest::ProgramDirectory () + L"NotAnImage.txt";
    std::ofstream (path.c_str ()) << "not an image\n";
    std::string failure;
    EXPECT_EQ (Stderr ([&] { failure = Failure ([&] { ExecutableImageFile (path.c_str (), true); }); }), "");
    EXPECT_EQ (failure, "Win32 193 | Skerry::LoadedLibrary::LoadedLibrary | LibSkerry/Utilities");
    SKERRY_INTERPOSE (load, "KERNEL32.dll", LoadLibraryExW);
    SKERRY_INTERPOSE (release, "KERNEL32.dll", FreeLibrary);
    release.Replace ([] (HMODULE) { return TRUE; });
    for (bool dos : { true, false }) {
        std::vector<std::uint8_t> bytes = ImageWriter ().File ();
        bytes [dos ? 0 : ImageWriter::kHeaders] = 'Q';
        load.Replace ([&] (LPCWSTR, HANDLE, DWORD) { return reinterpret_cast<HMODULE> (bytes.data ()); });
        EXPECT_EQ (Stderr ([&] { failure = Failure ([] { ExecutableImageFile (L"Fake.dll", true); }); }),
            dos ? "file lacks DOS signature: Fake.dll\n" : "file lacks NT signature: Fake.dll\n");
        EXPECT_EQ (failure, "Skerry 8 | Skerry::ExecutableImageFile::ExecutableImageFile | ExecutableImageFile");
        EXPECT_EQ (std::get<2> (load.CallArguments ().back ()), 0x11u);
    }
    EXPECT_EQ (release.Calls (), 2u);
}

// A failed release raises from the loaded library's destructor; the image is then freed here.
TEST_F (ImageFile, ReleaseFailureAndMisuse)
{
    std::wstring path = WriteImage (L"Released.dll");
    {
        SKERRY_INTERPOSE (release, "KERNEL32.dll", FreeLibrary);
        release.Fail (FALSE, ERROR_INVALID_HANDLE);
        EXPECT_EQ (Failure ([&] { ExecutableImageFile (path.c_str (), false); }),
            "Win32 6 | Skerry::LoadedLibrary::~LoadedLibrary | LibSkerry/Utilities");
        ASSERT_EQ (release.Calls (), 1u);
        EXPECT_TRUE (::FreeLibrary (std::get<0> (release.CallArguments () [0])));
    }
    EXPECT_STREQ (SkerryTest::Caught<std::out_of_range> ([&] {
        ExecutableImageFile (path.c_str (), false).GetImportLibrary (3); }).what (), "invalid vector<T> subscript");
    SkerryTest::ExpectAssertion ([] { ExecutableImageFile::ImportLibrary (); }, "assertion failed: false",
        "Skerry::ExecutableImageFile::ImportLibrary::ImportLibrary", "LibSkerry/ExecutableImageFile");
}
