// The benchmark harness: every benchmark of the project measures through it, so that all print
// the same table. A case runs in batches; the figure is the median time per operation over the
// batches, and each comparison prints the ratio of a library operation to its baseline measured
// in the same run.
#ifndef SKERRY_BENCH_HARNESS
#define SKERRY_BENCH_HARNESS

#ifdef _WIN32
#include <windows.h>
#else
#include <chrono>   // native benchmarks (Plinth's portable core) time with the standard clock
#include <unistd.h>
#endif

#include <algorithm>
#include <cstdio>
#include <string>
#include <utility>
#include <vector>

namespace SkerryBench {

struct Options {
    unsigned fBatches = 15;
    unsigned fOperationsPerBatch = 2000;
};

// A monotonic time in nanoseconds, for differences.
inline double Now ()
{
#ifdef _WIN32
    LARGE_INTEGER frequency, counter;
    ::QueryPerformanceFrequency (&frequency);
    ::QueryPerformanceCounter (&counter);
    return double (counter.QuadPart) * 1e9 / double (frequency.QuadPart);
#else
    return std::chrono::duration<double, std::nano> (std::chrono::steady_clock::now ().time_since_epoch ()).count ();
#endif
}

// The middle one of `values` in order (of an even number, the higher middle one); 0 for none.
inline double MedianOf (std::vector<double> values)
{
    std::sort (values.begin (), values.end ());
    return values.empty () ? 0 : values [values.size () / 2];
}

// Median nanoseconds per operation of `operation`.
template <typename Operation>
double Median (Operation operation, const Options & options = Options ())
{
    for (unsigned i = 0; i < options.fOperationsPerBatch / 10 + 1; ++i)   // warm up
        operation ();
    std::vector<double> perOperation;
    for (unsigned batch = 0; batch < options.fBatches; ++batch) {
        double start = Now ();
        for (unsigned i = 0; i < options.fOperationsPerBatch; ++i)
            operation ();
        perOperation.push_back ((Now () - start) / options.fOperationsPerBatch);
    }
    return MedianOf (perOperation);
}

// The medians of two operations of nearly the same cost, measured in alternating batches, so that
// a machine whose speed drifts meanwhile (other load, an emulator) weighs on both alike.
template <typename Library, typename Baseline>
std::pair<double, double> AlternatingMedians (Library library, Baseline baseline, const Options & options = Options ())
{
    std::vector<double> perOperation [2];
    for (unsigned batch = 0; batch <= options.fBatches; ++batch)   // the first batch of each warms up
        for (int which = 0; which < 2; ++which) {
            double start = Now ();
            for (unsigned i = 0; i < options.fOperationsPerBatch; ++i)
                which == 0 ? library () : baseline ();
            if (batch > 0)
                perOperation [which].push_back ((Now () - start) / options.fOperationsPerBatch);
        }
    for (std::vector<double> & times : perOperation)
        std::sort (times.begin (), times.end ());
    return { perOperation [0] [options.fBatches / 2], perOperation [1] [options.fBatches / 2] };
}

// Runs `body` with at least `depth` frames of this function below it: stack captures and traces
// then find as many frames as they take at most.
template <typename Body>
__attribute__ ((noinline)) void AtDepth (int depth, Body body)
{
    if (depth > 0) {
        AtDepth (depth - 1, body);
        asm volatile ("" ::: "memory");    // keeps the recursion a real call, not a loop
    }
    else
        body ();
}

// Runs this program again with `argument` and gives the numbers that the new process prints, for
// what only a fresh process costs (first use of a service, the peak memory of one job). The
// program's main answers `argument` by doing that one job and printing its figures.
inline std::vector<double> InFreshProcess (const char * argument)
{
#ifdef _WIN32
    char self [MAX_PATH];
    ::GetModuleFileNameA (NULL, self, MAX_PATH);
    // cmd /c drops the first and the last quote of its command: one more pair keeps the others.
    std::string command = "\"\"" + std::string (self) + "\" " + argument + "\"";
    FILE * pipe = ::_popen (command.c_str (), "r");
#else
    char self [4096];
    ssize_t length = ::readlink ("/proc/self/exe", self, sizeof self - 1);
    self [length > 0 ? length : 0] = 0;
    std::string command = "\"" + std::string (self) + "\" " + argument;
    FILE * pipe = ::popen (command.c_str (), "r");
#endif
    std::vector<double> figures;
    if (pipe == nullptr)
        return figures;
    for (double figure; std::fscanf (pipe, "%lf", &figure) == 1;)
        figures.push_back (figure);
#ifdef _WIN32
    ::_pclose (pipe);
#else
    ::pclose (pipe);
#endif
    return figures;
}

inline void Header (const char * title)
{
    std::printf ("\n%s\n%-52s %12s %12s %8s %8s\n", title, "case", "library ns", "baseline ns", "ratio", "target");
}

// Prints one comparison; gives false when the ratio misses its target.
inline bool Report (const char * name, double library, double baseline, double target)
{
    double ratio = library / baseline;
    std::printf ("%-52s %12.0f %12.0f %7.2fx %7.2fx%s\n", name, library, baseline, ratio, target,
        ratio <= target ? "" : "  (over target)");
    std::fflush (stdout);
    return ratio <= target;
}

// Prints a comparison that explains another one and has no target of its own.
inline void Breakdown (const char * name, double library, double baseline)
{
    std::printf ("  %-50s %12.0f %12.0f %7.2fx\n", name, library, baseline, library / baseline);
    std::fflush (stdout);
}

}

#endif
