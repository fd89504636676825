// Formatted strings: the printf conversions with their widths and lengths, and %@, %S, %C.
#include "PlinthTest.h"

#include <cstdarg>

using namespace PlinthTest;

namespace {

std::string Format (char const * format, ...)
{
    va_list arguments;
    va_start (arguments, format);
    Owned<PLStringRef> formatString (CreateString (format));
    Owned<PLStringRef> result (PLStringCreateWithFormatAndArguments (kPLAllocatorDefault, nullptr, formatString, arguments));
    va_end (arguments);
    EXPECT_NE (result.Get (), nullptr);
    return UTF8 (result);
}

}

TEST (Format, ConversionsFollowPrintfAndObjectsTheirDescriptions)
{
    NoLeaks noLeaks;
    EXPECT_EQ (Format ("%d|%5d|%-5d|%05d|%+d", -7, 42, 42, 42, 3), "-7|   42|42   |00042|+3");
    EXPECT_EQ (Format ("%u %x %X %#o", 4000000000u, 255u, 255u, 8u), "4000000000 ff FF 010");
    EXPECT_EQ (Format ("%ld %lu %lld %llx", -5l, 7ul, -1234567890123ll, 0x1234567890abcdefull),
        "-5 7 -1234567890123 1234567890abcdef");
    EXPECT_EQ (Format ("%hd %hhu %zu", 70000, 300, std::size_t (9)), "4464 44 9");
    EXPECT_EQ (Format ("%.2f %8.3e %g %*d %.*f", 3.14159, 12345.678, 0.0001, 4, 7, 1, 2.26), "3.14 1.235e+04 0.0001    7 2.3");
    EXPECT_EQ (Format ("100%% %c", 'x'), "100% x");
    EXPECT_EQ (Format ("[%s] [%6s] [%-6s] [%.2s]", "abc", "abc", "abc", "abc"), "[abc] [   abc] [abc   ] [ab]");
    EXPECT_EQ (Format ("%s|%s", u8"\u00E4", "\xE4"), u8"\u00E4|\u00E4");   // not UTF-8: read as Latin-1
    int64_t number = 12;
    Owned<PLNumberRef> twelve (PLNumberCreate (kPLAllocatorDefault, kPLNumberSInt64Type, &number));
    EXPECT_EQ (Format ("%@ and %@", PLSTR ("text"), twelve.Get ()), "text and 12");
    EXPECT_EQ (Format ("%@ %s", nullptr, static_cast<char const *> (nullptr)), "(null) (null)");
    EXPECT_EQ (Format ("%S|%ls|%C", u"wide", u"\u20AC", int (u'\u00DF')), u8"wide|\u20AC|\u00DF");
    EXPECT_EQ (Format ("%4@|", PLSTR ("ab")), "  ab|");
    // What is no conversion stays as written.
    EXPECT_EQ (Format ("%y %n and 5%"), "%y %n and 5%");
    Owned<PLStringRef> s (PLStringCreateWithFormat (kPLAllocatorDefault, nullptr, PLSTR ("%d-%d"), 1, 2));
    EXPECT_EQ (UTF8 (s), "1-2");
    EXPECT_EQ (PLStringCreateWithFormat (kPLAllocatorDefault, nullptr, nullptr), nullptr);
}
