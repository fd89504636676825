// libFuzzer target: whatever reads is written and read again. The binary format gives back an
// equal value; XML (which drops fractions of seconds) gives back a value that writes the same
// bytes again.
#include "FuzzCommon.h"

#include <cstring>

namespace {

PLDataRef Write (PLTypeRef value, PLPropertyListFormat format)
{
    return PLPropertyListCreateData (kPLAllocatorDefault, value, format, 0, nullptr);
}

bool SameBytes (PLDataRef x, PLDataRef y)
{
    return PLDataGetLength (x) == PLDataGetLength (y)
        && std::memcmp (PLDataGetBytePtr (x), PLDataGetBytePtr (y), std::size_t (PLDataGetLength (x))) == 0;
}

}

extern "C" int LLVMFuzzerTestOneInput (uint8_t const * bytes, std::size_t size)
{
    using PlinthFuzz::Require;
    PLIndex before = PLDebugGetLiveObjectCount ();
    PLTypeRef value = PlinthFuzz::Read (bytes, size, 0);
    if (value != nullptr) {
        // Everything that reads can be written in binary, and reads back equal.
        PLDataRef binary = Write (value, kPLPropertyListBinaryFormat);
        Require (binary != nullptr);
        PLTypeRef again = PLPropertyListCreateWithData (kPLAllocatorDefault, binary, 0, nullptr, nullptr);
        Require (again != nullptr && PLEqual (value, again));
        PLDataRef twice = Write (again, kPLPropertyListBinaryFormat);
        Require (SameBytes (binary, twice));
        PLRelease (twice);
        PLRelease (again);
        PLRelease (binary);
        // XML may refuse text it can't hold; what it writes reads and writes the same again.
        PLDataRef xml = Write (value, kPLPropertyListXMLFormat);
        if (xml != nullptr) {
            PLTypeRef back = PLPropertyListCreateWithData (kPLAllocatorDefault, xml, 0, nullptr, nullptr);
            Require (back != nullptr);
            PLDataRef xmlAgain = Write (back, kPLPropertyListXMLFormat);
            Require (xmlAgain != nullptr && SameBytes (xml, xmlAgain));
            PLRelease (xmlAgain);
            PLRelease (back);
            PLRelease (xml);
        }
        PLRelease (value);
    }
    Require (PLDebugGetLiveObjectCount () == before);
    return 0;
}
