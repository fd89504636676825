// JOT.dll: the records it appends, formatting, escaping and encoding, where lines go, the
// caller's last error, failures, and whole lines under concurrent writers.
#include "ChildProcess.h"
#include "Interposer.h"

#include <jot.h>

#include <gtest/gtest.h>

#include <windows.h>

#include <climits>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <regex>
#include <thread>
#include <tuple>

using SkerryTest::JotRecord;
using SkerryTest::ScopedJotLog;
using Strings = std::vector<std::string>;

namespace {

const wchar_t kVariable [] = L"JOT_LOG_FILE";

std::string UtcNow ()
{
    SYSTEMTIME t;
    ::GetSystemTime (&t);
    char text [32];
    std::snprintf (text, sizeof text, "%04u-%02u-%02uT%02u:%02u:%02u.%03uZ", t.wYear, t.wMonth, t.wDay, t.wHour, t.wMinute, t.wSecond, t.wMilliseconds);
    return text;
}

// One line through a client of its own, the way LibSkerry writes.
void LogLine (const char * ident, const char * facility, int level, const char * format, ...)
{
    jot_client * client = ::jot_open (ident, facility, 0);
    va_list arguments;
    va_start (arguments, format);
    ::jot_vlog (client, NULL, level, format, arguments);
    va_end (arguments);
    ::jot_close (client);
}

// One line with a message of the fields given (none: an empty message), through a client of its own.
void LogFields (const char * ident, const char * facility, std::vector<std::pair<const char *, const char *>> fields, const char * text)
{
    jot_message * message = ::jot_message_create ();
    for (const auto & field : fields)
        ::jot_message_set (message, field.first, field.second);
    jot_client * client = ::jot_open (ident, facility, 0);
    ::jot_log (client, message, 5, "%s", text);
    ::jot_close (client);
    ::jot_message_release (message);
}

// What follows "tid" in the single record that `write` makes, after checking pid, tid and time:
// UTC, not local time, so it lies between two system-time readings.
std::string TailOf (const std::function<void ()> & write)
{
    ScopedJotLog log;
    std::string before = UtcNow ();
    write ();
    std::ifstream file (std::filesystem::path (log.Path ()), std::ios::binary);
    std::string raw ((std::istreambuf_iterator<char> (file)), std::istreambuf_iterator<char> ()), after = UtcNow ();
    std::smatch match;
    static const std::regex line (R"re(\{"time":"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z)","pid":(\d+),"tid":(\d+),([^\n]*)\n)re");
    if (! std::regex_match (raw, match, line))
        return "no single record: " + raw;
    EXPECT_TRUE (before <= match [1].str () && match [1].str () <= after) << match [1];
    EXPECT_EQ (std::stoul (match [2]), ::GetCurrentProcessId ());
    EXPECT_EQ (std::stoul (match [3]), ::GetCurrentThreadId ());
    return match [4];
}

}

TEST (JotRecord, FieldsInOrderEscapedAndInUtf8)
{
    ASSERT_EQ (::GetACP (), 1252u);
    const std::pair<std::function<void ()>, std::string> cases [] = {
        { [] { LogLine (NULL, "Exceptions", JOT_LEVEL_NOTICE, "hello"); },
          R"("ident":null,"facility":"Exceptions","level":5,"message":"hello"})" },
        { [] { LogLine ("prog", NULL, INT_MIN, "m"); }, R"("ident":"prog","facility":null,"level":-2147483648,"message":"m"})" },
        // A NULL client is one without ident or facility.
        { [] { ::jot_log (NULL, NULL, 4, "x %d", 1); }, R"("ident":null,"facility":null,"level":4,"message":"x 1"})" },
        { [] { LogLine (NULL, "F", 5, "%s", "q\"b\\n\nr\rt\tb\bf\fc\x01u\x1f" "d\x7f"); },
          "\"ident\":null,\"facility\":\"F\",\"level\":5,\"message\":" R"("q\"b\\n\nr\rt\tb\bf\fc\u0001u\u001fd)" "\x7f\"}" },
        // ANSI text becomes UTF-8, in every part of the record.
        { [] { LogFields ("\xE9t\xE9", "caf\xE9", { { "cl\xE9", "\x80" } }, "na\xEFve \x80"); },
          "\"ident\":\"\xC3\xA9t\xC3\xA9\",\"facility\":\"caf\xC3\xA9\",\"level\":5,\"message\":\"na\xC3\xAFve \xE2\x82\xAC\","
          "\"fields\":{\"cl\xC3\xA9\":\"\xE2\x82\xAC\"}}" },
        // Fields keep the order of their first setting and their last value; no pairs, no fields.
        { [] { LogFields (NULL, NULL, { { "a", "1" }, { "q\"", "l\n" }, { "a", "3" }, { "none", NULL }, { NULL, "x" } }, "m"); },
          R"("ident":null,"facility":null,"level":5,"message":"m","fields":{"a":"3","q\"":"l\n","none":""}})" },
        { [] { ::jot_close (NULL); ::jot_message_set (NULL, "k", "v"); ::jot_message_release (NULL); LogFields (NULL, NULL, {}, "m"); },
          R"("ident":null,"facility":null,"level":5,"message":"m"})" },
    };
    for (const auto & c : cases)
        EXPECT_EQ (TailOf (c.first), c.second);
}

TEST (JotFormatting, FollowsTheMicrosoftRuntimeAndAppends)
{
    ScopedJotLog log;
    LogLine (NULL, "F", 5, "%lu|%d|%u|%08X|%s|%I64X", 4000000000ul, -5, 4000000000u, 0xBEEFu, "text", 0x123456789ABCDEFull);
    jot_client * client = ::jot_open (NULL, "F", 0);
    ::jot_log (client, NULL, 5, "%s\xE9", std::string (5000, 'x').c_str ());     // beyond every stack buffer
    ::jot_log (client, NULL, 5, NULL);
    ::jot_close (client);
    EXPECT_EQ (log.Messages ("F"), (Strings { "4000000000|-5|4000000000|0000BEEF|text|123456789ABCDEF", std::string (5000, 'x') + "\xC3\xA9", "" }));
}

TEST (JotDestination, VariableAtEachOpenStderrOnRequestDebuggerWithoutFile)
{
    ScopedJotLog first;
    ::SetEnvironmentVariableW (kVariable, NULL);
    jot_client * unset = ::jot_open (NULL, "F", 0);
    ::SetEnvironmentVariableW (kVariable, first.Path ().c_str ());
    ::jot_log (unset, NULL, 5, "unset at open");
    jot_client * set = ::jot_open (NULL, "F", 0);
    {
        ScopedJotLog second;
        ::jot_log (set, NULL, 5, "to first");
        ::jot_log (NULL, NULL, 5, "to second");
        EXPECT_EQ (second.Messages (NULL), Strings { "to second" });
    }
    ::jot_close (unset);
    ::jot_close (set);
    EXPECT_EQ (first.Messages ("F"), Strings { "to first" });

    // The option adds the text line on standard error; without a file, lines go to the debugger's
    // output when one is attached, and nowhere otherwise.
    HANDLE reader, writer, original = ::GetStdHandle (STD_ERROR_HANDLE);
    ASSERT_TRUE (::CreatePipe (&reader, &writer, NULL, 0));
    ::SetStdHandle (STD_ERROR_HANDLE, writer);
    ScopedJotLog log;
    jot_client * client = ::jot_open ("prog", "F", JOT_OPTION_STDERR);
    ::jot_log (client, NULL, 5, "a %d", 7);
    ::jot_close (client);
    LogLine ("prog", "F", 5, "b");
    ::SetStdHandle (STD_ERROR_HANDLE, original);
    ::CloseHandle (writer);
    char text [64];
    DWORD count = 0;
    ::ReadFile (reader, text, sizeof text, &count, NULL);
    ::CloseHandle (reader);
    EXPECT_EQ (std::string (text, count), "a 7\n");

    ::SetEnvironmentVariableW (kVariable, NULL);
    SKERRY_INTERPOSE_IN (debugged, L"JOT.dll", "KERNEL32.dll", IsDebuggerPresent);
    SKERRY_INTERPOSE_IN (debugOutput, L"JOT.dll", "KERNEL32.dll", OutputDebugStringA);
    Strings debugStrings;
    debugOutput.Replace ([&] (LPCSTR text) { debugStrings.push_back (text); });
    debugged.Replace ([] { return TRUE; });
    debugged.Fail (FALSE, 0);
    LogLine ("prog", "F", 5, "not debugged");
    LogLine ("prog", "F", 5, "text %d", 1);
    ::jot_log (NULL, NULL, 5, "text %d", 2);
    EXPECT_EQ (debugStrings, (Strings { "prog: text 1", "text 2" }));
    EXPECT_EQ (log.Messages ("F"), (Strings { "a 7", "b" }));
}

TEST (JotLastError, EveryCallKeepsIt)
{
    ScopedJotLog log;
    std::wstring missing = L"C:\\no\\such\\directory\\log.jsonl";
    for (const wchar_t * destination : { log.Path ().c_str (), (const wchar_t *) NULL, missing.c_str () }) {
        ::SetEnvironmentVariableW (kVariable, destination);
        jot_client * client = NULL;
        jot_message * message = NULL;
        std::vector<std::pair<const char *, std::function<void ()>>> calls = {
            { "open", [&] { client = ::jot_open ("i", "F", 0); } },
            { "message", [&] { message = ::jot_message_create (); ::jot_message_set (message, "k", "v"); ::jot_message_set (message, "k", "w"); } },
            { "log", [&] { ::jot_log (client, message, 5, "with %s", "client"); ::jot_log (NULL, NULL, 5, "without"); } },
            { "release", [&] { ::jot_message_release (message); ::jot_close (client); } } };
        for (const auto & call : calls) {
            ::SetLastError (1234);
            call.second ();
            EXPECT_EQ (::GetLastError (), 1234u) << call.first;
        }
        EXPECT_NE (client, nullptr);
    }
    EXPECT_EQ (::GetFileAttributesW (missing.c_str ()), INVALID_FILE_ATTRIBUTES);
    EXPECT_EQ (log.Messages ("F"), Strings { "with client" });
}

// Without the rights to read, without a lock, without memory: records still go where they can,
// and no line is ever partial.
TEST (JotFailures, AppendOnlyFileFailedLockOrNoMemory)
{
    ScopedJotLog log;
    {
        SKERRY_INTERPOSE_IN (createFile, L"JOT.dll", "KERNEL32.dll", CreateFileW);
        createFile.Fail (INVALID_HANDLE_VALUE, ERROR_ACCESS_DENIED);
        LogLine (NULL, "F", 5, "append only");
        ASSERT_EQ (createFile.Calls (), 2u);
        auto first = createFile.CallArguments () [0], second = createFile.CallArguments () [1];
        EXPECT_EQ (std::make_tuple (std::get<1> (first), std::get<2> (first), std::get<4> (first), std::get<1> (second)),
            std::make_tuple (DWORD (FILE_READ_DATA | FILE_APPEND_DATA), DWORD (FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE),
                DWORD (OPEN_ALWAYS), DWORD (FILE_APPEND_DATA)));
    }
    {
        SKERRY_INTERPOSE_IN (lock, L"JOT.dll", "KERNEL32.dll", LockFileEx);
        SKERRY_INTERPOSE_IN (unlock, L"JOT.dll", "KERNEL32.dll", UnlockFileEx);
        lock.Fail (FALSE, ERROR_NOT_SUPPORTED);
        LogLine (NULL, "F", 5, "unlocked");
        LogLine (NULL, "F", 5, "locked");
        EXPECT_EQ (std::make_pair (lock.Calls (), unlock.Calls ()), std::make_pair (2u, 1u));
    }
    {
        // Spelled out: decltype of the runtime's allocators would carry their attributes along.
        struct CallocTag {};
        struct MallocTag {};
        SkerryTest::Interposer<CallocTag, void * __cdecl (size_t, size_t)> callocs ("msvcrt.dll", "calloc", L"JOT.dll");
        SkerryTest::Interposer<MallocTag, void * __cdecl (size_t)> mallocs ("msvcrt.dll", "malloc", L"JOT.dll");
        callocs.Fail (nullptr, 0, 100);
        mallocs.Fail (nullptr, 0, 100);
        jot_client * client = ::jot_open (NULL, "F", 0);
        EXPECT_EQ (client, nullptr);
        EXPECT_EQ (::jot_message_create (), nullptr);
        ::jot_log (client, NULL, 5, "short");
        // Short text, but a record that outgrows its stack buffer: every byte is escaped to six.
        ::jot_log (client, NULL, 5, "%s", std::string (400, '\x01').c_str ());
        EXPECT_EQ (mallocs.Calls (), 1u);
    }
    EXPECT_EQ (log.Messages ("F"), (Strings { "append only", "unlocked", "locked" }));
    EXPECT_EQ (log.Messages (NULL), Strings { "short" });
}

namespace {

void WriteLines (const std::string & ident, int lines)
{
    for (int line = 0; line < lines; ++line)
        LogLine (ident.c_str (), "Exceptions", 5, "%s line %d%s", ident.c_str (), line, std::string (300, '.').c_str ());
}

}

// The other process of WritersInThreadsAndProcessesWriteWholeLines; it writes once it has said
// it runs.
TEST (InChild, JotAppendsAlongsideParent)
{
    char name [64];
    ASSERT_NE (::GetEnvironmentVariableA ("JOT_TEST_READY_EVENT", name, sizeof name), 0u);
    HANDLE ready = ::OpenEventA (EVENT_MODIFY_STATE, FALSE, name);
    ASSERT_NE (ready, nullptr);
    ::SetEvent (ready);
    ::CloseHandle (ready);
    WriteLines ("child", 1000);
}

TEST (JotConcurrency, WritersInThreadsAndProcessesWriteWholeLines)
{
    ScopedJotLog log;
    std::string name = "JotTests.ready." + std::to_string (::GetCurrentProcessId ());
    HANDLE ready = ::CreateEventA (NULL, TRUE, FALSE, name.c_str ());
    ::SetEnvironmentVariableA ("JOT_TEST_READY_EVENT", name.c_str ());
    PROCESS_INFORMATION child = SkerryTest::StartInChild ("JotAppendsAlongsideParent");
    ::SetEnvironmentVariableA ("JOT_TEST_READY_EVENT", NULL);
    HANDLE waits [] = { ready, child.hProcess };
    EXPECT_EQ (::WaitForMultipleObjects (2, waits, FALSE, INFINITE), WAIT_OBJECT_0) << "the child ended before writing";
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back (WriteLines, "thread " + std::to_string (t), 250);
    for (std::thread & thread : threads)
        thread.join ();
    ::WaitForSingleObject (child.hProcess, INFINITE);
    DWORD status = 1;
    ::GetExitCodeProcess (child.hProcess, &status);
    EXPECT_EQ (status, 0u);
    std::vector<JotRecord> records;
    ASSERT_NO_THROW (records = log.Records ());
    EXPECT_EQ (records.size (), 2000u);
    // Every writer's lines, complete and in its own order: what interleaved writes would break.
    std::map<std::string, int> next;
    for (const JotRecord & record : records) {
        EXPECT_EQ (record.fMessage, *record.fIdent + " line " + std::to_string (next [*record.fIdent]++) + std::string (300, '.'));
        EXPECT_EQ (record.fPid, *record.fIdent == "child" ? child.dwProcessId : ::GetCurrentProcessId ());
    }
    EXPECT_EQ (next, (std::map<std::string, int> { { "child", 1000 }, { "thread 0", 250 }, { "thread 1", 250 },
                                                   { "thread 2", 250 }, { "thread 3", 250 } }));
    for (HANDLE handle : { child.hThread, child.hProcess, ready })
        ::CloseHandle (handle);
}
