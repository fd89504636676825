// Read and write streams on files. A stream keeps its URL from creation; opening opens the file;
// the last release, or Close, closes it. A write stream writes a sibling of the file and, when it
// is closed without a failure, puts it in the file's place whole (FileAccess.h): a failed write
// stream leaves the file that was there as it was. A failed read or write leaves the stream
// failed, and a failed or closed stream does nothing more.
#include "FileAccess.h"

using namespace Plinth;

namespace {

enum class State : uint8_t { kCreated, kOpen, kFailed, kClosed };

struct Stream : Object {
    PLURLRef fURL;
    PlatformFile * fFile;
    State fState;
};

void Close (Stream * stream)
{
    if (stream->fFile != nullptr)
        PlatformCloseFile (stream->fFile, stream->fState == State::kOpen);
    stream->fFile = nullptr;
    stream->fState = State::kClosed;
}

void FinalizeStream (Object * object)
{
    Stream * stream = static_cast<Stream *> (object);
    Close (stream);
    PLRelease (stream->fURL);
}

PLStringRef DescribeStream (Object const * object)
{
    Stream const * stream = static_cast<Stream const *> (object);
    static char const * const kStates [] = { "not open", "open", "failed", "closed" };
    UnitBuffer text;
    text.AppendASCII (object->fClass->fTypeID == kReadStreamType ? "<PLReadStream " : "<PLWriteStream ");
    text.AppendString (PLURLGetString (stream->fURL));
    text.AppendASCII (", ");
    text.AppendASCII (kStates [int (stream->fState)]);
    text.AppendASCII (">");
    return text.CreateString (kPLAllocatorDefault);
}

Class const kReadStreamClass = { kReadStreamType, "PLReadStream", FinalizeStream, nullptr, nullptr, DescribeStream };
Class const kWriteStreamClass = { kWriteStreamType, "PLWriteStream", FinalizeStream, nullptr, nullptr, DescribeStream };

Stream * Create (PLAllocatorRef allocator, PLURLRef url, Class const & kind)
{
    if (! IsKind (url, kURLType))
        return nullptr;
    Stream * stream = NewObject<Stream> (allocator, kind);
    if (stream != nullptr)
        stream->fURL = static_cast<PLURLRef> (PLRetain (url));
    return stream;
}

bool Open (Stream * stream, bool forWriting)
{
    if (stream == nullptr || stream->fState != State::kCreated)
        return false;
    PLStringRef path = PLURLCopyFileSystemPath (stream->fURL, PlatformPathStyle ());
    stream->fFile = path == nullptr ? nullptr : PlatformOpenFile (path, forWriting);
    PLRelease (path);
    stream->fState = stream->fFile != nullptr ? State::kOpen : State::kFailed;
    return stream->fFile != nullptr;
}

Stream * AsStream (void const * object, PLTypeID type) { return As<Stream> (object, type); }

}

void Plinth::FailWriteStream (PLWriteStreamRef stream)
{
    Stream * s = AsStream (stream, kWriteStreamType);
    if (s != nullptr && s->fState == State::kOpen)
        s->fState = State::kFailed;
}

extern "C" {

PLTypeID PLReadStreamGetTypeID (void) { return kReadStreamType; }
PLTypeID PLWriteStreamGetTypeID (void) { return kWriteStreamType; }

PLReadStreamRef PLReadStreamCreateWithFile (PLAllocatorRef allocator, PLURLRef url)
{
    return reinterpret_cast<PLReadStreamRef> (Create (allocator, url, kReadStreamClass));
}

PLWriteStreamRef PLWriteStreamCreateWithFile (PLAllocatorRef allocator, PLURLRef url)
{
    return reinterpret_cast<PLWriteStreamRef> (Create (allocator, url, kWriteStreamClass));
}

PLBoolean PLReadStreamOpen (PLReadStreamRef stream)
{
    return Open (AsStream (stream, kReadStreamType), false);
}

PLBoolean PLWriteStreamOpen (PLWriteStreamRef stream)
{
    return Open (AsStream (stream, kWriteStreamType), true);
}

PLIndex PLReadStreamRead (PLReadStreamRef stream, uint8_t * buffer, PLIndex length)
{
    Stream * s = AsStream (stream, kReadStreamType);
    if (s == nullptr || s->fState != State::kOpen || buffer == nullptr || length < 0)
        return -1;
    PLIndex got = length == 0 ? 0 : PlatformReadFile (s->fFile, buffer, length);
    if (got < 0)
        s->fState = State::kFailed;
    return got;
}

PLIndex PLWriteStreamWrite (PLWriteStreamRef stream, uint8_t const * buffer, PLIndex length)
{
    Stream * s = AsStream (stream, kWriteStreamType);
    if (s == nullptr || s->fState != State::kOpen || (buffer == nullptr && length > 0) || length < 0)
        return -1;
    if (length > 0 && ! PlatformWriteFile (s->fFile, buffer, length)) {
        s->fState = State::kFailed;
        return -1;
    }
    return length;
}

void PLReadStreamClose (PLReadStreamRef stream)
{
    if (Stream * s = AsStream (stream, kReadStreamType))
        Close (s);
}

void PLWriteStreamClose (PLWriteStreamRef stream)
{
    if (Stream * s = AsStream (stream, kWriteStreamType))
        Close (s);
}

}
