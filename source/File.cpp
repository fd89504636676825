// File handles and streams, mappings of whole files, attribute flags, safe names, object
// identifiers, volumes and drives (Skerry::File).

#include <LibSkerry/File>
#include <LibSkerry/ArrayBuffer>
#include <LibSkerry/Exceptions>

#include <windows.h>
#include <shlwapi.h>
#include <winioctl.h>

#include <cstring>
#include <cwctype>
#include <string>

namespace Skerry {
namespace File {

namespace {

// The largest file that a whole-file read takes: the size must fit a signed 32-bit number.
const __int64 kLargestWholeRead = 0x7FFFFFFF;

// What an owner of a kernel handle does with what CreateFileW gave: owns a good handle, or keeps
// the reason of the failure and raises it when asked to.
void ConstructHandle (bool valid, bool throwOnFailure, unsigned long & createError, bool & invalid)
{
    SKERRY_SITE ("Skerry::File::Handle::Handle");
    if (valid) {
        invalid = false;
        return;
    }
    createError = ::GetLastError ();
    if (throwOnFailure)
        SKERRY_THROW_WIN32 (createError);
}

// The protection of the mapping and the access of its view. Both look at FILE_READ_DATA and
// FILE_WRITE_DATA only, the specific rights: a generic right alone carries neither.
unsigned long GetProtection (unsigned long fileAccess, bool executable)
{
    SKERRY_SITE ("GetProtection");
    SKERRY_ASSERT (FILE_READ_DATA & fileAccess);
    bool write = (FILE_WRITE_DATA & fileAccess) != 0;
    if (executable)
        return write ? PAGE_EXECUTE_READWRITE : PAGE_EXECUTE_READ;
    return write ? PAGE_READWRITE : PAGE_READONLY;
}

unsigned long GetMapAccess (unsigned long fileAccess)
{
    SKERRY_SITE ("GetMapAccess");
    SKERRY_ASSERT (FILE_READ_DATA & fileAccess);
    return (FILE_WRITE_DATA & fileAccess) != 0 ? FILE_MAP_WRITE : FILE_MAP_READ;
}

// A view of the whole mapping from its start.
void * MapWhole (void * mapping, unsigned long access)
{
    return ::MapViewOfFile (mapping, access, 0, 0, 0);
}

// Runs its step when it leaves its scope, also while an exception unwinds: Close takes its later
// steps this way, as a destroyed object's members and bases are destroyed after a failed body.
template <typename Step>
struct ClosingStep {
    Step fStep;
    ~ClosingStep () noexcept (false) { fStep (); }
};

template <typename Step>
ClosingStep<Step> Later (Step step)
{
    return ClosingStep<Step> { step };
}

}

Handle::Handle (const wchar_t * path, unsigned long access, unsigned long share, unsigned long disposition,
    unsigned long flags, bool throwOnFailure)
    : Skerry::Handle (::CreateFileW (path, access, share, NULL, disposition, flags, NULL)), fCreateError (0)
{
    ConstructHandle (fHandle != INVALID_HANDLE_VALUE, throwOnFailure, fCreateError, fInvalid);
}

Handle::Handle (const std::wstring & path, unsigned long access, unsigned long share, unsigned long disposition,
    unsigned long flags, bool throwOnFailure)
    : Handle (path.c_str (), access, share, disposition, flags, throwOnFailure)
{
}

Handle::Handle (const Handle & other)
    : Skerry::Handle (other), fCreateError (other.fCreateError)
{
}

Handle & Handle::operator = (const Handle & other)
{
    Skerry::Handle::operator = (other);
    fCreateError = other.fCreateError;
    return *this;
}

Handle::~Handle () noexcept (false) = default;

void Handle::Close ()
{
    CloseIfOwned ();
}

Stream::Stream (const wchar_t * path, unsigned long access, unsigned long share, unsigned long disposition,
    unsigned long flags, bool throwOnFailure)
    : Handle (path, access, share, disposition, flags, throwOnFailure)
{
}

Stream::Stream (const std::wstring & path, unsigned long access, unsigned long share, unsigned long disposition,
    unsigned long flags, bool throwOnFailure)
    : Handle (path, access, share, disposition, flags, throwOnFailure)
{
}

Stream::Stream (const Stream & other) = default;

Stream & Stream::operator = (const Stream & other)
{
    Handle::operator = (other);
    return *this;
}

Stream::~Stream () noexcept (false) = default;

unsigned long Stream::Read (void * buffer, unsigned long count)
{
    SKERRY_SITE ("Skerry::File::Stream::Read");
    DWORD read = 0;
    if (! ::ReadFile (fHandle, buffer, count, &read, NULL))
        SKERRY_THROW_WIN32 (::GetLastError ());
    return read;
}

// One read of the size found first: a file that grew meanwhile gives its first bytes, one that
// shrank gives what there was. The bytes are read into a block of our own and copied once into
// the data, which can't be handed a block to adopt.
PlinthData Stream::Read ()
{
    __int64 size = GetSize ();
    SKERRY_SITE ("Skerry::File::Stream::Read");
    if (size > kLargestWholeRead)
        SKERRY_THROW_SKERRY (9);
    ArrayBuffer<void> buffer (::operator new (size_t (size)));
    unsigned long read = Read (buffer, static_cast<unsigned long> (size));
    return PlinthData (PLDataCreate (kPLAllocatorDefault, static_cast<uint8_t const *> (static_cast<void *> (buffer)),
                           PLIndex (read)),
        false);
}

unsigned long Stream::Write (const void * buffer, unsigned long count)
{
    SKERRY_SITE ("Skerry::File::Stream::Write");
    DWORD written = 0;
    if (! ::WriteFile (fHandle, buffer, count, &written, NULL))
        SKERRY_THROW_WIN32 (::GetLastError ());
    return written;
}

__int64 Stream::SetPointer (__int64 offset, unsigned long method)
{
    SKERRY_SITE ("Skerry::File::Stream::SetPointer");
    LARGE_INTEGER distance, position;
    distance.QuadPart = offset;
    if (! ::SetFilePointerEx (fHandle, distance, &position, method))
        SKERRY_THROW_WIN32 (::GetLastError ());
    return position.QuadPart;
}

__int64 Stream::GetPointer ()
{
    return SetPointer (0, FILE_CURRENT);
}

__int64 Stream::GetSize ()
{
    SKERRY_SITE ("Skerry::File::Stream::GetSize");
    LARGE_INTEGER size;
    if (! ::GetFileSizeEx (fHandle, &size))
        SKERRY_THROW_WIN32 (::GetLastError ());
    return size.QuadPart;
}

_GUID Stream::CreateOrGetObjectID ()
{
    return File::CreateOrGetObjectID (fHandle);
}

Stream::VolumeInfo Stream::GetVolumeInfo ()
{
    return VolumeInfo (fHandle);
}

// The mapping is created while the members are built, so that the unwinding of a failed
// construction closes it (once Construct owns it) before the file.
MappingBase::MappingBase (const wchar_t * path, unsigned long fileAccess, unsigned long disposition,
    unsigned long flags, bool executable, bool throwOnFailure)
    : Handle (path, fileAccess, 0, disposition, flags, throwOnFailure),
      fMapping (::CreateFileMappingW (fHandle, NULL, GetProtection (fileAccess, executable), 0, 0, NULL)),
      fSize (0), fView (NULL), fViewAccess (0)
{
    Construct (fileAccess, executable);
}

MappingBase::MappingBase (const std::wstring & path, unsigned long fileAccess, unsigned long disposition,
    unsigned long flags, bool executable, bool throwOnFailure)
    : MappingBase (path.c_str (), fileAccess, disposition, flags, executable, throwOnFailure)
{
}

void MappingBase::Construct (unsigned long fileAccess, bool executable)
{
    SKERRY_SITE ("Skerry::File::MappingBase::Construct");
    if (fMapping.Raw () == NULL)
        SKERRY_THROW_WIN32 (::GetLastError ());
    fMapping.Own ();
    LARGE_INTEGER size;
    if (! ::GetFileSizeEx (fHandle, &size))
        SKERRY_THROW_WIN32 (::GetLastError ());
    fSize = size.QuadPart;
    fViewAccess = executable ? FILE_MAP_EXECUTE : GetMapAccess (fileAccess);
    fView = MapWhole (fMapping.Raw (), fViewAccess);
    if (fView == NULL)
        SKERRY_THROW_WIN32 (::GetLastError ());
}

// A view is unmapped once only, so a copy maps one of its own over its duplicated mapping.
MappingBase::MappingBase (const MappingBase & other)
    : Handle (other), fMapping (other.fMapping), fSize (other.fSize), fView (NULL), fViewAccess (other.fViewAccess)
{
    SKERRY_SITE ("Skerry::File::MappingBase::MappingBase");
    if (other.fView != NULL && (fView = MapWhole (fMapping.Raw (), fViewAccess)) == NULL)
        SKERRY_THROW_WIN32 (::GetLastError ());
}

// The new view comes first, from the source's mapping, so that a failure to map it changes
// nothing; a failed assignment of a handle gives it back. The old view goes last.
MappingBase & MappingBase::operator = (const MappingBase & other)
{
    SKERRY_SITE ("Skerry::File::MappingBase::operator =");
    if (&other == this)
        return *this;
    void * view = NULL;
    if (other.fView != NULL && (view = MapWhole (other.fMapping.Raw (), other.fViewAccess)) == NULL)
        SKERRY_THROW_WIN32 (::GetLastError ());
    try {
        Handle::operator = (other);
        fMapping = other.fMapping;
    }
    catch (...) {
        if (view != NULL)
            ::UnmapViewOfFile (view);
        throw;
    }
    void * old = fView;
    fView = view;
    fSize = other.fSize;
    fViewAccess = other.fViewAccess;
    if (old != NULL && ! ::UnmapViewOfFile (old))
        SKERRY_THROW_WIN32 (::GetLastError ());
    return *this;
}

// The body unmaps; the member fMapping then closes the mapping and the base the file, also when
// the unmap failed.
MappingBase::~MappingBase () noexcept (false)
{
    UnmapView ();
}

void MappingBase::Close ()
{
    auto file = Later ([this] { Handle::Close (); });
    auto mapping = Later ([this] { fMapping.Close (); });
    UnmapView ();
}

void MappingBase::UnmapView ()
{
    if (fView == NULL)
        return;
    void * view = fView;
    fView = NULL;
    if (! ::UnmapViewOfFile (view))
        RaiseUnlessUnwinding ("Skerry::File::MappingBase::~MappingBase", __FILE__, __LINE__, ::GetLastError ());
}

Attributes::Attributes (const wchar_t * path)
    : fPath (path), fAttributes (::GetFileAttributesW (fPath.c_str ()))
{
    SKERRY_SITE ("Skerry::File::Attributes::Attributes");
    if (fAttributes == INVALID_FILE_ATTRIBUTES)
        SKERRY_THROW_WIN32 (::GetLastError ());
}

Attributes::Attributes (const std::wstring & path)
    : Attributes (path.c_str ())
{
}

bool Attributes::EnsureFlagsAreSet (unsigned long flags)
{
    return Change (fAttributes | flags, "Skerry::File::Attributes::EnsureFlagsAreSet");
}

bool Attributes::EnsureFlagsAreClear (unsigned long flags)
{
    return Change (fAttributes & ~flags, "Skerry::File::Attributes::EnsureFlagsAreClear");
}

// The whole value is written, from the cache: what another party changed meanwhile is overwritten.
bool Attributes::Change (unsigned long attributes, char const * function)
{
    SKERRY_SITE (function);
    if (attributes == fAttributes)
        return false;
    if (! ::SetFileAttributesW (fPath.c_str (), attributes))
        SKERRY_THROW_WIN32 (::GetLastError ());
    fAttributes = attributes;
    return true;
}

SanitizedName::SanitizedName (const wchar_t * source, unsigned int sourceLength, unsigned int maxLength)
{
    Construct (source, sourceLength, maxLength);
}

SanitizedName::SanitizedName (const std::wstring & source, unsigned int maxLength)
{
    Construct (source.c_str (), static_cast<unsigned int> (source.size ()), maxLength);
}

// The rules are applied once, in this order; nothing is refused but a source without a first
// character, and whatever has to go is marked by an ellipsis in the last place.
void SanitizedName::Construct (const wchar_t * source, unsigned int sourceLength, unsigned int maxLength)
{
    SKERRY_SITE ("Skerry::File::SanitizedName::Construct");
    if (sourceLength == 0 || maxLength == 0)
        return;
    SKERRY_ASSERT (source && *source);
    // The walk looks at the characters, so it ends at the terminator at the latest; a length
    // shorter than the white space it passes leaves nothing.
    unsigned int length = sourceLength;
    for (; std::iswspace (*source); ++source)
        if (length > 0)
            --length;
    bool ellipsis = false;
    bool cut = length > maxLength;
    if (cut) {
        length = maxLength;
        ellipsis = true;
    }
    unsigned int run = 0;
    bool dot = false;
    for (; run < length; ++run) {
        wchar_t c = source [length - 1 - run];
        if (c == L'.')
            dot = true;
        else if (! std::iswspace (c))
            break;
    }
    if (run > 0 && (dot || cut)) {
        length = length - run + 1;
        ellipsis = true;
    }
    else
        length -= run;
    ArrayBuffer<wchar_t> name (length + 1);
    wchar_t * out = name;
    for (unsigned int i = 0; i < length; ++i)
        out [i] = (::PathGetCharTypeW (source [i]) & GCT_LFNCHAR) != 0 ? source [i] : L'_';
    if (ellipsis)
        out [length - 1] = L'\u2026';
    assign (out, length);
}

_GUID CreateOrGetObjectID (void * handle)
{
    SKERRY_SITE ("Skerry::File::CreateOrGetObjectID");
    FILE_OBJECTID_BUFFER buffer;
    DWORD returned = 0;
    if (! ::DeviceIoControl (handle, FSCTL_CREATE_OR_GET_OBJECT_ID, NULL, 0, &buffer, sizeof buffer, &returned, NULL))
        SKERRY_THROW_WIN32 (::GetLastError ());
    if (returned != sizeof buffer)
        SKERRY_THROW_STRING ("unexpected buffer size");
    _GUID id;
    std::memcpy (&id, buffer.ObjectId, sizeof id);
    return id;
}

HiddenVectorOfStrings::HiddenVectorOfStrings () = default;
HiddenVectorOfStrings::HiddenVectorOfStrings (const HiddenVectorOfStrings & other) = default;
HiddenVectorOfStrings & HiddenVectorOfStrings::operator = (const HiddenVectorOfStrings & other) = default;
HiddenVectorOfStrings::~HiddenVectorOfStrings () = default;

// The caller keeps the index in range; one that isn't is refused rather than read past the end.
const std::wstring & HiddenVectorOfStrings::operator [] (unsigned int index) const
{
    SKERRY_SITE ("Skerry::File::HiddenVectorOfStrings::operator []");
    SKERRY_ASSERT (index < fStrings.size ());
    return fStrings [index];
}

unsigned int HiddenVectorOfStrings::size () const
{
    return unsigned (fStrings.size ());
}

namespace {

// Closes the walk of Volumes; the function named by a failure is the constructor's.
void CloseVolumeWalk (HANDLE find)
{
    SKERRY_SITE ("Skerry::File::Volumes::Volumes");
    if (! ::FindVolumeClose (find))
        SKERRY_THROW_WIN32 (::GetLastError ());
}

}

// The names gathered so far go with the unwinding of a failed walk; the find handle is closed
// first, and a failure to close it takes the place of the failure that ended the walk.
Volumes::Volumes ()
{
    SKERRY_SITE ("Skerry::File::Volumes::Volumes");
    wchar_t name [MAX_PATH];
    HANDLE find = ::FindFirstVolumeW (name, MAX_PATH);
    if (find == INVALID_HANDLE_VALUE)
        SKERRY_THROW_WIN32 (::GetLastError ());
    try {
        do
            fStrings.push_back (name);
        while (::FindNextVolumeW (find, name, MAX_PATH));
        DWORD error = ::GetLastError ();
        if (error != ERROR_NO_MORE_FILES)
            SKERRY_THROW_WIN32 (error);
    }
    catch (...) {
        CloseVolumeWalk (find);
        throw;
    }
    CloseVolumeWalk (find);
}

// The first call tells the room needed, terminators included; a fill that reports more than it
// was given found a new drive in between, and is made again with the room it reports.
LogicalDrives::LogicalDrives ()
{
    SKERRY_SITE ("Skerry::File::LogicalDrives::LogicalDrives");
    DWORD room = ::GetLogicalDriveStringsW (0, NULL);
    for (;;) {
        if (room == 0)
            SKERRY_THROW_WIN32 (::GetLastError ());
        ArrayBuffer<wchar_t> buffer (room);
        DWORD length = ::GetLogicalDriveStringsW (room, buffer);
        if (length == 0)
            SKERRY_THROW_WIN32 (::GetLastError ());
        if (length > room) {
            room = length;
            continue;
        }
        // A drive gone in between leaves a shorter list, still ended by an empty string.
        const wchar_t * end = buffer + length;
        for (const wchar_t * drive = buffer; drive < end && *drive != L'\0'; drive += std::wcslen (drive) + 1)
            fStrings.push_back (drive);
        return;
    }
}

namespace {

// A handle tells only its volume's serial number. The last volume listed is asked first, so that
// it wins among volumes of one number; one without its medium is passed over.
std::wstring GetVolumeForSerialNumber (unsigned long serialNumber)
{
    SKERRY_SITE ("GetVolumeForSerialNumber");
    Volumes volumes;
    for (unsigned int i = volumes.size (); i-- > 0;) {
        DWORD serial = 0;
        if (::GetVolumeInformationW (volumes [i].c_str (), NULL, 0, &serial, NULL, NULL, NULL, 0)) {
            if (serial == serialNumber)
                return volumes [i];
            continue;
        }
        DWORD error = ::GetLastError ();
        if (error != ERROR_NOT_READY)
            SKERRY_THROW_WIN32 (error);
    }
    SKERRY_THROW_WIN32 (ERROR_NO_VOLUME_ID);
}

// Room for a label or a file system's name: MAX_PATH and one more.
const DWORD kVolumeTextRoom = MAX_PATH + 1;

}

Stream::VolumeInfo::VolumeInfo (void * handle)
    : fSerialNumber (0), fMaximumComponentLength (0), fFileSystemFlags (0)
{
    SKERRY_SITE ("Skerry::File::Stream::VolumeInfo::VolumeInfo");
    BY_HANDLE_FILE_INFORMATION record;
    if (! ::GetFileInformationByHandle (handle, &record))
        SKERRY_THROW_WIN32 (::GetLastError ());
    std::wstring volume = GetVolumeForSerialNumber (record.dwVolumeSerialNumber);
    wchar_t label [kVolumeTextRoom], system [kVolumeTextRoom];
    if (! ::GetVolumeInformationW (volume.c_str (), label, kVolumeTextRoom, &fSerialNumber, &fMaximumComponentLength,
            &fFileSystemFlags, system, kVolumeTextRoom))
        SKERRY_THROW_WIN32 (::GetLastError ());
    fVolumeName = label;
    fFileSystemName = system;
}

}
}
