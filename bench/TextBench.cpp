// The cost of the text classes against the raw two-call platform sequence that each wraps: ask
// for the size, allocate exactly that, convert, check, and free. The library's result is a string
// or an owned array, so the baseline also takes its text as a string where the library does.
#include <LibSkerry/Base64>
#include <LibSkerry/CodePages>
#include <LibSkerry/FormattedString>

#include "Harness.h"

#include <windows.h>
#include <wincrypt.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

namespace {

volatile unsigned sSink;

// Fewer operations per batch for large inputs, so that every case takes about as long.
SkerryBench::Options OptionsFor (size_t size)
{
    SkerryBench::Options options;
    options.fOperationsPerBatch = unsigned (std::max<size_t> (8, 1024 * 1024 / (size + 64)));
    return options;
}

std::vector<unsigned char> SampleBytes (size_t size)
{
    std::vector<unsigned char> bytes (size);
    unsigned state = 12345;
    for (auto & byte : bytes) {
        state = state * 1103515245 + 12345;
        byte = static_cast<unsigned char> (state >> 16);
    }
    return bytes;
}

__attribute__ ((noinline)) void RawEncode (const std::vector<unsigned char> & bytes)
{
    DWORD size = 0;
    if (! ::CryptBinaryToStringA (bytes.data (), DWORD (bytes.size ()), CRYPT_STRING_BASE64, NULL, &size))
        std::abort ();
    char * buffer = new char [size];
    DWORD written = size;
    if (! ::CryptBinaryToStringA (bytes.data (), DWORD (bytes.size ()), CRYPT_STRING_BASE64, buffer, &written))
        std::abort ();
    std::string text (buffer, written);
    delete [] buffer;
    sSink = sSink + unsigned (text.size ());
}

__attribute__ ((noinline)) void RawDecode (const std::string & text)
{
    DWORD size = 0, skip = 0, format = 0;
    if (! ::CryptStringToBinaryA (text.data (), DWORD (text.size ()), CRYPT_STRING_BASE64, NULL, &size, &skip, &format))
        std::abort ();
    unsigned char * buffer = new unsigned char [size];
    DWORD written = size;
    if (! ::CryptStringToBinaryA (text.data (), DWORD (text.size ()), CRYPT_STRING_BASE64, buffer, &written, &skip,
            &format))
        std::abort ();
    sSink = sSink + buffer [0] + written;
    delete [] buffer;
}

__attribute__ ((noinline)) void RawToWide (const std::string & text)
{
    int count = ::MultiByteToWideChar (1252, 0, text.data (), int (text.size ()), NULL, 0);
    wchar_t * buffer = new wchar_t [count];
    if (::MultiByteToWideChar (1252, 0, text.data (), int (text.size ()), buffer, count) != count)
        std::abort ();
    std::wstring wide (buffer, count);
    delete [] buffer;
    sSink = sSink + unsigned (wide.size ());
}

__attribute__ ((noinline)) void RawToANSI (const std::wstring & text)
{
    int count = ::WideCharToMultiByte (1252, 0, text.data (), int (text.size ()), NULL, 0, NULL, NULL);
    char * buffer = new char [count];
    if (::WideCharToMultiByte (1252, 0, text.data (), int (text.size ()), buffer, count, NULL, NULL) != count)
        std::abort ();
    std::string narrow (buffer, count);
    delete [] buffer;
    sSink = sSink + unsigned (narrow.size ());
}

__attribute__ ((noinline)) void RawFormat (const char * format, ...)
{
    va_list arguments;
    va_start (arguments, format);
    int count = ::_vscprintf (format, arguments);
    va_end (arguments);
    char * buffer = new char [count + 1];
    va_start (arguments, format);
    if (::vsprintf_s (buffer, count + 1, format, arguments) != count)
        std::abort ();
    va_end (arguments);
    sSink = sSink + unsigned (buffer [0]);
    delete [] buffer;
}

const char * SizeName (size_t size)
{
    return size >= 1024 * 1024 ? "1 MiB" : size >= 4096 ? "4 KiB" : "64 B";
}

// Library and baseline alternate three times, and each keeps its best median, so that a slow
// phase of the machine doesn't land on one side only.
template <typename Library, typename Baseline>
void Compare (const std::string & name, size_t size, Library library, Baseline baseline)
{
    double libraryTime = 1e300, baselineTime = 1e300;
    for (int round = 0; round < 3; ++round) {
        libraryTime = std::min (libraryTime, SkerryBench::Median (library, OptionsFor (size)));
        baselineTime = std::min (baselineTime, SkerryBench::Median (baseline, OptionsFor (size)));
    }
    SkerryBench::Report ((name + " " + SizeName (size)).c_str (), libraryTime, baselineTime, 1.10);
}

}

int main ()
{
    SkerryBench::Header ("Base64 and code pages against the raw two-call sequence");
    for (size_t size : { size_t (64), size_t (4096), size_t (1024 * 1024) }) {
        std::vector<unsigned char> bytes = SampleBytes (size);
        std::string text = Skerry::Base64::String (bytes.data (), unsigned (size));
        Compare ("Base64::String vs CryptBinaryToStringA", size,
            [&] { sSink = sSink + unsigned (Skerry::Base64::String (bytes.data (), unsigned (size)).size ()); },
            [&] { RawEncode (bytes); });
        Compare ("Base64::Binary vs CryptStringToBinaryA", size,
            [&] { sSink = sSink + unsigned (Skerry::Base64::Binary (text).fSize); },
            [&] { RawDecode (text); });

        std::string narrow (bytes.begin (), bytes.end ());
        std::wstring wide = Skerry::WideStringFromANSI (narrow.data (), unsigned (size), 1252);
        Compare ("WideStringFromANSI vs MultiByteToWideChar", size,
            [&] { sSink = sSink + unsigned (Skerry::WideStringFromANSI (narrow.data (), unsigned (size), 1252).size ()); },
            [&] { RawToWide (narrow); });
        Compare ("ANSIStringFromWide vs WideCharToMultiByte", size,
            [&] { sSink = sSink + unsigned (Skerry::ANSIStringFromWide (wide, 1252).size ()); },
            [&] { RawToANSI (wide); });
    }

    SkerryBench::Header ("Bounded formatting against _vscprintf + vsprintf_s");
    static const char kFormat [] = "%*s 0x%p %s+0x%lX\n";
    void * address = reinterpret_cast<void *> (0x0040138E);
    Compare ("FormattedStringTemplate<char>, one frame line", 64,
        [&] {
            Skerry::FormattedStringTemplate<char> line (kFormat, 20, "kernel32.dll", address, "GetTickCount", 0x1Ful);
            sSink = sSink + line.fCount;
        },
        [&] { RawFormat (kFormat, 20, "kernel32.dll", address, "GetTickCount", 0x1Ful); });
    std::string longName (4000, 'n');
    Compare ("FormattedStringTemplate<char>, 4 KiB line", 4096,
        [&] {
            Skerry::FormattedStringTemplate<char> line ("%s %d\n", longName.c_str (), 7);
            sSink = sSink + line.fCount;
        },
        [&] { RawFormat ("%s %d\n", longName.c_str (), 7); });
    return 0;
}
