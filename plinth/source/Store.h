// The store form: a small tagged binary form of property-list values (strings, numbers, booleans,
// dates, data, arrays and dictionaries with string keys), used for preferences files. Every value
// is a tag byte and its contents, integers little-endian:
//   'S' u32 count, count UTF-16LE units     'I' i64        'R' f64 bits    'T' / 'F'
//   'D' f64 bits of the absolute time       'B' u32 length, bytes
//   'A' u32 count, values                   'K' u32 count, (string key, value) pairs
#ifndef PLINTH_STORE_H
#define PLINTH_STORE_H

#include "Internal.h"

namespace Plinth {

// True when `value` and everything in it has a store form.
bool StoreCanHold (PLTypeRef value);
// Appends the store form of `value`; false when something in it has none.
bool StoreWrite (PLMutableDataRef data, PLTypeRef value);
// The value of `bytes` (owned), or null when they are not exactly one value in the store form.
PLTypeRef StoreRead (uint8_t const * bytes, std::size_t size);

}

#endif
