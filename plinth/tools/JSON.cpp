#include "JSON.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <vector>

namespace PlistTool {

namespace {

// As deep as Plinth's own readers and writers go.
int const kMaximumDepth = 512;

void AppendUTF8 (std::string & text, char32_t c)
{
    if (c < 0x80)
        text += char (c);
    else if (c < 0x800)
        text += { char (0xC0 | c >> 6), char (0x80 | (c & 0x3F)) };
    else if (c < 0x10000)
        text += { char (0xE0 | c >> 12), char (0x80 | (c >> 6 & 0x3F)), char (0x80 | (c & 0x3F)) };
    else
        text += { char (0xF0 | c >> 18), char (0x80 | (c >> 12 & 0x3F)), char (0x80 | (c >> 6 & 0x3F)),
            char (0x80 | (c & 0x3F)) };
}

bool IsHighSurrogate (char32_t c) { return c >= 0xD800 && c < 0xDC00; }
bool IsLowSurrogate (char32_t c) { return c >= 0xDC00 && c < 0xE000; }

PLStringRef CreateUTF8String (std::string const & text)
{
    return PLStringCreateWithBytes (kPLAllocatorDefault, reinterpret_cast<uint8_t const *> (text.data ()),
        PLIndex (text.size ()), kPLStringEncodingUTF8, false);
}

// A member of an array or dictionary: its key path component and, in a dictionary, its key.
struct Member {
    std::string fName;
    PLStringRef fKey;
    PLTypeRef fValue;

    bool operator < (Member const & other) const { return fName < other.fName; }
};

class Writer {
public:
    explicit Writer (KeyPath const & at) : fPath (at) {}
    void Write (PLTypeRef value, std::string const & indent);
    std::string fText;

private:
    [[noreturn]] void Fail (std::string const & reason) const { throw KeyPathFailure (fPath, fPath.size (), reason); }
    void WriteString (PLStringRef string);
    void WriteMembers (std::vector<Member> const & members, bool keyed, std::string const & indent);

    KeyPath fPath;
};

// Only the escapes that JSON requires: quote, backslash and the control characters.
void Writer::WriteString (PLStringRef string)
{
    std::vector<PLUniChar> units (std::size_t (PLStringGetLength (string)) + 1);
    PLStringGetCharacters (string, PLRangeMake (0, PLIndex (units.size () - 1)), units.data ());
    fText += '"';
    for (std::size_t i = 0; i + 1 < units.size (); ++i) {
        char32_t c = units [i];
        if (IsHighSurrogate (c) && IsLowSurrogate (units [i + 1]))
            c = 0x10000 + ((c - 0xD800) << 10) + (units [++i] - 0xDC00);
        else if (IsHighSurrogate (c) || IsLowSurrogate (c))
            Fail ("a string with an unpaired surrogate has no JSON form");
        char const * escape = c == '"' ? "\\\"" : c == '\\' ? "\\\\" : c == '\n' ? "\\n" : c == '\r' ? "\\r"
            : c == '\t' ? "\\t" : c == '\b' ? "\\b" : c == '\f' ? "\\f" : nullptr;
        char control [8];
        if (escape == nullptr && c < 0x20) {
            std::snprintf (control, sizeof control, "\\u%04x", unsigned (c));
            escape = control;
        }
        if (escape != nullptr)
            fText += escape;
        else
            AppendUTF8 (fText, c);
    }
    fText += '"';
}

void Writer::WriteMembers (std::vector<Member> const & members, bool keyed, std::string const & indent)
{
    fText += keyed ? "{" : "[";
    for (std::size_t i = 0; i < members.size (); ++i) {
        fText += (i == 0 ? "\n" : ",\n") + indent + "  ";
        fPath.push_back (members [i].fName);
        if (keyed) {
            WriteString (members [i].fKey);
            fText += ": ";
        }
        Write (members [i].fValue, indent + "  ");
        fPath.pop_back ();
    }
    fText += members.empty () ? "" : "\n" + indent;
    fText += keyed ? "}" : "]";
}

void Writer::Write (PLTypeRef value, std::string const & indent)
{
    std::string type = TypeName (value);
    std::vector<Member> members;
    if (type == "dictionary") {
        PLDictionaryRef dictionary = static_cast<PLDictionaryRef> (value);
        std::vector<void const *> keys (std::size_t (PLDictionaryGetCount (dictionary)) + 1), values (keys.size ());
        PLDictionaryGetKeysAndValues (dictionary, keys.data (), values.data ());
        for (std::size_t i = 0; i + 1 < keys.size (); ++i) {
            if (PLGetTypeID (keys [i]) != PLStringGetTypeID ())
                Fail ("a key that isn't a string has no JSON form");
            PLStringRef key = static_cast<PLStringRef> (keys [i]);
            members.push_back (Member { UTF8 (key), key, values [i] });
        }
        // UTF-8's byte order is code-point order.
        std::sort (members.begin (), members.end ());
        WriteMembers (members, true, indent);
    }
    else if (type == "array") {
        PLArrayRef array = static_cast<PLArrayRef> (value);
        for (PLIndex i = 0; i < PLArrayGetCount (array); ++i)
            members.push_back (Member { std::to_string (i), nullptr, PLArrayGetValueAtIndex (array, i) });
        WriteMembers (members, false, indent);
    }
    else if (type == "string")
        WriteString (static_cast<PLStringRef> (value));
    else if (type == "date" || type == "data")
        fText += "\"" + ScalarText (value) + "\"";
    else {
        std::string text = ScalarText (value);
        if (text.find_first_of ("in") != std::string::npos)
            Fail ("JSON has no number for " + text);
        fText += text;
    }
}

class Reader {
public:
    explicit Reader (std::string const & text) : fText (text), fAt (0) {}
    PLTypeRef ReadDocument ();

private:
    PLTypeRef Value (int depth);
    PLTypeRef Container (int depth, bool keyed);
    std::string String ();
    char32_t Hex4 ();
    PLTypeRef Number ();
    // The next byte after white space, or 0 at the end.
    char Peek ();
    void Expect (char c);
    [[noreturn]] void Fail (std::string const & what) const;

    std::string const & fText;
    std::size_t fAt;
    KeyPath fPath;
};

void Reader::Fail (std::string const & what) const
{
    throw Failure { "JSON: " + what + " (at byte " + std::to_string (fAt) + ")", "" };
}

char Reader::Peek ()
{
    fAt = std::min (fText.find_first_not_of (" \t\n\r", fAt), fText.size ());
    return fAt < fText.size () ? fText [fAt] : '\0';
}

void Reader::Expect (char c)
{
    if (Peek () != c)
        Fail (std::string ("expected '") + c + "'");
    ++fAt;
}

PLTypeRef Reader::ReadDocument ()
{
    if (fText.compare (0, 3, "\xEF\xBB\xBF") == 0)
        fAt = 3;
    Owned<PLTypeRef> value (Value (0));
    if (Peek () != '\0' || fAt < fText.size ())
        Fail ("text after the value");
    return PLRetain (value.Get ());
}

PLTypeRef Reader::Value (int depth)
{
    char c = Peek ();
    if (c == '{' || c == '[') {
        if (depth == kMaximumDepth)
            Fail ("nesting deeper than " + std::to_string (kMaximumDepth));
        return Container (depth + 1, c == '{');
    }
    if (c == '"') {
        std::size_t start = fAt;
        PLTypeRef string = CreateUTF8String (String ());
        if (string == nullptr) {
            fAt = start;
            Fail ("a string that isn't UTF-8");
        }
        return string;
    }
    if (c == '-' || (c >= '0' && c <= '9'))
        return Number ();
    for (char const * word : { "true", "false", "null" })
        if (fText.compare (fAt, std::strlen (word), word) == 0) {
            if (word [0] == 'n')
                throw KeyPathFailure (fPath, fPath.size (), "JSON null has no property-list value");
            fAt += std::strlen (word);
            return word [0] == 't' ? kPLBooleanTrue : kPLBooleanFalse;
        }
    Fail ("expected a value");
}

PLTypeRef Reader::Container (int depth, bool keyed)
{
    ++fAt;
    Owned<PLTypeRef> container (keyed
        ? static_cast<PLTypeRef> (PLDictionaryCreateMutable (kPLAllocatorDefault, 0, &kPLTypeDictionaryKeyCallBacks,
            &kPLTypeDictionaryValueCallBacks))
        : static_cast<PLTypeRef> (PLArrayCreateMutable (kPLAllocatorDefault, 0, &kPLTypeArrayCallBacks)));
    char const close = keyed ? '}' : ']';
    for (PLIndex count = 0; count > 0 || Peek () != close; ++count) {
        if (count > 0)
            Expect (',');
        if (keyed && Peek () != '"')
            Fail ("expected a key");
        Owned<PLTypeRef> key (keyed ? Value (depth) : nullptr);
        fPath.push_back (keyed ? UTF8 (static_cast<PLStringRef> (key.Get ())) : std::to_string (count));
        if (keyed)
            Expect (':');
        Owned<PLTypeRef> value (Value (depth));
        fPath.pop_back ();
        if (keyed)
            PLDictionarySetValue (static_cast<PLMutableDictionaryRef> (const_cast<void *> (container.Get ())), key, value);
        else
            PLArrayAppendValue (static_cast<PLMutableArrayRef> (const_cast<void *> (container.Get ())), value);
        if (Peek () == close)
            break;
    }
    Expect (close);
    return PLRetain (container.Get ());
}

char32_t Reader::Hex4 ()
{
    char32_t c = 0;
    for (int i = 0; i < 4; ++i, ++fAt) {
        char digit = fAt < fText.size () ? fText [fAt] : '\0';
        char const * hex = "0123456789abcdef0123456789ABCDEF";
        char const * found = digit != '\0' ? std::strchr (hex, digit) : nullptr;
        if (found == nullptr)
            Fail ("expected four hexadecimal digits");
        c = c * 16 + char32_t ((found - hex) % 16);
    }
    return c;
}

// The string's text as UTF-8; the caller checks that the raw bytes in it are UTF-8.
std::string Reader::String ()
{
    std::string text;
    for (++fAt;; ++fAt) {
        if (fAt >= fText.size ())
            Fail ("a string without its closing quote");
        unsigned char c = static_cast<unsigned char> (fText [fAt]);
        if (c == '"')
            break;
        if (c < 0x20)
            Fail ("a control character in a string");
        if (c != '\\') {
            text += char (c);
            continue;
        }
        char escape = ++fAt < fText.size () ? fText [fAt] : '\0';
        char const * from = "\"\\/bfnrt";
        char const * to = "\"\\/\b\f\n\r\t";
        if (escape != '\0' && escape != 'u' && std::strchr (from, escape) != nullptr) {
            text += to [std::strchr (from, escape) - from];
            continue;
        }
        if (escape != 'u')
            Fail ("an unknown escape");
        ++fAt;
        char32_t unit = Hex4 ();
        if (IsHighSurrogate (unit) && fText.compare (fAt, 2, "\\u") == 0) {
            fAt += 2;
            char32_t low = Hex4 ();
            if (! IsLowSurrogate (low))
                Fail ("an unpaired surrogate");
            unit = 0x10000 + ((unit - 0xD800) << 10) + (low - 0xDC00);
        }
        else if (IsHighSurrogate (unit) || IsLowSurrogate (unit))
            Fail ("an unpaired surrogate");
        AppendUTF8 (text, unit);
        --fAt;
    }
    ++fAt;
    return text;
}

PLTypeRef Reader::Number ()
{
    std::size_t start = fAt;
    auto digits = [this] () {
        std::size_t first = fAt;
        while (fAt < fText.size () && fText [fAt] >= '0' && fText [fAt] <= '9')
            ++fAt;
        if (fAt == first)
            Fail ("expected a digit");
        return fAt - first;
    };
    if (fText [fAt] == '-')
        ++fAt;
    std::size_t whole = fAt;
    if (digits () > 1 && fText [whole] == '0')
        Fail ("a number with a leading zero");
    bool real = false;
    if (fAt < fText.size () && fText [fAt] == '.') {
        ++fAt;
        digits ();
        real = true;
    }
    if (fAt < fText.size () && (fText [fAt] == 'e' || fText [fAt] == 'E')) {
        ++fAt;
        if (fAt < fText.size () && (fText [fAt] == '+' || fText [fAt] == '-'))
            ++fAt;
        digits ();
        real = true;
    }
    PLTypeRef number = CreateScalar (real ? "real" : "integer", fText.substr (start, fAt - start));
    if (number == nullptr)
        throw KeyPathFailure (fPath, fPath.size (), real ? "a number out of range" : "an integer outside -2^63 to 2^64-1");
    return number;
}

}

bool LooksLikeJSON (std::string const & bytes)
{
    std::size_t at = bytes.compare (0, 3, "\xEF\xBB\xBF") == 0 ? 3 : 0;
    at = bytes.find_first_not_of (" \t\n\r", at);
    return at != std::string::npos && std::string ("{[\"-0123456789tfn").find (bytes [at]) != std::string::npos;
}

std::string JSONText (PLTypeRef value, KeyPath const & at)
{
    Writer writer (at);
    writer.Write (value, "");
    return writer.fText + "\n";
}

PLTypeRef CreateFromJSON (std::string const & text)
{
    return Reader (text).ReadDocument ();
}

}
