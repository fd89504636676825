// plist-tool as its users run it: one line per file or failure, the exit status, conversions that
// plistlib's files survive. Native only (the tool is started through the shell).
#include "PlinthTest.h"

#include <cstdio>
#include <fstream>
#include <sstream>
#include <sys/wait.h>

using namespace PlinthTest;

namespace {

struct Result {
    int fStatus;
    std::string fOutput;
};

Result RunTool (std::string const & arguments)
{
    std::string command = std::string (PLIST_TOOL) + " " + arguments + " 2>&1";
    FILE * pipe = popen (command.c_str (), "r");
    Result result { -1, "" };
    char buffer [4096];
    while (std::size_t got = std::fread (buffer, 1, sizeof buffer, pipe))
        result.fOutput.append (buffer, got);
    int status = pclose (pipe);
    result.fStatus = WIFEXITED (status) ? WEXITSTATUS (status) : -1;
    return result;
}

std::string Data (char const * name)
{
    return std::string (PLINTH_TEST_DATA) + "/" + name;
}

std::string Contents (std::string const & path)
{
    std::ostringstream contents;
    contents << std::ifstream (path, std::ios::binary).rdbuf ();
    return contents.str ();
}

}

TEST (PlistTool, LintsEachFileOnOneLineAndFailsOnAnyBadOne)
{
    std::string good = Data ("plistlib/dict_every_type.xml"), cycle = Data ("hostile/cycle-self.binary");
    Result result = RunTool ("-lint " + good + " " + cycle + " " + Data ("hostile/missing"));
    EXPECT_EQ (result.fStatus, 1);
    EXPECT_EQ (result.fOutput, good + ": OK\n" + cycle + ": binary property list: reference cycle (at byte 8)\n"
        + Data ("hostile/missing") + ": can't be opened for reading\n");
    EXPECT_EQ (RunTool ("-lint " + good).fStatus, 0);
    Result usage = RunTool ("-convert json -o x y");
    EXPECT_EQ (usage.fStatus, 2);
    EXPECT_EQ (usage.fOutput.substr (0, 7), "usage: ");
}

TEST (PlistTool, ConvertsBothWaysAndPrints)
{
    ScratchPreferences scratch;
    std::string xml = scratch.File ("every.xml"), binary = scratch.File ("every.binary");
    ASSERT_EQ (RunTool ("-convert xml -o " + xml + " " + Data ("plistlib/dict_every_type.binary")).fStatus, 0);
    ASSERT_EQ (RunTool ("-convert binary -o " + binary + " " + xml).fStatus, 0);
    EXPECT_EQ (Contents (binary), Contents (Data ("plistlib/dict_every_type.binary")));
    // A string XML can't hold: refused, and the output file is not touched.
    Result refused = RunTool ("-convert xml -o " + xml + " " + Data ("plistlib/string_nul.binary"));
    EXPECT_EQ (refused.fStatus, 1);
    EXPECT_EQ (refused.fOutput, "plist-tool: " + Data ("plistlib/string_nul.binary")
        + ": XML property list: a string with a character that XML cannot hold\n");
    EXPECT_EQ (RunTool ("-lint " + xml).fStatus, 0);
    Result printed = RunTool ("-p " + Data ("plistlib/array_nested.xml"));
    EXPECT_EQ (printed.fStatus, 0);
    EXPECT_EQ (printed.fOutput, "[\n    [\n        1\n        [\n            2\n        ]\n    ]\n    3\n    [\n"
        "        [\n            []\n        ]\n    ]\n]\n");
    Result described = RunTool ("-p " + Data ("plistlib/dict_sorted.binary"));
    EXPECT_NE (described.fOutput.find ("    \"a\" = [\n        true\n        2.5\n    ]\n"), std::string::npos)
        << described.fOutput;
}
