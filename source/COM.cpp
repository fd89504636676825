// Owners of COM references and BSTRs (Skerry::COM).

#include <LibSkerry/COM>
#include <LibSkerry/Exceptions>

#include <windows.h>
#include <objbase.h>
#include <oleauto.h>

namespace Skerry {
namespace COM {

namespace {

// The library's error number for a BSTR that could not be allocated.
const unsigned long kNoString = 20;

// Every server kind: CLSCTX_INPROC_SERVER | CLSCTX_INPROC_HANDLER | CLSCTX_LOCAL_SERVER |
// CLSCTX_REMOTE_SERVER.
const unsigned long kAnyServer = 23;

wchar_t * ConstructCOMString (const wchar_t * string)
{
    SKERRY_SITE ("ConstructCOMString");
    wchar_t * result = ::SysAllocString (string);
    if (result == NULL)
        SKERRY_THROW_SKERRY (kNoString);
    return result;
}

// A copy of a whole BSTR, zero characters inside it included, for the copy and the assignment
// of String; `function` is the one that failures report.
wchar_t * CopyCOMString (const wchar_t * string, char const * function)
{
    SKERRY_SITE (function);
    wchar_t * result = ::SysAllocStringLen (string, ::SysStringLen (const_cast<wchar_t *> (string)));
    if (result == NULL)
        SKERRY_THROW_SKERRY (kNoString);
    return result;
}

}

ObjectHolder::ObjectHolder (IUnknown * object, bool addRef)
    : fObject (object)
{
    SKERRY_SITE ("Skerry::COM::ObjectHolder::ObjectHolder");
    SKERRY_ASSERT (fObject);
    if (addRef)
        fObject->AddRef ();
}

ObjectHolder::ObjectHolder (const _GUID & classID, const _GUID & interfaceID)
    : fObject (NULL)
{
    SKERRY_SITE ("Skerry::COM::ObjectHolder::ObjectHolder");
    HRESULT result = ::CoCreateInstance (classID, NULL, kAnyServer, interfaceID, reinterpret_cast<void **> (&fObject));
    if (FAILED (result))
        SKERRY_THROW_HRESULT (result);
    SKERRY_ASSERT (fObject);
}

ObjectHolder::ObjectHolder (const ObjectHolder & other)
    : fObject (other.fObject)
{
    fObject->AddRef ();
}

ObjectHolder & ObjectHolder::operator = (const ObjectHolder & other)
{
    if (&other == this)
        return *this;
    // Both hold a reference of the same object when it is the same one, so releasing first
    // never lets it go.
    if (fObject != NULL)
        fObject->Release ();
    fObject = other.fObject;
    fObject->AddRef ();
    return *this;
}

ObjectHolder::~ObjectHolder () noexcept (false)
{
    SKERRY_SITE ("Skerry::COM::ObjectHolder::~ObjectHolder");
    SKERRY_ASSERT (fObject);
    fObject->Release ();
    fObject = NULL;
}

void ObjectHolder::LogObjects (bool)
{
}

String::String (const wchar_t * string)
    : fString (ConstructCOMString (string))
{
}

String::String (const std::wstring & string)
    : fString (ConstructCOMString (string.c_str ()))
{
}

String::String (const String & other)
    : fString (CopyCOMString (other.fString, "Skerry::COM::String::String"))
{
}

String & String::operator = (const String & other)
{
    if (&other == this)
        return *this;
    wchar_t * copy = CopyCOMString (other.fString, "Skerry::COM::String::operator =");
    ::SysFreeString (fString);
    fString = copy;
    return *this;
}

String::~String () noexcept (false)
{
    SKERRY_SITE ("Skerry::COM::String::~String");
    SKERRY_ASSERT (fString);
    ::SysFreeString (fString);
    fString = NULL;
}

String::operator wchar_t * () const
{
    SKERRY_SITE ("Skerry::COM::String::operator wchar_t *");
    SKERRY_ASSERT (fString);
    return fString;
}

}
}
