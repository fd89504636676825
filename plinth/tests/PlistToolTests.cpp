// plist-tool as its users run it, on files that Python's plistlib writes and then checks: what
// each command prints, exit statuses, one line per failure on standard error, files replaced whole
// or left alone. Native only: the tool and plistlib run through the shell.
#include "PlinthTest.h"

#include <cstdlib>
#include <tuple>
#include <sys/wait.h>

using namespace PlinthTest;

namespace {

// plistlib's side. `write`: the value V as f.binary, f.xml, and f.expected.json as Python's json
// writes it (data and dates as their text). `check FILE FORMAT STATEMENT...`: for each triple, OK
// when FILE has FORMAT and holds V as STATEMENT changes it. json.dumps tells 2 from 2.0, so the
// comparison sees integers and reals apart.
char const kScript [] = R"(import base64, copy, datetime, json, plistlib, sys
V = {"name": "Plinth", "servers": [{"host": "a", "port": 80}, {"host": "b", "port": 8080}], "ratio": 0.1,
     "big": 2**64 - 1, "when": datetime.datetime(2024, 1, 31, 12), "blob": b"\0\xffabc", "on": True,
     "dot.key": {"x": 1}, "whole": 2.0, "uni": "\u00e9\U0001F600\n\"\\"}
text = lambda o: base64.b64encode(o).decode() if isinstance(o, bytes) else o.strftime("%Y-%m-%dT%H:%M:%SZ")
same = lambda a, b: json.dumps(a, sort_keys=True, default=repr) == json.dumps(b, sort_keys=True, default=repr)
if sys.argv[1] == "write":
    for name, form in (("f.binary", plistlib.FMT_BINARY), ("f.xml", plistlib.FMT_XML)):
        open(name, "wb").write(plistlib.dumps(V, fmt=form))
    with open("f.expected.json", "w", encoding="utf-8") as out:
        out.write(json.dumps(V, indent=2, sort_keys=True, ensure_ascii=False, default=text) + "\n")
for path, form, statement in zip(*[iter(sys.argv[2:])] * 3):
    scope = {"V": copy.deepcopy(V), "datetime": datetime, "json": json}
    exec(statement, scope)
    data = open(path, "rb").read()
    v = plistlib.loads(data)
    print("OK" if same(v, scope["V"]) and data.startswith(b"bplist") == (form == "binary") else path + ": " + repr(v))
)";

// A command as the shell runs it, and what it gives: its exit status and standard output and error.
struct Row { std::string fCommand; int fStatus; std::string fOut, fErr; };

// A command that fails with status 1, printing nothing but `line` on standard error.
Row Failing (std::string const & command, std::string const & line) { return { command, 1, "", "plist-tool: " + line + "\n" }; }

// A scratch directory holding plistlib's f.binary and f.xml, where commands run through the shell
// with $T naming the tool, $P the plistlib script and $D the test data.
class Scratch : public ScratchPreferences {
public:
    Scratch ()
    {
        WriteFile (File ("check.py"), kScript);
        EXPECT_EQ (Shell ("$P write").fStatus, 0);
    }

    Row Shell (std::string const & command) const
    {
        std::string line = "cd '" + Directory () + "' && export T='" PLIST_TOOL "' P='python3 check.py' D='"
            PLINTH_TEST_DATA "' && { " + command + "; } >stdout.txt 2>stderr.txt";
        int status = std::system (line.c_str ());
        return { command, WIFEXITED (status) ? WEXITSTATUS (status) : -1, ReadFile (File ("stdout.txt")), ReadFile (File ("stderr.txt")) };
    }

    void Expect (Row const & row) const
    {
        Row result = Shell (row.fCommand);
        EXPECT_EQ (std::tie (result.fStatus, result.fOut, result.fErr), std::tie (row.fStatus, row.fOut, row.fErr)) << row.fCommand;
    }
};

}

TEST (PlistTool, ReadsPrintsAndConvertsWhatPlistlibWrites)
{
    Scratch scratch;
    EXPECT_EQ (scratch.Shell ("$T --version").fOut, "plist-tool " PLIST_TOOL_VERSION "\n");
    // Usage on standard output for help; for a wrong command line, after the failure on standard error.
    std::pair<char const *, std::string> const wrongs [] = { { "$T --help", "" }, { "$T -h", "" }, { "$T", "no command" },
        { "$T -bogus f.xml", "unknown command \"-bogus\"" },
        { "$T -convert XML f.xml", "unknown format \"XML\" (binary, xml or json)" },
        { "$T -extract a yaml f.xml", "unknown format \"yaml\" (binary, xml, json or raw)" },
        { "$T -extract a raw -x o f.xml", "wrong arguments for -extract" },
        { "$T -insert a -uint 1 f.xml", "unknown type \"-uint\"" },
        { "$T -insert a 1 f.xml", "wrong arguments for -insert" },
        { "$T -insert a 1 2 f.xml", "expected -TYPE before the value, found \"1\"" },
        { "$T -p -o o f.xml", "wrong arguments for -p" }, { "$T -lint", "-lint needs at least one FILE" } };
    for (auto const & wrong : wrongs) {
        Row result = scratch.Shell (wrong.first);
        EXPECT_EQ (std::to_string (result.fStatus) + result.fErr.substr (0, result.fErr.find ('\n') + 8) + result.fOut.substr (0, 7),
            wrong.second.empty () ? "0usage: " : "2plist-tool: " + wrong.second + "\nusage: ") << wrong.first;
    }
    Row const rows [] = {
        { "$T -type servers.1.port f.binary && $T -type 'dot\\.key' f.xml && $T -type '' - < f.xml", 0,
            "integer\ndictionary\ndictionary\n", "" },
        { "$T -extract when raw f.xml && $T -extract big raw f.binary && $T -extract blob raw - < f.binary", 0,
            std::string ("2024-01-31T12:00:00Z\n18446744073709551615\n\0\xff" "abc", 47), "" },
        { "$T -extract servers.0 json -o - f.binary && $T -extract whole json f.xml", 0,
            "{\n  \"host\": \"a\",\n  \"port\": 80\n}\n2.0\n", "" },
        // JSON as Python writes it, and read back with integers and reals apart.
        { "$T -convert json -o - f.binary > f.json && cmp f.json f.expected.json && $T -convert xml -o back.xml f.json"
          " && $T -extract servers binary -o s.binary f.xml && cp f.binary w && $T -convert xml w"
          " && $T -remove blob -o - f.xml > removed.xml && $P check back.xml xml 'V = json.load(open(\"f.json\"))'"
          " s.binary binary 'V = V[\"servers\"]' w xml '' removed.xml xml 'del V[\"blob\"]'", 0, "OK\nOK\nOK\nOK\n", "" },
        { "$T -p $D/plistlib/array_nested.xml", 0,
            "[\n    [\n        1\n        [\n            2\n        ]\n    ]\n    3\n    [\n        [\n            []\n"
            "        ]\n    ]\n]\n", "" },
        { "$T -lint f.binary $D/hostile/cycle-self.binary missing .", 1, "f.binary: OK\n",
            "plist-tool: " PLINTH_TEST_DATA "/hostile/cycle-self.binary: binary property list: reference cycle (at byte 8)\n"
            "plist-tool: missing: can't be opened for reading: No such file or directory\n"
            "plist-tool: .: can't be opened for reading: Is a directory\n" },
        Failing ("$T -extract servers.5 json f.binary", "f.binary: key path \"servers.5\": no such index: the array holds 2 values"),
        Failing ("$T -extract name.first xml f.binary",
            "f.binary: key path \"name.first\": the value at \"name\" is a string, not an array or dictionary"),
        Failing ("$T -extract servers raw f.binary", "f.binary: key path \"servers\": an array has no raw form (use xml or json)"),
        Failing ("$T -type nope f.binary", "f.binary: key path \"nope\": no such key"),
        Failing ("printf '[1, {\"r\": 1e400}]' | $T -convert json -", "(standard input): key path \"1.r\": JSON has no number for inf"),
        Failing ("printf '{\"a\": [1,]}' | $T -lint -", "(standard input): JSON: expected a value (at byte 9)"),
        Failing ("printf '[18446744073709551616]' | $T -lint -",
            "(standard input): key path \"0\": an integer outside -2^63 to 2^64-1") };
    for (Row const & row : rows)
        scratch.Expect (row);
}

TEST (PlistTool, EditsReplaceTheFileWholeInItsOwnFormat)
{
    Scratch scratch;
    struct { char const * fArguments, * fPython; } const edits [] = {
        { "-insert servers.1 -json '{\"host\": \"c\", \"port\": 1}'", "V[\"servers\"].insert(1, {\"host\": \"c\", \"port\": 1})" },
        { "-insert servers.2 -xml '<dict/>'", "V[\"servers\"].append({})" },
        { "-insert 'a\\.b' -data AAEC", "V[\"a.b\"] = b\"\\0\\1\\2\"" },
        { "-insert new -date 2020-01-02T03:04:05Z", "V[\"new\"] = datetime.datetime(2020, 1, 2, 3, 4, 5)" },
        { "-insert i -integer 0x10", "V[\"i\"] = 16" },
        { "-replace ratio -float 1e-5", "V[\"ratio\"] = 1e-05" },
        { "-replace on -bool false", "V[\"on\"] = False" },
        { "-replace 'dot\\.key.x' -string 'x<y&\xc3\xa9'", "V[\"dot.key\"][\"x\"] = \"x<y&\\u00e9\"" },
        { "-remove servers.0", "del V[\"servers\"][0]" },
        { "-replace '' -json '[1, 2.5, \"s\"]'", "V = [1, 2.5, \"s\"]" } };
    // Each edit on a copy of each file, then one run of plistlib over all of them.
    std::string command, checks, expected;
    for (auto const & edit : edits)
        for (std::string format : { "binary", "xml" }) {
            std::string file = "e" + std::to_string (&edit - edits) + "." + format;
            command += "cp f." + format + " " + file + " && $T " + edit.fArguments + " " + file + " && ";
            checks += " " + file + " " + format + " '" + edit.fPython + "'";
            expected += "OK\n";
        }
    scratch.Expect (Row { command + "$P check" + checks, 0, expected, "" });
    // Failures leave the file as it was, and no temporary file beside it.
    Row const failures [] = {
        Failing ("$T -insert name -string x w", "w: key path \"name\": a value is there already (use -replace)"),
        Failing ("$T -replace nope -string x w", "w: key path \"nope\": no such key"),
        Failing ("$T -insert servers.3 -string x w", "w: key path \"servers.3\": past the end: the array holds 2 values"),
        Failing ("$T -remove '' w", "w: key path \"\": the top value can't be removed"),
        Failing ("$T -insert x -integer 1x w", "-integer: \"1x\" is not an integer of -2^63 to 2^64-1 (decimal, or hexadecimal after 0x)"),
        Failing ("$T -insert x -json '[1, null]' w", "-json: key path \"1\": JSON null has no property-list value"),
        Failing ("$T -replace name -string \"$(printf 'a\\001')\" w", "w: XML property list: a string with a character that XML cannot hold") };
    for (Row const & failure : failures) {
        scratch.Shell ("cp f.xml w");
        scratch.Expect (failure);
        EXPECT_EQ (scratch.Shell ("cmp w f.xml && ls -A | grep -c plist-tool").fOut, "0\n") << failure.fCommand;
    }
}
