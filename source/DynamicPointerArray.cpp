// The frame of the dynamic pointer arrays: the platform calls, the release step run inside the
// platform's enumeration, and the "DPA" log facility.
//
// The enumeration calls back through comctl32's frames, which an exception can't cross. The
// callback that the platform sees therefore never raises: it keeps the first failure of the
// release step, stops the enumeration, and the failure is raised again once the platform has
// returned.

#include <LibSkerry/DynamicPointerArray>
#include <LibSkerry/Utilities>

#include "LogLine.h"

#include <windows.h>
#include <commctrl.h>

#include <cstdarg>
#include <cstdlib>
#include <exception>
#include <new>

namespace {

using EnumCallbackFunction = void (WINAPI *) (HDPA, PFNDAENUMCALLBACK, void *);

// comctl32's DPA_EnumCallback, which the toolchain's import library lacks.
const WORD kEnumCallbackOrdinal = 385;

void * sComctl32Module = NULL;
EnumCallbackFunction sEnumCallback = NULL;

// Looked up once; threads that race on the first lookup find and store the same value.
EnumCallbackFunction GetEnumCallback ()
{
    SKERRY_SITE ("DPA_EnumCallback");
    if (EnumCallbackFunction enumCallback = sEnumCallback)
        return enumCallback;
    HMODULE comctl32 = Skerry::Miscellany::EnsureLibrary (L"comctl32", sComctl32Module);
    FARPROC address = ::GetProcAddress (comctl32, MAKEINTRESOURCEA (kEnumCallbackOrdinal));
    if (address == NULL)
        SKERRY_THROW_WIN32 (::GetLastError ());
    sEnumCallback = reinterpret_cast<EnumCallbackFunction> (reinterpret_cast<void *> (address));
    return sEnumCallback;
}

// What the platform's callback needs: the array, and the failure that stopped the enumeration.
struct Enumeration {
    Skerry::DynamicPointerArrayBase * fArray;
    std::exception_ptr fFailure;
};

}

void Skerry::DPA_LogFunc (char const * format, ...)
{
    va_list arguments;
    va_start (arguments, format);
    Exceptions::LogLineTo ("DPA", format, arguments);
    va_end (arguments);
}

namespace Skerry {

void DynamicPointerArrayBase::Clear ()
{
    SKERRY_SITE ("Skerry::DynamicPointerArrayBase::Clear");
    if (count == 0)
        return;
    ReleaseBlocks ();
    if (! ::DPA_DeleteAllPtrs (dpa)) {
        // The entries name freed blocks: dropped, so that nothing can reach them again.
        DPA_SetPtrCount (dpa, 0);
        count = 0;
        SKERRY_THROW_SKERRY (13);
    }
    count = 0;
}

int CALLBACK DynamicPointerArrayBase::DeleteHelper (void * block, DynamicPointerArrayBase * dpaCPP)
{
    SKERRY_SITE ("Skerry::DynamicPointerArrayBase::DeleteHelper");
    SKERRY_ASSERT (dpaCPP);
    SKERRY_ASSERT (dpaCPP->count);
    if (block != NULL)
        ::free (block);
    --dpaCPP->count;
    return 1;
}

void * DynamicPointerArrayBase::NewBlock (std::size_t size)
{
    void * block = ::malloc (size);
    if (block == NULL)
        throw std::bad_alloc ();
    return block;
}

void DynamicPointerArrayBase::FreeBlock (void * block)
{
    ::free (block);
}

unsigned int DynamicPointerArrayBase::InsertBlock (unsigned int index, void * block)
{
    SKERRY_SITE ("Skerry::DynamicPointerArrayBase::InsertBlock");
    // The block is the array's from the call on: whatever refuses it releases it.
    if (! (index <= count)) {
        ::free (block);
        SKERRY_ASSERT (index <= count);
    }
    int inserted = ::DPA_InsertPtr (dpa, int (index), block);
    if (inserted == -1) {
        ::free (block);
        SKERRY_THROW_STRING ("DPA_InsertPtr failed");
    }
    ++count;
    return unsigned (inserted);
}

void * DynamicPointerArrayBase::Block (unsigned int index) const
{
    SKERRY_SITE ("Skerry::DynamicPointerArrayBase::Block");
    SKERRY_ASSERT (index < count);
    return ::DPA_GetPtr (dpa, INT_PTR (index));
}

void DynamicPointerArrayBase::DeleteBlock (unsigned int index)
{
    SKERRY_SITE ("Skerry::DynamicPointerArrayBase::DeleteBlock");
    SKERRY_ASSERT (index < count);
    // A null entry comes back as null too: the platform's count tells whether the entry went.
    void * block = ::DPA_DeletePtr (dpa, int (index));
    if (DPA_GetPtrCount (dpa) != int (count - 1))
        SKERRY_THROW_STRING ("DPA_DeletePtr failed");
    --count;
    if (block != NULL)
        ::free (block);
}

HDPA DynamicPointerArrayBase::CreateArray (int growth)
{
    return ::DPA_Create (growth);
}

void DynamicPointerArrayBase::ReleaseBlocks ()
{
    Enumeration enumeration { this, nullptr };
    GetEnumCallback () (dpa, &ReleaseGuarded, &enumeration);
    if (enumeration.fFailure)
        std::rethrow_exception (enumeration.fFailure);
}

int CALLBACK DynamicPointerArrayBase::ReleaseGuarded (void * block, void * data)
{
    Enumeration & enumeration = *static_cast<Enumeration *> (data);
    try {
        return DeleteHelper (block, enumeration.fArray);
    }
    catch (...) {
        enumeration.fFailure = std::current_exception ();
        return 0;
    }
}

bool DynamicPointerArrayBase::ReleaseAndDestroy ()
{
    SKERRY_SITE ("Skerry::DynamicPointerArrayBase::~DynamicPointerArrayBase");
    std::exception_ptr failure;
    try {
        ReleaseBlocks ();
    }
    catch (...) {
        if (std::uncaught_exceptions () == 0)
            failure = std::current_exception ();
        else
            Exceptions::LogAndTranslateFunc (skerrySiteFunction, __FILE__, __LINE__);
    }
    bool destroyed = ::DPA_Destroy (dpa) != FALSE;
    if (failure)
        std::rethrow_exception (failure);
    return destroyed;
}

// Raising while another exception unwinds would end the process; the failure is still told, in
// the log line that a throw writes first, worded for a throw that doesn't happen.
void DynamicPointerArrayBase::RaiseUnlessUnwinding (char const * function, char const * file, int line, unsigned long code)
{
    if (std::uncaught_exceptions () == 0)
        Exceptions::ThrowSkerryErrorFunc (function, file, line, code);
    Exceptions::LogFunc ("%s: not throwing exception due to Skerry error %lu on line %d of file %s "
        "while another exception is unwinding", function, code, line, file);
}

}
