// Property lists as JSON, both ways.
//
// Writing: dictionaries are objects with their keys sorted by code point, arrays are arrays,
// strings strings (UTF-8, only the escapes JSON requires), booleans true and false; an integer is
// a number without a fraction, a real a number with a fraction or an exponent (1.0, 0.1, 1e-05),
// so that each reads back as what it was. Data becomes its Base64 text and a date its
// "YYYY-MM-DDTHH:MM:SSZ" text in UTC: they read back as strings. What JSON can't hold fails with
// its key path: an infinite or NaN real, a key that isn't a string, a string with an unpaired
// surrogate. Two spaces indent each level; the text ends with a line feed.
//
// Reading (RFC 8259 JSON, UTF-8, an optional byte-order mark): objects become mutable
// dictionaries (of duplicate keys the last one wins) and arrays mutable arrays. A number without
// fraction or exponent is an integer and must lie in -2^63 to 2^64-1; any other number is a real.
// null has no property-list value and fails with its key path, as does nesting deeper than 512.
#ifndef PLIST_TOOL_JSON_H
#define PLIST_TOOL_JSON_H

#include "KeyPath.h"

#include <string>

namespace PlistTool {

// Whether `bytes` are to be read as JSON: after an optional byte-order mark and white space they
// begin as a JSON value does. Property lists begin with "bplist" or, in XML, with "<".
bool LooksLikeJSON (std::string const & bytes);

// `value` as JSON text; `at` is the key path of `value` in its file, for failures.
std::string JSONText (PLTypeRef value, KeyPath const & at);

// The owned value of the JSON text. Throws Failure: "JSON: reason (at byte N)" for text that
// isn't JSON, a key-path failure for a value without a property-list form.
PLTypeRef CreateFromJSON (std::string const & text);

}

#endif
