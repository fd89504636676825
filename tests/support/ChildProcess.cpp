#include "ChildProcess.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <stdexcept>

namespace SkerryTest {

namespace {

const char kChildFlag [] = "--skerry-child";
const char kSuite [] = "InChild";

std::wstring ProgramPath ()
{
    wchar_t path [MAX_PATH];
    DWORD length = ::GetModuleFileNameW (NULL, path, MAX_PATH);
    if (length == 0 || length == MAX_PATH)
        throw std::runtime_error ("GetModuleFileNameW failed");
    return std::wstring (path, length);
}

}

bool PrepareChildFilter (int argc, char ** argv)
{
    bool child = false;
    for (int i = 1; i < argc; ++i)
        child = child || std::strcmp (argv [i], kChildFlag) == 0;
    if (! child) {
        std::string filter = GTEST_FLAG_GET (filter);
        filter += filter.find ('-') == std::string::npos ? "-" : ":";
        filter += std::string (kSuite) + ".*";
        GTEST_FLAG_SET (filter, filter);
    }
    return child;
}

PROCESS_INFORMATION StartInChild (const char * testName)
{
    std::wstring exe = ProgramPath ();
    std::string test = std::string (kSuite) + "." + testName;
    std::wstring commandLine = L"\"" + exe + L"\" --skerry-child --gtest_brief=1 --gtest_filter="
        + std::wstring (test.begin (), test.end ());
    std::fflush (stdout);
    STARTUPINFOW startup {};
    startup.cb = sizeof startup;
    PROCESS_INFORMATION process {};
    if (! ::CreateProcessW (exe.c_str (), &commandLine [0], NULL, NULL, TRUE, 0, NULL, NULL, &startup, &process))
        throw std::runtime_error ("StartInChild: CreateProcessW failed");
    return process;
}

ChildResult RunInChild (const char * testName)
{
    ScopedJotLog log;   // the child inherits JOT_LOG_FILE
    PROCESS_INFORMATION process = StartInChild (testName);
    ::WaitForSingleObject (process.hProcess, INFINITE);
    ChildResult result;
    ::GetExitCodeProcess (process.hProcess, &result.fExitCode);
    ::CloseHandle (process.hThread);
    ::CloseHandle (process.hProcess);
    result.fLog = log.Records ();
    return result;
}

std::wstring ProgramDirectory ()
{
    std::wstring program = ProgramPath ();
    return program.substr (0, program.rfind (L'\\') + 1);
}

}
