// Text through the library: a greeting in Windows-1252 taken to UTF-16 and UTF-8, its UTF-8 bytes
// through Base64 and back, a GUID as text, tokens, and a C format printed into a buffer of exactly
// its size. Each result is a string or an owner whose constructor did the work.
#include <LibSkerry/LibSkerry>

#include <windows.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

int main ()
{
    const char bytes [] = "Gr\xfc\xdf" "e \x80 5";
    Skerry::WideStringFromANSI wide (bytes, sizeof bytes - 1, 1252);      // UTF-16 from code page 1252
    Skerry::ANSIStringFromWide utf8 (wide, 65001);                         // and on to UTF-8
    std::printf ("UTF-16: %u units, U+%04X for the euro sign\n", unsigned (wide.size ()), unsigned (wide [6]));
    std::printf ("UTF-8:  %u bytes:", unsigned (utf8.size ()));
    for (unsigned char byte : utf8)
        std::printf (" %02X", unsigned (byte));
    std::printf ("\n");

    Skerry::Base64::String text (utf8.data (), unsigned (utf8.size ()));   // lines end in "\r\n"
    Skerry::Base64::Binary decoded (text);             // decoded.fSize bytes at (unsigned char *) decoded
    bool same = decoded.fSize == utf8.size () && std::memcmp (decoded, utf8.data (), utf8.size ()) == 0;
    std::printf ("Base64: %s and CR LF, decoded %s\n", text.substr (0, text.size () - 2).c_str (),
        same ? "the same" : "DIFFERENT");

    const GUID guid = { 0x6B29FC40, 0xCA47, 0x1067, { 0xB3, 0x1D, 0x00, 0xDD, 0x01, 0x06, 0x62, 0xDA } };
    Skerry::StringFromGUID guidText (guid);
    std::printf ("GUID:   %ls\n", guidText.c_str ());

    std::vector<std::string> parts;
    Skerry::AppendTokens ("red,,green,blue", ",", parts, false);
    std::printf ("tokens: %u, the last \"%s\"\n", unsigned (parts.size ()), parts.back ().c_str ());

    unsigned __int64 size = 0x123456789ull;
    Skerry::FormattedStringTemplate<char> line ("%-6s %I64X", "size", size);   // checked against its format
    std::printf ("line:   \"%s\" (%u characters)\n", line.fBuffer, unsigned (line.fCount));
    return same ? 0 : 1;
}
