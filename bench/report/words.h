// Figures as a reader sees them.
#ifndef BENCH_REPORT_WORDS_H
#define BENCH_REPORT_WORDS_H

#include <optional>
#include <string>

#include "bench/report/results.h"

namespace bench
{

// Three digits, or all those before the point: "0.0412", "8.31", "17200".
std::string digits(double value);
std::string withUnit(double value, const std::string& unit);

// The cells of a line: what, ours, limit, ratio, ratio of the processor time, peer, ratio, goal.
std::vector<std::string> cellsOf(const Result& result);
std::vector<std::string> headings();

// What it was measured on, a sentence each: processor, memory, system, build.
std::vector<std::string> machine();

} // namespace bench

#endif
