// The raising side of the library's failures: the exception classes, the five Throw functions,
// their log lines and the per-thread guard that stops a throw from re-entering itself.
//
// The guard covers the building of the exception object (the stack capture and its lazy lookup of
// the capture function), the only steps of a throw that can themselves fail. It lives in one
// thread-local slot, allocated at the first throw of the process and never freed.

#include <LibSkerry/Exceptions>

#include "LogLine.h"

#include <jot.h>

#include <windows.h>

#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <stdexcept>
#include <unistd.h>

namespace {

const int kLogLevel = 5;

}

// One line: a client of its own per line, nothing held between lines, and nothing that jot
// answers is looked at.
void Skerry::Exceptions::LogLineTo (char const * facility, char const * format, va_list arguments)
{
    jot_client * client = ::jot_open (NULL, facility, 0);
    ::jot_vlog (client, NULL, kLogLevel, format, arguments);
    ::jot_close (client);
}

void Skerry::Exceptions::LogFunc (char const * format, ...)
{
    va_list arguments;
    va_start (arguments, format);
    LogLineTo ("Exceptions", format, arguments);
    va_end (arguments);
}

namespace {

using Skerry::Exceptions::LogFunc;

[[noreturn]] void FatalNestedThrow (char const * name, char const * active)
{
    LogFunc ("%s: fatal error: attempt to throw from %s during throw from %s", name, name, active);
    if (::IsDebuggerPresent ())
        ::DebugBreak ();
    ::_exit (1);
}

// The name of a throw that goes ahead without a slot (see GetThreadLocalStorageIndex), for the
// fatal line of a throw that would start while it is under way.
void * volatile sUnguardedThrow = NULL;

// Set while a failure of TlsAlloc is being reported.
LONG volatile sReportingSlotFailure = 0;

class ThrowInProgress {
public:
    explicit ThrowInProgress (char const * name);
    ~ThrowInProgress ();

    static DWORD GetThreadLocalStorageIndex ();

private:
    ThrowInProgress (const ThrowInProgress &) = delete;
    ThrowInProgress & operator = (const ThrowInProgress &) = delete;

    char const * fName;
    DWORD fIndex;
};

DWORD volatile sThreadLocalStorageIndex = TLS_OUT_OF_INDEXES;

ThrowInProgress::ThrowInProgress (char const * name)
    : fName (name), fIndex (GetThreadLocalStorageIndex ())
{
    if (fIndex == TLS_OUT_OF_INDEXES) {
        char const * active = static_cast <char const *> (::InterlockedCompareExchangePointer (
            &sUnguardedThrow, const_cast <char *> (name), NULL));
        if (active != NULL)
            FatalNestedThrow (name, active);
        return;
    }
    if (void * active = ::TlsGetValue (fIndex))
        FatalNestedThrow (name, static_cast <char const *> (active));
    if (! ::TlsSetValue (fIndex, const_cast <char *> (name))) {
        LogFunc ("%s: fatal error: could not announce throw is in progress due to Win32 error %lu",
            name, ::GetLastError ());
        ::_exit (1);
    }
}

ThrowInProgress::~ThrowInProgress ()
{
    if (fIndex == TLS_OUT_OF_INDEXES) {
        sUnguardedThrow = NULL;
        return;
    }
    if (! ::TlsSetValue (fIndex, NULL)) {
        LogFunc ("%s: fatal error: could not announce throw is no longer in progress due to Win32 error %lu",
            fName, ::GetLastError ());
        ::_exit (1);
    }
}

// A failed TlsAlloc is reported as a Win32 exception through ThrowWin32ErrorFunc, whose guard
// needs the slot in turn. The report therefore asks for a slot once more (a passing shortage ends
// there, and the report is guarded as usual); if that fails as well, the report goes ahead
// without a guard, and TLS_OUT_OF_INDEXES tells ThrowInProgress so. While such an unguarded throw
// is under way, any other throw that finds no slot is taken as nested and ends the process, so
// that a persistent failure can't recurse without end.
DWORD ThrowInProgress::GetThreadLocalStorageIndex ()
{
    SKERRY_SITE ("ThrowInProgress::GetThreadLocalStorageIndex");
    if (sThreadLocalStorageIndex != TLS_OUT_OF_INDEXES)
        return sThreadLocalStorageIndex;
    DWORD index = ::TlsAlloc ();
    if (index == TLS_OUT_OF_INDEXES) {
        DWORD error = ::GetLastError ();
        if (::InterlockedCompareExchange (&sReportingSlotFailure, 1, 0) != 0)
            return TLS_OUT_OF_INDEXES;
        struct Reported {
            ~Reported () { ::InterlockedExchange (&sReportingSlotFailure, 0); }
        } reported;
        SKERRY_THROW_WIN32 (error);
    }
    if (DWORD (::InterlockedCompareExchange (reinterpret_cast <LONG volatile *> (&sThreadLocalStorageIndex),
            LONG (index), LONG (TLS_OUT_OF_INDEXES))) != TLS_OUT_OF_INDEXES)
        ::TlsFree (index);
    return sThreadLocalStorageIndex;
}

char * DuplicateMessage (char const * message, char const * failure)
{
    char * copy = message != NULL ? ::_strdup (message) : NULL;
    if (copy == NULL)
        throw std::runtime_error (failure);
    return copy;
}

}

namespace Skerry {
namespace Exceptions {

Base::Base (char const * function, char const * file, int line)
    : fLine (std::uint32_t (line)), fFile (file), fFunction (function)
{
}

std::string Base::Symbolicate () const
{
    try {
        return StackTrace::Symbolicate ();
    }
    catch (...) {
        return "(symbolication failed)";
    }
}

String::String (char const * function, char const * file, int line, char const * message)
    : Base (function, file, line),
      fMessage (DuplicateMessage (message, "unable to duplicate string for new String exception"))
{
}

String::String (const String & other)
    : Base (other),
      fMessage (DuplicateMessage (other.fMessage, "unable to duplicate string for copy of String exception"))
{
}

String & String::operator = (const String & other)
{
    if (this != &other) {
        char * message = DuplicateMessage (other.fMessage, "unable to duplicate string for copy of String exception");
        Base::operator = (other);
        ::free (fMessage);
        fMessage = message;
    }
    return *this;
}

String::~String ()
{
    ::free (fMessage);
}

Skerry::Skerry (char const * function, char const * file, int line, unsigned long code)
    : Base (function, file, line), fCode (code)
{
}

Win32::Win32 (char const * function, char const * file, int line, unsigned long code)
    : Base (function, file, line), fCode (code)
{
}

COM::COM (char const * function, char const * file, int line, long code)
    : Base (function, file, line), fCode (code)
{
}

Errno::Errno (char const * function, char const * file, int line, int code)
    : Base (function, file, line), fCode (code)
{
}

long HRESULTFromWin32 (unsigned long code)
{
    long value = long (code);
    return value > 0 ? long ((code & 0x0000FFFF) | 0x80070000) : value;
}

// Both catching tools find out what is being handled by re-raising it inside a ladder of their
// own: the library's kinds share no base that a single catch clause could take.

const long kFail = long (0x80004005);
const long kUnexpected = long (0x8000FFFF);

// Outside a handler there is nothing to re-raise, and the bare re-raise below would end the
// process: the misuse is an assertion instead, like every other misuse of the library.
Description::Description ()
    : fResult (kFail), fLine (0)
{
    SKERRY_SITE ("Skerry::Exceptions::Description::Description");
    SKERRY_ASSERT (std::current_exception ());
    try {
        throw;
    }
    catch (const String & e) {
        Take ("String", e);
        fMessage = e.fMessage;
    }
    catch (const Skerry & e) {
        Take ("Skerry", e);
    }
    catch (const Win32 & e) {
        Take ("Win32", e);
        fResult = HRESULTFromWin32 (e.fCode);
    }
    catch (const Errno & e) {
        Take ("Errno", e);
    }
    catch (const COM & e) {
        Take ("COM", e);
        fResult = e.fCode;
    }
    catch (const std::exception & e) {
        fType = "std";
        fMessage = e.what ();
    }
    catch (...) {
        fType = "unknown";
    }
}

void Description::Take (char const * type, const Base & e)
{
    fType = type;
    fLine = e.fLine;
    fFile = e.fFile;
    fFunction = e.fFunction;
    fStackTrace = e.Symbolicate ();
}

Description::Description (const Description & other) = default;
Description & Description::operator = (const Description & other) = default;
Description::~Description () = default;

long LogAndTranslateFunc (char const * function, char const * file, int line)
{
    SKERRY_SITE ("Skerry::Exceptions::LogAndTranslateFunc");
    SKERRY_ASSERT (std::current_exception ());
    try {
        throw;
    }
    catch (const String & e) {
        std::string trace = e.Symbolicate ();
        LogFunc ("%s: caught String exception on line %d of file %s;\nthrown from function %s on line %u of file %s:\n\t%s\nstack trace:\n%s",
            function, line, file, e.fFunction, e.fLine, e.fFile, e.fMessage, trace.c_str ());
        return kFail;
    }
    catch (const Skerry & e) {
        std::string trace = e.Symbolicate ();
        LogFunc ("%s: caught Skerry error %lu exception on line %d of file %s;\nthrown from function %s on line %u of file %s; stack trace:\n%s",
            function, e.fCode, line, file, e.fFunction, e.fLine, e.fFile, trace.c_str ());
        return kFail;
    }
    catch (const Win32 & e) {
        std::string trace = e.Symbolicate ();
        LogFunc ("%s: caught Win32 error %lu exception on line %d of file %s;\nthrown from function %s on line %u of file %s; stack trace:\n%s",
            function, e.fCode, line, file, e.fFunction, e.fLine, e.fFile, trace.c_str ());
        return HRESULTFromWin32 (e.fCode);
    }
    catch (const Errno & e) {
        std::string trace = e.Symbolicate ();
        LogFunc ("%s: caught errno %d exception on line %d of file %s;\nthrown from function %s on line %u of file %s; stack trace:\n%s",
            function, e.fCode, line, file, e.fFunction, e.fLine, e.fFile, trace.c_str ());
        return kFail;
    }
    catch (const COM & e) {
        std::string trace = e.Symbolicate ();
        LogFunc ("%s: caught HRESULT 0x%08X exception on line %d of file %s;\nthrown from function %s on line %u of file %s; stack trace:\n%s",
            function, static_cast<unsigned> (e.fCode), line, file, e.fFunction, e.fLine, e.fFile, trace.c_str ());
        return e.fCode;
    }
    catch (const std::exception & e) {
        LogFunc ("%s: caught standard exception \"%s\" on line %d of file %s", function, e.what (), line, file);
        return kFail;
    }
    catch (...) {
        LogFunc ("%s: caught unknown exception on line %d of file %s", function, line, file);
        return kUnexpected;
    }
}

// Each Throw function writes its line before anything can fail, then builds and raises its
// exception under the guard; unwinding out of the function leaves the guard before any handler
// runs, so that a handler may throw again.

void ThrowWin32ErrorFunc (char const * function, char const * file, int line, unsigned long error)
{
    LogFunc ("%s: throwing exception due to Win32 error %lu on line %d of file %s", function, error, line, file);
    ThrowInProgress guard ("Skerry::Exceptions::ThrowWin32ErrorFunc");
    throw Win32 (function, file, line, error);
}

void ThrowSkerryErrorFunc (char const * function, char const * file, int line, unsigned long error)
{
    LogFunc ("%s: throwing exception due to Skerry error %lu on line %d of file %s", function, error, line, file);
    ThrowInProgress guard ("Skerry::Exceptions::ThrowSkerryErrorFunc");
    throw Skerry (function, file, line, error);
}

void ThrowHRESULTFunc (char const * function, char const * file, int line, long result)
{
    // %08X reads an unsigned int: the HRESULT's bits, which a long of the same width holds.
    LogFunc ("%s: throwing exception due to HRESULT 0x%08X on line %d of file %s", function, static_cast<unsigned> (result),
        line, file);
    ThrowInProgress guard ("Skerry::Exceptions::ThrowHRESULTFunc");
    throw COM (function, file, line, result);
}

void ThrowErrnoFunc (char const * function, char const * file, int line, int error)
{
    LogFunc ("%s: throwing exception due to errno %d on line %d of file %s", function, error, line, file);
    ThrowInProgress guard ("Skerry::Exceptions::ThrowErrnoFunc");
    throw Errno (function, file, line, error);
}

void ThrowStringFunc (char const * function, char const * file, int line, char const * message)
{
    // %u reads an unsigned int: a negative line prints as its bit pattern.
    LogFunc ("%s: throwing exception from line %u of file %s: %s", function, static_cast<unsigned> (line), file, message);
    ThrowInProgress guard ("Skerry::Exceptions::ThrowStringFunc");
    throw String (function, file, line, message);
}

}
}
