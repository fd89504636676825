// libFuzzer target: the binary reader, on inputs that start with the magic so that every one
// reaches it.
#include "FuzzCommon.h"

#include <cstring>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput (uint8_t const * bytes, std::size_t size)
{
    std::vector<uint8_t> input (size + 8);
    std::memcpy (input.data (), "bplist00", 8);
    // Inputs from the seed corpus carry the magic already.
    if (size >= 8 && std::memcmp (bytes, "bplist00", 8) == 0)
        input.assign (bytes, bytes + size);
    else if (size > 0)
        std::memcpy (input.data () + 8, bytes, size);
    PlinthFuzz::ReadEveryWay (input.data (), input.size ());
    return 0;
}
