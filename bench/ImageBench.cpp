// The import reader against the raw calls it stands for: LoadLibraryExW with the same flags, a walk
// of the import descriptors by pointer arithmetic that copies each name, and FreeLibrary; then the
// whole dependency tree of the demo (of LibSkerry.dll when the demo isn't built) through
// skerry-deps, with its time per image.
#include <LibSkerry/ExecutableImageFile>

#include "Harness.h"

#include <windows.h>

#include <string>
#include <vector>

namespace {

// What a caller would write without the library: no bounds, no size rule, the names copied.
std::vector<std::string> RawImports (const wchar_t * path)
{
    std::vector<std::string> names;
    HMODULE module = ::LoadLibraryExW (path, NULL, DONT_RESOLVE_DLL_REFERENCES | LOAD_IGNORE_CODE_AUTHZ_LEVEL);
    const unsigned char * base = reinterpret_cast<const unsigned char *> (module);
    const IMAGE_NT_HEADERS * headers = reinterpret_cast<const IMAGE_NT_HEADERS *> (
        base + reinterpret_cast<const IMAGE_DOS_HEADER *> (base)->e_lfanew);
    const IMAGE_DATA_DIRECTORY & directory = headers->OptionalHeader.DataDirectory [IMAGE_DIRECTORY_ENTRY_IMPORT];
    for (auto descriptor = reinterpret_cast<const IMAGE_IMPORT_DESCRIPTOR *> (base + directory.VirtualAddress);
            directory.VirtualAddress != 0 && descriptor->Name != 0; ++descriptor)
        names.push_back (reinterpret_cast<const char *> (base + descriptor->Name));
    ::FreeLibrary (module);
    return names;
}

void Compare (const char * name, const wchar_t * path, bool boundedByImage)
{
    SkerryBench::Options options;
    options.fBatches = 7;
    options.fOperationsPerBatch = 20;
    std::pair<double, double> medians = SkerryBench::AlternatingMedians ([&] {
        if (boundedByImage)
            Skerry::ExecutableImageFile (path, Skerry::ExecutableImageFile::kBoundedByImage, false);
        else
            Skerry::ExecutableImageFile (path, false);
    }, [&] { RawImports (path); }, options);
    SkerryBench::Report (name, medians.first, medians.second, 1.10);
}

}

int main ()
{
    SkerryBench::Header ("Import reader");
    Compare ("ExecutableImageFile (comctl32) vs load + walk + free", L"comctl32.dll", false);
    Compare ("ExecutableImageFile bounded (shell32) vs the same", L"shell32.dll", true);

    wchar_t self [MAX_PATH];
    std::wstring directory (self, ::GetModuleFileNameW (NULL, self, MAX_PATH));
    directory.erase (directory.find_last_of (L'\\') + 1);
    std::wstring demo = directory + L"..\\examples\\Demo.exe";
    if (::GetFileAttributesW (demo.c_str ()) == INVALID_FILE_ATTRIBUTES)
        demo = directory + L"LibSkerry.dll";
    std::string command = "\"\"" + std::string (directory.begin (), directory.end ()) + "skerry-deps.exe\" -flat \""
        + std::string (demo.begin (), demo.end ()) + "\"\"";
    double start = SkerryBench::Now ();
    FILE * pipe = ::_popen (command.c_str (), "r");
    unsigned images = 0;
    for (int c; pipe != NULL && (c = std::fgetc (pipe)) != EOF;)
        images += c == '\n';
    int status = pipe != NULL ? ::_pclose (pipe) : -1;
    double elapsed = SkerryBench::Now () - start;
    std::printf ("skerry-deps -flat %ls: %u images in %.0f ms, %.2f ms per image (one process, exit status %d)\n",
        demo.c_str (), images, elapsed / 1e6, elapsed / 1e6 / (images ? images : 1), status);
    return 0;
}
