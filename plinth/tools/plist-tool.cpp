// plist-tool: checks, prints, converts and edits property lists, through Plinth's public interface
// only. The commands are those of the usage text below; plinth/README.md shows each with an
// example.
//
// Every command reads binary and XML property lists and JSON, told apart by their first bytes.
// Edits write the file back in the format it was read in, and -convert, -insert, -replace and
// -remove without -o replace the file whole (Files.h). Encoding comes before writing, so a value
// that the format can't hold leaves the output alone.
//
// Exit status: 0 on success, 1 when anything failed, 2 for a wrong command line (a line naming what
// is wrong, then the usage, on standard error). Each failure is one line on standard error:
// "plist-tool: FILE: reason", with `key path "a.b":` before the reason when it concerns one value.
#include "Files.h"
#include "JSON.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <cwchar>
#include <vector>

#ifdef _WIN32
#include <windows.h>
#include <shellapi.h>
#include <fcntl.h>
#include <io.h>
#endif

namespace {

using namespace PlistTool;

char const kUsage [] =
    "usage: plist-tool -lint FILE...\n"
    "       plist-tool -p FILE\n"
    "       plist-tool -type KEYPATH FILE\n"
    "       plist-tool -convert binary|xml|json [-o OUT] FILE\n"
    "       plist-tool -extract KEYPATH binary|xml|json|raw [-o OUT] FILE\n"
    "       plist-tool -insert KEYPATH -TYPE VALUE [-o OUT] FILE\n"
    "       plist-tool -replace KEYPATH -TYPE VALUE [-o OUT] FILE\n"
    "       plist-tool -remove KEYPATH [-o OUT] FILE\n"
    "       plist-tool -h | --help | --version\n"
    "\n"
    "FILE is a binary or XML property list, or JSON. - is standard input as FILE, standard output\n"
    "as OUT. -convert, -insert, -replace and -remove rewrite FILE unless -o names OUT; edits keep\n"
    "FILE's format. -extract writes to standard output unless -o names OUT; raw is the text of a\n"
    "string, number, bool or date with a line feed, or the bytes of data.\n"
    "\n"
    "KEYPATH: keys and array indexes joined by dots (servers.0.name); \\. is a dot in a key, \\\\ a\n"
    "backslash; the empty KEYPATH is the top value.\n"
    "TYPE: bool (true or false), integer, float, string, date (2024-01-31T12:00:00Z), data (Base64),\n"
    "xml (a property list or one element, such as <array/>), json. -type prints these names.\n"
    "-insert adds a key that isn't there, or inserts into an array before the index (at the count:\n"
    "appends); -replace and -remove need a value that is there.\n";

int Usage (FILE * stream, int status)
{
    std::fputs (kUsage, stream);
    return status;
}

// A wrong command line: what is wrong with it, in one line, then the usage; status 2.
int Wrong (std::string const & problem)
{
    std::fprintf (stderr, "plist-tool: %s\n", problem.c_str ());
    return Usage (stderr, 2);
}

std::string Quoted (std::string const & word)
{
    return "\"" + word + "\"";
}

enum class Format { kBinary, kXML, kJSON, kRaw };

// The format named on the command line; false for another name, or raw when it isn't allowed.
bool ParseFormat (std::string const & name, bool allowRaw, Format & format)
{
    char const * const names [] = { "binary", "xml", "json", "raw" };
    for (int i = 0; i < (allowRaw ? 4 : 3); ++i)
        if (name == names [i]) {
            format = Format (i);
            return true;
        }
    return false;
}

// The property list in `file`, owned, and the format it was read in. Throws Failure.
PLTypeRef Read (Argument const & file, PLOptionFlags options, Format & format)
{
    std::string bytes = ReadAll (file);
    if (LooksLikeJSON (bytes)) {
        format = Format::kJSON;
        return CreateFromJSON (bytes);
    }
    if (bytes.size () > 0x7FFFFFFF)
        throw Failure { "too large for a property list", "" };
    Owned<PLDataRef> data (PLDataCreateWithBytesNoCopy (kPLAllocatorDefault,
        reinterpret_cast<uint8_t const *> (bytes.data ()), PLIndex (bytes.size ()), kPLAllocatorNull));
    PLPropertyListFormat read = kPLPropertyListBinaryFormat;
    Owned<PLStringRef> error;
    PLTypeRef value = PLPropertyListCreateWithData (kPLAllocatorDefault, data, options, &read, error.Out ());
    if (value == nullptr)
        throw Failure { error.Get () != nullptr ? UTF8 (error) : "not a property list", "" };
    format = read == kPLPropertyListXMLFormat ? Format::kXML : Format::kBinary;
    return value;
}

// `value`, at `at` in its file, in `format`. Throws Failure.
std::string Encode (PLTypeRef value, Format format, KeyPath const & at)
{
    if (format == Format::kJSON)
        return JSONText (value, at);
    std::string type = TypeName (value);
    if (format == Format::kRaw && (type == "array" || type == "dictionary"))
        throw KeyPathFailure (at, at.size (), (type == "array" ? "an " : "a ") + type
            + " has no raw form (use xml or json)");
    if (format == Format::kRaw && type != "data")
        return ScalarText (value) + "\n";
    if (format == Format::kRaw)
        return std::string (reinterpret_cast<char const *> (PLDataGetBytePtr (static_cast<PLDataRef> (value))),
            std::size_t (PLDataGetLength (static_cast<PLDataRef> (value))));
    Owned<PLStringRef> error;
    Owned<PLDataRef> data (PLPropertyListCreateData (kPLAllocatorDefault, value,
        format == Format::kXML ? kPLPropertyListXMLFormat : kPLPropertyListBinaryFormat, 0, error.Out ()));
    if (data.Get () == nullptr)
        throw Failure { UTF8 (error), "" };
    return std::string (reinterpret_cast<char const *> (PLDataGetBytePtr (data)), std::size_t (PLDataGetLength (data)));
}

// -p: one value, its first line already indented; containers open on that line.
void Indent (int depth)
{
    for (int i = 0; i < depth; ++i)
        std::fputs ("    ", stdout);
}

std::string Quoted (PLStringRef string)
{
    std::string text = "\"";
    for (char c : UTF8 (string)) {
        if (c == '"' || c == '\\')
            text += '\\';
        if (c == '\n')
            text += "\\n";
        else if (c == '\t')
            text += "\\t";
        else if (static_cast<unsigned char> (c) < 0x20) {
            char escape [8];
            std::snprintf (escape, sizeof escape, "\\x%02x", static_cast<unsigned char> (c));
            text += escape;
        }
        else
            text += c;
    }
    return text + "\"";
}

void Print (PLTypeRef value, int depth)
{
    PLTypeID type = PLGetTypeID (value);
    if (type == PLStringGetTypeID ())
        std::printf ("%s\n", Quoted (static_cast<PLStringRef> (value)).c_str ());
    else if (type == PLArrayGetTypeID ()) {
        PLArrayRef array = static_cast<PLArrayRef> (value);
        PLIndex count = PLArrayGetCount (array);
        std::printf (count == 0 ? "[]\n" : "[\n");
        for (PLIndex i = 0; i < count; ++i) {
            Indent (depth + 1);
            Print (PLArrayGetValueAtIndex (array, i), depth + 1);
        }
        if (count > 0) {
            Indent (depth);
            std::printf ("]\n");
        }
    }
    else if (type == PLDictionaryGetTypeID ()) {
        PLDictionaryRef dictionary = static_cast<PLDictionaryRef> (value);
        PLIndex count = PLDictionaryGetCount (dictionary);
        std::vector<void const *> keys (std::size_t (count) + 1), values (std::size_t (count) + 1);
        PLDictionaryGetKeysAndValues (dictionary, keys.data (), values.data ());
        std::vector<PLIndex> order (static_cast<std::size_t> (count));
        for (PLIndex i = 0; i < count; ++i)
            order [std::size_t (i)] = i;
        std::sort (order.begin (), order.end (), [&] (PLIndex a, PLIndex b) {
            return PLStringCompare (static_cast<PLStringRef> (keys [std::size_t (a)]),
                static_cast<PLStringRef> (keys [std::size_t (b)]), 0) < 0;
        });
        std::printf (count == 0 ? "{}\n" : "{\n");
        for (PLIndex i : order) {
            Indent (depth + 1);
            std::printf ("%s = ", Quoted (static_cast<PLStringRef> (keys [std::size_t (i)])).c_str ());
            Print (values [std::size_t (i)], depth + 1);
        }
        if (count > 0) {
            Indent (depth);
            std::printf ("}\n");
        }
    }
    else if (type == PLDataGetTypeID ()) {
        PLDataRef data = static_cast<PLDataRef> (value);
        PLIndex length = PLDataGetLength (data);
        std::printf ("<%ld bytes", long (length));
        for (PLIndex i = 0; i < length && i < 32; ++i)
            std::printf ("%s%02x", i == 0 ? ": " : i % 4 == 0 ? " " : "", PLDataGetBytePtr (data) [i]);
        std::printf ("%s>\n", length > 32 ? " ..." : "");
    }
    else {
        // Numbers, booleans and dates describe themselves; a whole real keeps a ".0".
        Owned<PLStringRef> description (PLCopyDescription (value));
        std::string text = UTF8 (description.Get ());
        if (type == PLNumberGetTypeID () && PLNumberIsFloatType (static_cast<PLNumberRef> (value))
            && text.find_first_of (".eni") == std::string::npos)
            text += ".0";
        std::printf ("%s\n", text.c_str ());
    }
}

// A command after its name: its own arguments, FILE, and OUT when -o named one.
struct Invocation {
    std::vector<Argument> fArguments;
    Argument fFile;
    Argument const * fOutput;

    // Where the result goes: OUT, or else `otherwise` (FILE itself, or standard output).
    Argument Destination (Argument const & otherwise) const { return fOutput != nullptr ? *fOutput : otherwise; }
};

int PrintCommand (Invocation const & invocation)
{
    Format format;
    Owned<PLTypeRef> value (Read (invocation.fFile, kPLPropertyListImmutable, format));
    Print (value, 0);
    return 0;
}

int TypeCommand (Invocation const & invocation)
{
    Format format;
    Owned<PLTypeRef> value (Read (invocation.fFile, kPLPropertyListImmutable, format));
    std::printf ("%s\n", TypeName (Find (value, ParseKeyPath (invocation.fArguments [0].fText))).c_str ());
    return 0;
}

int ConvertCommand (Invocation const & invocation)
{
    Format to, from;
    if (! ParseFormat (invocation.fArguments [0].fText, false, to))
        return Wrong ("unknown format " + Quoted (invocation.fArguments [0].fText) + " (binary, xml or json)");
    Owned<PLTypeRef> value (Read (invocation.fFile, kPLPropertyListImmutable, from));
    WriteAll (invocation.Destination (invocation.fFile), Encode (value, to, KeyPath ()));
    return 0;
}

int ExtractCommand (Invocation const & invocation)
{
    Format to, from;
    if (! ParseFormat (invocation.fArguments [1].fText, true, to))
        return Wrong ("unknown format " + Quoted (invocation.fArguments [1].fText) + " (binary, xml, json or raw)");
    Owned<PLTypeRef> value (Read (invocation.fFile, kPLPropertyListImmutable, from));
    KeyPath path = ParseKeyPath (invocation.fArguments [0].fText);
    WriteAll (invocation.Destination (Argument { "-", nullptr }), Encode (Find (value, path), to, path));
    return 0;
}

int EditCommand (Invocation const & invocation, Edit edit)
{
    Owned<PLTypeRef> value;
    if (edit != Edit::kRemove) {
        Argument const & type = invocation.fArguments [1], & text = invocation.fArguments [2];
        if (type.fText.size () < 2 || type.fText [0] != '-')
            return Wrong ("expected -TYPE before the value, found " + Quoted (type.fText));
        *value.Out () = CreateValue (type.fText.substr (1), text.fText, text.fString);
        if (value.Get () == nullptr)
            return Wrong ("unknown type " + Quoted (type.fText));
    }
    Format format;
    Owned<PLTypeRef> root (Read (invocation.fFile, kPLPropertyListMutableContainers, format));
    Owned<PLTypeRef> edited (ApplyEdit (root, ParseKeyPath (invocation.fArguments [0].fText), edit, value));
    WriteAll (invocation.Destination (invocation.fFile), Encode (edited, format, KeyPath ()));
    return 0;
}

int InsertCommand (Invocation const & invocation) { return EditCommand (invocation, Edit::kInsert); }
int ReplaceCommand (Invocation const & invocation) { return EditCommand (invocation, Edit::kReplace); }
int RemoveCommand (Invocation const & invocation) { return EditCommand (invocation, Edit::kRemove); }

struct Command {
    char const * fName;
    std::size_t fArguments;     // before FILE
    bool fTakesOutput;          // -o OUT before FILE
    int (*fRun) (Invocation const &);
};

Command const kCommands [] = {
    { "-p", 0, false, PrintCommand },
    { "-type", 1, false, TypeCommand },
    { "-convert", 1, true, ConvertCommand },
    { "-extract", 2, true, ExtractCommand },
    { "-insert", 3, true, InsertCommand },
    { "-replace", 3, true, ReplaceCommand },
    { "-remove", 1, true, RemoveCommand } };

void Report (Failure const & failure, Argument const & file)
{
    std::fflush (stdout);
    std::string subject = failure.fFile.empty () ? InputName (file) : failure.fFile;
    std::fprintf (stderr, "plist-tool: %s: %s\n", subject.c_str (), failure.fText.c_str ());
}

int Lint (std::vector<Argument> const & files)
{
    int status = 0;
    for (Argument const & file : files)
        try {
            Format format;
            Owned<PLTypeRef> value (Read (file, kPLPropertyListImmutable, format));
            std::printf ("%s: OK\n", InputName (file).c_str ());
        }
        catch (Failure const & failure) {
            Report (failure, file);
            status = 1;
        }
    return status;
}

int Run (std::vector<Argument> const & arguments)
{
    std::string name = arguments.empty () ? "" : arguments [0].fText;
    if (name == "-h" || name == "--help")
        return Usage (stdout, 0);
    if (name == "--version") {
        std::printf ("plist-tool %s\n", PLIST_TOOL_VERSION);
        return 0;
    }
    if (name == "-lint")
        return arguments.size () >= 2 ? Lint (std::vector<Argument> (arguments.begin () + 1, arguments.end ()))
                                      : Wrong ("-lint needs at least one FILE");
    for (Command const & command : kCommands) {
        if (name != command.fName)
            continue;
        if (arguments.size () < command.fArguments + 2)
            break;
        std::size_t rest = arguments.size () - 1 - command.fArguments;
        bool output = rest == 3 && command.fTakesOutput && arguments [command.fArguments + 1].fText == "-o";
        if (rest != 1 && ! output)
            break;
        Invocation invocation { std::vector<Argument> (arguments.begin () + 1, arguments.begin () + 1
            + std::ptrdiff_t (command.fArguments)), arguments.back (), output ? &arguments [arguments.size () - 2] : nullptr };
        try {
            return command.fRun (invocation);
        }
        catch (Failure const & failure) {
            Report (failure, invocation.fFile);
            return 1;
        }
    }
    if (arguments.empty ())
        return Wrong ("no command");
    for (Command const & command : kCommands)
        if (name == command.fName)
            return Wrong ("wrong arguments for " + name);
    return Wrong ("unknown command " + Quoted (name));
}

}

int main (int argc, char ** argv)
{
    std::vector<Argument> arguments;
#ifdef _WIN32
    // Bytes in and out as they are: no CR LF translation of property lists, JSON or text.
    ::_setmode (::_fileno (stdin), _O_BINARY);
    ::_setmode (::_fileno (stdout), _O_BINARY);
    // The arguments as UTF-16, whatever the code page.
    (void) argv;
    int count = 0;
    wchar_t ** wide = ::CommandLineToArgvW (::GetCommandLineW (), &count);
    for (int i = 1; wide != nullptr && i < count; ++i) {
        PLStringRef string = PLStringCreateWithCharacters (kPLAllocatorDefault, reinterpret_cast<PLUniChar const *> (wide [i]),
            PLIndex (std::wcslen (wide [i])));
        arguments.push_back (Argument { UTF8 (string), string });
    }
    ::LocalFree (wide);
#else
    for (int i = 1; i < argc; ++i)
        arguments.push_back (Argument { argv [i], PLStringCreateWithCString (kPLAllocatorDefault, argv [i],
            kPLStringEncodingUTF8) });
#endif
    (void) argc;
    int status = 0;
    for (Argument const & argument : arguments)
        if (argument.fString == nullptr) {
            std::fprintf (stderr, "plist-tool: an argument is not valid text\n");
            status = 2;
        }
    if (status == 0)
        status = Run (arguments);
    for (Argument const & argument : arguments)
        PLRelease (argument.fString);
    return status;
}
