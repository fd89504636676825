// The string object, shared by the parts that read strings directly (encodings, comparison,
// formatting, URLs).
#ifndef PLINTH_STRING_H
#define PLINTH_STRING_H

#include "Internal.h"

struct __PLString : Plinth::Object {
    PLUniChar const * fUnits;
    PLIndex fLength;
    // Frees fUnits when the string goes; null when they are inline or borrowed for good.
    PLAllocatorRef fDeallocator;
    uint32_t fHash;
    bool fHashKnown;
};

namespace Plinth {

__PLString const * AsString (void const * object);

}

#endif
