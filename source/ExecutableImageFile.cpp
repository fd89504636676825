// The import reader: the loader lays the image out, the walks of ImageReader.h read it through the
// checked reader, and this file turns their outcomes into the list and the diagnostic lines.

#include <LibSkerry/ExecutableImageFile>
#include <LibSkerry/Exceptions>

#include "ImageReader.h"

#include <cstdio>
#include <stdexcept>
#include <vector>

namespace Skerry {

namespace {

// DONT_RESOLVE_DLL_REFERENCES | LOAD_IGNORE_CODE_AUTHZ_LEVEL: mapped, nothing run, nothing else
// loaded.
const unsigned long kLoadFlags = 0x11;

// The loader has checked the headers before it maps an image, so they are read without a bound of
// their own; what lies behind them is bounded by SizeOfImage.
const std::uint32_t kHeadersCheckedByLoader = 0xFFFFFFFF;

// The lines of each outcome but kRead, for the import and the delay-load directory. mingw's C99
// fwprintf takes %s as narrow, so the path is printed with %ls.
struct Messages {
    const wchar_t * fNoEntry;
    const wchar_t * fNullDirectory;
    const wchar_t * fTooSmall;
    const wchar_t * fUnevenSize;
    const wchar_t * fOutsideImage;
};

const Messages kImportMessages = {
    L"file has no imports: %ls\n",
    L"file contains NULL data directory for import descriptors: %ls\n",
    L"file contains data directory too small to contain even a single import descriptor: %ls\n",
    L"file contains data directory whose size is not an even multiple of the size of an import descriptor: %ls\n",
    L"file contains an import descriptor or library name outside the image: %ls\n" };

const Messages kDelayLoadMessages = {
    L"file has no delayed imports: %ls\n",
    L"file contains NULL data directory for delay-load descriptors: %ls\n",
    L"file contains data directory too small to contain even a single delay-load descriptor: %ls\n",
    L"file contains data directory whose size is not an even multiple of the size of a delay-load descriptor: %ls\n",
    L"file contains a delay-load descriptor or library name outside the image: %ls\n" };

const wchar_t kLacksRVAs [] = L"file contains at least one delay-load descriptor which lacks RVAs (offsets): %ls\n";

const wchar_t * MessageOf (ImageReader::Outcome outcome, const Messages & messages)
{
    switch (outcome) {
    case ImageReader::Outcome::kNoEntry: return messages.fNoEntry;
    case ImageReader::Outcome::kNullDirectory: return messages.fNullDirectory;
    case ImageReader::Outcome::kTooSmall: return messages.fTooSmall;
    case ImageReader::Outcome::kUnevenSize: return messages.fUnevenSize;
    case ImageReader::Outcome::kLacksRVAs: return kLacksRVAs;
    case ImageReader::Outcome::kOutsideImage: return messages.fOutsideImage;
    case ImageReader::Outcome::kRead: break;
    }
    return NULL;
}

void Report (const wchar_t * message, const wchar_t * path, bool verbose)
{
    if (verbose && message != NULL)
        std::fwprintf (stderr, message, path);
}

}

// The list, and how this object's walks treat each directory's Size.
class ExecutableImageFile::Internal {
public:
    explicit Internal (ImageReader::SizeRule rule)
        : fSizeRule (rule)
    {
    }

    std::vector<ImportLibrary> fLibraries;
    ImageReader::SizeRule fSizeRule;
};

ExecutableImageFile::ExecutableImageFile (const wchar_t * path, bool verbose)
    : fInternal (NULL)
{
    Construct (path, false, verbose);
}

ExecutableImageFile::ExecutableImageFile (const wchar_t * path, BoundedByImage, bool verbose)
    : fInternal (NULL)
{
    Construct (path, true, verbose);
}

void ExecutableImageFile::Construct (const wchar_t * path, bool boundedByImage, bool verbose)
{
    SKERRY_SITE ("Skerry::ExecutableImageFile::ExecutableImageFile");
    LoadedLibrary image (path, kLoadFlags);
    const unsigned char * base = reinterpret_cast<const unsigned char *> (image.fModule);
    std::uint32_t headers = 0, extent = 0;
    switch (ImageReader::FindHeaders (ImageReader::Bounded (base, kHeadersCheckedByLoader), headers, extent)) {
    case ImageReader::Headers::kNoDOSSignature:
        Report (L"file lacks DOS signature: %ls\n", path, verbose);
        SKERRY_THROW_SKERRY (8);
    case ImageReader::Headers::kNoNTSignature:
        Report (L"file lacks NT signature: %ls\n", path, verbose);
        SKERRY_THROW_SKERRY (8);
    case ImageReader::Headers::kFound:
        break;
    }
    const IMAGE_NT_HEADERS * ntHeaders = reinterpret_cast<const IMAGE_NT_HEADERS *> (base + headers);
    fInternal = new Internal (boundedByImage ? ImageReader::SizeRule::kIgnored : ImageReader::SizeRule::kChecked);
    try {
        // Neither result changes the outcome: a malformed directory leaves what was found.
        CollectImportRecords (ntHeaders, path, base, verbose);
        CollectDelayLoadRecords (ntHeaders, path, base, verbose);
    }
    catch (...) {
        delete fInternal;
        fInternal = NULL;
        throw;
    }
}

ExecutableImageFile::~ExecutableImageFile ()
{
    SKERRY_SITE ("Skerry::ExecutableImageFile::~ExecutableImageFile");
    SKERRY_ASSERT (fInternal);
    delete fInternal;
}

unsigned int ExecutableImageFile::CountImportLibraries () const
{
    SKERRY_SITE ("Skerry::ExecutableImageFile::CountImportLibraries");
    SKERRY_ASSERT (fInternal);
    return static_cast<unsigned int> (fInternal->fLibraries.size ());
}

// Checked here rather than by vector::at, whose words differ from one C++ runtime to another.
const ExecutableImageFile::ImportLibrary & ExecutableImageFile::GetImportLibrary (unsigned int index) const
{
    SKERRY_SITE ("Skerry::ExecutableImageFile::GetImportLibrary");
    SKERRY_ASSERT (fInternal);
    if (index >= fInternal->fLibraries.size ())
        throw std::out_of_range ("invalid vector<T> subscript");
    return fInternal->fLibraries [index];
}

bool ExecutableImageFile::CollectImportRecords (const IMAGE_NT_HEADERS * headers, const wchar_t * path,
    const unsigned char * base, bool verbose)
{
    return Collect (headers, path, base, verbose, false);
}

bool ExecutableImageFile::CollectDelayLoadRecords (const IMAGE_NT_HEADERS * headers, const wchar_t * path,
    const unsigned char * base, bool verbose)
{
    return Collect (headers, path, base, verbose, true);
}

bool ExecutableImageFile::Collect (const IMAGE_NT_HEADERS * headers, const wchar_t * path, const unsigned char * base,
    bool verbose, bool delayLoaded)
{
    const std::uint32_t offset = static_cast<std::uint32_t> (reinterpret_cast<const unsigned char *> (headers) - base);
    const ImageReader::Bounded image (base, headers->OptionalHeader.SizeOfImage);
    std::vector<std::string> names;
    ImageReader::Outcome outcome = ImageReader::Walk (image, offset,
        delayLoaded ? ImageReader::kDelayLoads : ImageReader::kImports, fInternal->fSizeRule, names);
    for (const std::string & name : names)
        fInternal->fLibraries.push_back (ImportLibrary (name, delayLoaded));
    Report (MessageOf (outcome, delayLoaded ? kDelayLoadMessages : kImportMessages), path, verbose);
    return outcome == ImageReader::Outcome::kRead || outcome == ImageReader::Outcome::kNoEntry
        || outcome == ImageReader::Outcome::kNullDirectory;
}

}
