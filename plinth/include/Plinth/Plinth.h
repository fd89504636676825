/* Plinth: counted objects for programs on 32-bit Windows.
 *
 * Every object is reference-counted. A function whose name contains Create or Copy gives the caller
 * one reference, which the caller gives back with PLRelease; a Get function lends what it returns,
 * valid as long as its owner holds it. The last PLRelease frees an object. Constant strings, the
 * booleans and the allocators are immortal: retaining and releasing them changes nothing.
 *
 * Strings are UTF-16. Containers (arrays, dictionaries, sets) hold their elements through
 * callbacks; the standard callbacks retain, release, compare with PLEqual and hash with PLHash.
 *
 * A null object, or an object of another kind, handed to an operation of a kind is answered with
 * 0, false or null; nothing is dereferenced. A Create that cannot do its work gives null.
 *
 * Threads: PLRetain, PLRelease and PLGetRetainCount may race on one object. Any other use of an
 * object belongs to one thread at a time. Constant strings, the exported constants and the
 * preferences functions may be used from any thread.
 *
 * See plinth/README.md for the encodings, the comparison flags, the URL form and where preferences
 * are kept.
 */
#ifndef PLINTH_H
#define PLINTH_H

#include <stdarg.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#if defined(PLINTH_STATIC)
#define PL_EXPORT
#elif defined(PLINTH_BUILDING_LIBRARY)
#define PL_EXPORT __declspec(dllexport)
#else
#define PL_EXPORT __declspec(dllimport)
#endif

/* Opaque kinds. Immutable objects are passed as `const`, mutable ones without. */
/* NOLINTBEGIN(bugprone-reserved-identifier): the interface's own names of its opaque kinds */
typedef struct __PLAllocator __PLAllocator;
typedef struct __PLString __PLString;
typedef struct __PLData __PLData;
typedef struct __PLArray __PLArray;
typedef struct __PLDictionary __PLDictionary;
typedef struct __PLSet __PLSet;
typedef struct __PLNumber __PLNumber;
typedef struct __PLBoolean __PLBoolean;
typedef struct __PLDate __PLDate;
typedef struct __PLURL __PLURL;
/* NOLINTEND(bugprone-reserved-identifier) */

typedef void const * PLTypeRef;
typedef __PLAllocator const * PLAllocatorRef;
typedef __PLString const * PLStringRef;
typedef __PLData const * PLDataRef;
typedef __PLData * PLMutableDataRef;
typedef __PLArray const * PLArrayRef;
typedef __PLArray * PLMutableArrayRef;
typedef __PLDictionary const * PLDictionaryRef;
typedef __PLDictionary * PLMutableDictionaryRef;
typedef __PLSet const * PLSetRef;
typedef __PLSet * PLMutableSetRef;
typedef __PLNumber const * PLNumberRef;
typedef __PLBoolean const * PLBooleanRef;
typedef __PLDate const * PLDateRef;
typedef __PLURL const * PLURLRef;

typedef int32_t PLIndex;
typedef unsigned char PLBoolean;
typedef unsigned long PLTypeID;
typedef unsigned long PLHashCode;
typedef unsigned long PLOptionFlags;
typedef uint32_t PLStringEncoding;
typedef uint16_t PLUniChar;
/* Seconds since 2001-01-01 00:00:00 UTC. */
typedef double PLAbsoluteTime;

typedef struct {
    PLIndex location;
    PLIndex length;
} PLRange;

static inline PLRange PLRangeMake (PLIndex location, PLIndex length)
{
    PLRange range;
    range.location = location;
    range.length = length;
    return range;
}

enum { kPLNotFound = -1 };
enum { kPLNotATypeID = 0 };

/* ---- Objects ---------------------------------------------------------------------------------*/

PL_EXPORT PLTypeRef PLRetain (PLTypeRef object);
PL_EXPORT void PLRelease (PLTypeRef object);
/* The count of an ordinary object; 0x7FFFFFFF for an immortal one; 0 for null. */
PL_EXPORT PLIndex PLGetRetainCount (PLTypeRef object);
PL_EXPORT PLTypeID PLGetTypeID (PLTypeRef object);
/* The name of a kind ("PLString", "PLDictionary", ...), or null for an unknown number. */
PL_EXPORT PLStringRef PLCopyTypeIDDescription (PLTypeID typeID);
/* Same object, or same kind and equal contents. Numbers compare by value across integer and real. */
PL_EXPORT PLBoolean PLEqual (PLTypeRef x, PLTypeRef y);
/* Equal objects have equal hashes. 0 for null. */
PL_EXPORT PLHashCode PLHash (PLTypeRef object);
/* A text for people: a string is itself, a number its digits, a container its elements. */
PL_EXPORT PLStringRef PLCopyDescription (PLTypeRef object);
/* The allocator the object was made with; kPLAllocatorDefault for immortal objects. */
PL_EXPORT PLAllocatorRef PLGetAllocator (PLTypeRef object);
/* Objects that exist now and will be freed by a last release (immortal ones are not counted). */
PL_EXPORT PLIndex PLDebugGetLiveObjectCount (void);

/* ---- Allocators ------------------------------------------------------------------------------*/

PL_EXPORT PLTypeID PLAllocatorGetTypeID (void);
/* The process heap. Null in an allocator argument means this one. */
PL_EXPORT extern PLAllocatorRef const kPLAllocatorDefault;
/* Allocates nothing and frees nothing: as the deallocator of a no-copy creation it leaves the
 * caller's memory alone. An object cannot be created with it. */
PL_EXPORT extern PLAllocatorRef const kPLAllocatorNull;

/* ---- Strings ---------------------------------------------------------------------------------*/

enum {
    kPLStringEncodingUTF16 = 0x0100,       /* host order; external: byte-order mark read and written */
    kPLStringEncodingUTF16BE = 0x10000100,
    kPLStringEncodingUTF16LE = 0x14000100,
    kPLStringEncodingISOLatin1 = 0x0201,
    kPLStringEncodingWindowsLatin1 = 0x0500,
    kPLStringEncodingASCII = 0x0600,
    kPLStringEncodingUTF8 = 0x08000100,
    kPLStringEncodingInvalidId = 0xFFFFFFFFu
};

enum {
    kPLCompareCaseInsensitive = 1,
    kPLCompareBackwards = 4,
    kPLCompareAnchored = 8,
    kPLCompareNumerically = 64,
    kPLCompareForcedOrdering = 512
};

typedef enum {
    kPLCompareLessThan = -1,
    kPLCompareEqualTo = 0,
    kPLCompareGreaterThan = 1
} PLComparisonResult;

PL_EXPORT PLTypeID PLStringGetTypeID (void);
/* Bytes in `encoding`; an unknown encoding or bytes invalid in it give null. */
PL_EXPORT PLStringRef PLStringCreateWithBytes (PLAllocatorRef allocator, uint8_t const * bytes, PLIndex count,
    PLStringEncoding encoding, PLBoolean isExternalRepresentation);
/* A terminated string of bytes in `encoding`. */
PL_EXPORT PLStringRef PLStringCreateWithCString (PLAllocatorRef allocator, char const * text,
    PLStringEncoding encoding);
PL_EXPORT PLStringRef PLStringCreateWithCharacters (PLAllocatorRef allocator, PLUniChar const * units, PLIndex count);
/* Uses `units` in place. They are given to `deallocator` when the string is freed:
 * kPLAllocatorNull never frees them, kPLAllocatorDefault (or null) frees them with free(). */
PL_EXPORT PLStringRef PLStringCreateWithCharactersNoCopy (PLAllocatorRef allocator, PLUniChar const * units,
    PLIndex count, PLAllocatorRef deallocator);
/* A copy of `range` of `string`; null when the range is not inside it. */
PL_EXPORT PLStringRef PLStringCreateWithSubstring (PLAllocatorRef allocator, PLStringRef string, PLRange range);
PL_EXPORT PLStringRef PLStringCreateCopy (PLAllocatorRef allocator, PLStringRef string);
/* printf conversions, with %@ for the description of an object; `formatOptions` is unused. */
PL_EXPORT PLStringRef PLStringCreateWithFormat (PLAllocatorRef allocator, PLDictionaryRef formatOptions,
    PLStringRef format, ...);
PL_EXPORT PLStringRef PLStringCreateWithFormatAndArguments (PLAllocatorRef allocator, PLDictionaryRef formatOptions,
    PLStringRef format, va_list arguments);
/* An interned immortal string of ASCII `text`: the same text gives the same object. */
/* NOLINTNEXTLINE(bugprone-reserved-identifier): the interface's own name, which PLSTR expands to */
PL_EXPORT PLStringRef __PLStringMakeConstantString (char const * text);
#define PLSTR(text) __PLStringMakeConstantString ("" text "")

PL_EXPORT PLIndex PLStringGetLength (PLStringRef string);
PL_EXPORT PLUniChar PLStringGetCharacterAtIndex (PLStringRef string, PLIndex index);
/* Copies the units of `range`; a range outside the string copies nothing. */
PL_EXPORT void PLStringGetCharacters (PLStringRef string, PLRange range, PLUniChar * buffer);
/* The whole string, terminated, in `encoding`. False, with an empty buffer when it has room,
 * when a character doesn't convert or the buffer is too small. */
PL_EXPORT PLBoolean PLStringGetCString (PLStringRef string, char * buffer, PLIndex bufferSize,
    PLStringEncoding encoding);
/* Converts `range` into `buffer` (null: only measures), at most `maxBufferLength` bytes.
 * A character that doesn't convert becomes `lossByte`, or ends the conversion when it is 0.
 * Gives the number of characters converted and the bytes in `usedBufferLength`. */
PL_EXPORT PLIndex PLStringGetBytes (PLStringRef string, PLRange range, PLStringEncoding encoding, uint8_t lossByte,
    PLBoolean isExternalRepresentation, uint8_t * buffer, PLIndex maxBufferLength, PLIndex * usedBufferLength);
/* The whole string as data; null when a character doesn't convert and `lossByte` is 0. */
PL_EXPORT PLDataRef PLStringCreateExternalRepresentation (PLAllocatorRef allocator, PLStringRef string,
    PLStringEncoding encoding, uint8_t lossByte);
PL_EXPORT PLStringRef PLStringCreateFromExternalRepresentation (PLAllocatorRef allocator, PLDataRef data,
    PLStringEncoding encoding);
/* Bytes that the longest string of `length` units can need in `encoding`; -1 for an unknown one. */
PL_EXPORT PLIndex PLStringGetMaximumSizeForEncoding (PLIndex length, PLStringEncoding encoding);
PL_EXPORT PLBoolean PLStringIsEncodingAvailable (PLStringEncoding encoding);

/* -1, 0 or 1. `flags` are the kPLCompare... bits; see the README. */
PL_EXPORT PLComparisonResult PLStringCompare (PLStringRef x, PLStringRef y, PLOptionFlags flags);
/* Compares `range` of `x` with the whole of `y`. */
PL_EXPORT PLComparisonResult PLStringCompareWithOptions (PLStringRef x, PLStringRef y, PLRange range,
    PLOptionFlags flags);
/* Finds `what` in `range` of `string`: case-insensitive, backwards (the last occurrence) and
 * anchored (only at the start, or with backwards at the end, of the range). */
PL_EXPORT PLBoolean PLStringFindWithOptions (PLStringRef string, PLStringRef what, PLRange range,
    PLOptionFlags flags, PLRange * result);
PL_EXPORT PLBoolean PLStringHasPrefix (PLStringRef string, PLStringRef prefix);
PL_EXPORT PLBoolean PLStringHasSuffix (PLStringRef string, PLStringRef suffix);

/* ---- Data ------------------------------------------------------------------------------------*/

PL_EXPORT PLTypeID PLDataGetTypeID (void);
/* Copies `length` bytes; a negative length, or null bytes with a length, give null. */
PL_EXPORT PLDataRef PLDataCreate (PLAllocatorRef allocator, uint8_t const * bytes, PLIndex length);
/* Uses `bytes` in place; `deallocator` as for PLStringCreateWithCharactersNoCopy. */
PL_EXPORT PLDataRef PLDataCreateWithBytesNoCopy (PLAllocatorRef allocator, uint8_t const * bytes, PLIndex length,
    PLAllocatorRef deallocator);
PL_EXPORT PLDataRef PLDataCreateCopy (PLAllocatorRef allocator, PLDataRef data);
/* Empty, growing as needed; `capacity` is a hint. */
PL_EXPORT PLMutableDataRef PLDataCreateMutable (PLAllocatorRef allocator, PLIndex capacity);
PL_EXPORT PLMutableDataRef PLDataCreateMutableCopy (PLAllocatorRef allocator, PLIndex capacity, PLDataRef data);
PL_EXPORT PLIndex PLDataGetLength (PLDataRef data);
PL_EXPORT uint8_t const * PLDataGetBytePtr (PLDataRef data);
PL_EXPORT void PLDataGetBytes (PLDataRef data, PLRange range, uint8_t * buffer);
/* Null for an immutable data object. */
PL_EXPORT uint8_t * PLDataGetMutableBytePtr (PLMutableDataRef data);
PL_EXPORT void PLDataAppendBytes (PLMutableDataRef data, uint8_t const * bytes, PLIndex length);
/* New bytes are zero. */
PL_EXPORT void PLDataSetLength (PLMutableDataRef data, PLIndex length);

/* ---- Callbacks of containers -----------------------------------------------------------------*/

typedef void const * (*PLRetainCallBack) (PLAllocatorRef allocator, void const * value);
typedef void (*PLReleaseCallBack) (PLAllocatorRef allocator, void const * value);
typedef PLStringRef (*PLCopyDescriptionCallBack) (void const * value);
typedef PLBoolean (*PLEqualCallBack) (void const * x, void const * y);
typedef PLHashCode (*PLHashCallBack) (void const * value);

/* Six words. A null function means: retain and release nothing, describe as an address, compare
 * pointers, hash the address. A null structure pointer means all of that. */
typedef struct {
    PLIndex version;
    PLRetainCallBack retain;
    PLReleaseCallBack release;
    PLCopyDescriptionCallBack copyDescription;
    PLEqualCallBack equal;
    PLHashCallBack hash;
} PLDictionaryKeyCallBacks;

typedef struct {
    PLIndex version;
    PLRetainCallBack retain;
    PLReleaseCallBack release;
    PLCopyDescriptionCallBack copyDescription;
    PLEqualCallBack equal;
} PLDictionaryValueCallBacks;

typedef PLDictionaryKeyCallBacks PLSetCallBacks;
typedef PLDictionaryValueCallBacks PLArrayCallBacks;

/* PLRetain, PLRelease, PLCopyDescription, PLEqual, PLHash. */
PL_EXPORT extern PLDictionaryKeyCallBacks const kPLTypeDictionaryKeyCallBacks;
PL_EXPORT extern PLDictionaryValueCallBacks const kPLTypeDictionaryValueCallBacks;
PL_EXPORT extern PLSetCallBacks const kPLTypeSetCallBacks;
PL_EXPORT extern PLArrayCallBacks const kPLTypeArrayCallBacks;

/* ---- Arrays ----------------------------------------------------------------------------------*/

PL_EXPORT PLTypeID PLArrayGetTypeID (void);
PL_EXPORT PLArrayRef PLArrayCreate (PLAllocatorRef allocator, void const ** values, PLIndex count,
    PLArrayCallBacks const * callBacks);
PL_EXPORT PLArrayRef PLArrayCreateCopy (PLAllocatorRef allocator, PLArrayRef array);
PL_EXPORT PLMutableArrayRef PLArrayCreateMutable (PLAllocatorRef allocator, PLIndex capacity,
    PLArrayCallBacks const * callBacks);
PL_EXPORT PLMutableArrayRef PLArrayCreateMutableCopy (PLAllocatorRef allocator, PLIndex capacity, PLArrayRef array);
PL_EXPORT PLIndex PLArrayGetCount (PLArrayRef array);
/* Null outside the array. */
PL_EXPORT void const * PLArrayGetValueAtIndex (PLArrayRef array, PLIndex index);
PL_EXPORT void PLArrayGetValues (PLArrayRef array, PLRange range, void const ** values);
PL_EXPORT PLBoolean PLArrayContainsValue (PLArrayRef array, PLRange range, void const * value);
PL_EXPORT PLIndex PLArrayGetFirstIndexOfValue (PLArrayRef array, PLRange range, void const * value);
/* The changes of a mutable array; on an immutable one, or with an index outside, they do nothing. */
PL_EXPORT void PLArrayAppendValue (PLMutableArrayRef array, void const * value);
PL_EXPORT void PLArrayInsertValueAtIndex (PLMutableArrayRef array, PLIndex index, void const * value);
PL_EXPORT void PLArraySetValueAtIndex (PLMutableArrayRef array, PLIndex index, void const * value);
PL_EXPORT void PLArrayRemoveValueAtIndex (PLMutableArrayRef array, PLIndex index);
PL_EXPORT void PLArrayRemoveAllValues (PLMutableArrayRef array);

/* ---- Dictionaries ----------------------------------------------------------------------------*/

/* Keys are never null: setting a null key does nothing, asking for one finds nothing. */
PL_EXPORT PLTypeID PLDictionaryGetTypeID (void);
PL_EXPORT PLDictionaryRef PLDictionaryCreate (PLAllocatorRef allocator, void const ** keys, void const ** values,
    PLIndex count, PLDictionaryKeyCallBacks const * keyCallBacks, PLDictionaryValueCallBacks const * valueCallBacks);
PL_EXPORT PLDictionaryRef PLDictionaryCreateCopy (PLAllocatorRef allocator, PLDictionaryRef dictionary);
/* `capacity` is a hint: 0 means no limit, as any other value. */
PL_EXPORT PLMutableDictionaryRef PLDictionaryCreateMutable (PLAllocatorRef allocator, PLIndex capacity,
    PLDictionaryKeyCallBacks const * keyCallBacks, PLDictionaryValueCallBacks const * valueCallBacks);
PL_EXPORT PLMutableDictionaryRef PLDictionaryCreateMutableCopy (PLAllocatorRef allocator, PLIndex capacity,
    PLDictionaryRef dictionary);
PL_EXPORT PLIndex PLDictionaryGetCount (PLDictionaryRef dictionary);
PL_EXPORT PLBoolean PLDictionaryContainsKey (PLDictionaryRef dictionary, void const * key);
PL_EXPORT PLBoolean PLDictionaryContainsValue (PLDictionaryRef dictionary, void const * value);
/* Borrowed; null when the key is absent. */
PL_EXPORT void const * PLDictionaryGetValue (PLDictionaryRef dictionary, void const * key);
PL_EXPORT PLBoolean PLDictionaryGetValueIfPresent (PLDictionaryRef dictionary, void const * key, void const ** value);
/* Fills either array (null: skipped) with every entry, in the same order for both. */
PL_EXPORT void PLDictionaryGetKeysAndValues (PLDictionaryRef dictionary, void const ** keys, void const ** values);
/* Adds, or replaces the entry of an equal key: the new key and value are stored, the old ones
 * released. */
PL_EXPORT void PLDictionarySetValue (PLMutableDictionaryRef dictionary, void const * key, void const * value);
/* Adds only when the key is absent. */
PL_EXPORT void PLDictionaryAddValue (PLMutableDictionaryRef dictionary, void const * key, void const * value);
PL_EXPORT void PLDictionaryRemoveValue (PLMutableDictionaryRef dictionary, void const * key);
PL_EXPORT void PLDictionaryRemoveAllValues (PLMutableDictionaryRef dictionary);

/* ---- Sets ------------------------------------------------------------------------------------*/

PL_EXPORT PLTypeID PLSetGetTypeID (void);
PL_EXPORT PLSetRef PLSetCreate (PLAllocatorRef allocator, void const ** values, PLIndex count,
    PLSetCallBacks const * callBacks);
PL_EXPORT PLSetRef PLSetCreateCopy (PLAllocatorRef allocator, PLSetRef set);
PL_EXPORT PLMutableSetRef PLSetCreateMutable (PLAllocatorRef allocator, PLIndex capacity,
    PLSetCallBacks const * callBacks);
PL_EXPORT PLMutableSetRef PLSetCreateMutableCopy (PLAllocatorRef allocator, PLIndex capacity, PLSetRef set);
PL_EXPORT PLIndex PLSetGetCount (PLSetRef set);
/* False for null. */
PL_EXPORT PLBoolean PLSetContainsValue (PLSetRef set, void const * value);
/* The member equal to `value`, borrowed, or null. */
PL_EXPORT void const * PLSetGetValue (PLSetRef set, void const * value);
PL_EXPORT void PLSetGetValues (PLSetRef set, void const ** values);
PL_EXPORT void PLSetAddValue (PLMutableSetRef set, void const * value);
PL_EXPORT void PLSetRemoveValue (PLMutableSetRef set, void const * value);
PL_EXPORT void PLSetRemoveAllValues (PLMutableSetRef set);

/* ---- Numbers, booleans, dates ----------------------------------------------------------------*/

typedef enum {
    kPLNumberSInt32Type = 3,
    kPLNumberSInt64Type = 4,
    kPLNumberFloat64Type = 6,
    kPLNumberIntType = 9,
    kPLNumberLongLongType = 11,
    kPLNumberDoubleType = 13,
    /* Integers of 2^63 ... 2^64-1, as property lists carry them; smaller values are SInt64. */
    kPLNumberUInt64Type = 100
} PLNumberType;

PL_EXPORT PLTypeID PLNumberGetTypeID (void);
/* `value` points at a number of `type`; it is kept as a 64-bit integer or a double. */
PL_EXPORT PLNumberRef PLNumberCreate (PLAllocatorRef allocator, PLNumberType type, void const * value);
/* kPLNumberSInt64Type or kPLNumberFloat64Type: what the number holds. */
PL_EXPORT PLNumberType PLNumberGetType (PLNumberRef number);
PL_EXPORT PLBoolean PLNumberIsFloatType (PLNumberRef number);
/* Converts into `type`; false when the conversion lost something (the value is then the nearest). */
PL_EXPORT PLBoolean PLNumberGetValue (PLNumberRef number, PLNumberType type, void * value);
PL_EXPORT PLComparisonResult PLNumberCompare (PLNumberRef x, PLNumberRef y, void * context);

PL_EXPORT PLTypeID PLBooleanGetTypeID (void);
PL_EXPORT extern PLBooleanRef const kPLBooleanTrue;
PL_EXPORT extern PLBooleanRef const kPLBooleanFalse;
PL_EXPORT PLBoolean PLBooleanGetValue (PLBooleanRef boolean);

PL_EXPORT PLTypeID PLDateGetTypeID (void);
PL_EXPORT PLDateRef PLDateCreate (PLAllocatorRef allocator, PLAbsoluteTime time);
PL_EXPORT PLAbsoluteTime PLDateGetAbsoluteTime (PLDateRef date);
PL_EXPORT PLAbsoluteTime PLAbsoluteTimeGetCurrent (void);
/* Seconds between 1970-01-01 and 2001-01-01. */
#define kPLAbsoluteTimeIntervalSince1970 978307200.0

/* ---- URLs ------------------------------------------------------------------------------------*/

typedef enum {
    kPLURLPOSIXPathStyle = 0,
    kPLURLWindowsPathStyle = 2
} PLURLPathStyle;

PL_EXPORT PLTypeID PLURLGetTypeID (void);
/* A file URL of `path` (absolute: "file:///C:/a%20b/c"; UNC: "file://server/share/x"; relative:
 * "a/b" without a scheme). A directory URL ends in "/". Null for an empty path or unknown style. */
PL_EXPORT PLURLRef PLURLCreateWithFileSystemPath (PLAllocatorRef allocator, PLStringRef path,
    PLURLPathStyle style, PLBoolean isDirectory);
/* Null when the text is not a URL this component understands. */
PL_EXPORT PLURLRef PLURLCreateWithString (PLAllocatorRef allocator, PLStringRef text, PLURLRef base);
/* The URL's text. */
PL_EXPORT PLStringRef PLURLGetString (PLURLRef url);
/* The path again, in `style`, without the trailing separator of a directory (except a root). */
PL_EXPORT PLStringRef PLURLCopyFileSystemPath (PLURLRef url, PLURLPathStyle style);
PL_EXPORT PLBoolean PLURLHasDirectoryPath (PLURLRef url);

/* ---- Preferences -----------------------------------------------------------------------------*/

/* The running program: its executable's name without the extension. */
PL_EXPORT extern PLStringRef const kPLPreferencesCurrentApplication;
/* Owned value, or null when the key has none. */
PL_EXPORT PLTypeRef PLPreferencesCopyAppValue (PLStringRef key, PLStringRef applicationID);
/* Sets `key` for this process at once; null removes it. Synchronize makes it lasting. Values are
 * strings, data, numbers, booleans, dates, arrays and dictionaries with string keys. */
PL_EXPORT void PLPreferencesSetAppValue (PLStringRef key, PLTypeRef value, PLStringRef applicationID);
/* Writes this process's changes into the application's file and reads back what is there now. */
PL_EXPORT PLBoolean PLPreferencesAppSynchronize (PLStringRef applicationID);
/* The keys that have a value, or null when there are none. */
PL_EXPORT PLArrayRef PLPreferencesCopyKeyList (PLStringRef applicationID);

/* ---- Streams ---------------------------------------------------------------------------------*/

/* A stream on a file: created on a URL, opened once, closed by PLReadStreamClose or
 * PLWriteStreamClose or by the last PLRelease. A write stream writes a new file beside its file
 * and, when it is closed without a failure, moves it into the file's place whole: a shorter file
 * over a longer one leaves no tail, and a stream that failed (a write that failed, a property
 * list that couldn't be written) leaves the file that was there as it was. Opening a write stream
 * fails on a directory, a read-only file and a path in a missing directory. A device or a pipe is
 * written in place. A stream that failed, or was closed, reads and writes nothing more. */
/* NOLINTBEGIN(bugprone-reserved-identifier): the interface's own names of its opaque kinds */
typedef struct __PLReadStream __PLReadStream;
typedef struct __PLWriteStream __PLWriteStream;
/* NOLINTEND(bugprone-reserved-identifier) */
typedef __PLReadStream * PLReadStreamRef;
typedef __PLWriteStream * PLWriteStreamRef;

PL_EXPORT PLTypeID PLReadStreamGetTypeID (void);
PL_EXPORT PLTypeID PLWriteStreamGetTypeID (void);
/* Null when `url` is not a file URL. Nothing is opened yet. */
PL_EXPORT PLReadStreamRef PLReadStreamCreateWithFile (PLAllocatorRef allocator, PLURLRef url);
PL_EXPORT PLWriteStreamRef PLWriteStreamCreateWithFile (PLAllocatorRef allocator, PLURLRef url);
/* True when the file is open now; false when it can't be opened or the stream was opened before. */
PL_EXPORT PLBoolean PLReadStreamOpen (PLReadStreamRef stream);
PL_EXPORT PLBoolean PLWriteStreamOpen (PLWriteStreamRef stream);
/* The bytes read (0 at the end of the file) or written (all of `length`), or -1 on failure. */
PL_EXPORT PLIndex PLReadStreamRead (PLReadStreamRef stream, uint8_t * buffer, PLIndex length);
PL_EXPORT PLIndex PLWriteStreamWrite (PLWriteStreamRef stream, uint8_t const * buffer, PLIndex length);
PL_EXPORT void PLReadStreamClose (PLReadStreamRef stream);
PL_EXPORT void PLWriteStreamClose (PLWriteStreamRef stream);

/* ---- Property lists --------------------------------------------------------------------------*/

/* Formats, as plistlib's FMT_XML and FMT_BINARY; see the README. */
typedef enum {
    kPLPropertyListXMLFormat = 100,
    kPLPropertyListBinaryFormat = 200
} PLPropertyListFormat;

/* Read options: what the result may change. Leaves are data (strings, numbers, dates and booleans
 * have no mutable form). */
enum {
    kPLPropertyListImmutable = 0,
    kPLPropertyListMutableContainers = 1,
    kPLPropertyListMutableContainersAndLeaves = 2
};

/* The readers take untrusted bytes: anything but one well-formed property list gives null, and
 * nothing stays allocated. The format is detected. When `format` is not null it receives the
 * format read; when `errorString` is not null it receives, on failure, an owned one-line reason
 * (and null on success). */
PL_EXPORT PLTypeRef PLPropertyListCreateWithData (PLAllocatorRef allocator, PLDataRef data, PLOptionFlags options,
    PLPropertyListFormat * format, PLStringRef * errorString);
/* Reads the open stream to its end, or `streamLength` bytes when that isn't 0. */
PL_EXPORT PLTypeRef PLPropertyListCreateWithStream (PLAllocatorRef allocator, PLReadStreamRef stream,
    PLIndex streamLength, PLOptionFlags options, PLPropertyListFormat * format, PLStringRef * errorString);
/* The encoding of `propertyList` in `format`, or null when it can't be written: a kind that
 * property lists don't hold, a key that isn't a string, a container holding itself, nesting
 * deeper than 512, a date outside years 1 to 9999, text that the format can't hold. `options`
 * must be 0. */
PL_EXPORT PLDataRef PLPropertyListCreateData (PLAllocatorRef allocator, PLTypeRef propertyList,
    PLPropertyListFormat format, PLOptionFlags options, PLStringRef * errorString);
/* Writes to an open stream; the number of bytes written, or 0 on failure. */
PL_EXPORT PLIndex PLPropertyListWrite (PLTypeRef propertyList, PLWriteStreamRef stream, PLPropertyListFormat format,
    PLOptionFlags options, PLStringRef * errorString);
/* True when `propertyList` can be written in `format`. */
PL_EXPORT PLBoolean PLPropertyListIsValid (PLTypeRef propertyList, PLPropertyListFormat format);

#ifdef __cplusplus
}
#endif

#endif
