// Runs the daemon and the model side by side and tells the shortest sequence of events in which they differ.
#include <chrono>
#include <cstdio>
#include <optional>
#include <stdexcept>
#include <string>

#include "common/terminal/command-line.h"
#include "tests/proof/model/campaign.h"

namespace
{

int tell(proof::Campaign& campaign, std::optional<proof::Difference> difference)
{
    const proof::Figures figures = campaign.figures();
    printf("%llu events in %llu sequences\n", static_cast<unsigned long long>(figures.events),
           static_cast<unsigned long long>(figures.sequences));
    if (!difference) {
        printf("no difference\n");
        return 0;
    }
    const proof::Difference shortest = campaign.shrink(*difference);
    printf("the daemon and the model differ:\n%sagain: model-proof --repeat '%s'\n", shortest.text.c_str(),
           proof::textOf(shortest.run).c_str());
    return 1;
}

proof::Case caseOf(const std::string& text)
{
    try {
        return proof::caseFrom(text);
    } catch (const std::invalid_argument& problem) {
        throw common::WrongUse(problem.what());
    }
}

} // namespace

int main(int argc, char** argv)
{
    int events = 50000;
    int seed = 1;
    int depth = 0;
    bool isShown = false;
    std::string repeated;
    std::string beginning;
    std::string shard;
    common::CommandLine line("model-proof", "runs the daemon and a model of it side by side");
    line.number("--events", events, common::Range<int>{1, 1000000000}, "events by chance");
    line.number("--seed", seed, common::Range<int>{0, 1000000000}, "which chance");
    common::Option every =
        line.number("--every", depth, common::Range<int>{1, 12}, "every sequence of so many events instead");
    line.text("--from", beginning, "with --every: after this case").called("CASE");
    line.text("--shard", shard, "with --every: the sequences of one machine among several").called("K/N");
    common::Option one = line.text("--repeat", repeated, "one case alone: 'SET: EVENT...'").called("CASE");
    one.excludes(every);
    line.flag("--show", isShown, "with --repeat: what the daemon calls and says");
    line.onRun([&] {
        proof::Campaign campaign;
        if (one.isGiven() && isShown) {
            campaign.show();
        }
        if (one.isGiven()) {
            return tell(campaign, campaign.run(caseOf(repeated)));
        }
        if (every.isGiven()) {
            return tell(campaign, campaign.runEvery(caseOf(beginning.empty() ? "mixed" : beginning), depth,
                                                    common::shardFrom(shard)));
        }
        return tell(campaign, campaign.runRandom(static_cast<uint64_t>(events), static_cast<uint64_t>(seed)));
    });
    return line.main(argc, argv);
}
