// Wild-card walks and temporary files against the raw calls they make: a walk of a directory of
// 10,000 files through WildCardExpander against FindFirstFileW, FindNextFileW and FindClose, and
// 1,000 temporary files made and deleted through TempFilePath against GetTempPathW,
// CreateDirectoryW, GetTempFileNameW and DeleteFileW. Each pair is measured in alternating
// batches; the directory is made for the run and removed after it. Under an emulated test machine
// the full sizes take very long: `PathsBench FILES TEMPORARY` measures smaller ones.
#include <LibSkerry/Utilities>

#include "Harness.h"

#include <windows.h>

#include <cstdlib>
#include <string>

namespace {

unsigned gWalkedFiles = 10000;
unsigned gTemporaryFiles = 1000;

unsigned RawWalk (const std::wstring & pattern)
{
    unsigned count = 0;
    WIN32_FIND_DATAW entry;
    HANDLE find = ::FindFirstFileW (pattern.c_str (), &entry);
    do {
        std::wstring name = entry.cFileName;
        if (name != L"." && name != L"..")
            ++count;
    } while (::FindNextFileW (find, &entry));
    ::FindClose (find);
    return count;
}

unsigned LibraryWalk (const std::wstring & pattern)
{
    unsigned count = 0;
    for (Skerry::WildCardExpander match (pattern); match; match.Next ())
        if (! match.CopyName ().empty ())
            ++count;
    return count;
}

// The calls a TempFilePath makes, for one file.
void RawTemporaryFile ()
{
    wchar_t directory [MAX_PATH], file [MAX_PATH];
    DWORD length = ::GetTempPathW (MAX_PATH, directory);
    std::wstring path = std::wstring (directory, length) + L"Tolvane Inc.\\";
    ::CreateDirectoryW (path.c_str (), NULL);
    ::GetTempFileNameW (path.c_str (), L"TVL", 0, file);
    ::DeleteFileW (file);
}

}

int main (int argc, char ** argv)
{
    if (argc == 3) {
        gWalkedFiles = unsigned (std::strtoul (argv [1], nullptr, 10));
        gTemporaryFiles = unsigned (std::strtoul (argv [2], nullptr, 10));
    }
    std::wstring directory = Skerry::TempDirectoryPath () + L"PathsBench\\";
    ::CreateDirectoryW (directory.c_str (), NULL);
    for (unsigned i = 0; i < gWalkedFiles; ++i)
        ::CloseHandle (::CreateFileW ((directory + L"file" + std::to_wstring (i) + L".txt").c_str (), GENERIC_WRITE, 0,
            NULL, CREATE_ALWAYS, 0, NULL));
    const std::wstring pattern = directory + L"*";
    SkerryBench::Header ("Paths");
    SkerryBench::Options options;
    options.fBatches = 7;
    options.fOperationsPerBatch = 1;
    std::pair<double, double> walk = SkerryBench::AlternatingMedians ([&] { LibraryWalk (pattern); },
        [&] { RawWalk (pattern); }, options);
    std::string walkName = "walk of " + std::to_string (gWalkedFiles) + ": WildCardExpander vs FindNextFileW";
    SkerryBench::Report (walkName.c_str (), walk.first, walk.second, 1.05);
    std::pair<double, double> temporary = SkerryBench::AlternatingMedians (
        [] { for (unsigned i = 0; i < gTemporaryFiles; ++i) Skerry::TempFilePath file; },
        [] { for (unsigned i = 0; i < gTemporaryFiles; ++i) RawTemporaryFile (); }, options);
    std::string temporaryName = std::to_string (gTemporaryFiles) + " files: TempFilePath vs the raw calls";
    SkerryBench::Report (temporaryName.c_str (), temporary.first, temporary.second, 1.10);
    for (unsigned i = 0; i < gWalkedFiles; ++i)
        ::DeleteFileW ((directory + L"file" + std::to_wstring (i) + L".txt").c_str ());
    ::RemoveDirectoryW (directory.c_str ());
    return 0;
}
