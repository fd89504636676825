// The string object, shared by the parts that read strings directly (encodings, comparison,
// formatting, URLs).
#ifndef PLINTH_STRING_H
#define PLINTH_STRING_H

#include "Internal.h"

// A string's units follow it in its block, except those of a no-copy string, which keeps where
// they are and, after the object, the deallocator that frees them (null: borrowed for good).
struct __PLString : Plinth::Object {
    PLUniChar const * fUnits;
    PLIndex fLength;
    uint32_t fHash;
    bool fHashKnown;
    bool fBorrowed;   // fUnits are the creator's: a no-copy string
};

namespace Plinth {

__PLString const * AsString (void const * object);

}

#endif
