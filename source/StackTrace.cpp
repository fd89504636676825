// Stack capture: raw return addresses only, cheap enough for the throw path (one platform call
// and one allocation of exactly the size captured). Names are made only on request, by
// Symbolicate, the one user of debug-help in the library.

#include <LibSkerry/StackTrace>
#include <LibSkerry/ArrayBuffer>
#include <LibSkerry/Exceptions>
#include <LibSkerry/FormattedString>
#include <LibSkerry/Utilities>

#include <Plinth/Plinth.h>

#include <windows.h>
#include <dbghelp.h>
#include <shlwapi.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

namespace {

typedef USHORT (WINAPI * CaptureFunction) (ULONG, ULONG, PVOID *, PULONG);

void * sKernelModule = NULL;
CaptureFunction volatile sCapture = NULL;
ULONG volatile sFramesToSkip = 0;

// Wine's capture leaves out one frame more than it is asked to: the frame that calls it is never
// reported. Under Wine it is therefore asked to skip one frame less, so that a trace starts in the
// same frame as on Windows. Windows has no wine_get_version, so nothing changes there.
ULONG FramesToSkip ()
{
    HMODULE ntdll = ::GetModuleHandleW (L"ntdll");
    bool wine = ntdll != NULL && ::GetProcAddress (ntdll, "wine_get_version") != NULL;
    return Skerry::StackTrace::kFramesToSkip - (wine ? 1 : 0);
}

// Looked up once; threads that race on the first lookup find and store the same values.
CaptureFunction GetCaptureFunction ()
{
    SKERRY_SITE ("RtlCaptureStackBackTrace");
    if (CaptureFunction capture = sCapture)
        return capture;
    HMODULE kernel = Skerry::Miscellany::EnsureLibrary (L"Kernel32", sKernelModule);
    FARPROC address = ::GetProcAddress (kernel, "RtlCaptureStackBackTrace");
    if (address == NULL)
        SKERRY_THROW_WIN32 (::GetLastError ());
    sFramesToSkip = FramesToSkip ();
    sCapture = reinterpret_cast <CaptureFunction> (reinterpret_cast <void *> (address));
    return sCapture;
}

// The frame that makes the platform call, and the first of the two that the capture skips; the
// constructor is the second, so that index 0 lies in the code that builds the exception.
__attribute__ ((noinline)) unsigned CaptureInto (void ** slots)
{
    CaptureFunction capture = GetCaptureFunction ();
    return static_cast <USHORT> (capture (sFramesToSkip, Skerry::StackTrace::kFramesToCapture, slots, NULL));
}

// ---- Symbolication ------------------------------------------------------------------------------
//
// Debug-help is brought up on the first request for the text of a non-empty trace, under the one
// lock of the library, which is then held for every use of debug-help: the service is not safe
// for concurrent use. It is never shut down.
//
// Under Wine, three things differ from Windows, and each is bridged by a step that changes nothing
// there:
// - every capture ends in a null address, which lies in no module and would fail the whole text
//   (the capture drops trailing nulls, see the constructor);
// - SymFromAddr fails without setting the last error, so the last error is cleared before the
//   call and a frame without a symbol reads "(error 0)" instead of a stale code;
// - GetEnvironmentVariableA leaves the last error alone for a variable that is set but empty, so
//   the last error is cleared before each read and such a variable counts as absent.
//
// Decisions of our own: an environment variable longer than the 260-character read buffer is read
// again into a buffer of its size, so that a long symbol path is used whole; a preference value
// that is not a string is ignored, like a missing one.

using Skerry::ArrayBuffer;
using Skerry::FormattedStringTemplate;

const DWORD kSymbolOptions = 0x80000A04;    // debug, absolute symbols, fail critical errors, deferred loads
const DWORD kModuleRecordSize = 1672;       // the record size every version of debug-help accepts
const DWORD kSymbolRecordSize = 88;
const DWORD kMaximumSymbolName = 1024;
// What a line holds besides its module column: " 0x", eight digits, a blank, a symbol with its
// offset (room for a typical qualified name) and the newline.
const std::size_t kTypicalLineTail = 80;

class CriticalSection {
public:
    CriticalSection () { ::InitializeCriticalSection (&fSection); }
    ~CriticalSection () { ::DeleteCriticalSection (&fSection); }

    class Lock : public virtual Skerry::NoCopy {
    public:
        explicit Lock (CriticalSection & section)
            : fSection (&section)
        {
            ::EnterCriticalSection (&fSection->fSection);
        }
        ~Lock ()
        {
            if (fSection != NULL)
                ::LeaveCriticalSection (&fSection->fSection);
        }

    private:
        CriticalSection * fSection;
    };

private:
    CriticalSection (const CriticalSection &) = delete;
    CriticalSection & operator = (const CriticalSection &) = delete;

    CRITICAL_SECTION fSection;
};

// All the state of symbolication: one per process, made on first use and never destroyed.
class Singleton {
public:
    static Singleton & Get ();

    CriticalSection fSection;
    HANDLE fProcess;
    bool fInitialized;

private:
    Singleton ();
    ~Singleton ();
    Singleton (const Singleton &) = delete;
    Singleton & operator = (const Singleton &) = delete;
};

Singleton * volatile sSingleton = NULL;

// Debug-help wants a real process handle: the pseudo-handle is duplicated into one.
Singleton::Singleton ()
    : fProcess (NULL), fInitialized (false)
{
    SKERRY_SITE ("Singleton::Singleton");
    HANDLE self = ::GetCurrentProcess ();
    if (! ::DuplicateHandle (self, self, self, &fProcess, 0, FALSE, DUPLICATE_SAME_ACCESS))
        SKERRY_THROW_WIN32 (::GetLastError ());
}

// Runs only for an instance that lost the race to be published: the published one lives on.
Singleton::~Singleton ()
{
    ::CloseHandle (fProcess);
}

Singleton & Singleton::Get ()
{
    if (Singleton * published = sSingleton)
        return *published;
    Singleton * candidate = new Singleton;
    if (::InterlockedCompareExchangePointer (reinterpret_cast <void * volatile *> (&sSingleton), candidate, NULL) != NULL)
        delete candidate;
    return *sSingleton;
}

// Reads an environment variable; false when it has no value (unset, or set but empty).
bool ReadVariable (char const * name, char (& buffer) [MAX_PATH], std::string & value)
{
    SKERRY_SITE ("MySymInitialize");
    // Wine leaves the last error alone for a set but empty variable; Windows sets it.
    ::SetLastError (0);
    DWORD length = ::GetEnvironmentVariableA (name, buffer, MAX_PATH);
    if (length == 0) {
        DWORD error = ::GetLastError ();
        if (error != 0 && error != ERROR_ENVVAR_NOT_FOUND)
            SKERRY_THROW_WIN32 (error);
        return false;
    }
    if (length < MAX_PATH) {
        value.assign (buffer, length);
        return true;
    }
    // Too long for the buffer: length is the size needed, terminator included.
    std::vector<char> whole (length);
    DWORD read = ::GetEnvironmentVariableA (name, whole.data (), length);
    if (read == 0 || read >= length)
        SKERRY_THROW_WIN32 (read == 0 ? ::GetLastError () : ERROR_INSUFFICIENT_BUFFER);
    value.assign (whole.data (), read);
    return true;
}

// The preference of the current application, as ASCII; its length, or 0 when there is nothing
// to use.
std::size_t CopyInternalSymbolServerPath (char * buffer)
{
    PLTypeRef value = ::PLPreferencesCopyAppValue (::__PLStringMakeConstantString ("TolvaneInternalSymbolServerPath"),
        kPLPreferencesCurrentApplication);
    if (value == NULL)
        return 0;
    buffer [0] = '\0';
    bool converted = ::PLGetTypeID (value) == ::PLStringGetTypeID ()
        && ::PLStringGetCString (static_cast <PLStringRef> (value), buffer, MAX_PATH, kPLStringEncodingASCII);
    ::PLRelease (value);
    return converted ? std::strlen (buffer) : 0;
}

// The symbol search path: the executable's directory, then what the environment and the
// preference add, joined by ";".
void MySymInitialize (HANDLE process)
{
    SKERRY_SITE ("MySymInitialize");
    std::vector<std::string> entries;
    char path [MAX_PATH];
    if (::GetModuleFileNameA (NULL, path, MAX_PATH) == 0)
        SKERRY_THROW_WIN32 (::GetLastError ());
    char * fileName = ::PathFindFileNameA (path);
    SKERRY_ASSERT (fileName > path);
    *fileName = '\0';
    entries.push_back (path);

    std::string value;
    if (ReadVariable ("TolvaneApplicationSupportSDK", path, value)) {
        FormattedStringTemplate<char> sdk ("%sbin\\", value.c_str ());
        entries.emplace_back (sdk.fBuffer, sdk.fCount);
    }
    if (std::size_t length = CopyInternalSymbolServerPath (path))
        entries.emplace_back (path, length);
    if (ReadVariable ("_NT_SYMBOL_PATH", path, value))
        entries.push_back (value);
    if (ReadVariable ("_NT_ALTERNATE_SYMBOL_PATH", path, value))
        entries.push_back (value);

    std::size_t total = entries.size ();
    for (const std::string & entry : entries)
        total += entry.size ();
    ArrayBuffer<char> joined (total);
    char * cursor = joined;
    for (std::size_t i = 0; i < entries.size (); ++i) {
        if (i > 0)
            *cursor++ = ';';
        cursor = std::copy (entries [i].begin (), entries [i].end (), cursor);
    }
    *cursor = '\0';
    if (! ::SymInitialize (process, joined, TRUE))
        SKERRY_THROW_WIN32 (::GetLastError ());
}

// Addresses go to debug-help as 64-bit values, sign-extended from the pointer.
DWORD64 SymbolAddress (void * address)
{
    return DWORD64 (LONG64 (LONG_PTR (address)));
}

std::string SymbolicateModule (void * address, HANDLE process)
{
    SKERRY_SITE ("SymbolicateModule");
    // Only the fields within the 1672 bytes are touched: the platform headers declare a longer record.
    ArrayBuffer<unsigned char> record (kModuleRecordSize);
    IMAGEHLP_MODULE64 * module = reinterpret_cast <IMAGEHLP_MODULE64 *> (static_cast <unsigned char *> (record));
    std::memset (module, 0, kModuleRecordSize);
    module->SizeOfStruct = kModuleRecordSize;
    if (! ::SymGetModuleInfo64 (process, SymbolAddress (address), module)) {
        DWORD error = ::GetLastError ();
        // A debug-help older than the record refuses it.
        if (error == ERROR_INVALID_PARAMETER)
            return "OldDbgHelp";
        SKERRY_THROW_WIN32 (error);
    }
    return ::PathFindFileNameA (module->ImageName);
}

// Upper-case hexadecimal digits without leading zeros, as %I64X prints them.
void AppendHex (std::string & text, DWORD64 value)
{
    char digits [16];
    int count = 0;
    do {
        digits [count++] = "0123456789ABCDEF" [value & 0xF];
        value >>= 4;
    } while (value != 0);
    while (count > 0)
        text += digits [--count];
}

std::string SymbolicateFrame (void * address, HANDLE process)
{
    ArrayBuffer<unsigned char> record (kSymbolRecordSize + kMaximumSymbolName - 1);
    SYMBOL_INFO * symbol = reinterpret_cast <SYMBOL_INFO *> (static_cast <unsigned char *> (record));
    std::memset (symbol, 0, kSymbolRecordSize);
    symbol->SizeOfStruct = kSymbolRecordSize;
    symbol->MaxNameLen = kMaximumSymbolName;
    DWORD64 target = SymbolAddress (address);
    // Wine fails a lookup without setting the last error; Windows always sets it.
    ::SetLastError (0);
    if (! ::SymFromAddr (process, target, NULL, symbol)) {
        FormattedStringTemplate<char> text ("(error %lu)", ::GetLastError ());
        return std::string (text.fBuffer, text.fCount);
    }
    // "%s+0x%I64X", put together by hand: this runs for every frame, and a trip through the C
    // runtime's formatter would cost more than the lookup it reports.
    std::string text (symbol->Name);
    text += "+0x";
    AppendHex (text, target - symbol->Address);
    return text;
}
}

namespace Skerry {

// The 61 capture slots live on the stack, so that the trace makes a single allocation of exactly
// the size captured.
StackTrace::StackTrace ()
{
    void * slots [kCaptureSlots] = {};
    unsigned count = std::min (CaptureInto (slots), unsigned (kFramesToCapture));
    // Wine ends every capture with a null address, which is the return address of no frame;
    // Windows never writes one, so dropping trailing nulls changes nothing there.
    while (count > 0 && slots [count - 1] == NULL)
        --count;
    assign (slots, slots + count);
}

StackTrace::StackTrace (const StackTrace & other)
    : std::vector<void *> (other)
{
}

StackTrace & StackTrace::operator = (const StackTrace & other)
{
    std::vector<void *>::operator = (other);
    return *this;
}

std::string StackTrace::Symbolicate () const
{
    SKERRY_SITE ("Skerry::StackTrace::Symbolicate");
    if (empty ())
        return "(no frames found)";
    Singleton & singleton = Singleton::Get ();
    CriticalSection::Lock lock (singleton.fSection);
    if (! singleton.fInitialized) {
        MySymInitialize (singleton.fProcess);
        // After the start-up, as debug-help's defaults are meant to govern the invasion.
        ::SymSetOptions (kSymbolOptions);
        singleton.fInitialized = true;
    }

    // The platform is asked from the outermost frame in: all module names first, so that the
    // column width is known before the first line is made, then all symbols. Entry
    // size () - i - 1 of each list belongs to index i.
    std::vector<std::string> modules;
    modules.reserve (size ());
    std::size_t longestModule = 0;
    for (std::size_t i = size (); i-- > 0;) {
        modules.push_back (SymbolicateModule ((*this) [i], singleton.fProcess));
        longestModule = std::max (longestModule, modules.back ().size ());
    }
    SKERRY_ASSERT (modules.size ( ) == (*this).size ( ));
    // The width of %*s is an int; the comparison is meant to mix signs.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wsign-compare"
    SKERRY_ASSERT (int (longestModule) == longestModule);
#pragma GCC diagnostic pop
    std::vector<std::string> symbols;
    symbols.reserve (size ());
    for (std::size_t i = size (); i-- > 0;)
        symbols.push_back (SymbolicateFrame ((*this) [i], singleton.fProcess));

    // Then the text in one forward pass, index 0 first, each line appended as it is made. The
    // reservation holds lines of an average symbol name without a second allocation.
    std::string text;
    text.reserve (size () * (longestModule + kTypicalLineTail));
    for (std::size_t i = 0; i < size (); ++i) {
        FormattedStringTemplate<char> line ("%*s 0x%p %s\n", int (longestModule),
            modules [size () - i - 1].c_str (), (*this) [i], symbols [size () - i - 1].c_str ());
        text.append (line.fBuffer, line.fCount);
    }
    return text;
}

}
