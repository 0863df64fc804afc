// Runs of the daemon beside the model, each in a process of its own, copied where runs part.
#ifndef TESTS_PROOF_MODEL_CAMPAIGN_H
#define TESTS_PROOF_MODEL_CAMPAIGN_H

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "common/files/temporary-directory.h"
#include "common/terminal/shard.h"
#include "tests/proof/model/events.h"

namespace proof
{

// Where the two first were not the same.
struct Difference {
    Case run;
    std::string text;
};

struct Figures {
    uint64_t events = 0;
    uint64_t sequences = 0;
};

class Campaign
{
public:
    Campaign();
    ~Campaign();
    Campaign(const Campaign&) = delete;
    Campaign& operator=(const Campaign&) = delete;

    // Sequences by chance, the same ones for a seed, until that many events have happened or two differ.
    std::optional<Difference> runRandom(uint64_t events, uint64_t seed);
    // Every sequence of up to `depth` events after that beginning. A part of the work is told by the first
    // two of them.
    std::optional<Difference> runEvery(const Case& beginning, int depth, const common::Shard& shard = {});
    std::optional<Difference> run(const Case& one);
    // The same difference, or another one, with the fewest events that leave one.
    Difference shrink(Difference found);

    Figures figures() const;
    // From now on what the daemon calls and says is printed as it happens.
    void show() { isShown = true; }

private:
    struct Shared;
    class Session;

    std::optional<Difference> runSession(Session& session);

    common::TemporaryDirectory directory{"tarnwick-model-"};
    Shared* shared;
    bool isShown = false;
};

} // namespace proof

#endif
