/* C++ conveniences over Plinth's C interface, for programs written in C++ (Plinth's own tool and
 * tests among them): a scope that owns one reference, and a string's text as UTF-8.
 *
 *     PlinthCXX::Owned<PLStringRef> error;
 *     PlinthCXX::Owned<PLDataRef> data (PLPropertyListCreateData (kPLAllocatorDefault, list, 200, 0, error.Out ()));
 *     if (data.Get () == nullptr)
 *         std::puts (PlinthCXX::UTF8 (error.Get ()).c_str ());
 */
#ifndef PLINTH_PLINTHCXX_H
#define PLINTH_PLINTHCXX_H

#include <Plinth/Plinth.h>

#include <cstddef>
#include <string>

namespace PlinthCXX {

// Owns one reference (a Create or Copy result, or one filled in through Out) and releases it at
// the end of the scope; null is allowed.
template <typename T>
class Owned {
public:
    explicit Owned (T object = nullptr) : fObject (object) {}
    ~Owned () { PLRelease (fObject); }
    Owned (Owned const &) = delete;
    Owned & operator = (Owned const &) = delete;
    T Get () const { return fObject; }
    operator T () const { return fObject; }
    // Where a call that gives an owned reference through its last argument puts it; the reference
    // held before is released first, so that a scope reused for several calls leaks none.
    T * Out ()
    {
        PLRelease (fObject);
        fObject = nullptr;
        return &fObject;
    }

private:
    T fObject;
};

// The whole string as UTF-8; an unpaired surrogate becomes '?'.
inline std::string UTF8 (PLStringRef string)
{
    PLIndex size = 0;
    PLRange all = PLRangeMake (0, PLStringGetLength (string));
    PLStringGetBytes (string, all, kPLStringEncodingUTF8, '?', false, nullptr, 0, &size);
    std::string text (std::size_t (size), '\0');
    if (size > 0)
        PLStringGetBytes (string, all, kPLStringEncodingUTF8, '?', false, reinterpret_cast<uint8_t *> (&text [0]),
            size, &size);
    return text;
}

}

#endif
