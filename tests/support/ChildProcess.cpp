#include "ChildProcess.h"

#include <gtest/gtest.h>

#include <windows.h>

#include <cstring>
#include <stdexcept>

namespace SkerryTest {

namespace {

const char kChildFlag [] = "--skerry-child";
const char kSuite [] = "InChild";

}

std::vector<std::string> ChildResult::Messages () const
{
    std::vector<std::string> messages;
    for (const JotRecord & record : fLog)
        if (record.fFacility && *record.fFacility == "Exceptions")
            messages.push_back (record.fMessage);
    return messages;
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

ChildResult RunInChild (const char * testName)
{
    wchar_t exe [MAX_PATH];
    if (::GetModuleFileNameW (NULL, exe, MAX_PATH) == 0)
        throw std::runtime_error ("RunInChild: GetModuleFileNameW failed");
    std::string test = std::string (kSuite) + "." + testName;
    std::wstring commandLine = L"\"" + std::wstring (exe) + L"\" --skerry-child --gtest_brief=1 --gtest_filter="
        + std::wstring (test.begin (), test.end ());
    ScopedJotLog log;   // the child inherits JOT_LOG_FILE
    std::fflush (stdout);
    STARTUPINFOW startup {};
    startup.cb = sizeof startup;
    PROCESS_INFORMATION process {};
    if (! ::CreateProcessW (exe, &commandLine [0], NULL, NULL, TRUE, 0, NULL, NULL, &startup, &process))
        throw std::runtime_error ("RunInChild: CreateProcessW failed");
    ::WaitForSingleObject (process.hProcess, INFINITE);
    ChildResult result;
    ::GetExitCodeProcess (process.hProcess, &result.fExitCode);
    ::CloseHandle (process.hThread);
    ::CloseHandle (process.hProcess);
    result.fLog = log.Records ();
    return result;
}

}
