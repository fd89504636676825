#include "JotLog.h"

#include <nlohmann/json.hpp>

#include <windows.h>

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <stdexcept>

namespace SkerryTest {

namespace {

using Json = nlohmann::json;

const wchar_t kVariable [] = L"JOT_LOG_FILE";

std::string Utf8 (const std::wstring & path)
{
    return std::filesystem::path (path).u8string ();
}

// One record, with exactly the keys and value types that jot writes: JSON syntax and UTF-8 are
// the parser's to check (it refuses what JSON refuses, duplicates aside, which are counted here).
JotRecord ParseRecord (const std::string & line)
{
    static const std::vector<std::string> kKeys = { "time", "pid", "tid", "ident", "facility", "level", "message", "fields" };
    std::vector<std::string> keys;
    Json value = Json::parse (line, [&] (int depth, Json::parse_event_t event, Json & parsed) {
        if (event == Json::parse_event_t::key && depth == 1)
            keys.push_back (parsed.get<std::string> ());
        return true;
    });
    auto fail = [] (const std::string & what) { throw std::runtime_error (what); };
    for (const std::string & key : keys)
        if (std::count (keys.begin (), keys.end (), key) > 1 || std::count (kKeys.begin (), kKeys.end (), key) == 0)
            fail ("duplicate or unknown key \"" + key + "\"");
    for (size_t i = 0; i < kKeys.size () - 1; ++i)
        if (! value.contains (kKeys [i]))
            fail ("no \"" + kKeys [i] + "\"");
    auto integer = [&] (const char * key, int64_t minimum, int64_t maximum) {
        const Json & number = value [key];
        if (! number.is_number_integer () || number.get<int64_t> () < minimum || number.get<int64_t> () > maximum)
            fail (std::string ("\"") + key + "\" is not an integer in range");
        return number.get<int64_t> ();
    };
    auto text = [&] (const char * key, bool nullable) -> std::optional<std::string> {
        if (nullable && value [key].is_null ())
            return std::nullopt;
        if (! value [key].is_string ())
            fail (std::string ("\"") + key + "\" is not a string");
        return value [key].get<std::string> ();
    };
    JotRecord record { *text ("time", false), (unsigned long) integer ("pid", 0, UINT32_MAX),
        (unsigned long) integer ("tid", 0, UINT32_MAX), text ("ident", true), text ("facility", true),
        int (integer ("level", INT32_MIN, INT32_MAX)), *text ("message", false), {} };
    if (value.contains ("fields")) {
        if (! value ["fields"].is_object ())
            fail ("\"fields\" is not an object");
        for (const auto & field : value ["fields"].items ()) {
            if (! field.value ().is_string ())
                fail ("field \"" + field.key () + "\" is not a string");
            record.fFields.emplace_back (field.key (), field.value ().get<std::string> ());
        }
    }
    return record;
}

}

std::vector<JotRecord> ReadJotLog (const std::wstring & path)
{
    std::ifstream file (std::filesystem::path (path), std::ios::binary);
    if (! file)
        throw std::runtime_error ("jot log " + Utf8 (path) + ": cannot open");
    std::string contents ((std::istreambuf_iterator<char> (file)), std::istreambuf_iterator<char> ());
    std::vector<JotRecord> records;
    for (size_t start = 0, number = 1; start < contents.size (); ++number) {
        std::string where = "jot log " + Utf8 (path) + ", line " + std::to_string (number) + ": ";
        size_t end = contents.find ('\n', start);
        if (end == std::string::npos)
            throw std::runtime_error (where + "no newline at the end");
        try {
            records.push_back (ParseRecord (contents.substr (start, end - start)));
        } catch (const std::exception & e) {
            throw std::runtime_error (where + e.what ());
        }
        start = end + 1;
    }
    return records;
}
ScopedJotLog::ScopedJotLog ()
{
    wchar_t name [MAX_PATH + 1];
    if (::GetTempFileNameW (std::filesystem::temp_directory_path ().c_str (), L"jot", 0, name) == 0)
        throw std::runtime_error ("ScopedJotLog: GetTempFileNameW failed (error " + std::to_string (::GetLastError ()) + ")");
    fPath = name;

    // A variable that is set but empty answers 0 like an unset one, and Wine then leaves the last
    // error alone: clear it first so that only "not found" means unset.
    ::SetLastError (0);
    DWORD size = ::GetEnvironmentVariableW (kVariable, NULL, 0);
    if (size != 0) {
        std::wstring value (size, L'\0');
        value.resize (::GetEnvironmentVariableW (kVariable, &value [0], size));
        fPreviousValue = value;
    } else if (::GetLastError () != ERROR_ENVVAR_NOT_FOUND) {
        fPreviousValue = std::wstring ();
    }
    if (! ::SetEnvironmentVariableW (kVariable, fPath.c_str ())) {
        ::DeleteFileW (fPath.c_str ());
        throw std::runtime_error ("ScopedJotLog: SetEnvironmentVariableW failed");
    }
}

ScopedJotLog::~ScopedJotLog ()
{
    ::SetEnvironmentVariableW (kVariable, fPreviousValue ? fPreviousValue->c_str () : NULL);
    ::DeleteFileW (fPath.c_str ());
}

std::vector<JotRecord> ScopedJotLog::Records () const
{
    return ReadJotLog (fPath);
}

std::vector<std::string> ScopedJotLog::Messages (const char * facility) const
{
    std::vector<std::string> messages;
    for (const JotRecord & record : Records ())
        if (facility ? record.fFacility == std::string (facility) : ! record.fFacility)
            messages.push_back (record.fMessage);
    return messages;
}


}
