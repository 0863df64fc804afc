// Sequences of events that happen to a set. The model of the service takes every one; where the daemon itself
// is linked beside it, both must have done the same.
#include "tests/proof/model/model.h"

#include <algorithm>
#include <sstream>
#include <stdexcept>

#include "tests/proof/fuzz/target.h"
#include "tests/proof/model/events.h"
#ifdef WITH_DAEMON
#include "tests/proof/model/campaign.h"
#endif

namespace
{

constexpr size_t kMostEvents = 60;

// As "model-proof --repeat" takes it; what it would refuse is left out.
proof::Case caseIn(std::string_view input)
{
    static const std::vector<std::string> known = proof::eventNames();
    std::istringstream words{std::string(input)};
    proof::Case one{"mixed", {}};
    std::getline(words, one.set, ':');
    try {
        proof::televisionOf(one.set);
    } catch (const std::invalid_argument&) {
        one.set = "mixed";
    }
    for (std::string word; one.events.size() < kMostEvents && words >> word;) {
        if (std::find(known.begin(), known.end(), word) != known.end()) {
            one.events.push_back(word);
        }
    }
    return one;
}

std::vector<std::string> traceOf(const proof::Case& one)
{
    proof::Model model(proof::televisionOf(one.set));
    model.boot();
    std::vector<std::string> all = model.takeTrace();
    for (const std::string& event : one.events) {
        const bool hadEnded = model.hasEnded();
        model.apply(event);
        const std::vector<std::string> trace = model.takeTrace();
        fuzz::require(!hadEnded || (model.hasEnded() && trace.empty()), "nothing happens after the end");
        all.insert(all.end(), trace.begin(), trace.end());
        all.push_back(model.status());
    }
    return all;
}

void run(std::string_view input)
{
    const proof::Case one = caseIn(input);
    fuzz::require(traceOf(one) == traceOf(one), "the same events have the same effect");
#ifdef WITH_DAEMON
    static proof::Campaign campaign;
    if (const auto difference = campaign.run(one)) {
        fuzz::fail("the daemon and the model differ:\n" + difference->text + proof::textOf(difference->run));
    }
#endif
}

const fuzz::Target target("model", run);

} // namespace
