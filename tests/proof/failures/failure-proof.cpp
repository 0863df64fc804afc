// Makes each call of the daemon fail in each way it may, in story after story, and tells what does not hold.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <map>
#include <stdexcept>
#include <string>
#include <thread>
#include <unistd.h>

#include "common/terminal/command-line.h"
#include "common/terminal/progress-line.h"
#include "common/terminal/shard.h"
#include "common/terminal/table.h"
#include "tests/proof/failures/campaign.h"
#include "tests/proof/failures/exceptions.h"

namespace
{

using proof::FailureCampaign;
using proof::Verdict;

struct Options {
    std::string only;
    std::string story;
    std::string shard;
    unsigned int pairs = 0;
    unsigned int seed = 1;
    unsigned int processes = std::max(1U, std::thread::hardware_concurrency());
    bool isListed = false;
    bool isShown = false;
};

// Counts the runs, and tells those in which something does not hold.
class Account
{
public:
    explicit Account(size_t all) : expected(all) {}

    void take(const Verdict& verdict)
    {
        ++runs;
        reached += verdict.reached.size() == verdict.run.faults.size() ? 1 : 0;
        for (const proof::Breach& breach : verdict.breaches) {
            if (const proof::Exception* const exception = exceptionOf(breach, verdict.run)) {
                ++excepted[exception];
                continue;
            }
            tell(verdict, breach);
        }
        if (expected > 1) {
            line.show(verdict.run.story, static_cast<unsigned int>(runs * 100 / expected));
        }
    }

    void finish() { line.clear(); }

    size_t runs = 0;
    size_t reached = 0; // in which every failure came to pass
    size_t breaches = 0;
    std::map<const proof::Exception*, size_t> excepted;

private:
    void tell(const Verdict& verdict, const proof::Breach& breach)
    {
        constexpr size_t kShown = 200;
        if (++breaches > kShown) {
            return;
        }
        if (isatty(STDERR_FILENO) != 0) {
            line.clear();
        }
        printf("%s: %s\n    again: failure-proof --only '%s'\n", breach.invariant.c_str(),
               breach.text.c_str(), textOf(verdict.run).c_str());
        fflush(stdout);
    }

    size_t expected;
    common::ProgressLine line;
};

std::vector<Verdict> runFirsts(FailureCampaign& campaign, const std::string& story)
{
    std::vector<Verdict> firsts;
    for (const proof::Story& one : proof::stories()) {
        if (story.empty() || story == one.name) {
            firsts.push_back(campaign.run({one.name, {}}));
        }
    }
    return firsts;
}

int list(FailureCampaign& campaign, const std::string& story)
{
    for (const Verdict& first : runFirsts(campaign, story)) {
        const proof::Story& one = proof::storyNamed(first.run.story);
        printf("%s: %s; %zu calls, %zu single failures\n", one.name, one.summary, first.points.size(),
               singlesOf(first).size());
        std::map<std::string, std::pair<size_t, std::string>> calls;
        for (const proof::Point& point : first.points) {
            auto& [count, results] = calls[point.call];
            ++count;
            results.clear();
            for (const std::string& result : point.results) {
                results += " " + result;
            }
        }
        for (const auto& [call, row] : calls) {
            printf("    %-42s %5zu  %s\n", call.c_str(), row.first, row.second.c_str());
        }
    }
    printf("What holds after each run:\n");
    for (const proof::Invariant& invariant : proof::invariants()) {
        printf("    %-10s %s\n", invariant.name, invariant.promise);
    }
    printf("Where it does not, and why:\n");
    for (const proof::Exception& exception : proof::exceptions()) {
        printf("    %-10s %s (%s): %s\n", exception.invariant, exception.call, exception.text,
               exception.reason);
    }
    return 0;
}

// Wrong use: the story has no such call, or the call no such result.
void expectCalls(const Verdict& first, const proof::Run& run)
{
    for (const proof::Fault& fault : run.faults) {
        const auto isIt = [&](const proof::Point& point) {
            return point.call == fault.call &&
                   std::count(point.results.begin(), point.results.end(), fault.result) > 0;
        };
        if (std::none_of(first.points.begin(), first.points.end(), isIt)) {
            throw common::WrongUse(textOf(fault) + ": " + run.story +
                                   " has no such call or result; --list has them");
        }
    }
}

int runOne(FailureCampaign& campaign, const Options& options)
{
    const proof::Run run = proof::runFrom(options.only);
    expectCalls(campaign.run({run.story, {}}), run);
    const Verdict verdict = campaign.run(run, options.isShown);
    for (const std::string& line : verdict.trace) {
        printf("    %s\n", line.c_str());
    }
    Account account(1);
    account.take(verdict);
    account.finish();
    for (const auto& [exception, count] : account.excepted) {
        printf("%s does not hold, as it is meant to be: %s\n", exception->invariant, exception->reason);
    }
    if (verdict.reached.size() < verdict.run.faults.size()) {
        throw common::Failure("not every call of '" + options.only + "' is made so often");
    }
    printf(account.breaches == 0 ? "nothing is wrong\n" : "%zu invariants do not hold\n", account.breaches);
    return account.breaches == 0 ? 0 : common::kStatusFailed;
}

std::vector<proof::Run> partOf(const std::vector<proof::Run>& runs, const common::Shard& shard)
{
    std::vector<proof::Run> part;
    for (size_t at = 0; at < runs.size(); ++at) {
        if (shard.has(at)) {
            part.push_back(runs[at]);
        }
    }
    return part;
}

int runEvery(FailureCampaign& campaign, const Options& options)
{
    const auto begin = std::chrono::steady_clock::now();
    const std::vector<Verdict> firsts = runFirsts(campaign, options.story);
    std::vector<proof::Run> runs;
    size_t calls = 0;
    for (const Verdict& first : firsts) {
        const std::vector<proof::Run> singles = singlesOf(first);
        runs.insert(runs.end(), singles.begin(), singles.end());
        calls += first.points.size();
    }
    const size_t singles = runs.size();
    const std::vector<proof::Run> pairs = pairsOf(firsts, options.pairs, options.seed);
    runs.insert(runs.end(), pairs.begin(), pairs.end());
    const common::Shard shard = common::shardFrom(options.shard);
    runs = partOf(runs, shard);

    Account account(firsts.size() + runs.size());
    for (const Verdict& first : firsts) {
        account.take(first);
    }
    campaign.runAll(runs, [&](const Verdict& verdict) { account.take(verdict); });
    account.finish();
    const std::chrono::duration<double> duration = std::chrono::steady_clock::now() - begin;
    printf(
        "%zu stories, %zu calls that can fail: %zu single failures, %zu pairs (seed %u), all of whose failures came "
        "to pass in %zu runs; %.0f s\n",
        firsts.size(), calls, singles, pairs.size(), options.seed, account.reached - firsts.size(),
        duration.count());
    for (const proof::Exception& exception : proof::exceptions()) {
        const size_t count = account.excepted[&exception];
        if (count > 0) {
            printf("%zu times not '%s' after %s, as it is meant to be: %s\n", count, exception.invariant,
                   exception.call, exception.reason);
            continue;
        }
        if (options.story.empty() && shard.isWhole() && exception.beside == nullptr) {
            printf("'%s' holds always after %s: the exception has no reason any more\n", exception.invariant,
                   exception.call);
            ++account.breaches;
        }
    }
    printf(account.breaches == 0 ? "everything else holds\n" : "%zu times something does not hold\n",
           account.breaches);
    return account.breaches == 0 ? 0 : common::kStatusFailed;
}

int run(const Options& options)
{
    try {
        if (!options.story.empty()) {
            proof::storyNamed(options.story);
        }
        if (!options.only.empty()) {
            proof::storyNamed(proof::runFrom(options.only).story);
        }
    } catch (const std::invalid_argument& problem) {
        throw common::WrongUse(problem.what());
    }
    common::shardFrom(options.shard);
    FailureCampaign campaign(options.processes);
    if (options.isListed) {
        return list(campaign, options.story);
    }
    return options.only.empty() ? runEvery(campaign, options) : runOne(campaign, options);
}

} // namespace

int main(int argc, char** argv)
{
    Options options;
    common::CommandLine line("failure-proof", "makes each call of the daemon fail, in each way it may");
    common::Option listed =
        line.flag("--list", options.isListed, "tell the stories, their calls, and what holds");
    common::Option only = line.text("--only", options.only, "one run alone: 'STORY: CALL#N=RESULT...'");
    only.called("RUN").excludes(listed);
    common::Option story = line.text("--story", options.story, "of this story alone");
    story.called("NAME").excludes(only);
    common::Option pairs = line.number("--pairs", options.pairs, common::Range<unsigned int>{0, 100000000},
                                       "so many pairs of failures as well, by chance");
    pairs.excludes(only).excludes(listed);
    common::Option shard = line.text("--shard", options.shard, "the runs of one machine among several");
    shard.called("K/N").excludes(only).excludes(listed);
    line.number("--seed", options.seed, common::Range<unsigned int>{0, 1000000000}, "which chance");
    line.number("--processes", options.processes, common::Range<unsigned int>{1, 256}, "runs at once");
    line.flag("--show", options.isShown, "with --only: what the daemon calls and says");
    line.onRun([&] { return run(options); });
    return line.main(argc, argv);
}
