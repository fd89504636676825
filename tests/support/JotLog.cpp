#include "JotLog.h"

#include <nlohmann/json.hpp>

#include <windows.h>

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <stdexcept>

namespace SkerryTest {

namespace {

using Json = nlohmann::json;

const wchar_t kVariable [] = L"JOT_LOG_FILE";

void Check (bool good, const std::string & otherwise)
{
    if (! good)
        throw std::runtime_error (otherwise);
}

// One record, with exactly the keys that jot writes, in its order, and their value types: JSON
// syntax and UTF-8 are the parser's to check.
JotRecord ParseRecord (const std::string & line)
{
    static const std::vector<std::string> kKeys = { "time", "pid", "tid", "ident", "facility", "level", "message", "fields" };
    std::vector<std::string> keys;
    Json value = Json::parse (line, [&] (int depth, Json::parse_event_t event, Json & parsed) {
        if (event == Json::parse_event_t::key && depth == 1)
            keys.push_back (parsed.get<std::string> ());
        return true;
    });
    Check (keys == kKeys || keys == std::vector<std::string> (kKeys.begin (), kKeys.end () - 1), "keys " + Json (keys).dump ());
    auto integer = [&] (const char * key, int64_t minimum, int64_t maximum) {
        Check (value [key].is_number_integer () && value [key] >= minimum && value [key] <= maximum,
            std::string ("\"") + key + "\" is not an integer in range");
        return value [key].get<int64_t> ();
    };
    auto text = [&] (const char * key, bool nullable) -> std::optional<std::string> {
        Check (value [key].is_string () || (nullable && value [key].is_null ()), std::string ("\"") + key + "\" is not a string");
        return value [key].is_null () ? std::nullopt : std::optional<std::string> (value [key].get<std::string> ());
    };
    JotRecord record { *text ("time", false), (unsigned long) integer ("pid", 0, UINT32_MAX),
        (unsigned long) integer ("tid", 0, UINT32_MAX), text ("ident", true), text ("facility", true),
        int (integer ("level", INT32_MIN, INT32_MAX)), *text ("message", false), {} };
    Check (! value.contains ("fields") || value ["fields"].is_object (), "\"fields\" is not an object");
    const Json fields = value.value ("fields", Json::object ());
    for (const auto & field : fields.items ()) {
        Check (field.value ().is_string (), "field \"" + field.key () + "\" is not a string");
        record.fFields.emplace_back (field.key (), field.value ().get<std::string> ());
    }
    return record;
}

std::vector<JotRecord> ReadJotLog (const std::wstring & path)
{
    std::string name = "jot log " + std::filesystem::path (path).u8string ();
    std::ifstream file (std::filesystem::path (path), std::ios::binary);
    Check (bool (file), name + ": cannot open");
    std::string contents ((std::istreambuf_iterator<char> (file)), std::istreambuf_iterator<char> ());
    std::vector<JotRecord> records;
    for (size_t start = 0, end; start < contents.size (); start = end + 1) {
        std::string where = name + ", line " + std::to_string (records.size () + 1) + ": ";
        end = contents.find ('\n', start);
        Check (end != std::string::npos, where + "no newline at the end");
        try {
            records.push_back (ParseRecord (contents.substr (start, end - start)));
        } catch (const std::exception & e) {
            throw std::runtime_error (where + e.what ());
        }
    }
    return records;
}

}

ScopedJotLog::ScopedJotLog ()
{
    wchar_t name [MAX_PATH + 1];
    Check (::GetTempFileNameW (std::filesystem::temp_directory_path ().c_str (), L"jot", 0, name) != 0,
        "ScopedJotLog: GetTempFileNameW failed (error " + std::to_string (::GetLastError ()) + ")");
    fPath = name;
    fHeldOpen = ::CreateFileW (name, FILE_READ_DATA, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, NULL,
        OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, NULL);

    // A variable that is set but empty answers 0 like an unset one, and Wine then leaves the last
    // error alone: clear it first so that only "not found" means unset.
    ::SetLastError (0);
    DWORD size = ::GetEnvironmentVariableW (kVariable, NULL, 0);
    if (size != 0 || ::GetLastError () != ERROR_ENVVAR_NOT_FOUND) {
        std::wstring value (size, L'\0');
        value.resize (size == 0 ? 0 : ::GetEnvironmentVariableW (kVariable, &value [0], size));
        fPreviousValue = value;
    }
    if (! ::SetEnvironmentVariableW (kVariable, fPath.c_str ())) {
        ::CloseHandle (fHeldOpen);
        ::DeleteFileW (fPath.c_str ());
        throw std::runtime_error ("ScopedJotLog: SetEnvironmentVariableW failed");
    }
}

ScopedJotLog::~ScopedJotLog ()
{
    ::SetEnvironmentVariableW (kVariable, fPreviousValue ? fPreviousValue->c_str () : NULL);
    ::CloseHandle (fHeldOpen);
    ::DeleteFileW (fPath.c_str ());
}

std::vector<JotRecord> ScopedJotLog::Records () const
{
    return ReadJotLog (fPath);
}

std::vector<std::string> Messages (const std::vector<JotRecord> & records, const char * facility)
{
    std::vector<std::string> messages;
    for (const JotRecord & record : records)
        if (facility ? record.fFacility == std::string (facility) : ! record.fFacility)
            messages.push_back (record.fMessage);
    return messages;
}

}
