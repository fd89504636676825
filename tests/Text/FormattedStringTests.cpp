// FormattedStringTemplate<char>: exact sizes, and both runtime results through the filter.
#include <LibSkerry/FormattedString>

#include "Expect.h"
#include "Interposer.h"

#include <gtest/gtest.h>

#include <string>

using Skerry::FormattedStringTemplate;

namespace {

const char kSource [] = "LibSkerry/FormattedString";

// The template is compiled into this program. Its runtime calls go through this program's
// pointers to the runtime functions, which mingw's import library resolves at first use.
extern "C" void * _imp___vscprintf;
extern "C" void * _imp__vsprintf_s;

struct MeasureTag {};
using MeasureInterposer = SkerryTest::Interposer<MeasureTag, int __cdecl (const char *, va_list)>;
struct PrintTag {};
using PrintInterposer = SkerryTest::Interposer<PrintTag, int __cdecl (char *, size_t, const char *, va_list)>;

}

TEST (FormattedString, SizesAreExact)
{
    FormattedStringTemplate<char> empty ("%s", "");
    EXPECT_EQ (empty.fCount, 0u);
    EXPECT_EQ (empty.fBuffer [0], '\0');

    FormattedStringTemplate<char> line ("%*s 0x%p %s\n", 14, "kernel32.dll", reinterpret_cast<void *> (0x0040138E),
        "GetTickCount+0x0");
    EXPECT_EQ (std::string (line.fBuffer, line.fCount), "  kernel32.dll 0x0040138E GetTickCount+0x0\n");
    EXPECT_EQ (line.fBuffer [line.fCount], '\0');

    std::string longText (200000, 'x');
    FormattedStringTemplate<char> whole ("[%s]", longText.c_str ());
    EXPECT_EQ (whole.fCount, 200002u);
    EXPECT_EQ (std::string (whole.fBuffer, whole.fCount), "[" + longText + "]");
}

TEST (FormattedString, RuntimeFailuresRaiseSkerry4)
{
    {
        MeasureInterposer measure (&_imp___vscprintf);
        measure.Fail (-1, 0);
        SkerryTest::ExpectSkerry ([] { FormattedStringTemplate<char> text ("%d", 1); }, 4,
            "Skerry::FormattedStringReturnValueFilter", kSource);
    }
    PrintInterposer print (&_imp__vsprintf_s);
    print.Fail (-1, 0);
    SkerryTest::ExpectSkerry ([] { FormattedStringTemplate<char> text ("%d", 1); }, 4,
        "Skerry::FormattedStringReturnValueFilter", kSource);
    EXPECT_EQ (std::get<1> (print.CallArguments () [0]), 2u);

    // The two runs disagree.
    print.Replace ([&] (char * buffer, size_t size, const char * format, va_list arguments) {
        return print.Original (buffer, size, format, arguments) - 1;
    });
    SkerryTest::ExpectAssertion ([] { FormattedStringTemplate<char> text ("%s", "abc"); },
        "assertion failed: written == fCount", "Skerry::FormattedStringTemplate<char>::FormattedStringTemplate", kSource);
}
