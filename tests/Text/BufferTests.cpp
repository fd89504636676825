// ArrayBuffer<T> and FormattedStringTemplate<char>: the names each form reports, which
// forms the DLL exports, Realloc, exact formatted sizes and the runtime's failures.
#include <LibSkerry/ArrayBuffer>
#include <LibSkerry/FormattedString>

#include "Expect.h"
#include "Interposer.h"

#include <cstring>
#include <new>
#include <string>

using Skerry::ArrayBuffer;

namespace {

// A buffer whose pointer is cleared for its life, to reach the conversion's assertion.
template <typename T>
struct Cleared : ArrayBuffer<T> {
    explicit Cleared (T * buffer) : ArrayBuffer<T> (buffer) { this->fBuffer = nullptr; }
    ~Cleared () { this->fBuffer = fKept; }
    T * fKept = this->fBuffer;
};

template <typename T>
void ExpectNames (T * adopted, const std::string & type)
{
    std::string prefix = "Skerry::ArrayBuffer<" + type + ">::";
    SkerryTest::ExpectAssertion ([] { ArrayBuffer<T> buffer (static_cast<T *> (nullptr)); },
        "assertion failed: fBuffer", (prefix + "ArrayBuffer").c_str (), "LibSkerry/ArrayBuffer");
    Cleared<T> cleared (adopted);
    SkerryTest::ExpectAssertion ([&] { static_cast<T *> (cleared); }, "assertion failed: fBuffer",
        (prefix + "operator " + type + " *").c_str (), "LibSkerry/ArrayBuffer");
}

using Text = Skerry::FormattedStringTemplate<char>;

}

// This program's runtime calls go through its own pointers, which mingw resolves at first use.
extern "C" void * _imp___vscprintf;
extern "C" void * _imp__vsprintf_s;

TEST (ArrayBuffer, NamesExportsAllocationAndRealloc)
{
    ExpectNames (new unsigned char [1], "unsigned char");
    ExpectNames (new char [1], "char");
    ExpectNames (new wchar_t [1], "wchar_t");
    ExpectNames (new unsigned short [1], "unsigned short");
    ExpectNames (::operator new (1), "void");
    HMODULE library = ::GetModuleHandleW (L"LibSkerry.dll");
    for (const char * name : { "_ZN6Skerry11ArrayBufferIhEC1Ej", "_ZN6Skerry11ArrayBufferIhEcvPhEv",
             "_ZN6Skerry11ArrayBufferIhE7ReallocEj", "_ZN6Skerry11ArrayBufferIcEC1Ej", "_ZN6Skerry11ArrayBufferIwEC1Ej" })
        EXPECT_EQ (::GetProcAddress (library, name) != nullptr, std::strstr (name, "Ih") != nullptr) << name;

    ArrayBuffer<unsigned char> buffer (0u);
    EXPECT_NE (static_cast<unsigned char *> (buffer), nullptr);
    // A byte size past the size type fails as an allocation, not as a wrapped size.
    EXPECT_THROW (ArrayBuffer<wchar_t> (0x80000001u), std::bad_alloc);
    buffer.Realloc (4);
    std::memcpy (buffer, "abc", 4);
    unsigned char * before = buffer;
    EXPECT_THROW (buffer.Realloc (0xFFFFFFF0u), std::bad_alloc);
    EXPECT_EQ (static_cast<unsigned char *> (buffer), before);
    EXPECT_STREQ (reinterpret_cast<char *> (before), "abc");
    buffer.Realloc (4);
    EXPECT_NE (static_cast<unsigned char *> (buffer), before);
}

TEST (FormattedString, SizesAreExactAndRuntimeFailuresRaise)
{
    Text line ("%*s 0x%p %s\n", 14, "kernel32.dll", reinterpret_cast<void *> (0x0040138E), "GetTickCount+0x0");
    EXPECT_EQ (std::string (line.fBuffer, line.fCount + 1), std::string ("  kernel32.dll 0x0040138E GetTickCount+0x0\n", 44));
    Text empty ("%s", "");
    EXPECT_TRUE (empty.fCount == 0 && empty.fBuffer [0] == '\0');
    std::string longText (200000, 'x');
    Text whole ("[%s]", longText.c_str ());
    EXPECT_EQ (std::string (whole.fBuffer, whole.fCount), "[" + longText + "]");

    struct MeasureTag {};
    struct PrintTag {};
    SkerryTest::Interposer<MeasureTag, int __cdecl (const char *, va_list)> measure (&_imp___vscprintf);
    SkerryTest::Interposer<PrintTag, int __cdecl (char *, size_t, const char *, va_list)> print (&_imp__vsprintf_s);
    auto format = [] { Text text ("%s", "abc"); };
    for (int run = 0; run < 2; ++run) {
        (run == 0 ? measure.Fail (-1, 0) : print.Fail (-1, 0));
        EXPECT_EQ (SkerryTest::Expect<Skerry::Exceptions::Skerry> (format, "Skerry::FormattedStringReturnValueFilter",
            "LibSkerry/FormattedString").fCode, 4ul);
    }
    print.Replace ([&] (char * buffer, size_t size, const char * text, va_list arguments) {
        return print.Original (buffer, size, text, arguments) - 1;
    });
    SkerryTest::ExpectAssertion (format, "assertion failed: written == fCount",
        "Skerry::FormattedStringTemplate<char>::FormattedStringTemplate", "LibSkerry/FormattedString");
    EXPECT_EQ (std::get<1> (print.CallArguments () [1]), 4u);
}
