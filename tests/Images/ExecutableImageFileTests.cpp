// ExecutableImageFile on images written here and laid out by the real loader: the order of the
// list, every finding of a malformed directory with its exact line (and nothing without verbose),
// the bounds on tables and names, the walk bounded by the image, and the loader's refusals.
#include <LibSkerry/ExecutableImageFile>

#include "ChildProcess.h"
#include "Expect.h"
#include "Handles.h"
#include "ImageWriter.h"
#include "Interposer.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <functional>
#include <stdexcept>
#include <string>

#include <io.h>

using Skerry::ExecutableImageFile;
using SkerryTest::Failure;
using SkerryTest::ImageWriter;

namespace {

class ImageFile : public SkerryTest::HandleLeakTest {};

std::wstring WriteImage (const ImageWriter & writer, const std::wstring & name)
{
    std::wstring path = SkerryTest::ProgramDirectory () + name;
    std::vector<std::uint8_t> bytes = writer.File ();
    std::ofstream (path.c_str (), std::ios::binary).write (reinterpret_cast<const char *> (bytes.data ()),
        std::streamsize (bytes.size ()));
    return path;
}

// What the C runtime's stderr receives while `run` runs: fd 2 points at a file meanwhile, in
// text mode as a console or pipe is, where wide output is converted to the code page.
std::string Stderr (const std::function<void ()> & run)
{
    std::wstring path = SkerryTest::ProgramDirectory () + L"stderr.txt";
    std::fflush (stderr);
    FILE * capture = ::_wfopen (path.c_str (), L"w+t");
    int saved = ::_dup (2);
    ::_dup2 (::_fileno (capture), 2);
    run ();     // raises nothing: failures are caught inside
    std::fflush (stderr);
    ::_dup2 (saved, 2);
    ::_close (saved);
    std::string text;
    std::fseek (capture, 0, SEEK_SET);
    for (int c; (c = std::fgetc (capture)) != EOF;)
        text += char (c);
    std::fclose (capture);
    return text;
}

// "alpha.dll beta.dll gamma.dll*": the names in order, a star for delay-loaded ones.
std::string Listed (const ExecutableImageFile & image)
{
    std::string text;
    for (unsigned int i = 0; i < image.CountImportLibraries (); ++i) {
        const ExecutableImageFile::ImportLibrary & library = image.GetImportLibrary (i);
        text += (i ? " " : "") + library.fName + (library.fDelayLoaded ? "*" : "");
    }
    return text;
}

std::string Narrow (const std::wstring & text)
{
    return std::string (text.begin (), text.end ());
}

// Two imports and one delay-loaded library; `change` spoils it before it is written.
ImageWriter Image (const std::function<void (ImageWriter &, std::uint32_t gamma)> & change = {})
{
    ImageWriter writer;
    std::uint32_t alpha = writer.Name ("alpha.dll"), beta = writer.Name ("BETA.dll"), gamma = writer.Name ("gamma.dll");
    writer.Imports ({ alpha, beta });
    writer.DelayLoads ({ { 1, gamma } });
    if (change)
        change (writer, gamma);
    return writer;
}

}

TEST_F (ImageFile, ListsImportsThenDelayLoadsInOrder)
{
    std::wstring path = WriteImage (Image (), L"Ordered.dll");
    std::string printed = Stderr ([&] {
        ExecutableImageFile image (path.c_str (), true);
        EXPECT_EQ (Listed (image), "alpha.dll BETA.dll gamma.dll*");
        ExecutableImageFile bounded (path.c_str (), ExecutableImageFile::kBoundedByImage, true);
        EXPECT_EQ (Listed (bounded), "alpha.dll BETA.dll gamma.dll*");
        try {
            image.GetImportLibrary (3);
            ADD_FAILURE () << "no out_of_range";
        }
        catch (const std::out_of_range & e) {
            EXPECT_STREQ (e.what (), "invalid vector<T> subscript");
        }
    });
    EXPECT_EQ (printed, "");
    EXPECT_EQ (::GetModuleHandleW (path.c_str ()), nullptr) << "the image stays loaded";
}

// Each finding: the list that stands and the lines printed with verbose, for the strict walk and
// the one bounded by the image; without verbose the same list and nothing printed.
TEST_F (ImageFile, MalformedDirectories)
{
    using Change = std::function<void (ImageWriter &, std::uint32_t)>;
    const std::uint32_t kPage = ImageWriter::kPage;
    struct Row {
        const char * name;
        Change change;
        const char * strict, * strictLines, * bounded, * boundedLines;
    } const rows [] = {
        { "no directories", [] (ImageWriter & w, std::uint32_t) { w.fRvaAndSizes = 1; }, "", "file has no imports: %\n"
            "file has no delayed imports: %\n", "", "file has no imports: %\nfile has no delayed imports: %\n" },
        { "no delay-load entry", [] (ImageWriter & w, std::uint32_t) { w.fRvaAndSizes = 13; },
            "alpha.dll BETA.dll", "file has no delayed imports: %\n", "alpha.dll BETA.dll", "file has no delayed imports: %\n" },
        { "null directories", [] (ImageWriter & w, std::uint32_t) { w.fImport [0] = w.fDelayLoad [0] = 0; }, "",
            "file contains NULL data directory for import descriptors: %\n"
            "file contains NULL data directory for delay-load descriptors: %\n", "",
            "file contains NULL data directory for import descriptors: %\n"
            "file contains NULL data directory for delay-load descriptors: %\n" },
        { "import size 0", [] (ImageWriter & w, std::uint32_t) { w.fImport [1] = 0; }, "gamma.dll*",
            "file contains data directory too small to contain even a single import descriptor: %\n",
            "alpha.dll BETA.dll gamma.dll*", "" },
        { "import size 30", [] (ImageWriter & w, std::uint32_t) { w.fImport [1] = 30; }, "gamma.dll*",
            "file contains data directory whose size is not an even multiple of the size of an import descriptor: %\n",
            "alpha.dll BETA.dll gamma.dll*", "" },
        { "import size past the terminator", [] (ImageWriter & w, std::uint32_t) { w.fImport [1] = 200; },
            "alpha.dll BETA.dll gamma.dll*", "", "alpha.dll BETA.dll gamma.dll*", "" },
        { "delay-load size 16", [] (ImageWriter & w, std::uint32_t) { w.fDelayLoad [1] = 16; }, "alpha.dll BETA.dll",
            "file contains data directory too small to contain even a single delay-load descriptor: %\n",
            "alpha.dll BETA.dll gamma.dll*", "" },
        { "delay-load size 40", [] (ImageWriter & w, std::uint32_t) { w.fDelayLoad [1] = 40; }, "alpha.dll BETA.dll",
            "file contains data directory whose size is not an even multiple of the size of a delay-load descriptor: %\n",
            "alpha.dll BETA.dll gamma.dll*", "" },
        { "second delay-load without RVAs", [] (ImageWriter & w, std::uint32_t gamma) {
                w.DelayLoads ({ { 1, gamma }, { 0, w.Name ("delta.dll") }, { 1, gamma } }); },
            "alpha.dll BETA.dll gamma.dll*", "file contains at least one delay-load descriptor which lacks RVAs (offsets): %\n",
            "alpha.dll BETA.dll gamma.dll*", "file contains at least one delay-load descriptor which lacks RVAs (offsets): %\n" },
        { "import name past the image", [] (ImageWriter & w, std::uint32_t gamma) {
                w.Imports ({ gamma, w.SizeOfImage () + 16 }); }, "gamma.dll gamma.dll*",
            "file contains an import descriptor or library name outside the image: %\n", "gamma.dll gamma.dll*",
            "file contains an import descriptor or library name outside the image: %\n" },
        { "delay-load name without terminator", [kPage] (ImageWriter & w, std::uint32_t) {
                w.DelayLoads ({ { 1, 2 * kPage - 4 } });
                w.PadTo (2 * kPage - 4);
                w.Put ("open", 4); },
            "alpha.dll BETA.dll", "file contains a delay-load descriptor or library name outside the image: %\n",
            "alpha.dll BETA.dll", "file contains a delay-load descriptor or library name outside the image: %\n" },
        { "import table without terminator", [kPage] (ImageWriter & w, std::uint32_t gamma) {
                w.PadTo (2 * kPage - 20);
                w.Imports ({ gamma }, false); },
            "gamma.dll gamma.dll*", "file contains an import descriptor or library name outside the image: %\n",
            "gamma.dll gamma.dll*", "file contains an import descriptor or library name outside the image: %\n" },
    };
    int file = 0;
    for (const Row & row : rows) {
        SCOPED_TRACE (row.name);
        std::wstring path = WriteImage (Image (row.change), L"Malformed" + std::to_wstring (++file) + L".dll");
        auto lines = [&] (std::string text) {
            for (std::size_t at; (at = text.find ('%')) != std::string::npos;)
                text.replace (at, 1, Narrow (path));
            return text;
        };
        for (bool verbose : { true, false }) {
            EXPECT_EQ (Stderr ([&] { EXPECT_EQ (Listed (ExecutableImageFile (path.c_str (), verbose)), row.strict); }),
                verbose ? lines (row.strictLines) : "");
            EXPECT_EQ (Stderr ([&] {
                EXPECT_EQ (Listed (ExecutableImageFile (path.c_str (), ExecutableImageFile::kBoundedByImage, verbose)),
                    row.bounded); }), verbose ? lines (row.boundedLines) : "");
        }
    }
}

// The loader's refusal passes through as it is, and prints nothing.
TEST_F (ImageFile, LoaderRefusals)
{
    std::wstring text = SkerryTest::ProgramDirectory () + L"NotAnImage.txt";
    std::ofstream (text.c_str ()) << "not an image\n";
    std::string failure;
    EXPECT_EQ (Stderr ([&] { failure = Failure ([&] { ExecutableImageFile (text.c_str (), true); }); }), "");
    EXPECT_EQ (failure, "Win32 193 | Skerry::LoadedLibrary::LoadedLibrary | LibSkerry/Utilities");
    std::wstring missing = SkerryTest::ProgramDirectory () + L"Missing.dll";
    EXPECT_EQ (Stderr ([&] { failure = Failure ([&] { ExecutableImageFile (missing.c_str (), true); }); }), "");
    EXPECT_EQ (failure, "Win32 126 | Skerry::LoadedLibrary::LoadedLibrary | LibSkerry/Utilities");
}

// No loader maps an image without its signatures: the loader is replaced by one that gives a
// buffer as the image, and the release is counted.
TEST_F (ImageFile, MissingSignatures)
{
    SKERRY_INTERPOSE (load, "KERNEL32.dll", LoadLibraryExW);
    SKERRY_INTERPOSE (release, "KERNEL32.dll", FreeLibrary);
    release.Replace ([] (HMODULE) { return TRUE; });
    for (bool dos : { true, false }) {
        std::vector<std::uint8_t> bytes = Image ([dos] (ImageWriter & w, std::uint32_t) { w.fDOSMagic = dos ? 0x5A4E : 0x5A4D; }).File ();
        if (! dos)
            bytes [ImageWriter::kHeaders] = 'Q';
        load.Replace ([&] (LPCWSTR, HANDLE, DWORD) { return reinterpret_cast<HMODULE> (bytes.data ()); });
        std::string failure;
        EXPECT_EQ (Stderr ([&] { failure = Failure ([] { ExecutableImageFile (L"Fake.dll", true); }); }),
            dos ? "file lacks DOS signature: Fake.dll\n" : "file lacks NT signature: Fake.dll\n");
        EXPECT_EQ (failure, "Skerry 8 | Skerry::ExecutableImageFile::ExecutableImageFile | ExecutableImageFile");
        EXPECT_EQ (std::get<2> (load.CallArguments ().back ()), 0x11u);
    }
    EXPECT_EQ (release.Calls (), 2u);
}

// A failed release raises from the loaded library's destructor; the image is then freed here.
TEST_F (ImageFile, ReleaseFailure)
{
    std::wstring path = WriteImage (Image (), L"Released.dll");
    {
        SKERRY_INTERPOSE (release, "KERNEL32.dll", FreeLibrary);
        release.Fail (FALSE, ERROR_INVALID_HANDLE);
        EXPECT_EQ (Failure ([&] { ExecutableImageFile (path.c_str (), false); }),
            "Win32 6 | Skerry::LoadedLibrary::~LoadedLibrary | LibSkerry/Utilities");
        ASSERT_EQ (release.Calls (), 1u);
        EXPECT_TRUE (::FreeLibrary (std::get<0> (release.CallArguments () [0])));
    }
    SkerryTest::ExpectAssertion ([] { ExecutableImageFile::ImportLibrary (); }, "assertion failed: false",
        "Skerry::ExecutableImageFile::ImportLibrary::ImportLibrary", "LibSkerry/ExecutableImageFile");
}

// Programs that GNU ld links, this one among them, seldom have an import directory whose Size is a
// multiple of 20: the strict walk then lists nothing, and the walk bounded by the image lists all.
TEST_F (ImageFile, GNULinkedImages)
{
    for (const wchar_t * name : { L"ImageTests.exe", L"LibSkerry.dll" }) {
        std::wstring path = SkerryTest::ProgramDirectory () + name;
        const unsigned char * base = reinterpret_cast<const unsigned char *> (::GetModuleHandleW (name));
        const IMAGE_NT_HEADERS * headers = reinterpret_cast<const IMAGE_NT_HEADERS *> (
            base + reinterpret_cast<const IMAGE_DOS_HEADER *> (base)->e_lfanew);
        bool uneven = headers->OptionalHeader.DataDirectory [IMAGE_DIRECTORY_ENTRY_IMPORT].Size % 20 != 0;
        std::string strict, bounded;
        std::string printed = Stderr ([&] {
            strict = Listed (ExecutableImageFile (path.c_str (), true));
            bounded = Listed (ExecutableImageFile (path.c_str (), ExecutableImageFile::kBoundedByImage, false));
        });
        std::string delayLoad = "file contains NULL data directory for delay-load descriptors: " + Narrow (path) + "\n";
        EXPECT_EQ (printed, uneven ? "file contains data directory whose size is not an even multiple of the size of an "
            "import descriptor: " + Narrow (path) + "\n" + delayLoad : delayLoad);
        EXPECT_EQ (strict, uneven ? "" : bounded);
        EXPECT_NE (bounded.find ("KERNEL32.dll"), std::string::npos) << bounded;
    }
}
