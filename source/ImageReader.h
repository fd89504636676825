// The import walk of ExecutableImageFile over untrusted bytes, kept free of the platform so that it
// also builds natively, where the fuzz target runs it.
//
// An image claims where its tables and names lie; nothing of that is followed by raw pointer
// arithmetic. Every field behind the NT headers is read through Bounded, which checks offset and
// size against the image's extent (SizeOfImage, or less when fewer bytes are at hand) without
// overflowing, and every name must end inside that extent. A walk reports what it found as an
// Outcome; the caller decides what to print.
#ifndef SKERRY_IMAGE_READER
#define SKERRY_IMAGE_READER

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

namespace Skerry {
namespace ImageReader {

class Bounded {
public:
    Bounded (const unsigned char * base, std::uint32_t extent)
        : fBase (base), fExtent (extent)
    {
    }

    bool Read16 (std::uint64_t offset, std::uint16_t & value) const { return Read (offset, &value, 2); }
    bool Read32 (std::uint64_t offset, std::uint32_t & value) const { return Read (offset, &value, 4); }
    bool Holds (std::uint64_t offset, std::uint64_t size) const { return offset <= fExtent && size <= fExtent - offset; }

    // The bytes at `offset` up to their zero, which must lie inside the extent.
    bool ReadName (std::uint32_t offset, std::string & name) const
    {
        if (! Holds (offset, 1))
            return false;
        const void * end = std::memchr (fBase + offset, 0, fExtent - offset);
        if (end == nullptr)
            return false;
        name.assign (reinterpret_cast<const char *> (fBase + offset), static_cast<const char *> (end));
        return true;
    }

private:
    // Byte by byte, so that an unaligned field is no concern; the format is little-endian.
    bool Read (std::uint64_t offset, void * value, unsigned size) const
    {
        if (! Holds (offset, size))
            return false;
        std::memcpy (value, fBase + offset, size);
        return true;
    }

    const unsigned char * fBase;
    std::uint32_t fExtent;
};

// Positions in the NT headers of the 32-bit layout, and the two descriptors.
constexpr std::uint32_t kSizeOfImage = 0x50;
constexpr std::uint32_t kNumberOfRvaAndSizes = 0x74;
constexpr std::uint32_t kImportDirectory = 0x80;
constexpr std::uint32_t kDelayLoadDirectory = 0xE0;
constexpr std::uint32_t kImportDescriptorSize = 20;
constexpr std::uint32_t kImportNameField = 12;
constexpr std::uint32_t kDelayLoadDescriptorSize = 32;
constexpr std::uint32_t kDelayLoadNameField = 4;
constexpr std::uint32_t kDelayLoadAttributesAreRVAs = 1;

enum class Headers { kFound, kNoDOSSignature, kNoNTSignature };

// Where the NT headers start, and the image's extent: SizeOfImage, but never more than `image`
// holds. Headers that run past `image` count as a missing signature.
inline Headers FindHeaders (const Bounded & image, std::uint32_t & headers, std::uint32_t & extent)
{
    std::uint16_t magic = 0;
    if (! image.Read16 (0, magic) || magic != 0x5A4D)
        return Headers::kNoDOSSignature;
    std::uint32_t signature = 0;
    if (! image.Read32 (0x3C, headers) || ! image.Read32 (headers, signature) || signature != 0x4550
            || ! image.Read32 (std::uint64_t (headers) + kSizeOfImage, extent))
        return Headers::kNoNTSignature;
    return Headers::kFound;
}

// In the order of testing; kRead means read to the terminator.
enum class Outcome { kNoEntry, kNullDirectory, kTooSmall, kUnevenSize, kLacksRVAs, kOutsideImage, kRead };

// Whether a directory's Size is checked against its descriptors (the strict walk) or ignored, the
// walk then bounded by the image alone: GNU ld gives the import directory the size of the whole
// import section, which is seldom a multiple of a descriptor.
enum class SizeRule { kChecked, kIgnored };

struct Directory {
    std::uint32_t fEntry;           // the data directory's position in the NT headers
    std::uint32_t fMinimumEntries;  // NumberOfRvaAndSizes must exceed this
    std::uint32_t fDescriptorSize;
    std::uint32_t fNameField;
    bool fDelayLoaded;
};

constexpr Directory kImports { kImportDirectory, 1, kImportDescriptorSize, kImportNameField, false };
constexpr Directory kDelayLoads { kDelayLoadDirectory, 13, kDelayLoadDescriptorSize, kDelayLoadNameField, true };

// Appends the names of `directory`'s descriptors to `names` until the terminator; names appended
// before a malformed descriptor stay.
inline Outcome Walk (const Bounded & image, std::uint32_t headers, const Directory & directory, SizeRule rule,
    std::vector<std::string> & names)
{
    std::uint32_t count = 0, address = 0, size = 0;
    if (! image.Read32 (std::uint64_t (headers) + kNumberOfRvaAndSizes, count))
        return Outcome::kOutsideImage;
    if (count <= directory.fMinimumEntries)
        return Outcome::kNoEntry;
    if (! image.Read32 (std::uint64_t (headers) + directory.fEntry, address)
            || ! image.Read32 (std::uint64_t (headers) + directory.fEntry + 4, size))
        return Outcome::kOutsideImage;
    if (address == 0)
        return Outcome::kNullDirectory;
    if (rule == SizeRule::kChecked && size < directory.fDescriptorSize)
        return Outcome::kTooSmall;
    if (rule == SizeRule::kChecked && size % directory.fDescriptorSize != 0)
        return Outcome::kUnevenSize;
    for (std::uint64_t descriptor = address; ; descriptor += directory.fDescriptorSize) {
        std::uint32_t name = 0, attributes = 0;
        if (! image.Holds (descriptor, directory.fDescriptorSize)
                || ! image.Read32 (descriptor + directory.fNameField, name))
            return Outcome::kOutsideImage;
        if (name == 0)
            return Outcome::kRead;
        if (directory.fDelayLoaded && image.Read32 (descriptor, attributes)
                && (attributes & kDelayLoadAttributesAreRVAs) == 0)
            return Outcome::kLacksRVAs;
        std::string text;
        if (! image.ReadName (name, text))
            return Outcome::kOutsideImage;
        names.push_back (text);
    }
}

}
}

#endif
