// Boots a set, updates it, puts it to standby and reboots it, thousands of times, and tells what does not
// stay as it is.
#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <optional>
#include <random>
#include <string>
#include <unistd.h>

#include "common/files/temporary-directory.h"
#include "common/terminal/command-line.h"
#include "common/terminal/progress-line.h"
#include "common/terminal/table.h"
#include "tests/proof/soak/soaked-set.h"

namespace
{

namespace fs = std::filesystem;
using proof::SoakedSet;
using proof::SoakPlan;

struct Options {
    unsigned int cycles = 100;
    unsigned int seed = 1;
    unsigned int only = 0;
    fs::path memory; // where each cycle's is written; empty: nowhere
};

constexpr double kMebibyte = 1 << 20;
// Of a service in ten thousand cycles; but what it has from the kernel comes and goes in steps of one; and
// above its first value in a run that is too short for a line through its values.
constexpr double kMostGrowth = 4;
constexpr double kSteps = 2;
constexpr double kMostInAShortRun = 16;
constexpr std::size_t kCyclesForALine = proof::kCyclesToFill + 250;

bool hasLine(const proof::Course& course)
{
    return course.size() >= kCyclesForALine;
}

double mostGrowthOf(const proof::Course& course)
{
    return hasLine(course) ? std::max(kSteps, kMostGrowth * static_cast<double>(course.size()) / 10000)
                           : kMostInAShortRun;
}

constexpr proof::SoakFault kFaults[] = {
    {"pralis_get_int", -1, 1},
    {"pralis_set_int", -1, 2},
    {"PS_Mount", -1, 1},
    {"pwrctl_lock_state", -1, 1},
    {"hangwatch_register_watchdog_service", -5, 1},
    {"hangwatch_watchdog_notify", -1, 2},
    {"sysprop_get_value_string", -1, 1},
};

// The same for a seed and a cycle, whatever came before. `canBeAccepted`: the set reboots by itself.
SoakPlan planOf(unsigned int seed, unsigned int cycle, SoakedSet::Way way)
{
    const bool isTelevision = way == SoakedSet::Way::kTelevision;
    std::mt19937_64 random((uint64_t{seed} << 32) + uint64_t{2} * cycle + (isTelevision ? 1 : 0));
    const auto oneIn = [&](unsigned int number) { return random() % number == 0; };
    SoakPlan plan;
    plan.offer = oneIn(4) ? SoakPlan::Offer::kNothing : SoakPlan::Offer::kStandby;
    for (const char* module : {"panel", "soundbar"}) {
        if (oneIn(2)) {
            plan.modules.emplace_back(module);
        }
    }
    if (isTelevision && oneIn(10)) {
        plan.offer = SoakPlan::Offer::kAccept;
        plan.modules = {"panel"};
    } else if (oneIn(5)) {
        plan.killedAfter = static_cast<unsigned int>(random() % 400);
    } else if (!isTelevision && oneIn(3)) {
        plan.fault = kFaults[random() % std::size(kFaults)];
    }
    return plan;
}

class Soak
{
public:
    explicit Soak(const Options& options) : options_(options)
    {
        if (!options_.memory.empty()) {
            file_.exceptions(std::ofstream::failbit | std::ofstream::badbit);
            file_.open(options_.memory);
            file_ << "cycle,set,service,bytes" << std::endl;
        }
    }

    int run()
    {
        const auto begin = std::chrono::steady_clock::now();
        for (unsigned int cycle = 1; cycle <= options_.cycles; ++cycle) {
            if (options_.only == 0 || cycle == options_.only) {
                live(cycle);
            }
            line_.show(line_.isDrawn() ? "cycle " + std::to_string(cycle)
                                       : "soak", // the same: a line for a tenth
                       static_cast<unsigned int>(uint64_t{cycle} * 100 / options_.cycles));
        }
        line_.clear();
        judgeMemory();
        const std::chrono::duration<double> duration = std::chrono::steady_clock::now() - begin;
        tell(duration.count());
        return breaches_ == 0 ? 0 : common::kStatusFailed;
    }

private:
    struct Named {
        const char* name;
        SoakedSet set;
    };

    void live(unsigned int cycle)
    {
        for (Named* each : {&television_, &services_}) {
            const SoakPlan plan =
                planOf(options_.seed, cycle,
                       each == &television_ ? SoakedSet::Way::kTelevision : SoakedSet::Way::kServices);
            for (const std::string& breach : each->set.live(plan)) {
                tellBreach(std::string(each->name) + ", cycle " + std::to_string(cycle) + " (" +
                           SoakedSet::textOf(plan) + "): " + breach);
            }
            writeMemory(cycle, *each);
        }
    }

    // At once: a run that takes hours is looked into, and may be ended.
    void writeMemory(unsigned int cycle, const Named& each)
    {
        if (file_.is_open()) {
            for (const auto& [name, course] : each.set.memory()) {
                file_ << cycle << ',' << each.name << ',' << name << ',' << std::llround(course.latest())
                      << '\n';
            }
            file_.flush();
        }
    }

    void tellBreach(const std::string& text)
    {
        constexpr std::size_t kShown = 50;
        if (++breaches_ <= kShown) {
            line_.clear();
            printf("%s\n", text.c_str());
            fflush(stdout);
        }
    }

    void judgeMemory()
    {
        for (const Named* each : {&television_, &services_}) {
            for (const auto& [name, course] : each->set.memory()) {
                const double grown =
                    (hasLine(course) ? course.growth() : course.highest() - course.first()) / kMebibyte;
                if (grown > mostGrowthOf(course)) {
                    tellBreach(std::string(each->name) + ", " + name + " grows by " + std::to_string(grown) +
                               " MiB, which may be " + std::to_string(mostGrowthOf(course)));
                }
            }
        }
    }

    void tell(double seconds) const
    {
        common::Table table({"SET", "SERVICE", "MiB AT FIRST", "AT LAST", "AT MOST", "GROWTH"});
        for (const Named* each : {&television_, &services_}) {
            for (const auto& [name, course] : each->set.memory()) {
                const auto shown = [](double bytes) {
                    char text[32];
                    snprintf(text, sizeof text, "%.2f", bytes / kMebibyte);
                    return std::string(text);
                };
                table.add({each->name, name, shown(course.first()), shown(course.last()),
                           shown(course.highest()), hasLine(course) ? shown(course.growth()) : "-"});
            }
        }
        table.print("no service was seen");
        for (const Named* each : {&television_, &services_}) {
            const proof::SoakFigures& figures = each->set.figures();
            printf("%s: %zu boots, %zu updates, %zu kills, %zu faults, %llu messages to the console's page\n",
                   each->name, figures.boots, figures.updates, figures.kills, figures.faults,
                   static_cast<unsigned long long>(figures.messages));
        }
        printf("%u cycles (seed %u) in %.0f s: ", options_.only == 0 ? options_.cycles : 1, options_.seed,
               seconds);
        printf(breaches_ == 0 ? "all of it stays as it is\n" : "%zu times something was not as it must be\n",
               breaches_);
    }

    Options options_;
    common::TemporaryDirectory place_{"soak-proof-"};
    Named television_{"reboots", {place_ / "reboots", SoakedSet::Way::kTelevision}};
    Named services_{"stays on", {place_ / "stays-on", SoakedSet::Way::kServices}};
    std::ofstream file_;
    common::ProgressLine line_;
    std::size_t breaches_ = 0;
};

} // namespace

int main(int argc, char** argv)
{
    Options options;
    common::CommandLine line("soak-proof",
                             "boots, updates, puts to standby and reboots a set, again and again");
    line.number("--cycles", options.cycles, common::Range<unsigned int>{1, 10000000}, "so often");
    line.number("--seed", options.seed, common::Range<unsigned int>{0, 1000000000}, "which chance");
    line.number("--only", options.only, common::Range<unsigned int>{1, 10000000}, "this cycle alone");
    line.path("--memory", options.memory, "write what each service has after each cycle").called("FILE");
    line.onRun([&] {
        if (geteuid() != 0) {
            throw common::Failure("it takes root: the daemon of a set is a user of its own");
        }
        if (options.only > options.cycles) {
            options.cycles = options.only;
        }
        return Soak(options).run();
    });
    return line.main(argc, argv);
}
