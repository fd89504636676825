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

const char * const kVariables [] = {"TolvaneApplicationSupportSDK", "_NT_SYMBOL_PATH", "_NT_ALTERNATE_SYMBOL_PATH"};

// The directory of this program, as the first entry of every search path.
std::string ProgramDirectory ()
{
    char path [MAX_PATH];
    DWORD length = ::GetModuleFileNameA (NULL, path, MAX_PATH);
    std::string directory (path, length);
    return directory.substr (0, directory.rfind ('\\') + 1);
}

StackTrace OneFrame ()
{
    StackTrace trace;
    trace.assign (1, reinterpret_cast<void *> (&ProgramDirectory));
    return trace;
}

// Starts debug-help in this process with the environment given, and gives the search path that
// it received. Variables not named are removed.
std::string SearchPathWith (std::vector<std::pair<const char *, const char *>> variables)
{
    for (const char * name : kVariables)
        ::SetEnvironmentVariableA (name, NULL);
    for (const auto & variable : variables)
        ::SetEnvironmentVariableA (variable.first, variable.second);
    std::vector<std::string> paths;
    SKERRY_INTERPOSE (initialize, "dbghelp.dll", SymInitialize);
    initialize.Replace ([&] (HANDLE process, PCSTR path, BOOL invade) {
        paths.push_back (path);
        EXPECT_TRUE (invade);
        return initialize.Original (process, path, invade);
    });
    EXPECT_EQ (OneFrame ().Symbolicate ().find ("ErrorModelTests.exe"), 0u);
    EXPECT_EQ (paths.size (), 1u);
    return paths.empty () ? "" : paths [0];
}

}

TEST (InChild, SearchPathAlone)
{
    SKERRY_INTERPOSE (options, "dbghelp.dll", SymSetOptions);
    EXPECT_EQ (SearchPathWith ({}), ProgramDirectory ());
    ASSERT_EQ (options.Calls (), 1u);
    EXPECT_EQ (std::get<0> (options.CallArguments () [0]), 0x80000A04ul);
    // Read once: later changes of the environment change nothing.
    ::SetEnvironmentVariableA ("_NT_SYMBOL_PATH", "C:\\later");
    SKERRY_INTERPOSE (initialize, "dbghelp.dll", SymInitialize);
    OneFrame ().Symbolicate ();
    EXPECT_EQ (initialize.Calls (), 0u);
    EXPECT_EQ (options.Calls (), 1u);
}

TEST (InChild, SearchPathFromEveryVariable)
{
    std::string longValue (300, 'x');
    EXPECT_EQ (SearchPathWith ({{"TolvaneApplicationSupportSDK", "C:\\SDK\\"}, {"_NT_SYMBOL_PATH", "srv*C:\\symbols"},
        {"_NT_ALTERNATE_SYMBOL_PATH", longValue.c_str ()}}),
        ProgramDirectory () + ";C:\\SDK\\bin\\;srv*C:\\symbols;" + longValue);
}

TEST (InChild, SearchPathWithEmptyVariables)
{
    ::SetLastError (ERROR_FILE_NOT_FOUND);
    EXPECT_EQ (SearchPathWith ({{"TolvaneApplicationSupportSDK", ""}, {"_NT_SYMBOL_PATH", ""},
        {"_NT_ALTERNATE_SYMBOL_PATH", ""}}), ProgramDirectory ());
}

TEST (InChild, SearchPathWithUnseparatedSDK)
{
    EXPECT_EQ (SearchPathWith ({{"TolvaneApplicationSupportSDK", "C:\\SDK"}, {"_NT_ALTERNATE_SYMBOL_PATH", "D:\\alt"}}),
        ProgramDirectory () + ";C:\\SDKbin\\;D:\\alt");
}

TEST (InChild, SearchPathFromPreference)
{
    PLStringRef key = __PLStringMakeConstantString ("TolvaneInternalSymbolServerPath");
    PLPreferencesSetAppValue (key, __PLStringMakeConstantString ("\\\\server\\symbols"), kPLPreferencesCurrentApplication);
    EXPECT_EQ (SearchPathWith ({{"_NT_SYMBOL_PATH", "C:\\symbols"}}),
        ProgramDirectory () + ";\\\\server\\symbols;C:\\symbols");
    PLPreferencesSetAppValue (key, NULL, kPLPreferencesCurrentApplication);
}

TEST (InChild, StartUpFailuresAreRepeated)
{
    for (const char * name : kVariables)
        ::SetEnvironmentVariableA (name, NULL);
    ::SetEnvironmentVariableA ("_NT_SYMBOL_PATH", "C:\\symbols");
    SKERRY_INTERPOSE (duplicate, "KERNEL32.dll", DuplicateHandle);
    SKERRY_INTERPOSE (program, "KERNEL32.dll", GetModuleFileNameA);
    SKERRY_INTERPOSE (variable, "KERNEL32.dll", GetEnvironmentVariableA);
    SKERRY_INTERPOSE (initialize, "dbghelp.dll", SymInitialize);
    SKERRY_INTERPOSE (options, "dbghelp.dll", SymSetOptions);
    std::vector<std::string> paths;
    bool refuse = false;
    initialize.Replace ([&] (HANDLE process, PCSTR path, BOOL invade) {
        paths.push_back (path);
        if (refuse) {
            ::SetLastError (ERROR_INVALID_PARAMETER);
            return FALSE;
        }
        return initialize.Original (process, path, invade);
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
    refuse = true;
    expectFailure (87, "MySymInitialize");
    refuse = false;
    ::SetEnvironmentVariableA ("_NT_SYMBOL_PATH", "C:\\changed");
    EXPECT_EQ (OneFrame ().Symbolicate ().find ("ErrorModelTests.exe"), 0u);

    // Every attempt started over: a new process handle after the refused one, the path read
    // and assembled again each time, options set only once debug-help was up.
    EXPECT_EQ (duplicate.Calls (), 2u);
    EXPECT_EQ (program.Calls (), 4u);
    EXPECT_EQ (initialize.Calls (), 2u);
    EXPECT_EQ (paths, (std::vector<std::string> {ProgramDirectory () + ";C:\\symbols", ProgramDirectory () + ";C:\\changed"}));
    EXPECT_EQ (options.Calls (), 1u);
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
    ASSERT_EQ (close.Calls (), 1u);
    EXPECT_EQ (texts [0], texts [1]);
    EXPECT_EQ (texts [0].find ("ErrorModelTests.exe"), 0u);
}

TEST (Symbolicate, StartUp)
{
    for (const char * scenario : {"SearchPathAlone", "SearchPathFromEveryVariable", "SearchPathWithEmptyVariables",
             "SearchPathWithUnseparatedSDK", "SearchPathFromPreference", "StartUpFailuresAreRepeated", "SingletonRace"})
        EXPECT_EQ (SkerryTest::RunInChild (scenario).fExitCode, 0ul) << scenario;
}
