// The typed pointer array against the platform's array used by hand and against std::vector, in
// one run: one job is 100,000 insertions of a block each, a full walk that reads every value, and
// the release of everything. All three allocate and free the same blocks; what differs is the
// array and its checks (the library's calls from the caller's module, an index check per access,
// and the release through the platform's enumeration).
#include <LibSkerry/DynamicPointerArray>

#include "Harness.h"

#include <windows.h>
#include <commctrl.h>

#include <cstdlib>
#include <vector>

namespace {

constexpr int kBlocks = 100000;

long long sSum = 0;

void Typed ()
{
    Skerry::DynamicPointerArray<int> array;
    for (int i = 0; i < kBlocks; ++i)
        array.Append (i);
    for (int value : array)
        sSum += value;
}

void RawPlatform ()
{
    HDPA array = ::DPA_Create (Skerry::DynamicPointerArray<int>::kDefaultGrowth);
    for (int i = 0; i < kBlocks; ++i) {
        int * block = static_cast<int *> (std::malloc (sizeof (int)));
        *block = i;
        ::DPA_InsertPtr (array, DA_LAST, block);
    }
    for (int i = 0; i < kBlocks; ++i)
        sSum += *static_cast<int *> (::DPA_GetPtr (array, i));
    for (int i = 0; i < kBlocks; ++i)
        std::free (::DPA_GetPtr (array, i));
    ::DPA_Destroy (array);
}

void Vector ()
{
    std::vector<int *> array;
    for (int i = 0; i < kBlocks; ++i) {
        int * block = static_cast<int *> (std::malloc (sizeof (int)));
        *block = i;
        array.push_back (block);
    }
    for (int * block : array)
        sSum += *block;
    for (int * block : array)
        std::free (block);
}

}

int main ()
{
    SkerryBench::Options options;
    options.fBatches = 7;
    options.fOperationsPerBatch = 1;
    SkerryBench::Header ("DynamicPointerArray<int>: 100,000 insertions, a full walk and the release, per job");
    std::pair<double, double> platform = SkerryBench::AlternatingMedians (Typed, RawPlatform, options);
    SkerryBench::Report ("typed array vs DPA_InsertPtr + DPA_GetPtr", platform.first, platform.second, 1.2);
    std::pair<double, double> vector = SkerryBench::AlternatingMedians (Typed, Vector, options);
    SkerryBench::Report ("typed array vs std::vector<int *>", vector.first, vector.second, 1.5);
    std::pair<double, double> noise = SkerryBench::AlternatingMedians (RawPlatform, RawPlatform, options);
    SkerryBench::Breakdown ("noise floor: the raw job against itself", noise.first, noise.second);
    return sSum == 0;
}
