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
    static constexpr std::uint32_t kPage = 0x1000;
    static constexpr std::uint32_t kHeaders = 0x40;     // e_lfanew
    static constexpr std::uint32_t kNoName = 0;

    std::uint16_t fDOSMagic = 0x5A4D;
    std::uint32_t fRvaAndSizes = 16;
    std::uint32_t fImport [2] = { 0, 0 };       // VirtualAddress, Size
    std::uint32_t fDelayLoad [2] = { 0, 0 };

    // Puts `size` bytes at the end of the section; gives their RVA.
    std::uint32_t Put (const void * bytes, std::size_t size)
    {
        std::uint32_t rva = kPage + std::uint32_t (fSection.size ());
        fSection.insert (fSection.end (), static_cast<const std::uint8_t *> (bytes),
            static_cast<const std::uint8_t *> (bytes) + size);
        return rva;
    }
    std::uint32_t Name (const std::string & name) { return Put (name.c_str (), name.size () + 1); }
    // Zeros up to `rva`, so that what comes next ends where a test wants it.
    void PadTo (std::uint32_t rva) { fSection.resize (rva - kPage); }

    // An import table of these name RVAs and a terminator (unless `terminated` is false); it
    // becomes directory 1, its Size exact.
    std::uint32_t Imports (const std::vector<std::uint32_t> & names, bool terminated = true)
    {
        std::uint32_t table = kPage + std::uint32_t (fSection.size ());
        for (std::uint32_t name : names)
            Descriptor (20, 12, name, 0);
        if (terminated)
            Descriptor (20, 12, kNoName, 0);
        fImport [0] = table;
        fImport [1] = std::uint32_t (fSection.size ()) + kPage - table;
        return table;
    }
    // A delay-load table of (attributes, name RVA) and a terminator; directory 13.
    std::uint32_t DelayLoads (const std::vector<std::pair<std::uint32_t, std::uint32_t>> & entries)
    {
        std::uint32_t table = kPage + std::uint32_t (fSection.size ());
        for (const auto & entry : entries)
            Descriptor (32, 4, entry.second, entry.first);
        Descriptor (32, 4, kNoName, 0);
        fDelayLoad [0] = table;
        fDelayLoad [1] = std::uint32_t (fSection.size ()) + kPage - table;
        return table;
    }

    std::uint32_t SizeOfImage () const { return kPage + Aligned (std::uint32_t (fSection.size ())); }

    std::vector<std::uint8_t> File () const
    {
        std::vector<std::uint8_t> file (SizeOfImage ());
        Set16 (file, 0, fDOSMagic);
        Set32 (file, 0x3C, kHeaders);
        const std::uint32_t nt = kHeaders, optional = nt + 24;
        Set32 (file, nt, 0x4550);
        Set16 (file, nt + 4, 0x14C);                // i386
        Set16 (file, nt + 6, 1);                    // one section
        Set16 (file, nt + 20, 0xE0);                // size of the optional header
        Set16 (file, nt + 22, 0x2102);              // executable image, 32-bit, DLL
        Set16 (file, optional, 0x10B);
        Set32 (file, optional + 28, 0x62000000);    // image base
        Set32 (file, optional + 32, kPage);         // section alignment
        Set32 (file, optional + 36, kPage);         // file alignment
        Set16 (file, optional + 40, 4);             // operating system and subsystem 4.0
        Set16 (file, optional + 48, 4);
        Set32 (file, optional + 56, SizeOfImage ());
        Set32 (file, optional + 60, kPage);         // size of the headers
        Set16 (file, optional + 68, 2);             // GUI subsystem
        Set32 (file, optional + 72, 0x100000);      // stack and heap reserve and commit
        Set32 (file, optional + 76, 0x1000);
        Set32 (file, optional + 80, 0x100000);
        Set32 (file, optional + 84, 0x1000);
        Set32 (file, optional + 92, fRvaAndSizes);
        Set32 (file, nt + 0x80, fImport [0]);
        Set32 (file, nt + 0x84, fImport [1]);
        Set32 (file, nt + 0xE0, fDelayLoad [0]);
        Set32 (file, nt + 0xE4, fDelayLoad [1]);
        const std::uint32_t section = optional + 0xE0;
        std::memcpy (&file [section], ".data", 5);
        Set32 (file, section + 8, std::uint32_t (fSection.size ()));   // virtual size
        Set32 (file, section + 12, kPage);
        Set32 (file, section + 16, Aligned (std::uint32_t (fSection.size ())));
        Set32 (file, section + 20, kPage);
        Set32 (file, section + 36, 0xC0000040);     // initialised data, readable, writable
        std::copy (fSection.begin (), fSection.end (), file.begin () + kPage);
        return file;
    }

private:
    static std::uint32_t Aligned (std::uint32_t size) { return (size + kPage - 1) / kPage * kPage; }
    static void Set16 (std::vector<std::uint8_t> & file, std::uint32_t at, std::uint16_t value) { std::memcpy (&file [at], &value, 2); }
    static void Set32 (std::vector<std::uint8_t> & file, std::uint32_t at, std::uint32_t value) { std::memcpy (&file [at], &value, 4); }

    void Descriptor (std::uint32_t size, std::uint32_t nameField, std::uint32_t name, std::uint32_t attributes)
    {
        std::vector<std::uint8_t> descriptor (size);
        std::memcpy (&descriptor [0], &attributes, 4);
        std::memcpy (&descriptor [nameField], &name, 4);
        Put (descriptor.data (), size);
    }

    std::vector<std::uint8_t> fSection;
};

}

#endif
