// The counted-reference wrappers of Plinth objects: the reference rules that all of them share,
// and the members of PlinthData and PlinthSet that aren't inline.

#include <LibSkerry/Plinth>

namespace Skerry {

namespace {

// ERROR_INTERNAL_ERROR: copying an empty wrapper is a broken invariant of the caller's.
unsigned long const kInternalError = 1359;
// Skerry error 3: Plinth gave null where an object was to be created or held.
unsigned long const kNullObject = 3;

}

static_assert (sizeof (PlinthObject) == sizeof (void *), "a wrapper is one pointer");
static_assert (sizeof (PlinthData) == sizeof (void *), "a wrapper is one pointer");
static_assert (sizeof (PlinthSet) == sizeof (void *), "a wrapper is one pointer");

PlinthObject::PlinthObject (void const * object, bool retain)
    : fObject (object)
{
    SKERRY_SITE ("Skerry::PlinthObject::PlinthObject");
    if (object == NULL)
        SKERRY_THROW_SKERRY (kNullObject);
    if (retain)
        PLRetain (object);
}

PlinthObject::PlinthObject (PlinthObject const & that)
    : fObject (that.fObject)
{
    SKERRY_SITE ("Skerry::PlinthObject::PlinthObject");
    if (fObject == NULL)
        SKERRY_THROW_WIN32 (kInternalError);
    PLRetain (fObject);
}

// Never fails. The old count goes first: the new wrapper holds a count of its own, so the object
// survives even when both wrappers hold the same one.
PlinthObject & PlinthObject::operator = (PlinthObject const & that)
{
    if (this == &that)
        return *this;
    if (fObject != NULL)
        PLRelease (fObject);
    fObject = that.fObject;
    if (fObject != NULL)
        PLRetain (fObject);
    return *this;
}

PlinthObject::~PlinthObject ()
{
    if (fObject != NULL) {
        PLRelease (fObject);
        fObject = NULL;
    }
}

void const * PlinthObject::Detach ()
{
    void const * object = fObject;
    fObject = NULL;
    return object;
}

bool PlinthObject::operator == (PlinthObject const & that) const
{
    return fObject == that.fObject || PLEqual (fObject, that.fObject);
}

bool PlinthObject::operator != (PlinthObject const & that) const
{
    return fObject != that.fObject && ! PLEqual (fObject, that.fObject);
}

void PlinthObject::LogObjects (bool)
{
}

void PlinthObject::Log (char const *) const
{
}

template <typename T>
PlinthType<T>::PlinthType (T object, bool retain)
    : PlinthObject (object, retain)
{
}

template <typename T>
PlinthType<T>::PlinthType (PlinthType const & that)
    : PlinthObject (that)
{
}

template <typename T>
PlinthType<T>::PlinthType (PlinthObject const & that)
    : PlinthObject (that)
{
}

template <typename T>
PlinthType<T> & PlinthType<T>::operator = (PlinthType const & that)
{
    PlinthObject::operator = (that);
    return *this;
}

template <typename T>
PlinthType<T>::~PlinthType ()
{
}

template <typename T>
T PlinthType<T>::Detach ()
{
    return static_cast<T> (PlinthObject::Detach ());
}

template <typename T>
T PlinthType<T>::Raw () const
{
    return static_cast<T> (fObject);
}

template class PlinthType<__PLData const *>;
template class PlinthType<__PLString const *>;
template class PlinthType<__PLURL const *>;
template class PlinthType<__PLSet const *>;
template class PlinthType<__PLDictionary const *>;

PlinthData::PlinthData (__PLData const * data, bool retain)
    : PlinthType (data, retain)
{
}

PlinthData::PlinthData (PlinthData const & that)
    : PlinthType (that)
{
}

PlinthData & PlinthData::operator = (PlinthData const & that)
{
    PlinthType::operator = (that);
    return *this;
}

PlinthData::~PlinthData ()
{
}

PlinthSet::PlinthSet (__PLSet const * set, bool retain)
    : PlinthType (set, retain)
{
}

PlinthSet::PlinthSet (PlinthSet const & that)
    : PlinthType (that)
{
}

PlinthSet & PlinthSet::operator = (PlinthSet const & that)
{
    PlinthType::operator = (that);
    return *this;
}

PlinthSet::~PlinthSet ()
{
}

}
