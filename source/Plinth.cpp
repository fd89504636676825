// The counted-reference wrappers of Plinth objects: the reference rules that all of them share,
// and the members that aren't inline: the creations of strings and dictionaries, the conversions
// between Plinth strings and code pages, the case-insensitive key callbacks and the snapshot; file
// URLs, and property lists in files and in data.

#include <LibSkerry/ArrayBuffer>
#include <LibSkerry/CodePages>
#include <LibSkerry/Plinth>
#include <LibSkerry/Utilities>

#include <windows.h>

#include <cstdarg>
#include <memory>

namespace Skerry {

namespace {

// ERROR_INTERNAL_ERROR: copying an empty wrapper is a broken invariant of the caller's.
unsigned long const kInternalError = 1359;
// Skerry error 3: Plinth gave null where an object was to be created or held.
unsigned long const kNullObject = 3;
// Skerry error 6: the writing pass of a conversion gave another count than its sizing pass.
unsigned long const kCountMismatch = 6;

}

static_assert (sizeof (PlinthObject) == sizeof (void *), "a wrapper is one pointer");
static_assert (sizeof (PlinthData) == sizeof (void *), "a wrapper is one pointer");
static_assert (sizeof (PlinthSet) == sizeof (void *), "a wrapper is one pointer");
static_assert (sizeof (PlinthStringWithFormat) == sizeof (void *), "a wrapper is one pointer");
static_assert (sizeof (PlinthMutableDictionary) == sizeof (void *), "a wrapper is one pointer");

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

unsigned long const PlinthString::kDefaultEqualsFlags;

namespace {

// The length first, then the bytes, each with its own assertion.
__PLString const * CreateStringWithData (PlinthData const & data, unsigned int encoding, bool isExternalRepresentation)
{
    long length = data.GetLength ();
    void const * bytes = data.GetBytes ();
    return PLStringCreateWithBytes (kPLAllocatorDefault, static_cast<uint8_t const *> (bytes), length, encoding,
        isExternalRepresentation);
}

// The guards compare a size with its conversion to int: signed with unsigned on purpose.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wsign-compare"

// Narrow text back into a Plinth string, in the code page the text carries.
__PLString const * CreateStringFromANSI (ANSIStringFromPlinth const & s)
{
    SKERRY_SITE ("CreateStringFromANSI");
    if (s.empty ())
        return __PLStringMakeConstantString ("");
    std::size_t length = s.size ();
    SKERRY_ASSERT (int (length) == length);
    int wideCharBufferCount = ::MultiByteToWideChar (s.GetCodePage (), 0, s.data (), int (length), NULL, 0);
    if (wideCharBufferCount == 0)
        SKERRY_THROW_WIN32 (::GetLastError ());
    SKERRY_ASSERT (wideCharBufferCount > 0);
    ArrayBuffer<wchar_t> buffer (wideCharBufferCount);
    wchar_t * units = buffer;
    int written = ::MultiByteToWideChar (s.GetCodePage (), 0, s.data (), int (length), units, wideCharBufferCount);
    if (written == 0)
        SKERRY_THROW_WIN32 (::GetLastError ());
    if (written != wideCharBufferCount)
        SKERRY_THROW_SKERRY (kCountMismatch);
    return PLStringCreateWithCharacters (kPLAllocatorDefault, reinterpret_cast<PLUniChar const *> (units),
        wideCharBufferCount);
}

// Gives a buffer from the array allocation operator, which the caller owns, and its count.
char * CreateANSIFromUTF16 (wchar_t const * units, std::size_t bufferCount, unsigned int codePage,
    std::size_t & narrowCount)
{
    SKERRY_SITE ("CreateANSIFromUTF16");
    SKERRY_ASSERT (bufferCount);
    SKERRY_ASSERT (int (bufferCount) == bufferCount);
    int narrowCharBufferCount = ::WideCharToMultiByte (codePage, 0, units, int (bufferCount), NULL, 0, NULL, NULL);
    if (narrowCharBufferCount == 0)
        SKERRY_THROW_WIN32 (::GetLastError ());
    SKERRY_ASSERT (narrowCharBufferCount > 0);
    SKERRY_ASSERT (int (narrowCharBufferCount) == narrowCharBufferCount);
    std::unique_ptr<char []> buffer (new char [narrowCharBufferCount]);
    int written = ::WideCharToMultiByte (codePage, 0, units, int (bufferCount), buffer.get (), narrowCharBufferCount,
        NULL, NULL);
    if (written == 0)
        SKERRY_THROW_WIN32 (::GetLastError ());
    if (written != narrowCharBufferCount)
        SKERRY_THROW_SKERRY (kCountMismatch);
    narrowCount = std::size_t (written);
    return buffer.release ();
}

#pragma GCC diagnostic pop

}

PlinthString::PlinthString (__PLString const * s, bool retain)
    : PlinthType (s, retain)
{
}

PlinthString::PlinthString (PlinthString const & that, PLRange range)
    : PlinthType (PLStringCreateWithSubstring (that.GetAllocator (), that.Raw (), range), false)
{
}

PlinthString::PlinthString (PlinthData const & data, unsigned int encoding, bool isExternalRepresentation)
    : PlinthType (CreateStringWithData (data, encoding, isExternalRepresentation), false)
{
}

// The forms without a guard are the library's own, so that a string made from wide text costs one
// call more than Plinth's alone.
PlinthString::PlinthString (std::wstring const & s)
    : PlinthType (CreateWithCharacters (s.data (), PLIndex (s.size ())), false)
{
}

PlinthString::PlinthString (wchar_t const * s, long length)
    : PlinthType (CreateWithCharacters (s, length), false)
{
}

PlinthString::PlinthString (ANSIStringFromPlinth const & s)
    : PlinthType (CreateStringFromANSI (s), false)
{
}

PlinthString::PlinthString (PlinthString const & that)
    : PlinthType (that)
{
}

PlinthString & PlinthString::operator = (PlinthString const & that)
{
    PlinthType::operator = (that);
    return *this;
}

PlinthString::~PlinthString ()
{
}

__PLString const * PlinthString::CreateWithBytes (void const * bytes, PLIndex count, unsigned int encoding)
{
    return PLStringCreateWithBytes (kPLAllocatorDefault, static_cast<uint8_t const *> (bytes), count, encoding, false);
}

__PLString const * PlinthString::CreateWithCharacters (void const * units, PLIndex count)
{
    return PLStringCreateWithCharacters (kPLAllocatorDefault, static_cast<PLUniChar const *> (units), count);
}

// The base holds Plinth's immortal empty string until the formatted one takes its place, so that
// the base's rule on null applies; the constant needs neither a retain nor a release.
PlinthStringWithFormat::PlinthStringWithFormat (__PLString const * format, ...)
    : PlinthString (__PLStringMakeConstantString (""), false)
{
    SKERRY_SITE ("Skerry::PlinthStringWithFormat::PlinthStringWithFormat");
    va_list arguments;
    va_start (arguments, format);
    fObject = PLStringCreateWithFormatAndArguments (kPLAllocatorDefault, NULL, format, arguments);
    va_end (arguments);
    SKERRY_ASSERT (fObject);
}

PlinthStringWithFormat::PlinthStringWithFormat (PlinthStringWithFormat const & that)
    : PlinthString (that)
{
}

PlinthStringWithFormat & PlinthStringWithFormat::operator = (PlinthStringWithFormat const & that)
{
    PlinthString::operator = (that);
    return *this;
}

PlinthStringWithFormat::~PlinthStringWithFormat ()
{
}

UTF16StringFromPlinth::UTF16StringFromPlinth (__PLString const * plstr)
{
    Construct (plstr);
}

UTF16StringFromPlinth::UTF16StringFromPlinth (PlinthString const & s)
{
    Construct (s.Raw ());
}

// Assigned by count, so that null units stay.
void UTF16StringFromPlinth::Construct (__PLString const * plstr)
{
    SKERRY_SITE ("Skerry::UTF16StringFromPlinth::Construct");
    SKERRY_ASSERT (plstr);
    PLIndex length = PLStringGetLength (plstr);
    if (length == 0)
        return;
    ArrayBuffer<unsigned short> buffer (length);
    unsigned short * units = buffer;
    PLStringGetCharacters (plstr, PLRangeMake (0, length), units);
    assign (reinterpret_cast<wchar_t const *> (units), std::size_t (length));
}

ANSIStringFromPlinth::ANSIStringFromPlinth (__PLString const * plstr, unsigned int codePage)
    : fCodePage (0)
{
    Construct (plstr, codePage);
}

ANSIStringFromPlinth::ANSIStringFromPlinth (PlinthString const & s, unsigned int codePage)
    : fCodePage (0)
{
    Construct (s.Raw (), codePage);
}

// The code page is resolved for every string, the empty one too, so that the text can go back.
void ANSIStringFromPlinth::Construct (__PLString const * plstr, unsigned int codePage)
{
    UTF16StringFromPlinth units (plstr);
    fCodePage = ResolveCodePage (codePage);
    if (units.empty ())
        return;
    std::size_t count = 0;
    ArrayBuffer<char> narrow (CreateANSIFromUTF16 (units.data (), units.size (), fCodePage, count));
    assign (narrow, count);
}

PlinthDictionary::PlinthDictionary (__PLDictionary const * dictionary, bool retain)
    : PlinthType (dictionary, retain)
{
}

PlinthDictionary::PlinthDictionary (PlinthDictionary const & that)
    : PlinthType (that)
{
}

PlinthDictionary & PlinthDictionary::operator = (PlinthDictionary const & that)
{
    PlinthType::operator = (that);
    return *this;
}

PlinthDictionary::~PlinthDictionary ()
{
}

namespace {

bool IsString (void const * object)
{
    return PLGetTypeID (object) == PLStringGetTypeID ();
}

// Plinth's own case-insensitive comparison for two strings; for anything else, the standard
// equality.
PLBoolean PlinthCaseInsensitiveEqual (void const * x, void const * y)
{
    if (IsString (x) && IsString (y)) {
        PLStringRef string = static_cast<PLStringRef> (x);
        PLRange whole = PLRangeMake (0, PLStringGetLength (string));
        return PLStringCompareWithOptions (string, static_cast<PLStringRef> (y), whole, kPLCompareCaseInsensitive)
            == kPLCompareEqualTo;
    }
    return kPLTypeDictionaryKeyCallBacks.equal (x, y);
}

// The standard hash of the text lowered by the platform. Plinth calls this from its own code, which
// an exception must never cross: any failure is logged, and the key hashes to 0, which costs only
// speed.
PLHashCode PlinthCaseInsensitiveHash (void const * key)
{
    if (! IsString (key))
        return kPLTypeDictionaryKeyCallBacks.hash (key);
    PLHashCode hash = 0;
    try {
        SKERRY_SITE ("PlinthCaseInsensitiveHash");
        PLStringRef string = static_cast<PLStringRef> (key);
        PLIndex count = PLStringGetLength (string);
        ArrayBuffer<unsigned short> buffer (count);
        unsigned short * units = buffer;
        PLStringGetCharacters (string, PLRangeMake (0, count), units);
        ::CharLowerBuffW (reinterpret_cast<wchar_t *> (units), DWORD (count));
        // The lowered units are read in place, never copied again and never freed by Plinth.
        PLStringRef lowered = PLStringCreateWithCharactersNoCopy (kPLAllocatorDefault, units, count, kPLAllocatorNull);
        if (lowered == NULL)
            SKERRY_THROW_SKERRY (kNullObject);
        PLHashCode loweredHash = kPLTypeDictionaryKeyCallBacks.hash (lowered);
        PLRelease (lowered);
        hash = loweredHash;
    }
    catch (...) {
        Exceptions::LogAndTranslateFunc ("PlinthCaseInsensitiveHash", __FILE__, __LINE__);
    }
    return hash;
}

PLDictionaryKeyCallBacks CaseInsensitiveKeyCallbacks () noexcept
{
    PLDictionaryKeyCallBacks callbacks = kPLTypeDictionaryKeyCallBacks;
    callbacks.equal = PlinthCaseInsensitiveEqual;
    callbacks.hash = PlinthCaseInsensitiveHash;
    return callbacks;
}

}

// The library's one static initialiser: it runs when the library is loaded, before any of its
// functions can be called, and the structure is only read afterwards.
PLDictionaryKeyCallBacks const PlinthMutableDictionary::kCaseInsensitiveKeyCallbacks = CaseInsensitiveKeyCallbacks ();

PlinthMutableDictionary::PlinthMutableDictionary (bool caseSensitive)
    : PlinthDictionary (PLDictionaryCreateMutable (kPLAllocatorDefault, 0,
          caseSensitive ? &kPLTypeDictionaryKeyCallBacks : &kCaseInsensitiveKeyCallbacks,
          &kPLTypeDictionaryValueCallBacks), false)
{
}

PlinthMutableDictionary::PlinthMutableDictionary (__PLDictionary * dictionary, bool retain)
    : PlinthDictionary (dictionary, retain)
{
}

PlinthMutableDictionary::PlinthMutableDictionary (PlinthMutableDictionary const & that)
    : PlinthDictionary (that)
{
}

PlinthMutableDictionary & PlinthMutableDictionary::operator = (PlinthMutableDictionary const & that)
{
    PlinthDictionary::operator = (that);
    return *this;
}

PlinthMutableDictionary::~PlinthMutableDictionary ()
{
}

// From the last pair down, so that of keys this dictionary finds equal the first pair is stored
// last and wins.
void PlinthMutableDictionary::CopyRoot (PlinthDictionary const & source)
{
    PlinthDictionaryPairs pairs (source);
    for (unsigned int index = pairs.size (); index-- > 0;)
        SetValue (pairs [index].key, pairs [index].value);
}

// Each key and value takes a count of its own as it is wrapped; a failure releases the pairs
// taken so far as the vector unwinds.
PlinthDictionaryPairs::PlinthDictionaryPairs (PlinthDictionary const & dictionary)
{
    long count = dictionary.Count ();
    if (count == 0)
        return;
    std::vector<void const *> keys (count), values (count);
    PLDictionaryGetKeysAndValues (dictionary.Raw (), keys.data (), values.data ());
    fPairs.reserve (count);
    for (long index = 0; index < count; ++index) {
        PlinthObject key (keys [index], true);
        PlinthObject value (values [index], true);
        fPairs.emplace_back (key, value);
    }
}

namespace {

// The string goes whatever Plinth made of it: the URL holds its own copy of the path.
__PLURL const * ConstructURL (std::wstring const & path, bool isDirectory)
{
    SKERRY_SITE ("ConstructURL");
    PLStringRef string = PlinthString (path).Detach ();
    PLURLRef url = PLURLCreateWithFileSystemPath (kPLAllocatorDefault, string, kPLURLWindowsPathStyle, isDirectory);
    PLRelease (string);
    if (url == NULL)
        SKERRY_THROW_STRING ("PLURLCreateWithFileSystemPath failed");
    return url;
}

// A failure of the file system to answer (a missing directory on the way, a denied access) is its
// own, and passes through: only a path that is cleanly absent is "does not exist".
__PLURL const * ConstructURL (std::wstring const & path)
{
    SKERRY_SITE ("ConstructURL");
    bool isDirectory = false;
    if (! Miscellany::FileSystemObjectExists (path, &isDirectory))
        SKERRY_THROW_STRING ("file system object does not exist");
    return ConstructURL (path, isDirectory);
}

// The stream is opened on the URL itself. Plinth's write stream replaces the file whole when it
// is released, and only when nothing failed: a property list that can't be written leaves the
// file that was there as it was.
void WritePropertyListToFile (void const * propertyList, __PLURL const * url)
{
    SKERRY_SITE ("WritePropertyListToFile");
    PLWriteStreamRef stream = PLWriteStreamCreateWithFile (kPLAllocatorDefault, url);
    if (stream == NULL)
        SKERRY_THROW_STRING ("PLWriteStreamCreateWithFile failed");
    if (! PLWriteStreamOpen (stream)) {
        PLRelease (stream);
        SKERRY_THROW_STRING ("PLWriteStreamOpen failed");
    }
    if (PLPropertyListWrite (propertyList, stream, kPLPropertyListBinaryFormat, 0, NULL) == 0) {
        PLRelease (stream);
        SKERRY_THROW_STRING ("PLPropertyListWrite failed");
    }
    PLRelease (stream);
}

// Whatever format the file is in, binary or XML: Plinth tells them apart.
void const * ReadPropertyListFromStream (__PLURL const * url, unsigned long options)
{
    SKERRY_SITE ("ReadPropertyListFromStream");
    PLReadStreamRef stream = PLReadStreamCreateWithFile (kPLAllocatorDefault, url);
    if (stream == NULL)
        SKERRY_THROW_STRING ("PLReadStreamCreateWithFile failed");
    if (! PLReadStreamOpen (stream)) {
        PLRelease (stream);
        SKERRY_THROW_STRING ("PLReadStreamOpen failed");
    }
    void const * propertyList = PLPropertyListCreateWithStream (kPLAllocatorDefault, stream, 0, options, NULL, NULL);
    PLRelease (stream);
    if (propertyList == NULL)
        SKERRY_THROW_STRING ("PLPropertyListCreateWithStream failed");
    return propertyList;
}

__PLDictionary * ConstructDictionaryFromURL (__PLURL const * url, unsigned long options)
{
    SKERRY_SITE ("ConstructDictionaryFromURL");
    void const * propertyList = ReadPropertyListFromStream (url, options);
    if (PLGetTypeID (propertyList) != PLDictionaryGetTypeID ()) {
        PLRelease (propertyList);
        SKERRY_THROW_STRING ("property list is not dictionary");
    }
    return static_cast<__PLDictionary *> (const_cast<void *> (propertyList));
}

}

PlinthURL::PlinthURL (__PLURL const * url, bool retain)
    : PlinthType (url, retain)
{
}

PlinthURL::PlinthURL (std::wstring const & path, bool isDirectory)
    : PlinthType (ConstructURL (path, isDirectory), false)
{
}

PlinthURL::PlinthURL (std::wstring const & path)
    : PlinthType (ConstructURL (path), false)
{
}

PlinthURL::PlinthURL (PlinthURL const & that)
    : PlinthType (that)
{
}

PlinthURL & PlinthURL::operator = (PlinthURL const & that)
{
    PlinthType::operator = (that);
    return *this;
}

PlinthURL::~PlinthURL ()
{
}

void PlinthDictionary::Write (PlinthURL const & url) const
{
    WritePropertyListToFile (fObject, url.Raw ());
}

PlinthDictionary::PlinthDictionary (PlinthURL const & url)
    : PlinthType (ConstructDictionaryFromURL (url.Raw (), kPLPropertyListImmutable), false)
{
}

PlinthMutableDictionary::PlinthMutableDictionary (PlinthURL const & url)
    : PlinthDictionary (ConstructDictionaryFromURL (url.Raw (), kPLPropertyListMutableContainers), false)
{
}

PlinthData::PlinthData (PlinthObject const & propertyList, long format)
    : PlinthType (PLPropertyListCreateData (kPLAllocatorDefault, propertyList.fObject, PLPropertyListFormat (format), 0,
          NULL), false)
{
}

}
