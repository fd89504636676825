// A file copied through two streams in blocks of 4 KiB and read back whole, and a file name made
// safe from hostile text; the machine's drives, and the volume that a temporary file of the demo
// lies on. Included by Demo.cpp, which calls Demo::ShowFiles () and Demo::ShowVolumes ().
#ifndef DEMO_FILE
#define DEMO_FILE

#include <LibSkerry/CodePages>
#include <LibSkerry/File>
#include <LibSkerry/Utilities>

#include <windows.h>

#include <cstdio>
#include <cstring>
#include <string>

namespace Demo {

inline bool ShowFiles ()
{
    wchar_t directory [MAX_PATH];
    ::GetTempPathW (MAX_PATH, directory);
    std::wstring source = std::wstring (directory) + L"Tolvane Demo Source.txt";
    std::wstring copy = std::wstring (directory) + L"Tolvane Demo Copy.txt";
    std::string text;
    for (int line = 1; text.size () < 10000; ++line)
        text += "line " + std::to_string (line) + " of the demo's file\r\n";
    {
        Skerry::File::Stream out (source, GENERIC_WRITE, 0, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, true);
        out.Write (text.data (), static_cast<unsigned long> (text.size ()));
    }
    {
        Skerry::File::Stream from (source, GENERIC_READ, FILE_SHARE_READ, OPEN_EXISTING, 0, true);
        Skerry::File::Stream to (copy, GENERIC_WRITE, 0, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, true);
        char block [4096];
        while (unsigned long read = from.Read (block, sizeof block))
            to.Write (block, read);
    }
    Skerry::PlinthData back = Skerry::File::Stream (copy, GENERIC_READ, FILE_SHARE_READ, OPEN_EXISTING, 0, true).Read ();
    bool same = back.GetLength () == long (text.size ()) && std::memcmp (back.GetBytes (), text.data (), text.size ()) == 0;
    std::printf ("copied %ld bytes through a stream, %s\n", back.GetLength (), same ? "the same" : "DIFFERENT");
    ::DeleteFileW (source.c_str ());
    ::DeleteFileW (copy.c_str ());

    Skerry::File::SanitizedName name (L"  Q3: plans / costs?\t...", 64);
    std::printf ("safe name made from \"  Q3: plans / costs?\\t...\": \"%s\"\n",
        Skerry::ANSIStringFromWide (name, 65001).c_str ());
    return same;
}

inline void ShowVolumes ()
{
    Skerry::File::LogicalDrives drives;
    std::printf ("logical drives:");
    for (unsigned int i = 0; i < drives.size (); ++i)
        std::printf (" %s", Skerry::ANSIStringFromWide (drives [i], 65001).c_str ());
    Skerry::TempFilePath scratch (L"Vol");
    Skerry::File::Stream file (scratch, GENERIC_READ, FILE_SHARE_READ, OPEN_EXISTING, 0, true);
    Skerry::File::Stream::VolumeInfo volume = file.GetVolumeInfo ();
    std::printf ("\nthe volume of a temporary file: serial %04lX-%04lX, label \"%s\", file system %s, names up to %lu characters\n",
        volume.fSerialNumber >> 16, volume.fSerialNumber & 0xFFFF, Skerry::ANSIStringFromWide (volume.fVolumeName, 65001).c_str (),
        Skerry::ANSIStringFromWide (volume.fFileSystemName, 65001).c_str (), volume.fMaximumComponentLength);
}

}

#endif
