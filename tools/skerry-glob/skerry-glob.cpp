// skerry-glob: the names a wild-card pattern matches, and the arguments the platform makes of a
// command line, on the public interfaces of LibSkerry (WildCardExpander, CommandLine): the quick
// answer to "what does this pattern take in?" and "how will Windows split this?".
//
// Exit status: 0 on success, 1 when anything failed, 2 for a wrong command line (a line naming
// what is wrong, then the usage). Each failure is one line on standard error: "skerry-glob:
// PATTERN: function: the library's words". Text goes out as UTF-8 and comes in as UTF-8.
#include "LibraryFailure.h"

#include <LibSkerry/CodePages>
#include <LibSkerry/Utilities>

#include <cstdio>
#include <iostream>
#include <string>

#include <windows.h>

namespace {

char const kUsage [] =
    "usage: skerry-glob PATTERN...\n"
    "       skerry-glob --split [COMMAND-LINE]\n"
    "       skerry-glob -h | --help | --version\n"
    "\n"
    "For each PATTERN, prints the path of every name it matches, one to a line, in the platform's\n"
    "order: hidden names and directories included, \".\" and \"..\" left out, a directory's path\n"
    "ending in a backslash. A pattern that matches nothing is a failure.\n"
    "--split prints the arguments that the platform's rules make of COMMAND-LINE, one to a line as\n"
    "\"N [argument]\"; without COMMAND-LINE, of each line of standard input, with an empty line after\n"
    "each. The first argument is split by the rule for the program's name.\n";

const unsigned int kUTF8 = 65001;

std::string UTF8 (const std::wstring & text)
{
    return Skerry::ANSIStringFromWide (text, kUTF8);
}

int Usage (FILE * stream, int status)
{
    std::fputs (kUsage, stream);
    return status;
}

int Wrong (const std::string & problem)
{
    std::fprintf (stderr, "skerry-glob: %s\n", problem.c_str ());
    return Usage (stderr, 2);
}

// One line for the failure being handled, about `subject`.
int Report (const std::string & subject)
{
    std::cout.flush ();
    std::fprintf (stderr, "skerry-glob: %s: %s\n", subject.c_str (), SkerryTool::LibraryFailureText ().c_str ());
    return 1;
}

// The pattern's directory as written, with its separator: what the names are printed under.
std::wstring DirectoryOf (const std::wstring & pattern)
{
    std::size_t end = pattern.find_last_of (L"\\/");
    if (end == std::wstring::npos)
        end = pattern.length () >= 2 && pattern [1] == L':' ? 1 : std::wstring::npos;
    return end == std::wstring::npos ? std::wstring () : pattern.substr (0, end + 1);
}

int Glob (const std::wstring & pattern)
{
    try {
        std::wstring directory = DirectoryOf (pattern);
        for (Skerry::WildCardExpander match (pattern); match; match.Next ())
            std::cout << UTF8 (directory + match.CopyName () + (match.IsDirectory () ? L"\\" : L"")) << '\n';
        return 0;
    }
    catch (...) {
        return Report (UTF8 (pattern));
    }
}

int Split (const std::wstring & commandLine)
{
    try {
        Skerry::CommandLine arguments (commandLine.c_str ());
        for (unsigned int i = 0; i < arguments.size (); ++i)
            std::cout << i << " [" << UTF8 (arguments [i]) << "]\n";
        return 0;
    }
    catch (...) {
        return Report (UTF8 (commandLine));
    }
}

int SplitLines ()
{
    int status = 0;
    for (std::string line; std::getline (std::cin, line);) {
        if (! line.empty () && line.back () == '\r')
            line.pop_back ();
        try {
            status |= Split (Skerry::WideStringFromANSI (line.c_str (), unsigned (line.length ()), kUTF8));
        }
        catch (...) {
            status |= Report ("(standard input)");
        }
        std::cout << '\n';
    }
    return status;
}

}

int main ()
{
    std::wstring program;
    try {
        Skerry::CommandLine own;
        std::wstring first = own.size () > 1 ? own [1] : L"";
        if (first == L"-h" || first == L"--help")
            return Usage (stdout, 0);
        if (first == L"--version") {
            std::printf ("skerry-glob %s\n", SKERRY_GLOB_VERSION);
            return 0;
        }
        if (first == L"--split") {
            if (own.size () > 3)
                return Wrong ("--split takes one COMMAND-LINE, quoted as one argument");
            return own.size () == 3 ? Split (own [2]) : SplitLines ();
        }
        if (first.empty ())
            return Wrong ("no pattern");
        int status = 0;
        for (unsigned int i = 1; i < own.size (); ++i)
            status |= Glob (own [i]);
        return status;
    }
    catch (...) {
        return Report ("(command line)");
    }
}
