#include "bench/ratios.h"

#include <benchmark/benchmark.h>
#include <cstdlib>
#include <map>
#include <ostream>
#include <utility>
#include <vector>

namespace bench
{

namespace
{

// Prints the table, and the ratios to the base under the same arguments.
class RatioReporter : public benchmark::ConsoleReporter
{
public:
    explicit RatioReporter(std::string baseName) : base(std::move(baseName)) {}

    void ReportRuns(const std::vector<Run>& runs) override
    {
        ConsoleReporter::ReportRuns(runs);
        for (const Run& run : runs) {
            if (run.aggregate_name == "median" && !run.error_occurred) {
                medians[run.run_name.args][run.run_name.function_name] = {run.GetAdjustedRealTime(),
                                                                          run.GetAdjustedCPUTime()};
            }
        }
    }
    void Finalize() override
    {
        for (const auto& [arguments, times] : medians) {
            const auto limit = times.find(base);
            for (const auto& [name, time] : times) {
                if (limit != times.end() && name != base) {
                    GetOutputStream()
                        << arguments << (arguments.empty() ? "" : ": ") << name << " / " << base << " = "
                        << time.elapsed / limit->second.elapsed << " of the time, "
                        << time.processor / limit->second.processor << " of the processor time\n";
                }
            }
        }
    }

private:
    struct Times {
        double elapsed;
        double processor; // of this process: not that of a command that it starts
    };
    std::string base;
    std::map<std::string, std::map<std::string, Times>> medians; // by argument, by function
};

} // namespace

int runWithRatios(int argc, char** argv, const std::string& base)
{
    std::string defaults[] = {"--benchmark_repetitions=21", "--benchmark_enable_random_interleaving=true",
                              "--benchmark_min_time=0.01", "--benchmark_report_aggregates_only=true"};
    std::vector<char*> arguments{argv[0]};
    for (std::string& option : defaults) {
        arguments.push_back(option.data());
    }
    arguments.insert(arguments.end(), argv + 1, argv + argc); // the last of a kind counts
    arguments.push_back(nullptr);
    int count = static_cast<int>(arguments.size()) - 1;
    benchmark::Initialize(&count, arguments.data());
    if (benchmark::ReportUnrecognizedArguments(count, arguments.data())) {
        return 2;
    }
    RatioReporter reporter(base);
    benchmark::RunSpecifiedBenchmarks(&reporter);
    return EXIT_SUCCESS;
}

} // namespace bench
