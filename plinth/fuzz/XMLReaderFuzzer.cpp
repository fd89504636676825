// libFuzzer target: the XML reader (any input that isn't binary goes to it).
#include "FuzzCommon.h"

extern "C" int LLVMFuzzerTestOneInput (uint8_t const * bytes, std::size_t size)
{
    PlinthFuzz::ReadEveryWay (bytes, size);
    return 0;
}
