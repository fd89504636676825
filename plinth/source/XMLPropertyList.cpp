// The XML property-list format, as plistlib reads and writes it, without the DOCTYPE line.
//
// The writer emits the XML declaration, the <plist version="1.0"> root and one element per line,
// indented by tabs, with plistlib's forms of reals, dates and Base64 lines.
//
// The reader takes untrusted bytes and is a strict parser of the small XML that property lists
// use: UTF-8 (or UTF-16 with a byte-order mark, or declared ISO-8859-1, converted first), the
// declaration, comments, processing instructions and one DOCTYPE, which is skipped without
// fetching or expanding anything; an entity declaration fails. Only the five predefined entities
// and references to characters that XML allows are expanded. Unknown or mismatched elements,
// text where an element belongs, a key without a value or a value without a key, and anything
// after the root fail. Integers lie in -2^63 ... 2^64-1, dates are YYYY-MM-DD[THH[:MM[:SS]]]Z,
// data is Base64 with its padding. Containers nest at most kMaximumNesting deep; everything
// allocated is bounded by the input's size.
#include "ByteReader.h"
#include "PropertyList.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <string_view>

using namespace Plinth;

namespace {

// ---- Text helpers -----------------------------------------------------------------------------

bool IsSpace (uint8_t c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r'; }

bool IsXMLCharacter (uint32_t c)
{
    return c == 0x9 || c == 0xA || c == 0xD || (c >= 0x20 && c <= 0xD7FF) || (c >= 0xE000 && c <= 0xFFFD)
        || (c >= 0x10000 && c <= 0x10FFFF);
}

// One UTF-8 sequence at `bytes`: its code point and length, or 0 for an invalid sequence.
std::size_t DecodeUTF8 (uint8_t const * bytes, std::size_t available, uint32_t & c)
{
    uint8_t lead = bytes [0];
    std::size_t length = lead < 0x80 ? 1 : (lead & 0xE0) == 0xC0 ? 2 : (lead & 0xF0) == 0xE0 ? 3
        : (lead & 0xF8) == 0xF0 ? 4 : 0;
    if (length == 0 || length > available)
        return 0;
    c = length == 1 ? lead : length == 2 ? lead & 0x1F : length == 3 ? lead & 0x0F : lead & 0x07;
    for (std::size_t i = 1; i < length; ++i) {
        if ((bytes [i] & 0xC0) != 0x80)
            return 0;
        c = c << 6 | (bytes [i] & 0x3F);
    }
    static uint32_t const kSmallest [5] = { 0, 0, 0x80, 0x800, 0x10000 };
    if (c < kSmallest [length] || c > 0x10FFFF || (c >= 0xD800 && c <= 0xDFFF))
        return 0;
    return length;
}

void AppendUTF8 (ByteWriter & out, uint32_t c)
{
    if (c < 0x80)
        out.Byte (uint8_t (c));
    else if (c < 0x800) {
        uint8_t bytes [2] = { uint8_t (0xC0 | c >> 6), uint8_t (0x80 | (c & 0x3F)) };
        out.Append (bytes, 2);
    }
    else if (c < 0x10000) {
        uint8_t bytes [3] = { uint8_t (0xE0 | c >> 12), uint8_t (0x80 | (c >> 6 & 0x3F)), uint8_t (0x80 | (c & 0x3F)) };
        out.Append (bytes, 3);
    }
    else {
        uint8_t bytes [4] = { uint8_t (0xF0 | c >> 18), uint8_t (0x80 | (c >> 12 & 0x3F)), uint8_t (0x80 | (c >> 6 & 0x3F)),
            uint8_t (0x80 | (c & 0x3F)) };
        out.Append (bytes, 4);
    }
}

char const kBase64 [] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

// Days from 0001-01-01 to the civil date (proleptic Gregorian).
int64_t DaysFromCivil (int64_t year, int64_t month, int64_t day)
{
    year -= month <= 2;
    int64_t era = (year >= 0 ? year : year - 399) / 400;
    int64_t yearOfEra = year - era * 400;
    int64_t dayOfYear = (153 * (month + (month > 2 ? -3 : 9)) + 2) / 5 + day - 1;
    int64_t dayOfEra = yearOfEra * 365 + yearOfEra / 4 - yearOfEra / 100 + dayOfYear;
    return era * 146097 + dayOfEra - 306;   // 0 is 0001-01-01
}

// Days from 0001-01-01 to 2001-01-01.
constexpr int64_t kReferenceDay = 730485;

// ---- Writing ----------------------------------------------------------------------------------

class XMLWriter {
public:
    XMLWriter (ByteWriter & out, ParseFailure & failure) : fOut (out), fFailure (failure) {}
    bool Write (PLTypeRef value);

private:
    bool Value (PLTypeRef value, int depth);
    void Indent (int depth) { for (int i = 0; i < depth; ++i) fOut.Byte ('\t'); }
    void Line (int depth, char const * text)
    {
        Indent (depth);
        fOut.Append (text);
        fOut.Byte ('\n');
    }
    bool Text (char const * tag, PLStringRef string, int depth);
    void Real (double value);
    bool Date (double time);
    void Data (PLDataRef data, int depth);
    bool Array (PLArrayRef array, int depth);
    bool Dictionary (PLDictionaryRef dictionary, int depth);

    ByteWriter & fOut;
    ParseFailure & fFailure;
};

bool XMLWriter::Write (PLTypeRef value)
{
    fOut.Append ("<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\">\n");
    if (! Value (value, 0))
        return false;
    fOut.Append ("</plist>\n");
    return ! fOut.Failed () || fFailure.Fail ("out of memory");
}

bool XMLWriter::Value (PLTypeRef value, int depth)
{
    // Output that failed (memory ran out) ends the walk: nothing after it could be kept.
    if (fOut.Failed ())
        return fFailure.Fail ("out of memory");
    char text [64];
    switch (PLGetTypeID (value)) {
    case kStringType:
        return Text ("string", static_cast<PLStringRef> (value), depth);
    case kBooleanType:
        Line (depth, PLBooleanGetValue (static_cast<PLBooleanRef> (value)) ? "<true/>" : "<false/>");
        return true;
    case kNumberType: {
        PLNumberRef number = static_cast<PLNumberRef> (value);
        Indent (depth);
        uint64_t unsignedValue;
        if (PLNumberIsFloatType (number)) {
            double real = 0;
            PLNumberGetValue (number, kPLNumberFloat64Type, &real);
            fOut.Append ("<real>");
            Real (real);
            fOut.Append ("</real>\n");
            return true;
        }
        if (IsUnsignedAboveSigned (number, unsignedValue))
            std::snprintf (text, sizeof text, "<integer>%llu</integer>\n", (unsigned long long) unsignedValue);
        else {
            int64_t integer = 0;
            PLNumberGetValue (number, kPLNumberSInt64Type, &integer);
            std::snprintf (text, sizeof text, "<integer>%lld</integer>\n", (long long) integer);
        }
        fOut.Append (text);
        return true;
    }
    case kDateType:
        Indent (depth);
        fOut.Append ("<date>");
        if (! Date (PLDateGetAbsoluteTime (static_cast<PLDateRef> (value))))
            return false;
        fOut.Append ("</date>\n");
        return true;
    case kDataType:
        Data (static_cast<PLDataRef> (value), depth);
        return true;
    case kArrayType:
        return Array (static_cast<PLArrayRef> (value), depth);
    case kDictionaryType:
        return Dictionary (static_cast<PLDictionaryRef> (value), depth);
    default:
        return fFailure.Fail ("an object of a kind that property lists cannot hold");
    }
}

// Escapes what XML needs, and CR as a reference so that it survives the parser's line-end
// normalisation. Other control characters, U+FFFE, U+FFFF and unpaired surrogates have no XML
// form at all: the string can't be written.
bool XMLWriter::Text (char const * tag, PLStringRef string, int depth)
{
    Indent (depth);
    fOut.Byte ('<');
    fOut.Append (tag);
    fOut.Byte ('>');
    PLUniChar const * units = StringUnits (string);
    std::size_t count = std::size_t (PLStringGetLength (string));
    for (std::size_t i = 0; i < count; ++i) {
        uint32_t c = units [i];
        if (c >= 0xD800 && c <= 0xDBFF && i + 1 < count && units [i + 1] >= 0xDC00 && units [i + 1] <= 0xDFFF)
            c = 0x10000 + ((c - 0xD800) << 10) + (units [++i] - 0xDC00);
        else if (c >= 0xD800 && c <= 0xDFFF)
            return fFailure.Fail ("a string with an unpaired surrogate");
        if (c == '&')
            fOut.Append ("&amp;");
        else if (c == '<')
            fOut.Append ("&lt;");
        else if (c == '>')
            fOut.Append ("&gt;");
        else if (c == '\r')
            fOut.Append ("&#13;");
        else if (! IsXMLCharacter (c))
            return fFailure.Fail ("a string with a character that XML cannot hold");
        else
            AppendUTF8 (fOut, c);
    }
    fOut.Append ("</");
    fOut.Append (tag);
    fOut.Append (">\n");
    return true;
}

// The shortest text that reads back as the same double, laid out as plistlib lays it out: fixed
// notation with at least one decimal for 1e-4 <= |x| < 1e16, otherwise d[.ddd]e±XX.
void XMLWriter::Real (double value)
{
    if (std::isnan (value)) {
        fOut.Append ("nan");
        return;
    }
    if (std::isinf (value)) {
        fOut.Append (value < 0 ? "-inf" : "inf");
        return;
    }
    char scientific [48];
    std::to_chars_result result = std::to_chars (scientific, scientific + sizeof scientific, value,
        std::chars_format::scientific);
    *result.ptr = 0;
    char * e = std::strchr (scientific, 'e');
    int exponent = std::atoi (e + 1);   // NOLINT(cert-err34-c): to_chars' own exponent, always digits
    char const * start = scientific;
    if (*start == '-') {
        fOut.Byte ('-');
        ++start;
    }
    char digits [24];
    std::size_t count = 0;
    for (char const * p = start; p < e; ++p)
        if (*p != '.')
            digits [count++] = *p;
    if (exponent < -4 || exponent >= 16) {
        fOut.Append (start, std::size_t (e - start));
        char tail [16];
        std::snprintf (tail, sizeof tail, "e%c%02d", exponent < 0 ? '-' : '+', std::abs (exponent));
        fOut.Append (tail);
        return;
    }
    if (exponent < 0) {
        fOut.Append ("0.");
        for (int i = -1; i > exponent; --i)
            fOut.Byte ('0');
        fOut.Append (digits, count);
        return;
    }
    std::size_t whole = std::size_t (exponent) + 1;
    for (std::size_t i = 0; i < whole; ++i)
        fOut.Byte (i < count ? uint8_t (digits [i]) : uint8_t ('0'));
    fOut.Byte ('.');
    if (count > whole)
        fOut.Append (digits + whole, count - whole);
    else
        fOut.Byte ('0');
}

// UTC, whole seconds: the fraction is dropped, after rounding to the microsecond as plistlib
// does when it reads a time.
bool XMLWriter::Date (double time)
{
    if (! IsDateInRange (time))
        return fFailure.Fail ("a date outside years 1 to 9999");
    double whole = std::floor (time);
    if (std::round ((time - whole) * 1e6) >= 1e6)
        whole += 1;
    CivilTime civil = CivilFromSeconds (int64_t (whole) + int64_t (kPLAbsoluteTimeIntervalSince1970));
    char text [96];
    std::snprintf (text, sizeof text, "%04d-%02d-%02dT%02d:%02d:%02dZ", int (civil.fYear), int (civil.fMonth),
        int (civil.fDay), int (civil.fHour), int (civil.fMinute), int (civil.fSecond));
    fOut.Append (text);
    return true;
}

// Base64 lines at the indentation of <data>, max(16, 76 - 8 * depth) characters long.
void XMLWriter::Data (PLDataRef data, int depth)
{
    Line (depth, "<data>");
    uint8_t const * bytes = PLDataGetBytePtr (data);
    std::size_t length = std::size_t (PLDataGetLength (data));
    std::size_t perLine = (depth >= 8 ? 16 : 76 - 8 * std::size_t (depth)) / 4 * 3;
    for (std::size_t at = 0; at < length; at += perLine) {
        Indent (depth);
        std::size_t end = at + perLine < length ? at + perLine : length;
        uint8_t * text = fOut.Extend ((end - at + 2) / 3 * 4);
        for (std::size_t i = at; text != nullptr && i < end; i += 3, text += 4) {
            uint32_t group = uint32_t (bytes [i]) << 16 | (i + 1 < end ? uint32_t (bytes [i + 1]) << 8 : 0)
                | (i + 2 < end ? bytes [i + 2] : 0);
            text [0] = uint8_t (kBase64 [group >> 18]);
            text [1] = uint8_t (kBase64 [group >> 12 & 63]);
            text [2] = i + 1 < end ? uint8_t (kBase64 [group >> 6 & 63]) : '=';
            text [3] = i + 2 < end ? uint8_t (kBase64 [group & 63]) : '=';
        }
        fOut.Byte ('\n');
    }
    Line (depth, "</data>");
}

bool XMLWriter::Array (PLArrayRef array, int depth)
{
    PLIndex count = PLArrayGetCount (array);
    if (count == 0) {
        Line (depth, "<array/>");
        return true;
    }
    if (depth >= kMaximumNesting)
        return fFailure.Fail ("containers nested too deeply (or holding themselves)");
    Line (depth, "<array>");
    for (PLIndex i = 0; i < count; ++i)
        if (! Value (PLArrayGetValueAtIndex (array, i), depth + 1))
            return false;
    Line (depth, "</array>");
    return true;
}

bool XMLWriter::Dictionary (PLDictionaryRef dictionary, int depth)
{
    PLIndex count = PLDictionaryGetCount (dictionary);
    if (count == 0) {
        Line (depth, "<dict/>");
        return true;
    }
    if (depth >= kMaximumNesting)
        return fFailure.Fail ("containers nested too deeply (or holding themselves)");
    void const ** entries = static_cast<void const **> (std::calloc (std::size_t (count) * 2, sizeof (void *)));
    if (entries == nullptr)
        return fFailure.Fail ("out of memory");
    bool written = SortedEntries (dictionary, entries, entries + count) || fFailure.Fail ("a dictionary key that is not a string");
    if (written)
        Line (depth, "<dict>");
    for (PLIndex i = 0; i < count && written; ++i)
        written = Text ("key", static_cast<PLStringRef> (entries [i]), depth + 1) && Value (entries [count + i], depth + 1);
    std::free (entries);
    if (written)
        Line (depth, "</dict>");
    return written;
}

// ---- Reading ----------------------------------------------------------------------------------

enum class Element { kPlist, kArray, kDict, kKey, kString, kInteger, kReal, kDate, kData, kTrue, kFalse, kUnknown };

struct ElementName {
    char const * fName;
    Element fElement;
};

ElementName const kElements [] = {
    { "plist", Element::kPlist }, { "array", Element::kArray }, { "dict", Element::kDict }, { "key", Element::kKey },
    { "string", Element::kString }, { "integer", Element::kInteger }, { "real", Element::kReal },
    { "date", Element::kDate }, { "data", Element::kData }, { "true", Element::kTrue }, { "false", Element::kFalse } };

class XMLReader {
public:
    XMLReader (uint8_t const * bytes, std::size_t size, ReadOptions const & options, ParseFailure & failure)
        : fInput (bytes, size), fOptions (options), fFailure (failure) {}
    ~XMLReader ();

    PLTypeRef Read ();

private:
    struct Tag {
        Element fElement;
        uint64_t fNameAt;
        uint64_t fNameLength;
        bool fEmpty;
        uint64_t fAt;
    };

    bool Fail (char const * reason) { return fFailure.Fail (reason, fAt); }
    PLTypeRef FailValue (char const * reason)
    {
        Fail (reason);
        return nullptr;
    }
    bool Looking (char const * text) const
    {
        std::size_t length = std::strlen (text);
        uint8_t const * at = fInput.Span (fAt, length);
        return at != nullptr && std::memcmp (at, text, length) == 0;
    }
    uint8_t Peek () const
    {
        uint8_t c = 0;
        fInput.Byte (fAt, c);
        return c;
    }
    bool AtEnd () const { return fAt >= fInput.Size (); }
    bool SkipPast (char const * text);
    bool Prolog ();
    bool Doctype ();
    bool Misc (bool & sawDoctype, bool allowDoctype);
    bool StartTag (Tag & tag);
    bool Attributes ();
    bool EndTag (Tag const & tag);
    bool Name (uint64_t & length);
    bool Content (Tag const & tag);
    bool Reference ();
    PLTypeRef Value (Tag const & tag, int depth);
    PLTypeRef Container (Tag const & tag, int depth);
    PLTypeRef Leaf (Tag const & tag);
    PLTypeRef MakeString ();
    PLTypeRef MakeInteger ();
    PLTypeRef MakeReal ();
    PLTypeRef MakeDate ();
    PLTypeRef MakeData ();
    bool Push (void const * item);
    bool ElementsOnly (Tag const & tag, bool & end);

    ByteReader fInput;
    ReadOptions fOptions;
    ParseFailure & fFailure;
    uint64_t fAt = 0;
    ByteWriter fText;              // the decoded text of the current leaf, UTF-8
    void const ** fStack = nullptr;   // elements of the open containers, innermost last
    std::size_t fStackCount = 0;
    std::size_t fStackCapacity = 0;
};

XMLReader::~XMLReader ()
{
    for (std::size_t i = 0; i < fStackCount; ++i)
        PLRelease (fStack [i]);
    std::free (fStack);
}

bool XMLReader::Push (void const * item)
{
    if (fStackCount == fStackCapacity) {
        std::size_t capacity = fStackCapacity == 0 ? 64 : fStackCapacity * 2;
        void const ** grown = static_cast<void const **> (std::realloc (fStack, capacity * sizeof (void *)));
        if (grown == nullptr) {
            PLRelease (item);
            return Fail ("out of memory");
        }
        fStack = grown;
        fStackCapacity = capacity;
    }
    fStack [fStackCount++] = item;
    return true;
}

bool XMLReader::SkipPast (char const * text)
{
    while (! AtEnd ()) {
        if (Looking (text)) {
            fAt += std::strlen (text);
            return true;
        }
        ++fAt;
    }
    return false;
}

// The DOCTYPE, skipped: its identifiers are never fetched, its internal subset never applied,
// and an entity declaration in it fails.
bool XMLReader::Doctype ()
{
    fAt += 9;   // "<!DOCTYPE"
    uint8_t quote = 0;
    bool subset = false;
    for (; ! AtEnd (); ++fAt) {
        uint8_t c = Peek ();
        if (quote != 0) {
            quote = c == quote ? 0 : quote;
            continue;
        }
        if (c == '"' || c == '\'')
            quote = c;
        else if (subset && Looking ("<!--")) {
            if (! SkipPast ("-->"))
                return Fail ("unterminated comment");
            --fAt;
        }
        else if (subset && Looking ("<!ENTITY"))
            return Fail ("entity declarations are not supported");
        else if (c == '[')
            subset = true;
        else if (c == ']')
            subset = false;
        else if (c == '>' && ! subset) {
            ++fAt;
            return true;
        }
    }
    return Fail ("unterminated DOCTYPE");
}

// Whitespace, comments and processing instructions; and, before the root, one DOCTYPE.
bool XMLReader::Misc (bool & sawDoctype, bool allowDoctype)
{
    for (;;) {
        while (! AtEnd () && IsSpace (Peek ()))
            ++fAt;
        if (Looking ("<!--")) {
            uint64_t start = fAt;
            if (! SkipPast ("-->"))
                return fFailure.Fail ("unterminated comment", start);
        }
        else if (Looking ("<?")) {
            if (Looking ("<?xml") && fAt != 0 && (fInput.Span (fAt + 5, 1) == nullptr || IsSpace (fInput.Span (fAt + 5, 1) [0])))
                return Fail ("XML declaration not at the start");
            uint64_t start = fAt;
            if (! SkipPast ("?>"))
                return fFailure.Fail ("unterminated processing instruction", start);
        }
        else if (Looking ("<!DOCTYPE")) {
            if (! allowDoctype || sawDoctype)
                return Fail ("DOCTYPE out of place");
            sawDoctype = true;
            if (! Doctype ())
                return false;
        }
        else
            return true;
    }
}

bool XMLReader::Name (uint64_t & length)
{
    uint64_t start = fAt;
    while (! AtEnd ()) {
        uint8_t c = Peek ();
        if (! ((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' || c == '-'
                || c == '.' || c == ':' || c >= 0x80))
            break;
        ++fAt;
    }
    length = fAt - start;
    return length > 0 || Fail ("malformed tag");
}

// Attributes are checked for form and ignored.
bool XMLReader::Attributes ()
{
    for (;;) {
        bool spaced = false;
        while (! AtEnd () && IsSpace (Peek ())) {
            ++fAt;
            spaced = true;
        }
        uint8_t c = Peek ();
        if (c == '>' || c == '/' || AtEnd ())
            return true;
        uint64_t length;
        if (! spaced || ! Name (length))
            return Fail ("malformed attribute");
        while (IsSpace (Peek ()))
            ++fAt;
        if (Peek () != '=')
            return Fail ("malformed attribute");
        ++fAt;
        while (IsSpace (Peek ()))
            ++fAt;
        uint8_t quote = Peek ();
        if (quote != '"' && quote != '\'')
            return Fail ("malformed attribute");
        for (++fAt; ! AtEnd () && Peek () != quote; ++fAt)
            if (Peek () == '<' || Peek () == '&')
                return Fail ("markup in an attribute value");
        if (AtEnd ())
            return Fail ("unterminated attribute");
        ++fAt;
    }
}

bool XMLReader::StartTag (Tag & tag)
{
    tag.fAt = fAt;
    if (Peek () != '<')
        return Fail (AtEnd () ? "unexpected end of input" : "text where an element belongs");
    ++fAt;
    tag.fNameAt = fAt;
    if (! Name (tag.fNameLength) || ! Attributes ())
        return false;
    tag.fEmpty = Looking ("/>");
    if (! tag.fEmpty && ! Looking (">"))
        return Fail ("unterminated tag");
    fAt += tag.fEmpty ? 2 : 1;
    tag.fElement = Element::kUnknown;
    uint8_t const * name = fInput.Span (tag.fNameAt, tag.fNameLength);
    for (ElementName const & known : kElements)
        if (std::strlen (known.fName) == tag.fNameLength && std::memcmp (known.fName, name, tag.fNameLength) == 0)
            tag.fElement = known.fElement;
    if (tag.fElement == Element::kUnknown)
        return fFailure.Fail ("unknown element", tag.fAt);
    return true;
}

bool XMLReader::EndTag (Tag const & tag)
{
    uint64_t start = fAt;
    if (! Looking ("</"))
        return Fail ("element not closed");
    fAt += 2;
    uint64_t length;
    if (! Name (length))
        return false;
    uint8_t const * name = fInput.Span (start + 2, length);
    uint8_t const * open = fInput.Span (tag.fNameAt, tag.fNameLength);
    if (length != tag.fNameLength || std::memcmp (name, open, length) != 0)
        return fFailure.Fail ("mismatched end tag", start);
    while (IsSpace (Peek ()))
        ++fAt;
    if (Peek () != '>')
        return Fail ("malformed end tag");
    ++fAt;
    return true;
}

// &name; or &#...; at fAt, appended to the text.
bool XMLReader::Reference ()
{
    static struct { char const * fName; char fCharacter; } const kPredefined [] = {
        { "&lt;", '<' }, { "&gt;", '>' }, { "&amp;", '&' }, { "&quot;", '"' }, { "&apos;", '\'' } };
    for (auto const & entity : kPredefined)
        if (Looking (entity.fName)) {
            fText.Byte (uint8_t (entity.fCharacter));
            fAt += std::strlen (entity.fName);
            return true;
        }
    if (! Looking ("&#"))
        return Fail ("unknown entity");
    uint64_t start = fAt;
    fAt += 2;
    bool hex = Peek () == 'x';
    fAt += hex;
    uint32_t c = 0;
    int digits = 0;
    for (; ! AtEnd () && Peek () != ';' && digits < 8; ++fAt, ++digits) {
        uint8_t d = Peek ();
        int value = d >= '0' && d <= '9' ? d - '0' : hex && d >= 'a' && d <= 'f' ? d - 'a' + 10
            : hex && d >= 'A' && d <= 'F' ? d - 'A' + 10 : -1;
        if (value < 0)
            return fFailure.Fail ("malformed character reference", start);
        c = c * (hex ? 16 : 10) + uint32_t (value);
    }
    if (Peek () != ';' || digits == 0 || ! IsXMLCharacter (c))
        return fFailure.Fail ("malformed character reference", start);
    ++fAt;
    AppendUTF8 (fText, c);
    return true;
}

// The text of a leaf element up to its end tag, into fText: references expanded, CDATA taken as
// it is, comments dropped, line ends normalised to LF, every character checked.
bool XMLReader::Content (Tag const & tag)
{
    fText.Clear ();
    if (tag.fEmpty)
        return true;
    for (;;) {
        if (AtEnd ())
            return Fail ("element not closed");
        uint8_t c = Peek ();
        if (c == '<') {
            if (Looking ("<!--")) {
                if (! SkipPast ("-->"))
                    return Fail ("unterminated comment");
                continue;
            }
            if (Looking ("<![CDATA[")) {
                fAt += 9;
                uint64_t start = fAt;
                if (! SkipPast ("]]>"))
                    return fFailure.Fail ("unterminated CDATA section", start);
                uint64_t end = fAt - 3;
                for (uint64_t at = start; at < end;) {
                    uint32_t character;
                    std::size_t length = DecodeUTF8 (fInput.Span (at, 1), std::size_t (end - at), character);
                    if (length == 0 || ! IsXMLCharacter (character))
                        return fFailure.Fail ("invalid character", at);
                    if (character == '\r') {
                        fText.Byte ('\n');
                        at += fInput.Span (at + 1, 1) != nullptr && at + 1 < end && fInput.Span (at + 1, 1) [0] == '\n' ? 2 : 1;
                        continue;
                    }
                    fText.Append (fInput.Span (at, length), length);
                    at += length;
                }
                continue;
            }
            if (! Looking ("</"))
                return Fail ("element inside a value");
            return EndTag (tag);
        }
        if (c == '&') {
            if (! Reference ())
                return false;
            continue;
        }
        if (c == ']' && Looking ("]]>"))
            return Fail ("']]>' in text");
        uint32_t character;
        std::size_t length = DecodeUTF8 (fInput.Span (fAt, 1), std::size_t (fInput.Size () - fAt), character);
        if (length == 0 || ! IsXMLCharacter (character))
            return Fail ("invalid character");
        if (character == '\r') {
            fText.Byte ('\n');
            fAt += Looking ("\r\n") ? 2 : 1;
            continue;
        }
        fText.Append (fInput.Span (fAt, length), length);
        fAt += length;
    }
}

PLTypeRef XMLReader::MakeString ()
{
    PLStringRef string = PLStringCreateWithBytes (fOptions.fAllocator, fText.Bytes (), PLIndex (fText.Size ()),
        kPLStringEncodingUTF8, false);
    return string != nullptr ? string : FailValue ("out of memory");
}

// Text of a number without the XML whitespace around it.
void Trimmed (ByteWriter const & text, char const * & start, char const * & end)
{
    start = reinterpret_cast<char const *> (text.Bytes ());
    end = start + text.Size ();
    while (start < end && IsSpace (uint8_t (*start)))
        ++start;
    while (end > start && IsSpace (uint8_t (end [-1])))
        --end;
}

PLTypeRef XMLReader::MakeInteger ()
{
    char const * p;
    char const * end;
    Trimmed (fText, p, end);
    bool negative = p < end && *p == '-';
    p += p < end && (*p == '-' || *p == '+');
    bool hex = ! negative && end - p > 2 && p [0] == '0' && (p [1] == 'x' || p [1] == 'X');
    p += hex ? 2 : 0;
    if (p == end)
        return FailValue ("malformed integer");
    uint64_t magnitude = 0;
    for (; p < end; ++p) {
        int digit = *p >= '0' && *p <= '9' ? *p - '0' : hex && *p >= 'a' && *p <= 'f' ? *p - 'a' + 10
            : hex && *p >= 'A' && *p <= 'F' ? *p - 'A' + 10 : -1;
        if (digit < 0)
            return FailValue ("malformed integer");
        if (! CheckedMultiply (magnitude, hex ? 16 : 10, magnitude) || ! CheckedAdd (magnitude, uint64_t (digit), magnitude))
            return FailValue ("integer outside -2^63 to 2^64-1");
    }
    if (negative && magnitude > uint64_t (1) << 63)
        return FailValue ("integer outside -2^63 to 2^64-1");
    if (! negative && magnitude >> 63 != 0)
        return PLNumberCreate (fOptions.fAllocator, kPLNumberUInt64Type, &magnitude);
    int64_t value = negative ? int64_t (0 - magnitude) : int64_t (magnitude);
    return PLNumberCreate (fOptions.fAllocator, kPLNumberSInt64Type, &value);
}

PLTypeRef XMLReader::MakeReal ()
{
    char const * p;
    char const * end;
    Trimmed (fText, p, end);
    bool negative = p < end && *p == '-';
    p += p < end && (*p == '+' || *p == '-');
    double value = 0;
    if (p == end || *p == '+' || *p == '-')
        return FailValue ("malformed real");
    std::from_chars_result result = std::from_chars (p, end, value);
    if (result.ec == std::errc::result_out_of_range) {
        // Beyond the doubles: infinity, or zero for a too negative exponent.
        bool tiny = false;
        for (char const * q = p; q + 1 < end; ++q)
            tiny = tiny || ((*q == 'e' || *q == 'E') && q [1] == '-');
        value = tiny ? 0.0 : HUGE_VAL;
    }
    else if (result.ec != std::errc () || result.ptr != end)
        return FailValue ("malformed real");
    value = negative ? -value : value;
    return PLNumberCreate (fOptions.fAllocator, kPLNumberFloat64Type, &value);
}

PLTypeRef XMLReader::MakeDate ()
{
    char const * p = reinterpret_cast<char const *> (fText.Bytes ());
    std::size_t length = fText.Size ();
    auto field = [&] (std::size_t at, std::size_t digits, int & value) {
        value = 0;
        for (std::size_t i = at; i < at + digits; ++i) {
            if (i >= length || p [i] < '0' || p [i] > '9')
                return false;
            value = value * 10 + (p [i] - '0');
        }
        return true;
    };
    int year = 0, month = 0, day = 0, hour = 0, minute = 0, second = 0;
    std::size_t at = 10;
    bool valid = length >= 11 && field (0, 4, year) && p [4] == '-' && field (5, 2, month) && p [7] == '-'
        && field (8, 2, day);
    if (valid && at < length && p [at] == 'T') {
        valid = field (at + 1, 2, hour);
        at += 3;
        if (valid && at < length && p [at] == ':') {
            valid = field (at + 1, 2, minute);
            at += 3;
            if (valid && at < length && p [at] == ':') {
                valid = field (at + 1, 2, second);
                at += 3;
            }
        }
    }
    valid = valid && at + 1 == length && p [at] == 'Z';
    static int const kDays [12] = { 31, 29, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31 };
    bool leap = year % 4 == 0 && (year % 100 != 0 || year % 400 == 0);
    valid = valid && year >= 1 && month >= 1 && month <= 12 && day >= 1
        && day <= (month == 2 && ! leap ? 28 : kDays [month - 1]) && hour < 24 && minute < 60 && second < 60;
    if (! valid)
        return FailValue ("malformed date");
    int64_t days = DaysFromCivil (year, month, day) - kReferenceDay;
    double time = double (days * 86400 + int64_t (hour * 3600 + minute * 60 + second));
    return PLDateCreate (fOptions.fAllocator, time);
}

PLTypeRef XMLReader::MakeData ()
{
    uint8_t const * text = fText.Bytes ();
    std::size_t length = fText.Size ();
    uint8_t * bytes = static_cast<uint8_t *> (std::malloc (length / 4 * 3 + 3));
    if (bytes == nullptr)
        return FailValue ("out of memory");
    std::size_t size = 0, pending = 0, padding = 0;
    uint32_t group = 0;
    bool valid = true;
    for (std::size_t i = 0; i < length && valid; ++i) {
        uint8_t c = text [i];
        if (IsSpace (c))
            continue;
        char const * digit = c != 0 ? std::strchr (kBase64, c) : nullptr;
        if (c == '=' && pending >= 2) {
            ++padding;
            group <<= 6;
        }
        else if (digit != nullptr && padding == 0)
            group = group << 6 | uint32_t (digit - kBase64);
        else
            valid = false;
        if (++pending == 4) {
            bytes [size++] = uint8_t (group >> 16);
            if (padding < 2)
                bytes [size++] = uint8_t (group >> 8);
            if (padding < 1)
                bytes [size++] = uint8_t (group);
            pending = 0;
            group = 0;
            // Padding ends the data.
            valid = padding == 0 || [&] {
                for (std::size_t k = i + 1; k < length; ++k)
                    if (! IsSpace (text [k]))
                        return false;
                return true;
            } ();
            if (padding != 0)
                break;
        }
    }
    PLTypeRef data = nullptr;
    if (! valid || pending != 0)
        Fail ("malformed Base64 data");
    else if (fOptions.fMutableLeaves) {
        PLMutableDataRef mutableData = PLDataCreateMutable (fOptions.fAllocator, PLIndex (size));
        PLDataAppendBytes (mutableData, bytes, PLIndex (size));
        data = mutableData;
    }
    else
        data = PLDataCreate (fOptions.fAllocator, bytes, PLIndex (size));
    std::free (bytes);
    return data;
}

PLTypeRef XMLReader::Leaf (Tag const & tag)
{
    if (! Content (tag))
        return nullptr;
    switch (tag.fElement) {
    case Element::kString: case Element::kKey: return MakeString ();
    case Element::kInteger: return MakeInteger ();
    case Element::kReal: return MakeReal ();
    case Element::kDate: return MakeDate ();
    case Element::kData: return MakeData ();
    default:
        // <true/> and <false/>, with nothing but whitespace inside.
        for (std::size_t i = 0; i < fText.Size (); ++i)
            if (! IsSpace (fText.Bytes () [i]))
                return FailValue ("text inside a boolean");
        return tag.fElement == Element::kTrue ? kPLBooleanTrue : kPLBooleanFalse;
    }
}

// Skips whitespace and comments between the elements of a container; `end` when its end tag is
// next.
bool XMLReader::ElementsOnly (Tag const & tag, bool & end)
{
    bool unused = false;
    if (! Misc (unused, false))
        return false;
    end = Looking ("</");
    return ! end || EndTag (tag);
}

PLTypeRef XMLReader::Container (Tag const & tag, int depth)
{
    if (depth >= kMaximumNesting)
        return FailValue ("containers nested too deeply");
    bool dictionary = tag.fElement == Element::kDict;
    std::size_t first = fStackCount;
    bool end = tag.fEmpty;
    while (! end) {
        if (! ElementsOnly (tag, end))
            return nullptr;
        if (end)
            break;
        Tag child;
        if (! StartTag (child))
            return nullptr;
        bool isKey = child.fElement == Element::kKey;
        bool expectKey = dictionary && (fStackCount - first) % 2 == 0;
        if (isKey != expectKey) {
            fFailure.Fail (isKey ? "key outside a dictionary's key position" : "dictionary value without a key", child.fAt);
            return nullptr;
        }
        PLTypeRef value = Value (child, depth + 1);
        if (value == nullptr || ! Push (value))
            return nullptr;
        if (isKey && ! ElementsOnly (tag, end))
            return nullptr;
        if (isKey && end)
            return FailValue ("key without a value");
    }
    // The container takes over the elements, or releases them when it can't be made; keys and
    // values were read in turn.
    std::size_t count = fStackCount - first;
    void const ** items = fStack + first;
    fStackCount = first;
    // (An empty first container has no stack yet: no pointer past it is formed.)
    PLTypeRef result = dictionary
        ? PLTypeRef (AdoptDictionary (fOptions.fAllocator, items, count > 0 ? items + 1 : items, PLIndex (count / 2),
            fOptions.fMutableContainers, 2))
        : PLTypeRef (AdoptArray (fOptions.fAllocator, items, PLIndex (count), fOptions.fMutableContainers));
    return result != nullptr ? result : FailValue ("out of memory");
}

PLTypeRef XMLReader::Value (Tag const & tag, int depth)
{
    switch (tag.fElement) {
    case Element::kArray: case Element::kDict:
        return Container (tag, depth);
    case Element::kPlist:
        fFailure.Fail ("plist element inside a value", tag.fAt);
        return nullptr;
    default:
        return Leaf (tag);
    }
}

PLTypeRef XMLReader::Read ()
{
    bool sawDoctype = false;
    if (Looking ("<?xml") && ! SkipPast ("?>"))
        return FailValue ("unterminated XML declaration");
    Tag root;
    if (! Misc (sawDoctype, true) || ! StartTag (root))
        return nullptr;
    PLTypeRef value = nullptr;
    if (root.fElement != Element::kPlist) {
        if (root.fElement == Element::kKey)
            return FailValue ("key outside a dictionary");
        value = Value (root, 0);
    }
    else {
        // <plist> holds exactly one value.
        bool end = root.fEmpty;
        if (end || ! ElementsOnly (root, end) || end)
            return FailValue ("plist element without a value");
        Tag top;
        if (! StartTag (top))
            return nullptr;
        if (top.fElement == Element::kKey || top.fElement == Element::kPlist) {
            fFailure.Fail ("key or plist element as the top value", top.fAt);
            return nullptr;
        }
        value = Value (top, 0);
        if (value != nullptr && (! ElementsOnly (root, end) || ! end)) {
            PLRelease (value);
            return fFailure.fReason != nullptr ? nullptr : FailValue ("more than one value in the plist element");
        }
    }
    if (value != nullptr && (! Misc (sawDoctype, false) || ! AtEnd ())) {
        PLRelease (value);
        return fFailure.fReason != nullptr ? nullptr : FailValue ("content after the root element");
    }
    return value;
}

// The input as UTF-8: as it is, after a UTF-8 byte-order mark, or converted from UTF-16 with a
// byte-order mark or from declared ISO-8859-1. `owned` receives a converted copy.
bool ToUTF8 (uint8_t const * & bytes, std::size_t & size, ByteWriter & owned, ParseFailure & failure)
{
    if (size >= 3 && bytes [0] == 0xEF && bytes [1] == 0xBB && bytes [2] == 0xBF) {
        bytes += 3;
        size -= 3;
    }
    else if (size >= 2 && ((bytes [0] == 0xFF && bytes [1] == 0xFE) || (bytes [0] == 0xFE && bytes [1] == 0xFF))) {
        bool little = bytes [0] == 0xFF;
        if (size % 2 != 0)
            return failure.Fail ("UTF-16 input of an odd length", size);
        for (std::size_t i = 2; i < size; i += 2) {
            uint32_t c = little ? bytes [i] | bytes [i + 1] << 8 : bytes [i] << 8 | bytes [i + 1];
            if (c >= 0xD800 && c <= 0xDBFF && i + 3 < size) {
                uint32_t next = little ? bytes [i + 2] | bytes [i + 3] << 8 : bytes [i + 2] << 8 | bytes [i + 3];
                if (next >= 0xDC00 && next <= 0xDFFF) {
                    c = 0x10000 + ((c - 0xD800) << 10) + (next - 0xDC00);
                    i += 2;
                }
            }
            if (c >= 0xD800 && c <= 0xDFFF)
                return failure.Fail ("invalid UTF-16", i);
            AppendUTF8 (owned, c);
        }
        bytes = owned.Bytes ();
        size = owned.Size ();
        return ! owned.Failed () || failure.Fail ("out of memory");
    }
    // The declaration's encoding, when it names one.
    ByteReader input (bytes, size);
    uint8_t const * start = input.Span (0, 5);
    if (start == nullptr || std::memcmp (start, "<?xml", 5) != 0)
        return true;
    std::size_t end = 5;
    while (end < size && bytes [end] != '>')
        ++end;
    // A view, not a copy: nothing that can throw runs behind Plinth's C interface.
    std::string_view declaration (reinterpret_cast<char const *> (bytes), end);
    std::size_t at = declaration.find ("encoding");
    if (at == std::string_view::npos)
        return true;
    at = declaration.find_first_of ("\"'", at);
    std::size_t close = at == std::string_view::npos ? at : declaration.find (declaration [at], at + 1);
    if (close == std::string_view::npos)
        return failure.Fail ("malformed XML declaration", 0);
    std::string_view name = declaration.substr (at + 1, close - at - 1);
    auto named = [name] (std::string_view upper) {
        return name.size () == upper.size () && std::equal (name.begin (), name.end (), upper.begin (),
            [] (char c, char u) { return (c >= 'a' && c <= 'z' ? char (c - 'a' + 'A') : c) == u; });
    };
    if (named ("UTF-8"))
        return true;
    if (! named ("ISO-8859-1") && ! named ("LATIN1") && ! named ("ISO8859-1"))
        return failure.Fail ("unsupported encoding", at + 1);
    for (std::size_t i = 0; i < size; ++i)
        AppendUTF8 (owned, bytes [i]);
    bytes = owned.Bytes ();
    size = owned.Size ();
    return ! owned.Failed () || failure.Fail ("out of memory");
}

}

namespace Plinth {

PLTypeRef ReadXMLPropertyList (uint8_t const * bytes, std::size_t size, ReadOptions const & options,
    ParseFailure & failure)
{
    ByteWriter converted;
    if (! ToUTF8 (bytes, size, converted, failure))
        return nullptr;
    return XMLReader (bytes, size, options, failure).Read ();
}

bool WriteXMLPropertyList (ByteWriter & out, PLTypeRef value, ParseFailure & failure)
{
    return XMLWriter (out, failure).Write (value);
}

}
