// plist-tool's values as text: the one kind of failure of the tool, the names it gives the kinds of
// values, and scalars to and from the text that users type and read.
//
// Scalars go through Plinth's own XML reader and writer, one value at a time, so that the tool
// reads and prints integers, reals, dates and Base64 exactly as the XML form does (ranges, hex
// integers, shortest reals, "inf", dates without a fraction) and keeps no second parser of them.
#ifndef PLIST_TOOL_VALUES_H
#define PLIST_TOOL_VALUES_H

#include <Plinth/Plinth.h>
#include <Plinth/PlinthCXX.h>

#include <string>

namespace PlistTool {

using PlinthCXX::Owned;
using PlinthCXX::UTF8;

// A command's failure: one line for standard error. `fFile` names what it concerns when that isn't
// the command's input file: an output file, or an option such as -integer.
struct Failure {
    std::string fText;
    std::string fFile;
};

// "bool", "integer", "float", "string", "date", "data", "array" or "dictionary": the names that
// -type prints and that -insert and -replace take as -TYPE.
std::string TypeName (PLTypeRef value);

// "true", "-5", "18446744073709551615", "0.1", "1e-05", "inf", "nan", "2024-01-31T12:00:00Z" (UTC,
// whole seconds), Base64 of data on one line; a string's own text.
std::string ScalarText (PLTypeRef value);

// An owned scalar from the text of an XML `element` ("integer", "real", "date", "data"), or null
// when the text isn't one.
PLTypeRef CreateScalar (char const * element, std::string const & text);

// An owned value from the -TYPE and VALUE of -insert and -replace: `type` is one of the TypeName
// scalars, "xml" (a property list, or a bare element such as "<array/>") or "json"; `string` is
// VALUE as the platform gave it, for -string. Containers come mutable. Null for a `type` it
// doesn't know; throws Failure for a VALUE that isn't of the type.
PLTypeRef CreateValue (std::string const & type, std::string const & text, PLStringRef string);

}

#endif
