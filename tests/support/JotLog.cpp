#include "JotLog.h"

#include <windows.h>

#include <cstdint>
#include <stdexcept>

namespace SkerryTest {

namespace {

const wchar_t kVariable [] = L"JOT_LOG_FILE";

std::string Utf8 (const std::wstring & text)
{
    if (text.empty ())
        return std::string ();
    int size = ::WideCharToMultiByte (CP_UTF8, 0, text.data (), int (text.size ()), NULL, 0, NULL, NULL);
    std::string result (size_t (size), '\0');
    ::WideCharToMultiByte (CP_UTF8, 0, text.data (), int (text.size ()), &result [0], size, NULL, NULL);
    return result;
}

// A strict parser for one record: JSON syntax exactly, with only the keys and value types that
// jot writes. The point is to catch every way a writer could get a line wrong, so nothing is
// tolerated beyond what JSON itself allows (whitespace between tokens).
class RecordParser {
public:
    RecordParser (const std::string & line, const std::string & where) : fLine (line), fWhere (where) {}

    JotRecord Parse ()
    {
        JotRecord record;
        unsigned seen = 0;
        Expect ('{');
        do {
            std::string key = String ();
            Expect (':');
            unsigned bit = Claim (key, seen);
            if (key == "time")
                record.fTime = String ();
            else if (key == "pid")
                record.fPid = (unsigned long) Integer (0, UINT32_MAX);
            else if (key == "tid")
                record.fTid = (unsigned long) Integer (0, UINT32_MAX);
            else if (key == "ident")
                record.fIdent = StringOrNull ();
            else if (key == "facility")
                record.fFacility = StringOrNull ();
            else if (key == "level")
                record.fLevel = int (Integer (INT32_MIN, INT32_MAX));
            else if (key == "message")
                record.fMessage = String ();
            else
                record.fFields = Fields ();
            seen |= bit;
        } while (Next (',', '}'));
        Space ();
        if (fPosition != fLine.size ())
            Fail ("text after the record");
        for (size_t i = 0; i < kRequiredCount; ++i)
            if (! (seen & (1u << i)))
                Fail (std::string ("no \"") + kKeys [i] + "\"");
        return record;
    }

private:
    static constexpr const char * kKeys [] = { "time", "pid", "tid", "ident", "facility", "level", "message", "fields" };
    static const size_t kRequiredCount = 7;

    [[noreturn]] void Fail (const std::string & what) const
    {
        throw std::runtime_error (fWhere + ": " + what + " at column " + std::to_string (fPosition + 1));
    }

    unsigned Claim (const std::string & key, unsigned seen) const
    {
        for (size_t i = 0; i < sizeof kKeys / sizeof kKeys [0]; ++i) {
            if (key == kKeys [i]) {
                if (seen & (1u << i))
                    Fail ("duplicate key \"" + key + "\"");
                return 1u << i;
            }
        }
        Fail ("unknown key \"" + key + "\"");
    }

    void Space ()
    {
        while (fPosition < fLine.size () && (fLine [fPosition] == ' ' || fLine [fPosition] == '\t' || fLine [fPosition] == '\r'))
            ++fPosition;
    }

    bool Peek (char c)
    {
        Space ();
        return fPosition < fLine.size () && fLine [fPosition] == c;
    }

    void Expect (char c)
    {
        if (! Peek (c))
            Fail (std::string ("expected '") + c + "'");
        ++fPosition;
    }

    // True after `more`, false after `end`.
    bool Next (char more, char end)
    {
        if (Peek (more)) {
            ++fPosition;
            return true;
        }
        Expect (end);
        return false;
    }

    std::vector<std::pair<std::string, std::string>> Fields ()
    {
        std::vector<std::pair<std::string, std::string>> fields;
        Expect ('{');
        if (Peek ('}')) {
            ++fPosition;
            return fields;
        }
        do {
            std::string key = String ();
            Expect (':');
            fields.emplace_back (key, String ());
        } while (Next (',', '}'));
        return fields;
    }

    std::optional<std::string> StringOrNull ()
    {
        Space ();
        if (fLine.compare (fPosition, 4, "null") == 0) {
            fPosition += 4;
            return std::nullopt;
        }
        return String ();
    }

    int64_t Integer (int64_t minimum, int64_t maximum)
    {
        Space ();
        size_t start = fPosition;
        bool negative = fPosition < fLine.size () && fLine [fPosition] == '-';
        if (negative)
            ++fPosition;
        size_t digits = fPosition;
        int64_t magnitude = 0;
        while (fPosition < fLine.size () && fLine [fPosition] >= '0' && fLine [fPosition] <= '9') {
            magnitude = magnitude * 10 + (fLine [fPosition] - '0');
            if (magnitude > int64_t (UINT32_MAX) + 1)
                Fail ("integer out of range");
            ++fPosition;
        }
        bool fraction = fPosition < fLine.size () && (fLine [fPosition] == '.' || fLine [fPosition] == 'e' || fLine [fPosition] == 'E');
        bool leadingZero = fPosition - digits > 1 && fLine [digits] == '0';
        int64_t value = negative ? -magnitude : magnitude;
        if (fPosition == digits || fraction || leadingZero) {
            fPosition = start;
            Fail ("expected an integer");
        }
        if (value < minimum || value > maximum) {
            fPosition = start;
            Fail ("integer out of range");
        }
        return value;
    }

    unsigned Hex4 ()
    {
        if (fPosition + 4 > fLine.size ())
            Fail ("short \\u escape");
        unsigned value = 0;
        for (int i = 0; i < 4; ++i) {
            char c = fLine [fPosition++];
            value <<= 4;
            if (c >= '0' && c <= '9')
                value |= unsigned (c - '0');
            else if (c >= 'a' && c <= 'f')
                value |= unsigned (c - 'a' + 10);
            else if (c >= 'A' && c <= 'F')
                value |= unsigned (c - 'A' + 10);
            else
                Fail ("bad \\u escape");
        }
        return value;
    }

    static void AppendUtf8 (std::string & text, unsigned long c)
    {
        if (c < 0x80) {
            text += char (c);
        } else if (c < 0x800) {
            text += char (0xC0 | (c >> 6));
            text += char (0x80 | (c & 0x3F));
        } else if (c < 0x10000) {
            text += char (0xE0 | (c >> 12));
            text += char (0x80 | ((c >> 6) & 0x3F));
            text += char (0x80 | (c & 0x3F));
        } else {
            text += char (0xF0 | (c >> 18));
            text += char (0x80 | ((c >> 12) & 0x3F));
            text += char (0x80 | ((c >> 6) & 0x3F));
            text += char (0x80 | (c & 0x3F));
        }
    }

    // Copies one UTF-8 sequence of raw text, rejecting what isn't well-formed UTF-8 (stray
    // continuation bytes, overlong forms, surrogates, values above U+10FFFF).
    void RawUtf8 (std::string & text)
    {
        unsigned char lead = (unsigned char) fLine [fPosition];
        size_t length = lead < 0x80 ? 1 : lead >= 0xC2 && lead <= 0xDF ? 2 : lead >= 0xE0 && lead <= 0xEF ? 3 : lead >= 0xF0 && lead <= 0xF4 ? 4 : 0;
        if (length == 0 || fPosition + length > fLine.size ())
            Fail ("invalid UTF-8");
        unsigned long c = length == 1 ? lead : lead & (0x7F >> length);
        for (size_t i = 1; i < length; ++i) {
            unsigned char next = (unsigned char) fLine [fPosition + i];
            if ((next & 0xC0) != 0x80)
                Fail ("invalid UTF-8");
            c = (c << 6) | (next & 0x3F);
        }
        if ((length == 3 && (c < 0x800 || (c >= 0xD800 && c <= 0xDFFF))) || (length == 4 && (c < 0x10000 || c > 0x10FFFF)))
            Fail ("invalid UTF-8");
        text.append (fLine, fPosition, length);
        fPosition += length;
    }

    std::string String ()
    {
        Expect ('"');
        std::string text;
        for (;;) {
            if (fPosition >= fLine.size ())
                Fail ("unterminated string");
            char c = fLine [fPosition];
            if (c == '"') {
                ++fPosition;
                return text;
            }
            if ((unsigned char) c < 0x20)
                Fail ("control character in a string");
            if (c != '\\') {
                RawUtf8 (text);
                continue;
            }
            if (++fPosition >= fLine.size ())
                Fail ("unterminated string");
            switch (fLine [fPosition++]) {
            case '"': text += '"'; break;
            case '\\': text += '\\'; break;
            case '/': text += '/'; break;
            case 'b': text += '\b'; break;
            case 'f': text += '\f'; break;
            case 'n': text += '\n'; break;
            case 'r': text += '\r'; break;
            case 't': text += '\t'; break;
            case 'u': {
                unsigned long unit = Hex4 ();
                if (unit >= 0xDC00 && unit <= 0xDFFF)
                    Fail ("lone low surrogate");
                if (unit >= 0xD800 && unit <= 0xDBFF) {
                    if (fLine.compare (fPosition, 2, "\\u") != 0)
                        Fail ("lone high surrogate");
                    fPosition += 2;
                    unsigned long low = Hex4 ();
                    if (low < 0xDC00 || low > 0xDFFF)
                        Fail ("lone high surrogate");
                    unit = 0x10000 + ((unit - 0xD800) << 10) + (low - 0xDC00);
                }
                AppendUtf8 (text, unit);
                break;
            }
            default:
                --fPosition;
                Fail ("bad escape");
            }
        }
    }

    const std::string & fLine;
    const std::string & fWhere;
    size_t fPosition = 0;
};

std::string ReadWholeFile (const std::wstring & path)
{
    HANDLE file = ::CreateFileW (path.c_str (), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                                 NULL, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, NULL);
    if (file == INVALID_HANDLE_VALUE)
        throw std::runtime_error ("jot log " + Utf8 (path) + ": cannot open (error " + std::to_string (::GetLastError ()) + ")");
    std::string contents;
    char chunk [65536];
    DWORD count = 0;
    BOOL ok;
    while ((ok = ::ReadFile (file, chunk, sizeof chunk, &count, NULL)) && count != 0)
        contents.append (chunk, count);
    DWORD error = ::GetLastError ();
    ::CloseHandle (file);
    if (! ok)
        throw std::runtime_error ("jot log " + Utf8 (path) + ": cannot read (error " + std::to_string (error) + ")");
    return contents;
}

}

std::vector<JotRecord> ReadJotLog (const std::wstring & path)
{
    std::string contents = ReadWholeFile (path);
    std::vector<JotRecord> records;
    size_t start = 0;
    for (unsigned long number = 1; start < contents.size (); ++number) {
        std::string where = "jot log " + Utf8 (path) + ", line " + std::to_string (number);
        size_t end = contents.find ('\n', start);
        if (end == std::string::npos)
            throw std::runtime_error (where + ": no newline at the end");
        std::string line = contents.substr (start, end - start);
        records.push_back (RecordParser (line, where).Parse ());
        start = end + 1;
    }
    return records;
}

ScopedJotLog::ScopedJotLog ()
{
    wchar_t directory [MAX_PATH + 1];
    wchar_t name [MAX_PATH + 1];
    DWORD length = ::GetTempPathW (MAX_PATH + 1, directory);
    if (length == 0 || length > MAX_PATH)
        throw std::runtime_error ("ScopedJotLog: GetTempPathW failed");
    if (::GetTempFileNameW (directory, L"jot", 0, name) == 0)
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

void ScopedJotLog::Clear ()
{
    HANDLE file = ::CreateFileW (fPath.c_str (), GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                                 NULL, TRUNCATE_EXISTING, FILE_ATTRIBUTE_NORMAL, NULL);
    if (file == INVALID_HANDLE_VALUE)
        throw std::runtime_error ("jot log " + Utf8 (fPath) + ": cannot truncate (error " + std::to_string (::GetLastError ()) + ")");
    ::CloseHandle (file);
}

}
