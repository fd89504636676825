// ArrayBuffer<T> and NoCopy: ownership, Realloc, the names each form reports, and which forms
// the DLL exports.
#include <LibSkerry/ArrayBuffer>
#include <LibSkerry/Base64>

#include "Expect.h"

#include <gtest/gtest.h>

#include <windows.h>

#include <cstring>
#include <new>
#include <type_traits>

using Skerry::ArrayBuffer;

namespace {

// Nothing derived from NoCopy can be copied or assigned.
template <typename T>
constexpr bool kUncopyable = ! std::is_copy_constructible<T>::value && ! std::is_copy_assignable<T>::value;
static_assert (kUncopyable<Skerry::NoCopy>);
static_assert (kUncopyable<ArrayBuffer<unsigned char>>);
static_assert (kUncopyable<ArrayBuffer<char>>);
static_assert (kUncopyable<ArrayBuffer<wchar_t>>);
static_assert (kUncopyable<ArrayBuffer<unsigned short>>);
static_assert (kUncopyable<ArrayBuffer<void>>);
static_assert (kUncopyable<Skerry::Base64::Binary>);
static_assert (std::is_base_of<Skerry::NoCopy, ArrayBuffer<char>>::value);

// A buffer whose pointer is cleared for its life, to reach the conversion's assertion.
template <typename T>
struct Cleared : ArrayBuffer<T> {
    explicit Cleared (T * buffer) : ArrayBuffer<T> (buffer) { this->fBuffer = nullptr; }
    ~Cleared () { this->fBuffer = fKept; }
    T * fKept = this->fBuffer;
};

template <typename T>
void ExpectSites (T * adopted, const char * constructor, const char * conversion)
{
    SkerryTest::ExpectAssertion ([] { ArrayBuffer<T> buffer (static_cast<T *> (nullptr)); },
        "assertion failed: fBuffer", constructor, "LibSkerry/ArrayBuffer");
    Cleared<T> cleared (adopted);
    SkerryTest::ExpectAssertion ([&] { static_cast<T *> (cleared); },
        "assertion failed: fBuffer", conversion, "LibSkerry/ArrayBuffer");
}

}

TEST (ArrayBuffer, EachFormReportsItsOwnName)
{
    ExpectSites (new unsigned char [1], "Skerry::ArrayBuffer<unsigned char>::ArrayBuffer",
        "Skerry::ArrayBuffer<unsigned char>::operator unsigned char *");
    ExpectSites (new char [1], "Skerry::ArrayBuffer<char>::ArrayBuffer", "Skerry::ArrayBuffer<char>::operator char *");
    ExpectSites (new wchar_t [1], "Skerry::ArrayBuffer<wchar_t>::ArrayBuffer",
        "Skerry::ArrayBuffer<wchar_t>::operator wchar_t *");
    ExpectSites (new unsigned short [1], "Skerry::ArrayBuffer<unsigned short>::ArrayBuffer",
        "Skerry::ArrayBuffer<unsigned short>::operator unsigned short *");
    ExpectSites (::operator new (1), "Skerry::ArrayBuffer<void>::ArrayBuffer", "Skerry::ArrayBuffer<void>::operator void *");
}

TEST (ArrayBuffer, OnlyTheByteFormIsExported)
{
    HMODULE library = ::GetModuleHandleW (L"LibSkerry.dll");
    for (const char * exported : { "_ZN6Skerry11ArrayBufferIhEC1Ej", "_ZN6Skerry11ArrayBufferIhEC1EPh",
             "_ZN6Skerry11ArrayBufferIhEcvPhEv", "_ZN6Skerry11ArrayBufferIhE7ReallocEj", "_ZN6Skerry11ArrayBufferIhED1Ev" })
        EXPECT_NE (::GetProcAddress (library, exported), nullptr) << exported;
    for (const char * internal : { "_ZN6Skerry11ArrayBufferIcEC1Ej", "_ZN6Skerry11ArrayBufferIwEC1Ej",
             "_ZN6Skerry11ArrayBufferItEC1Ej", "_ZN6Skerry11ArrayBufferIvEC1EPv" })
        EXPECT_EQ (::GetProcAddress (library, internal), nullptr) << internal;
}

TEST (ArrayBuffer, CountsAndAdoption)
{
    ArrayBuffer<unsigned char> empty (0u);
    EXPECT_NE (static_cast<unsigned char *> (empty), nullptr);
    ArrayBuffer<wchar_t> text (new wchar_t [3] { L'a', L'b', 0 });
    EXPECT_STREQ (static_cast<wchar_t *> (text), L"ab");
    ArrayBuffer<void> raw (::operator new (16));
    EXPECT_NE (static_cast<void *> (raw), nullptr);
    // A byte size past the size type fails as an allocation, not as a wrapped size.
    EXPECT_THROW (ArrayBuffer<wchar_t> (0x80000001u), std::bad_alloc);
    EXPECT_THROW (ArrayBuffer<unsigned short> (0xFFFFFFFFu), std::bad_alloc);
}

TEST (ArrayBuffer, ReallocReplacesTheArrayOrLeavesItWhole)
{
    ArrayBuffer<unsigned char> buffer (4);
    std::memcpy (buffer, "abc", 4);
    unsigned char * before = buffer;
    EXPECT_THROW (buffer.Realloc (0xFFFFFFF0u), std::bad_alloc);
    EXPECT_EQ (static_cast<unsigned char *> (buffer), before);
    EXPECT_STREQ (reinterpret_cast<char *> (static_cast<unsigned char *> (buffer)), "abc");
    // The new array exists before the old goes, so it is always another one, also of the same size.
    buffer.Realloc (4);
    EXPECT_NE (static_cast<unsigned char *> (buffer), before);
    buffer.Realloc (0u);
    EXPECT_NE (static_cast<unsigned char *> (buffer), nullptr);
}
