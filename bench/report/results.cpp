#include "bench/report/results.h"

#include <algorithm>

#include "common/errors.h"
#include "common/files/whole-file.h"
#include "common/json-text.h"

namespace bench
{

namespace
{

constexpr const char* kProcessor = "processor";

double medianOf(std::vector<double> values)
{
    std::sort(values.begin(), values.end());
    const size_t half = values.size() / 2;
    return values.size() % 2 == 1 ? values[half] : (values[half - 1] + values[half]) / 2;
}

// "daemon/10/iterations:1/manual_time" was called "daemon/10".
std::string nameOf(const std::string& run)
{
    return run.substr(0, run.find("/iterations:"));
}

// What Google Benchmark says of a run beside its figures.
bool isNoted(const std::string& key)
{
    for (const char* own : {"iterations", "real_time", "cpu_time", "threads", "repetitions",
                            "repetition_index", "family_index", "per_family_instance_index"}) {
        if (key == own) {
            return false;
        }
    }
    return true;
}

} // namespace

std::optional<double> Result::ratio(const std::optional<double>& base) const
{
    if (!base || *base <= 0) {
        return std::nullopt;
    }
    return ours / *base;
}

std::optional<bool> Result::isReached(const Goal& goal) const
{
    const std::optional<double> figure = goal.of == Of::kItself  ? std::optional(ours)
                                         : goal.of == Of::kLimit ? ofLimit()
                                         : goal.of == Of::kPeer  ? ofPeer()
                                                                 : std::nullopt;
    if (!figure) {
        return std::nullopt;
    }
    return *figure <= goal.most;
}

Results::Results(const std::filesystem::path& directory)
{
    for (const Comparison& comparison : kComparisons) {
        const std::filesystem::path file = directory / (std::string(comparison.row) + ".json");
        if (rows_.count(comparison.row) == 0 && std::filesystem::exists(file)) {
            read(comparison.row, file);
        }
    }
    for (const Comparison& comparison : kComparisons) {
        const std::optional<double> ours = median(comparison.row, comparison.ours);
        if (ours) {
            lines_.push_back({&comparison, *ours, median(comparison.row, comparison.limit),
                              median(comparison.row, comparison.peer), processorRatio(comparison)});
        }
    }
    if (lines_.empty()) {
        throw common::Failure(directory.string() + ": holds no figures of any row");
    }
}

void Results::read(const std::string& row, const std::filesystem::path& file)
{
    std::string why;
    const std::optional<Json::Value> content = common::parseJsonObject(common::readWhole(file), &why);
    if (!content) {
        throw common::Failure(file.string() + ": " + why);
    }
    for (const Json::Value& run : (*content)["benchmarks"]) {
        if (run["run_type"] != "iteration") {
            continue;
        }
        Samples& samples = rows_[row][nameOf(run["run_name"].asString())];
        samples[""].push_back(run["real_time"].asDouble());
        for (const std::string& key : run.getMemberNames()) {
            if (run[key].isNumeric() && isNoted(key)) {
                samples[key].push_back(run[key].asDouble());
            }
        }
    }
    for (const auto& [name, samples] : rows_[row]) {
        const size_t count = samples.at("").size();
        runs_ = runs_ == 0 ? count : std::min(runs_, count);
    }
}

std::optional<double> Results::median(const char* row, const Figure& figure) const
{
    const auto measured = rows_.find(row);
    if (measured == rows_.end() || figure.measured == nullptr) {
        return std::nullopt;
    }
    const auto samples = measured->second.find(figure.measured);
    if (samples == measured->second.end()) {
        return std::nullopt;
    }
    const auto values = samples->second.find(figure.noted == nullptr ? "" : figure.noted);
    return values == samples->second.end() ? std::nullopt : std::optional(medianOf(values->second));
}

std::optional<double> Results::processorRatio(const Comparison& comparison) const
{
    if (comparison.ours.noted != nullptr || comparison.limit.noted != nullptr) {
        return std::nullopt;
    }
    const auto ours = median(comparison.row, {comparison.ours.measured, kProcessor, nullptr});
    const auto limit = median(comparison.row, {comparison.limit.measured, kProcessor, nullptr});
    return ours && limit && *limit > 0 ? std::optional(*ours / *limit) : std::nullopt;
}

Json::Value Results::json() const
{
    Json::Value all(Json::objectValue);
    for (const auto& [row, measured] : rows_) {
        for (const auto& [name, samples] : measured) {
            for (const auto& [figure, values] : samples) {
                Json::Value& entry = all[row][name][figure.empty() ? "elapsed" : figure];
                const auto [lowest, highest] = std::minmax_element(values.begin(), values.end());
                entry["median"] = medianOf(values);
                entry["lowest"] = *lowest;
                entry["highest"] = *highest;
                entry["runs"] = static_cast<Json::UInt64>(values.size());
            }
        }
    }
    return all;
}

} // namespace bench
