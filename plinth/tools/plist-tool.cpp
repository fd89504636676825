// plist-tool: checks, converts and prints property lists, through Plinth's public interface only.
//
//   plist-tool -lint FILE...                    "FILE: OK", or "FILE: reason", for each file
//   plist-tool -convert binary|xml -o OUT IN    IN in the other format (or the same) into OUT
//   plist-tool -p FILE                          an indented description of the contents
//
// Every failure is one line on standard error (standard output for -lint), and the exit status
// is 1 when anything failed, 2 for a wrong command line.
#include <Plinth/Plinth.h>
#include <Plinth/PlinthCXX.h>

#include <algorithm>
#include <cstdio>
#include <cwchar>
#include <cstring>
#include <string>
#include <vector>

#ifdef _WIN32
#include <windows.h>
#include <shellapi.h>
#endif

namespace {

using PlinthCXX::Owned;
using PlinthCXX::UTF8;

// A command-line argument: UTF-8 (POSIX) or UTF-16 (Windows) units.
struct Argument {
    std::string fText;       // UTF-8, for messages and options
    PLStringRef fString;     // owned
};

PLURLRef CreateURL (PLStringRef path)
{
#ifdef _WIN32
    return PLURLCreateWithFileSystemPath (kPLAllocatorDefault, path, kPLURLWindowsPathStyle, false);
#else
    return PLURLCreateWithFileSystemPath (kPLAllocatorDefault, path, kPLURLPOSIXPathStyle, false);
#endif
}

// The property list in `path`, or null with `reason` set.
PLTypeRef Read (Argument const & path, std::string & reason, PLPropertyListFormat * format = nullptr)
{
    Owned<PLURLRef> url (CreateURL (path.fString));
    Owned<PLReadStreamRef> stream (PLReadStreamCreateWithFile (kPLAllocatorDefault, url.Get ()));
    if (stream.Get () == nullptr || ! PLReadStreamOpen (stream.Get ())) {
        reason = "can't be opened for reading";
        return nullptr;
    }
    Owned<PLStringRef> error;
    PLTypeRef value = PLPropertyListCreateWithStream (kPLAllocatorDefault, stream.Get (), 0, kPLPropertyListImmutable,
        format, error.Out ());
    if (value == nullptr)
        reason = error.Get () != nullptr ? UTF8 (error.Get ()) : "not a property list";
    return value;
}

int Lint (std::vector<Argument> const & files)
{
    int status = 0;
    for (Argument const & file : files) {
        std::string reason;
        Owned<PLTypeRef> value (Read (file, reason));
        if (value.Get () != nullptr)
            std::printf ("%s: OK\n", file.fText.c_str ());
        else {
            std::printf ("%s: %s\n", file.fText.c_str (), reason.c_str ());
            status = 1;
        }
    }
    return status;
}

int Convert (PLPropertyListFormat format, Argument const & output, Argument const & input)
{
    std::string reason;
    Owned<PLTypeRef> value (Read (input, reason));
    if (value.Get () == nullptr) {
        std::fprintf (stderr, "plist-tool: %s: %s\n", input.fText.c_str (), reason.c_str ());
        return 1;
    }
    // Encoded first, so that a value the format can't hold leaves the output file alone.
    Owned<PLStringRef> error;
    Owned<PLDataRef> data (PLPropertyListCreateData (kPLAllocatorDefault, value.Get (), format, 0, error.Out ()));
    if (data.Get () == nullptr) {
        std::fprintf (stderr, "plist-tool: %s: %s\n", input.fText.c_str (), UTF8 (error.Get ()).c_str ());
        return 1;
    }
    Owned<PLURLRef> url (CreateURL (output.fString));
    Owned<PLWriteStreamRef> stream (PLWriteStreamCreateWithFile (kPLAllocatorDefault, url.Get ()));
    if (stream.Get () == nullptr || ! PLWriteStreamOpen (stream.Get ())) {
        std::fprintf (stderr, "plist-tool: %s: can't be opened for writing\n", output.fText.c_str ());
        return 1;
    }
    PLIndex length = PLDataGetLength (data.Get ());
    if (PLWriteStreamWrite (stream.Get (), PLDataGetBytePtr (data.Get ()), length) != length) {
        std::fprintf (stderr, "plist-tool: %s: can't be written\n", output.fText.c_str ());
        return 1;
    }
    return 0;
}

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

// One value, its first line already indented; containers open on that line.
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

int PrintFile (Argument const & file)
{
    std::string reason;
    Owned<PLTypeRef> value (Read (file, reason));
    if (value.Get () == nullptr) {
        std::fprintf (stderr, "plist-tool: %s: %s\n", file.fText.c_str (), reason.c_str ());
        return 1;
    }
    Print (value.Get (), 0);
    return 0;
}

int Usage ()
{
    std::fputs ("usage: plist-tool -lint FILE...\n"
                "       plist-tool -convert binary|xml -o OUT IN\n"
                "       plist-tool -p FILE\n", stderr);
    return 2;
}

int Run (std::vector<Argument> const & arguments)
{
    std::size_t count = arguments.size ();
    std::string mode = count > 0 ? arguments [0].fText : "";
    if (mode == "-lint" && count >= 2)
        return Lint (std::vector<Argument> (arguments.begin () + 1, arguments.end ()));
    if (mode == "-p" && count == 2)
        return PrintFile (arguments [1]);
    if (mode == "-convert" && count == 5 && arguments [2].fText == "-o") {
        std::string format = arguments [1].fText;
        if (format != "binary" && format != "xml")
            return Usage ();
        return Convert (format == "xml" ? kPLPropertyListXMLFormat : kPLPropertyListBinaryFormat, arguments [3],
            arguments [4]);
    }
    return Usage ();
}

}

int main (int argc, char ** argv)
{
    std::vector<Argument> arguments;
#ifdef _WIN32
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
