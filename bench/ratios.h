// Benchmarks that are compared with each other in the same run.
#ifndef BENCH_RATIOS_H
#define BENCH_RATIOS_H

#include <string>

namespace bench
{

// Runs what is registered, 21 repetitions in random order unless Google Benchmark's own options say
// otherwise, and prints after the table each median's ratio to that of `base`, a function. For `main`, with
// its result.
int runWithRatios(int argc, char** argv, const std::string& base);

} // namespace bench

#endif
