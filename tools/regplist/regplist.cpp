// regplist: exports a registry key tree to a property list and imports one back, on the public
// interfaces of LibSkerry (Registry::Key) and Plinth. The file's shape is told in
// PropertyListTree.cpp and in the README, with an example of each command.
//
// Exit status: 0 on success, 1 when anything failed, 2 for a wrong command line (a line naming
// what is wrong, then the usage). Each failure is one line on standard error: "regplist: KEY:
// function: the library's words" for the registry, with the sub-key and value where it happened,
// or "regplist: FILE: reason" for the file. An import checks the whole file before it writes
// anything.
#include "Files.h"
#include "LibraryFailure.h"
#include "Tree.h"

#include <LibSkerry/Exceptions>

#include <cstdio>
#include <new>

#include <windows.h>
#include <shellapi.h>
#include <fcntl.h>
#include <io.h>

namespace {

using namespace RegPlist;
using PlinthCXX::Owned;
using PlistTool::Argument;
using PlistTool::Failure;

char const kUsage [] =
    "usage: regplist export [-binary] KEY [FILE]\n"
    "       regplist import FILE KEY\n"
    "       regplist -h | --help | --version\n"
    "\n"
    "KEY is a root key, HKEY_CURRENT_USER (HKCU), HKEY_LOCAL_MACHINE (HKLM), HKEY_CLASSES_ROOT (HKCR),\n"
    "HKEY_USERS (HKU) or HKEY_CURRENT_CONFIG (HKCC), then \\ and the path below it.\n"
    "export writes the values and sub-keys under KEY to FILE as an XML property list, binary with\n"
    "-binary; without FILE, or with -, to standard output. import reads a property list of either\n"
    "format from FILE (- is standard input), creates KEY if it is missing and writes the values and\n"
    "sub-keys of the file into it, replacing values of the same name; nothing else is removed.\n";

int Usage (FILE * stream, int status)
{
    std::fputs (kUsage, stream);
    return status;
}

int Wrong (const std::string & problem)
{
    std::fprintf (stderr, "regplist: %s\n", problem.c_str ());
    return Usage (stderr, 2);
}

struct RootKey {
    wchar_t const * fName;
    wchar_t const * fShortName;
    HKEY fKey;
};

// KEY of the command line: its root, the path below it, and the text as the user wrote it.
struct KeyName {
    HKEY fRoot;
    std::wstring fPath;
    std::wstring fText;
};

RootKey const kRootKeys [] = { { L"HKEY_CURRENT_USER", L"HKCU", HKEY_CURRENT_USER },
    { L"HKEY_LOCAL_MACHINE", L"HKLM", HKEY_LOCAL_MACHINE }, { L"HKEY_CLASSES_ROOT", L"HKCR", HKEY_CLASSES_ROOT },
    { L"HKEY_USERS", L"HKU", HKEY_USERS }, { L"HKEY_CURRENT_CONFIG", L"HKCC", HKEY_CURRENT_CONFIG } };

// The path below the root is taken without separators at its end; false for an unknown root.
bool ParseKey (const std::wstring & text, KeyName & key)
{
    std::size_t separator = text.find (L'\\');
    std::wstring name = text.substr (0, separator);
    key.fPath = separator == std::wstring::npos ? L"" : text.substr (separator + 1);
    while (! key.fPath.empty () && key.fPath.back () == L'\\')
        key.fPath.pop_back ();
    key.fText = text;
    for (const RootKey & known : kRootKeys)
        if (::lstrcmpiW (name.c_str (), known.fName) == 0 || ::lstrcmpiW (name.c_str (), known.fShortName) == 0) {
            key.fRoot = known.fKey;
            return true;
        }
    return false;
}

// A file named on the command line, as plist-tool's files take it.
struct File {
    explicit File (const std::wstring & name)
        : fName (PLStringCreateWithCharacters (kPLAllocatorDefault, reinterpret_cast<PLUniChar const *> (name.data ()),
              PLIndex (name.size ()))), fArgument { Narrow (name), fName }
    {
    }
    Owned<PLStringRef> fName;
    Argument fArgument;
};

// One line for the failure being handled. The library's exceptions concern `where` in the
// registry; a file's failure names its file, or `file` when it doesn't.
int Report (const std::wstring & where, const std::string & file)
{
    std::fflush (stdout);
    std::string subject = Narrow (where), text;
    try {
        throw;
    }
    catch (const Failure & failure) {
        subject = failure.fFile.empty () ? file : failure.fFile;
        text = failure.fText;
    }
    catch (...) {
        text = SkerryTool::LibraryFailureText ();
    }
    std::fprintf (stderr, "regplist: %s: %s\n", subject.c_str (), text.c_str ());
    return 1;
}

int Export (const KeyName & key, const std::wstring & file, bool binary)
{
    std::wstring where = key.fText;
    File output (file);
    try {
        Tree tree = ReadTree (Skerry::Registry::Key (key.fRoot, key.fPath, false, KEY_READ), where);
        Owned<PLTypeRef> list (CreatePropertyList (tree));
        Owned<PLStringRef> error;
        Owned<PLDataRef> data (PLPropertyListCreateData (kPLAllocatorDefault, list,
            binary ? kPLPropertyListBinaryFormat : kPLPropertyListXMLFormat, 0, error.Out ()));
        if (data.Get () == nullptr)
            throw Failure { PlinthCXX::UTF8 (error), "" };
        PlistTool::WriteAll (output.fArgument, std::string (reinterpret_cast<char const *> (PLDataGetBytePtr (data)),
            std::size_t (PLDataGetLength (data))));
        return 0;
    }
    catch (...) {
        return Report (where, PlistTool::IsStandardStream (output.fArgument) ? "(standard output)" : output.fArgument.fText);
    }
}

int Import (const std::wstring & file, const KeyName & key)
{
    std::wstring where = key.fText;
    File input (file);
    try {
        std::string bytes = PlistTool::ReadAll (input.fArgument);
        Owned<PLDataRef> data (PLDataCreateWithBytesNoCopy (kPLAllocatorDefault,
            reinterpret_cast<uint8_t const *> (bytes.data ()), PLIndex (bytes.size ()), kPLAllocatorNull));
        Owned<PLStringRef> error;
        Owned<PLTypeRef> list (PLPropertyListCreateWithData (kPLAllocatorDefault, data, kPLPropertyListImmutable,
            nullptr, error.Out ()));
        if (list.Get () == nullptr)
            throw Failure { PlinthCXX::UTF8 (error), "" };
        Tree tree = TreeFromPropertyList (list);
        WriteTree (Skerry::Registry::Key (key.fRoot, key.fPath, true, KEY_ALL_ACCESS), tree, where);
        return 0;
    }
    catch (...) {
        return Report (where, PlistTool::InputName (input.fArgument));
    }
}

int Run (const std::vector<std::wstring> & arguments)
{
    std::wstring command = arguments.empty () ? L"" : arguments [0];
    if (command == L"-h" || command == L"--help")
        return Usage (stdout, 0);
    if (command == L"--version") {
        std::printf ("regplist %s\n", REGPLIST_VERSION);
        return 0;
    }
    bool exporting = command == L"export";
    if (! exporting && command != L"import")
        return Wrong (command.empty () ? "no command" : "unknown command \"" + Narrow (command) + "\"");
    // export [-binary] KEY [FILE], import FILE KEY
    bool binary = exporting && arguments.size () > 1 && arguments [1] == L"-binary";
    std::size_t keyIndex = exporting ? (binary ? 2 : 1) : 2;
    if (exporting ? arguments.size () <= keyIndex || arguments.size () > keyIndex + 2 : arguments.size () != 3)
        return Wrong (exporting ? "export takes [-binary] KEY [FILE]" : "import takes FILE KEY");
    KeyName key {};
    if (! ParseKey (arguments [keyIndex], key))
        return Wrong ("unknown root key in \"" + Narrow (arguments [keyIndex]) + "\"");
    if (! exporting)
        return Import (arguments [1], key);
    return Export (key, arguments.size () > keyIndex + 1 ? arguments [keyIndex + 1] : L"-", binary);
}

}

int main ()
{
    // Property lists in and out as they are: no CR LF translation.
    ::_setmode (::_fileno (stdin), _O_BINARY);
    ::_setmode (::_fileno (stdout), _O_BINARY);
    int count = 0;
    wchar_t ** wide = ::CommandLineToArgvW (::GetCommandLineW (), &count);
    std::vector<std::wstring> arguments;
    for (int i = 1; wide != nullptr && i < count; ++i)
        arguments.emplace_back (wide [i]);
    ::LocalFree (wide);
    return Run (arguments);
}
