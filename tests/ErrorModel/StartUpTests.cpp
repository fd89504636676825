// The start-up of debug-help: the search path it is given, and failures that the next request
// repeats from the beginning. Start-up happens once per process, so every case is a child.
#include <LibSkerry/Exceptions>
#include <LibSkerry/StackTrace>

#include <Plinth/Plinth.h>

#include "ChildProcess.h"
#include "Expect.h"
#include "Interposer.h"
#include "Rendezvous.h"

#include <gtest/gtest.h>

#include <dbghelp.h>

#include <string>
#include <thread>
#include <vector>

using Skerry::StackTrace;
using namespace Skerry::Exceptions;

namespace {

// The directory of this program, as the first entry of every search path.
std::string ProgramDirectory ()
{
    char path [MAX_PATH];
    DWORD length = ::GetModuleFileNameA (NULL, path, MAX_PATH);
    std::string directory (path, length);
    return directory.substr (0, directory.rfind ('\\') + 1);
}

const char * const kSDK = "TolvaneApplicationSupportSDK", * kPath = "_NT_SYMBOL_PATH", * kAlternate = "_NT_ALTERNATE_SYMBOL_PATH";

// Sets the variables given and removes the others that start-up reads.
void SetVariables (const std::vector<std::pair<const char *, const char *>> & variables)
{
    for (const char * name : { kSDK, kPath, kAlternate })
        ::SetEnvironmentVariableA (name, NULL);
    for (const auto & v : variables)
        ::SetEnvironmentVariableA (v.first, v.second);
}

StackTrace OneFrame ()
{
    StackTrace trace;
    trace.assign (1, reinterpret_cast<void *> (&ProgramDirectory));
    return trace;
}

}

TEST (InChild, StartUpFailuresAreRepeated)
{
    SKERRY_INTERPOSE (duplicate, "KERNEL32.dll", DuplicateHandle);
    SKERRY_INTERPOSE (program, "KERNEL32.dll", GetModuleFileNameA);
    SKERRY_INTERPOSE (variable, "KERNEL32.dll", GetEnvironmentVariableA);
    SKERRY_INTERPOSE (initialize, "dbghelp.dll", SymInitialize);
    SKERRY_INTERPOSE (options, "dbghelp.dll", SymSetOptions);
    std::vector<std::string> paths;
    bool refuse = true;
    initialize.Replace ([&] (HANDLE process, PCSTR path, BOOL invade) {
        paths.push_back (path);
        EXPECT_TRUE (invade);
        if (refuse)
            ::SetLastError (ERROR_INVALID_PARAMETER);
        return refuse ? FALSE : initialize.Original (process, path, invade);
    });
    auto expectFailure = [] (unsigned long code, const char * function) {
        EXPECT_EQ (SkerryTest::Expect<Win32> ([] { OneFrame ().StackTrace::Symbolicate (); }, function, "StackTrace").fCode,
            code);
    };
    duplicate.Fail (FALSE, ERROR_ACCESS_DENIED);
    expectFailure (5, "Singleton::Singleton");
    program.Fail (0, ERROR_NOT_ENOUGH_MEMORY);
    expectFailure (8, "MySymInitialize");
    variable.Fail (0, ERROR_ACCESS_DENIED, 1, 1);
    expectFailure (5, "MySymInitialize");

    // Each refused start-up reads the environment and assembles the search path anew.
    std::string longValue (300, 'x');
    const struct { std::vector<std::pair<const char *, const char *>> fVariables; std::string fPath; } cases [] = {
        { {}, "" },
        { { { kSDK, "C:\\SDK\\" }, { kPath, "srv*C:\\symbols" }, { kAlternate, longValue.c_str () } },
          ";C:\\SDK\\bin\\;srv*C:\\symbols;" + longValue },
        { { { kSDK, "" }, { kPath, "" }, { kAlternate, "" } }, "" },
        { { { kSDK, "C:\\SDK" }, { kAlternate, "D:\\alt" } }, ";C:\\SDKbin\\;D:\\alt" },
    };
    for (const auto & c : cases) {
        SetVariables (c.fVariables);
        ::SetLastError (ERROR_FILE_NOT_FOUND);
        expectFailure (87, "MySymInitialize");
        EXPECT_EQ (paths.back (), ProgramDirectory () + c.fPath);
    }
    // The preference comes before the variables.
    PLStringRef key = __PLStringMakeConstantString ("TolvaneInternalSymbolServerPath");
    PLPreferencesSetAppValue (key, __PLStringMakeConstantString ("\\\\server\\symbols"), kPLPreferencesCurrentApplication);
    SetVariables ({ { kPath, "C:\\symbols" } });
    refuse = false;
    EXPECT_EQ (OneFrame ().Symbolicate ().find ("ErrorModelTests.exe"), 0u);
    PLPreferencesSetAppValue (key, NULL, kPLPreferencesCurrentApplication);
    EXPECT_EQ (paths.back (), ProgramDirectory () + ";\\\\server\\symbols;C:\\symbols");
    // Once up, it is never asked again: later changes of the environment change nothing.
    ::SetEnvironmentVariableA (kPath, "C:\\later");
    OneFrame ().Symbolicate ();

    // Every attempt started over: a new process handle after the refused one, the path read and
    // assembled again each time, options set only once debug-help was up.
    EXPECT_EQ (duplicate.Calls (), 2u);
    EXPECT_EQ (program.Calls (), 7u);
    EXPECT_EQ (initialize.Calls (), 5u);
    ASSERT_EQ (options.Calls (), 1u);
    EXPECT_EQ (std::get<0> (options.CallArguments () [0]), 0x80000A04ul);
}

TEST (InChild, SingletonRace)
{
    // Both threads build an instance before either publishes: one is kept, the other is released
    // with its process handle, and both threads get their text.
    SKERRY_INTERPOSE (duplicate, "KERNEL32.dll", DuplicateHandle);
    SKERRY_INTERPOSE (close, "KERNEL32.dll", CloseHandle);
    SkerryTest::Rendezvous bothBuilt (2);
    duplicate.Replace ([&] (HANDLE p, HANDLE h, HANDLE t, LPHANDLE out, DWORD a, BOOL i, DWORD o) {
        BOOL result = duplicate.Original (p, h, t, out, a, i, o);
        bothBuilt.Arrive ();
        return result;
    });
    std::string texts [2];
    std::thread a ([&] { texts [0] = OneFrame ().Symbolicate (); });
    std::thread b ([&] { texts [1] = OneFrame ().Symbolicate (); });
    a.join ();
    b.join ();
    EXPECT_EQ (duplicate.Calls (), 2u);
    EXPECT_EQ (close.Calls (), 1u);
    EXPECT_EQ (texts [0], texts [1]);
    EXPECT_EQ (texts [0].find ("ErrorModelTests.exe"), 0u);
}

TEST (Symbolicate, StartUp)
{
    for (const char * scenario : { "StartUpFailuresAreRepeated", "SingletonRace" })
        EXPECT_EQ (SkerryTest::RunInChild (scenario).fExitCode, 0ul) << scenario;
}
