// libFuzzer target: the import reader's checked walks over any bytes taken as a laid-out image,
// both directories under both size rules. Built natively: the walks use no platform call. Built
// with SKERRY_WRITE_SEEDS it is instead a program that writes the seed images into a directory.
#include "ImageReader.h"
#include "ImageWriter.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

using namespace Skerry::ImageReader;

#ifndef SKERRY_WRITE_SEEDS

extern "C" int LLVMFuzzerTestOneInput (const std::uint8_t * bytes, std::size_t size)
{
    std::uint32_t headers = 0, extent = 0;
    const Bounded file (bytes, std::uint32_t (std::min<std::size_t> (size, UINT32_MAX)));
    if (FindHeaders (file, headers, extent) != Headers::kFound)
        return 0;
    const Bounded image (bytes, std::uint32_t (std::min<std::uint64_t> (extent, size)));
    for (SizeRule rule : { SizeRule::kChecked, SizeRule::kIgnored })
        for (const Directory & directory : { kImports, kDelayLoads }) {
            std::vector<std::string> names;
            Walk (image, headers, directory, rule, names);
            for (const std::string & name : names)
                if (name.size () >= size)
                    std::abort ();
        }
    return 0;
}

#else

// The shapes the tests use: both directories, a directory's Size of 30, and a table cut by the end.
int main (int, char ** argv)
{
    std::vector<SkerryTest::ImageWriter> seeds (3);
    for (SkerryTest::ImageWriter & writer : seeds) {
        std::uint32_t alpha = writer.Name ("alpha.dll"), beta = writer.Name ("beta.dll");
        writer.Imports ({ { 0, alpha }, { 0, beta } });
        writer.DelayLoads ({ { 1, beta }, { 0, alpha } });
    }
    seeds [1].fImport [1] = 30;
    seeds [2].PadTo (2 * SkerryTest::ImageWriter::kPage - 20);
    seeds [2].Imports ({ { 0, 0x1000 } }, false);
    for (std::size_t i = 0; i < seeds.size (); ++i) {
        std::vector<std::uint8_t> bytes = seeds [i].File ();
        std::FILE * file = std::fopen ((std::string (argv [1]) + "/seed" + std::to_string (i)).c_str (), "wb");
        std::fwrite (bytes.data (), 1, bytes.size (), file);
        std::fclose (file);
    }
}

#endif
