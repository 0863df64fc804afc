// Hits the daemon of a virtual set at each of its system calls, in each way, and tells what is not as it must
// be after the next boots.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <iterator>
#include <map>
#include <stdexcept>
#include <string>
#include <thread>
#include <unistd.h>

#include "common/terminal/command-line.h"
#include "common/terminal/progress-line.h"
#include "common/terminal/shard.h"
#include "tests/proof/crashes/campaign.h"
#include "tests/proof/crashes/exceptions.h"

namespace
{

using proof::CrashBreach;
using proof::CrashCampaign;
using proof::CrashOutcome;
using proof::CrashRun;
using proof::Point;

struct Options {
    std::string only;
    std::string story;
    std::string shard;
    unsigned int sample = 0; // 0: all
    unsigned int seed = 1;
    unsigned int lanes = 2 * std::max(1U, std::thread::hardware_concurrency()); // they wait half of the time
    unsigned int doctorEach = 1;
    bool isListed = false;
};

// Counts the runs, and tells those in which a promise does not hold.
class Account
{
public:
    explicit Account(std::size_t all) : expected(all) {}

    void take(const CrashRun& run, const CrashOutcome& outcome)
    {
        ++runs;
        hits += outcome.isHit ? 1 : 0;
        again += outcome.isMadeAgain ? 1 : 0;
        for (const CrashBreach& breach : outcome.breaches) {
            const proof::CrashException* const exception =
                run.point ? crashExceptionOf(breach, *run.point) : nullptr;
            if (exception != nullptr) {
                ++excepted[exception];
                continue;
            }
            tell(run, breach);
        }
        line.show(run.story, static_cast<unsigned int>(runs * 100 / expected));
    }

    void finish() { line.clear(); }

    std::size_t runs = 0;
    std::size_t hits = 0;
    std::size_t again = 0;
    std::size_t breaches = 0;
    std::map<const proof::CrashException*, std::size_t> excepted;

private:
    void tell(const CrashRun& run, const CrashBreach& breach)
    {
        ++breaches;
        if (isatty(STDERR_FILENO) != 0) {
            line.clear();
        }
        printf("%s: %s\n", breach.promise.c_str(), breach.text.c_str());
        if (run.point) {
            printf("    again: crash-proof --only '%s'\n", textOf(*run.point).c_str());
        } else {
            printf("    in %s, which nothing hit\n", run.story.c_str());
        }
        fflush(stdout);
    }

    std::size_t expected;
    common::ProgressLine line;
};

// The stories without a fault: their calls.
std::map<std::string, CrashOutcome> countCalls(const CrashCampaign& campaign, const std::string& story)
{
    std::vector<CrashRun> runs;
    for (const proof::CrashStory& each : proof::crashStories()) {
        if (story.empty() || story == each.name) {
            runs.push_back({each.name, std::nullopt, true});
        }
    }
    std::map<std::string, CrashOutcome> outcomes;
    Account account(runs.size());
    campaign.run(runs, [&](const CrashRun& run, const CrashOutcome& outcome) {
        account.take(run, outcome);
        outcomes[run.story] = outcome;
    });
    account.finish();
    if (account.breaches > 0) {
        throw common::Failure("a story that nothing hits does not come out as it must: see above");
    }
    return outcomes;
}

std::vector<Point> pointsOf(const std::map<std::string, CrashOutcome>& outcomes)
{
    std::vector<Point> points;
    for (const auto& [story, outcome] : outcomes) {
        for (const proof::CountedCall& counted : outcome.calls) {
            const std::vector<Point> here = pointsAt(story, counted);
            points.insert(points.end(), here.begin(), here.end());
        }
    }
    return points;
}

int list(const CrashCampaign& campaign, const Options& options)
{
    const std::map<std::string, CrashOutcome> outcomes = countCalls(campaign, options.story);
    for (const auto& [story, outcome] : outcomes) {
        printf("%s: %s; %zu calls\n", story.c_str(), proof::crashStoryNamed(story).summary,
               outcome.calls.size());
        std::map<std::pair<unsigned int, std::string>, std::size_t> counts;
        for (const proof::CountedCall& counted : outcome.calls) {
            ++counts[{counted.call.thread, counted.call.name}];
        }
        for (const auto& [call, count] : counts) {
            printf("    %2u/%-20s %5zu\n", call.first, call.second.c_str(), count);
        }
    }
    std::map<std::string, std::size_t> faults;
    for (const Point& point : pointsOf(outcomes)) {
        const std::string text = textOf(point);
        ++faults[text.substr(text.find('=') + 1)];
    }
    printf("Points:\n");
    for (const auto& [fault, count] : faults) {
        printf("    %-8s %6zu\n", fault.c_str(), count);
    }
    printf("What holds after each:\n");
    for (const proof::CrashPromise& promise : proof::crashPromises()) {
        printf("    %-8s %s\n", promise.name, promise.text);
    }
    printf("Where it does not when a call fails, and why:\n");
    for (const proof::CrashException& exception : proof::crashExceptions()) {
        printf("    %-8s %s: %s\n", exception.promise, exception.text, exception.reason);
    }
    return 0;
}

int runOne(const CrashCampaign& campaign, const Options& options)
{
    const Point point = proof::pointFrom(options.only);
    proof::Lane lane(campaign.directory() / "lane");
    const CrashOutcome outcome = lane.run(proof::crashStoryNamed(point.story), point, true,
                                          [](const std::string& text) { printf("    %s\n", text.c_str()); });
    std::size_t breaches = 0;
    for (const CrashBreach& breach : outcome.breaches) {
        if (const proof::CrashException* const exception = crashExceptionOf(breach, point)) {
            printf("that is known: %s\n", exception->reason);
        } else {
            ++breaches;
        }
    }
    if (!outcome.isHit) {
        throw common::Failure("the daemon did not come to " + options.only);
    }
    printf(breaches == 0 ? "nothing is wrong\n" : "%zu promises do not hold\n", breaches);
    return breaches == 0 ? 0 : common::kStatusFailed;
}

std::vector<CrashRun> chosenRuns(const std::vector<Point>& all, const Options& options)
{
    const common::Shard shard = common::shardFrom(options.shard);
    std::vector<Point> mine;
    std::copy_if(all.begin(), all.end(), std::back_inserter(mine),
                 [&](const Point& point) { return shard.has(proof::hashOf(textOf(point))); });
    if (options.sample > 0) {
        mine = sampleOf(mine, options.sample, options.seed);
    }
    std::vector<CrashRun> runs;
    for (const Point& point : mine) {
        const bool isExamined = runs.size() % options.doctorEach == 0;
        runs.push_back({point.story, point, isExamined});
    }
    return runs;
}

int runMany(const CrashCampaign& campaign, const Options& options)
{
    const auto begin = std::chrono::steady_clock::now();
    const std::vector<Point> all = pointsOf(countCalls(campaign, options.story));
    const std::vector<CrashRun> runs = chosenRuns(all, options);
    Account account(runs.size());
    campaign.run(runs, [&](const CrashRun& run, const CrashOutcome& outcome) { account.take(run, outcome); });
    account.finish();
    const std::chrono::duration<double> duration = std::chrono::steady_clock::now() - begin;
    printf(
        "%zu points, of which %zu were tried and %zu were come to, %zu of them on a slower clock; %.0f s\n",
        all.size(), account.runs, account.hits, account.again, duration.count());
    for (const auto& [exception, count] : account.excepted) {
        printf("%zu times not '%s', as is known: %s\n", count, exception->promise, exception->reason);
    }
    printf(account.breaches == 0 ? "everything else holds\n" : "%zu times something does not hold\n",
           account.breaches);
    return account.breaches == 0 ? 0 : common::kStatusFailed;
}

int run(const Options& options)
{
    try {
        if (!options.story.empty()) {
            proof::crashStoryNamed(options.story);
        }
        if (!options.only.empty()) {
            proof::crashStoryNamed(proof::pointFrom(options.only).story);
        }
    } catch (const std::invalid_argument& problem) {
        throw common::WrongUse(problem.what());
    }
    common::shardFrom(options.shard);
    if (geteuid() != 0) {
        throw common::Failure("it takes root: the daemon of a set is a user of its own");
    }
    const CrashCampaign campaign(options.lanes);
    if (options.isListed) {
        return list(campaign, options);
    }
    return options.only.empty() ? runMany(campaign, options) : runOne(campaign, options);
}

} // namespace

int main(int argc, char** argv)
{
    Options options;
    common::CommandLine line("crash-proof", "hits the daemon of a virtual set at each of its system calls");
    common::Option listed =
        line.flag("--list", options.isListed, "tell the stories, their calls, and what holds");
    common::Option only = line.text("--only", options.only, "one point alone: 'STORY: THREAD/CALL#N=FAULT'");
    only.called("POINT").excludes(listed);
    common::Option story = line.text("--story", options.story, "of this story alone");
    story.called("NAME").excludes(only);
    common::Option sample = line.number("--sample", options.sample, common::Range<unsigned int>{0, 10000000},
                                        "so many points, spread; 0: all of them");
    sample.excludes(only).excludes(listed);
    line.number("--seed", options.seed, common::Range<unsigned int>{0, 1000000000}, "which sample");
    common::Option shard = line.text("--shard", options.shard, "the points of one machine among several");
    shard.called("K/N").excludes(only).excludes(listed);
    line.number("--lanes", options.lanes, common::Range<unsigned int>{1, 64}, "runs at once");
    line.number("--doctor-each", options.doctorEach, common::Range<unsigned int>{1, 10000000},
                "ask fwctl doctor in each so-many-th run");
    line.onRun([&] { return run(options); });
    return line.main(argc, argv);
}
