// What every row of the table of speeds is made of: things that are done again and again in random order, so
// that what disturbs the machine disturbs all alike, each beside its limit and its peers in the same run.
//
//   ROW-bench                  21 repetitions: a table with medians
//   ROW-bench --once           each once and on little, for its function: the figures mean nothing
//   ROW-bench --json           every run as JSON, as Google Benchmark writes it
//   ROW-bench --benchmark_...  as the options of Google Benchmark say
//
// Times are in milliseconds. One thread.
#ifndef BENCH_MEASURE_H
#define BENCH_MEASURE_H

#include <chrono>
#include <functional>
#include <map>
#include <optional>
#include <string>

namespace bench
{

// What one repetition has found out.
class Sample
{
public:
    using Clock = std::chrono::steady_clock;

    // Does it `count` times, and keeps the time of one: elapsed, and of the processor in this process and in
    // the children that it waits for meanwhile.
    template <typename Action>
    void time(const Action& action, int count = 1)
    {
        const double processor = processorSeconds();
        const Clock::time_point begin = Clock::now();
        for (int i = 0; i < count; ++i) {
            action();
        }
        set(std::chrono::duration<double>(Clock::now() - begin).count() / count,
            (processorSeconds() - processor) / count);
    }
    // What was measured in another way, in seconds. Without `processor`: that was not to be seen from here.
    void set(double elapsed, std::optional<double> processor = std::nullopt);
    // A figure beside the times.
    void note(const std::string& name, double value) { figures_[name] = value; }

    double elapsed() const { return elapsed_; }     // seconds
    double processor() const { return processor_; } // seconds
    const std::map<std::string, double>& figures() const { return figures_; }

private:
    static double processorSeconds();

    double elapsed_ = 0;
    double processor_ = 0;
    std::map<std::string, double> figures_; // by name
};

// Adds a thing to measure. `once` does it one time; what it throws (std::exception) fails the program.
void add(const std::string& name, const std::function<void(Sample&)>& once);

// Whether everything is to be done once and on little. From main() on.
bool isTrial();

// `declare` adds what is to be measured. For `main`, with its result: 0, 1 when something failed, 2 for wrong
// use.
int main(int argc, char** argv, const std::function<void()>& declare);

} // namespace bench

#endif
