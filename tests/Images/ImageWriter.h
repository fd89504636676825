// Writes small 32-bit Portable Executable images for the import reader's tests and the fuzz
// target's seeds: the headers, then one data section at RVA 0x1000 holding whatever the test puts
// there. File and section alignment are both 0x1000, so the file is laid out as the loader lays it
// out and an RVA is also a file offset. Portable: no platform headers.
#ifndef SKERRY_TEST_IMAGE_WRITER
#define SKERRY_TEST_IMAGE_WRITER

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

namespace SkerryTest {

class ImageWriter {
public:
    using Entries = std::vector<std::pair<std::uint32_t, std::uint32_t>>;     // (first field, name RVA)

    static constexpr std::uint32_t kPage = 0x1000;
    static constexpr std::uint32_t kHeaders = 0x40;     // e_lfanew

    std::uint32_t fRvaAndSizes = 16;
    std::uint32_t fImport [2] = { 0, 0 };       // VirtualAddress, Size
    std::uint32_t fDelayLoad [2] = { 0, 0 };

    // Puts `size` bytes at the end of the section; gives their RVA.
    std::uint32_t Put (const void * bytes, std::size_t size)
    {
        const std::uint8_t * begin = static_cast<const std::uint8_t *> (bytes);
        fSection.insert (fSection.end (), begin, begin + size);
        return kPage + std::uint32_t (fSection.size () - size);
    }
    std::uint32_t Name (const std::string & name) { return Put (name.c_str (), name.size () + 1); }
    // Zeros up to `rva`, so that what comes next ends where a test wants it.
    void PadTo (std::uint32_t rva) { fSection.resize (rva - kPage); }

    // An import table (directory 1) or a delay-load table (directory 13) of these entries, ended by an
    // empty descriptor unless `terminated` is false.
    void Imports (const Entries & entries, bool terminated = true) { Table (fImport, 5, 3, entries, terminated); }
    void DelayLoads (const Entries & entries) { Table (fDelayLoad, 8, 1, entries, true); }

    std::uint32_t SizeOfImage () const { return kPage + Aligned (std::uint32_t (fSection.size ())); }

    std::vector<std::uint8_t> File () const
    {
        std::vector<std::uint8_t> file (SizeOfImage ());
        const std::uint32_t nt = kHeaders, optional = nt + 24, section = optional + 0xE0;
        // Offset, width and value of each field that isn't 0: the DOS and NT signatures, i386, one
        // section, the optional header's size, a 32-bit DLL; then the optional header (image base,
        // alignments, system versions 4.0, sizes, GUI subsystem, stack and heap, directories).
        const std::uint32_t fields [] [3] = { { 0, 2, 0x5A4D }, { 0x3C, 4, kHeaders }, { nt, 4, 0x4550 },
            { nt + 4, 2, 0x14C }, { nt + 6, 2, 1 }, { nt + 20, 2, 0xE0 }, { nt + 22, 2, 0x2102 }, { optional, 2, 0x10B },
            { optional + 28, 4, 0x62000000 }, { optional + 32, 4, kPage }, { optional + 36, 4, kPage },
            { optional + 40, 2, 4 }, { optional + 48, 2, 4 }, { optional + 56, 4, SizeOfImage () },
            { optional + 60, 4, kPage }, { optional + 68, 2, 2 }, { optional + 72, 4, 0x100000 },
            { optional + 76, 4, kPage }, { optional + 80, 4, 0x100000 }, { optional + 84, 4, kPage },
            { optional + 92, 4, fRvaAndSizes }, { nt + 0x80, 4, fImport [0] }, { nt + 0x84, 4, fImport [1] },
            { nt + 0xE0, 4, fDelayLoad [0] }, { nt + 0xE4, 4, fDelayLoad [1] },
            { section, 4, 0x7461642E }, { section + 4, 2, 0x61 },     // ".data"
            { section + 8, 4, std::uint32_t (fSection.size ()) }, { section + 12, 4, kPage },
            { section + 16, 4, Aligned (std::uint32_t (fSection.size ())) }, { section + 20, 4, kPage },
            { section + 36, 4, 0xC0000040 } };    // initialised data, readable, writable
        for (const auto & field : fields)
            std::memcpy (&file [field [0]], &field [2], field [1]);
        std::copy (fSection.begin (), fSection.end (), file.begin () + kPage);
        return file;
    }

private:
    static std::uint32_t Aligned (std::uint32_t size) { return (size + kPage - 1) / kPage * kPage; }

    // Descriptors of `words` 32-bit words, the first field in word 0 and the name in `nameWord`; the
    // directory gets the table's RVA and exact Size.
    void Table (std::uint32_t (& directory) [2], std::size_t words, std::size_t nameWord, const Entries & entries,
        bool terminated)
    {
        directory [0] = kPage + std::uint32_t (fSection.size ());
        for (std::size_t i = 0; i < entries.size () + terminated; ++i) {
            std::vector<std::uint32_t> descriptor (words);
            if (i < entries.size ()) {
                descriptor [0] = entries [i].first;
                descriptor [nameWord] = entries [i].second;
            }
            Put (descriptor.data (), 4 * words);
        }
        directory [1] = kPage + std::uint32_t (fSection.size ()) - directory [0];
    }

    std::vector<std::uint8_t> fSection;
};

}

#endif
