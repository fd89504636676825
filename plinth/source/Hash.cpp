// The hash of strings, data, numbers and dates: SipHash-1-3 (one compression round per 8-byte word,
// three finalisation rounds) under a key drawn from the platform's random source once per process.
// A table of keys chosen by an attacker to share one slot chain needs the key, which no input can
// learn; an unkeyed hash (or one of a fixed seed) can be inverted offline, so that a small file of
// crafted keys turns every dictionary operation linear. Hashes therefore differ from process to
// process and are never stored.
#include "Internal.h"

#include <ctime>

using namespace Plinth;

namespace {

struct SipKey {
    uint64_t f0, f1;
};

// The key, drawn once; should the random source fail, addresses and a clock still vary from run
// to run, which is better than a constant.
SipKey MakeKey ()
{
    SipKey key {};
    if (! PlatformRandomBytes (&key, sizeof key)) {
        key.f0 = uint64_t (reinterpret_cast<std::uintptr_t> (&key)) * 0x9E3779B97F4A7C15ull;
        key.f1 = uint64_t (reinterpret_cast<std::uintptr_t> (&MakeKey)) ^ uint64_t (std::time (nullptr));
    }
    return key;
}

SipKey const & ProcessKey ()
{
    static SipKey const sKey = MakeKey ();
    return sKey;
}

inline uint64_t RotateLeft (uint64_t value, int bits) { return (value << bits) | (value >> (64 - bits)); }

struct SipState {
    uint64_t v0, v1, v2, v3;

    void Round ()
    {
        v0 += v1; v1 = RotateLeft (v1, 13); v1 ^= v0; v0 = RotateLeft (v0, 32);
        v2 += v3; v3 = RotateLeft (v3, 16); v3 ^= v2;
        v0 += v3; v3 = RotateLeft (v3, 21); v3 ^= v0;
        v2 += v1; v1 = RotateLeft (v1, 17); v1 ^= v2; v2 = RotateLeft (v2, 32);
    }
    void Compress (uint64_t word)
    {
        v3 ^= word;
        Round ();
        v0 ^= word;
    }
};

// The bytes from `at`, at most 8, as a little-endian word.
inline uint64_t Word (uint8_t const * at, std::size_t count)
{
    uint64_t word = 0;
    for (std::size_t i = count; i-- > 0;)
        word = word << 8 | at [i];
    return word;
}

}

namespace Plinth {

uint64_t KeyedHash (void const * bytes, std::size_t size)
{
    SipKey const & key = ProcessKey ();
    SipState s { key.f0 ^ 0x736F6D6570736575ull, key.f1 ^ 0x646F72616E646F6Dull,
        key.f0 ^ 0x6C7967656E657261ull, key.f1 ^ 0x7465646279746573ull };
    uint8_t const * at = static_cast<uint8_t const *> (bytes);
    std::size_t whole = size & ~std::size_t (7);
    for (std::size_t i = 0; i < whole; i += 8)
        s.Compress (Word (at + i, 8));
    s.Compress (uint64_t (size) << 56 | Word (at + whole, size - whole));
    s.v2 ^= 0xFF;
    s.Round ();
    s.Round ();
    s.Round ();
    return s.v0 ^ s.v1 ^ s.v2 ^ s.v3;
}

PLHashCode HashUnits (PLUniChar const * units, std::size_t count)
{
    return FoldHash (KeyedHash (units, count * sizeof (PLUniChar)));
}

PLHashCode HashInteger (int64_t value)
{
    return FoldHash (KeyedHash (&value, sizeof value));
}

}
