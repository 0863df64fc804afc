// The figures of a run: medians of what the programs of the rows have measured.
#ifndef BENCH_REPORT_RESULTS_H
#define BENCH_REPORT_RESULTS_H

#include <filesystem>
#include <json/value.h>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "bench/report/comparisons.h"

namespace bench
{

// One line of the table.
struct Result {
    const Comparison* compared;
    double ours;
    std::optional<double> limit;
    std::optional<double> peer;
    // Of the processor, where times are compared: a busy machine disturbs it less.
    std::optional<double> processorOfLimit;

    std::optional<double> ofLimit() const { return ratio(limit); }
    std::optional<double> ofPeer() const { return ratio(peer); }
    // Whether a goal of the line is reached; nothing when there is none, or not what it is compared with.
    std::optional<bool> isReached(const Goal& goal) const;

private:
    std::optional<double> ratio(const std::optional<double>& base) const;
};

class Results
{
public:
    // Reads ROW.json of each row that is there, as Google Benchmark writes it. Throws common::Failure.
    explicit Results(const std::filesystem::path& directory);

    const std::vector<Result>& lines() const { return lines_; }
    // How often each was measured: the least of all.
    size_t runs() const { return runs_; }
    // Everything, with the lowest and the highest of each figure.
    Json::Value json() const;

private:
    using Samples = std::map<std::string, std::vector<double>>; // by figure; the time elapsed is ""

    void read(const std::string& row, const std::filesystem::path& file);
    std::optional<double> median(const char* row, const Figure& figure) const;
    std::optional<double> processorRatio(const Comparison& comparison) const;

    std::map<std::string, std::map<std::string, Samples>> rows_; // by row, by what was measured
    std::vector<Result> lines_;
    size_t runs_ = 0;
};

} // namespace bench

#endif
