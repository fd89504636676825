// What the fuzz targets share: reading bytes with each set of options, and the checks that turn a
// silent fault into a crash that libFuzzer keeps: a leaked object, or a round trip that changed
// the value.
#ifndef PLINTH_FUZZ_COMMON_H
#define PLINTH_FUZZ_COMMON_H

#include <Plinth/Plinth.h>

#include <cstdlib>
#include <initializer_list>

namespace PlinthFuzz {

inline void Require (bool condition)
{
    if (! condition)
        std::abort ();
}

inline PLTypeRef Read (uint8_t const * bytes, std::size_t size, PLOptionFlags options)
{
    PLDataRef data = PLDataCreateWithBytesNoCopy (kPLAllocatorDefault, bytes, PLIndex (size), kPLAllocatorNull);
    PLStringRef error = nullptr;
    PLTypeRef value = PLPropertyListCreateWithData (kPLAllocatorDefault, data, options, nullptr, &error);
    // Exactly one of a value and a reason.
    Require ((value == nullptr) != (error == nullptr));
    PLRelease (error);
    PLRelease (data);
    return value;
}

// Reads the input with every option; nothing may stay alive afterwards.
inline void ReadEveryWay (uint8_t const * bytes, std::size_t size)
{
    PLIndex before = PLDebugGetLiveObjectCount ();
    for (PLOptionFlags options : { 0, 1, 2 })
        PLRelease (Read (bytes, size, options));
    Require (PLDebugGetLiveObjectCount () == before);
}

}

#endif
