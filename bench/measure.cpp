#include "bench/measure.h"

#include <algorithm>
#include <benchmark/benchmark.h>
#include <cstdio>
#include <cstring>
#include <exception>
#include <iterator>
#include <sys/resource.h>
#include <vector>

namespace bench
{

namespace
{

bool isOnce = false;
bool hasFailed = false;

double seconds(const timeval& time)
{
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
}

void repeat(benchmark::State& state, const std::function<void(Sample&)>& once)
{
    for (auto _ : state) { // NOLINT(clang-analyzer-deadcode.DeadStores): the library's way
        Sample sample;
        try {
            once(sample);
        } catch (const std::exception& error) {
            hasFailed = true;
            fprintf(stderr, "%s\n", error.what());
            state.SkipWithError(error.what());
            return;
        }
        state.SetIterationTime(sample.elapsed());
        for (const auto& [name, value] : sample.figures()) {
            state.counters[name] = value;
        }
    }
}

// The runs alone: what the library computes of them may be no number, and no JSON then.
class RunsAsJson : public benchmark::JSONReporter
{
public:
    void ReportRuns(const std::vector<Run>& reports) override
    {
        std::vector<Run> runs;
        std::copy_if(reports.begin(), reports.end(), std::back_inserter(runs),
                     [](const Run& run) { return run.run_type == Run::RT_Iteration; });
        if (!runs.empty()) {
            JSONReporter::ReportRuns(runs);
        }
    }
};

// Takes the word out of the arguments.
bool take(std::vector<char*>& arguments, const char* word)
{
    const auto is = [word](const char* argument) { return strcmp(argument, word) == 0; };
    const auto found = std::find_if(arguments.begin() + 1, arguments.end(), is);
    if (found == arguments.end()) {
        return false;
    }
    arguments.erase(found);
    return true;
}

} // namespace

double Sample::processorSeconds()
{
    double sum = 0;
    for (const auto who : {RUSAGE_SELF, RUSAGE_CHILDREN}) {
        rusage usage = {};
        getrusage(who, &usage);
        sum += seconds(usage.ru_utime) + seconds(usage.ru_stime);
    }
    return sum;
}

void Sample::set(double elapsed, std::optional<double> processor)
{
    elapsed_ = elapsed;
    processor_ = processor.value_or(0);
    figures_.erase("processor");
    if (processor) {
        note("processor", *processor * 1e3);
    }
}

void add(const std::string& name, const std::function<void(Sample&)>& once)
{
    benchmark::RegisterBenchmark(name.c_str(), [once](benchmark::State& state) { repeat(state, once); })
        ->Iterations(1)
        ->UseManualTime()
        ->Unit(benchmark::kMillisecond);
}

bool isTrial()
{
    return isOnce;
}

int main(int argc, char** argv, const std::function<void()>& declare)
{
    std::vector<char*> arguments(argv, argv + argc);
    isOnce = take(arguments, "--once");
    const bool isJson = take(arguments, "--json");
    std::string defaults[] = {isOnce ? "--benchmark_repetitions=1" : "--benchmark_repetitions=21",
                              "--benchmark_enable_random_interleaving=true",
                              isOnce || isJson ? "--benchmark_report_aggregates_only=false"
                                               : "--benchmark_report_aggregates_only=true"};
    for (std::string& option : defaults) {
        arguments.insert(arguments.begin() + 1, option.data()); // the last of a kind counts
    }
    int count = static_cast<int>(arguments.size());
    arguments.push_back(nullptr);
    benchmark::Initialize(&count, arguments.data());
    if (benchmark::ReportUnrecognizedArguments(count, arguments.data())) {
        return 2;
    }
    try {
        declare();
    } catch (const std::exception& error) {
        fprintf(stderr, "%s: %s\n", argv[0], error.what());
        return 1;
    }
    RunsAsJson json;
    const size_t measured =
        isJson ? benchmark::RunSpecifiedBenchmarks(&json) : benchmark::RunSpecifiedBenchmarks();
    return measured == 0 || hasFailed ? 1 : 0;
}

} // namespace bench
