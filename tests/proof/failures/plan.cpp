#include "tests/proof/failures/plan.h"

#include <map>
#include <sstream>
#include <stdexcept>

#include "common/terminal/command-line.h"
#include "tests/proof/process/daemon.h"
#include "tests/proof/process/failing.h"

namespace proof
{

// ---- As text ----

std::string textOf(const Fault& fault)
{
    return fault.call + "#" + std::to_string(fault.occurrence) + "=" + fault.result;
}

Fault faultFrom(const std::string& text)
{
    const size_t hash = text.find('#');
    const size_t equals = text.find('=', hash);
    if (hash == std::string::npos || equals == std::string::npos) {
        throw std::invalid_argument(text + ": a failure is written CALL#N=RESULT, for example PS_Mount#1=-1");
    }
    const std::string occurrence = text.substr(hash + 1, equals - hash - 1);
    return {text.substr(0, hash),
            common::numberFrom<unsigned int>(occurrence, common::Range<unsigned int>{1, 1000000000}),
            text.substr(equals + 1)};
}

std::string textOf(const Run& run)
{
    std::string text = run.story + ":";
    for (const Fault& fault : run.faults) {
        text += " " + textOf(fault);
    }
    return text;
}

Run runFrom(const std::string& text)
{
    const size_t colon = text.find(':');
    Run run{text.substr(0, colon), {}};
    std::istringstream rest(colon == std::string::npos ? "" : text.substr(colon + 1));
    for (std::string word; rest >> word;) {
        run.faults.push_back(faultFrom(word));
    }
    return run;
}

// ---- In a run ----

namespace plan
{

namespace
{

struct State {
    Run run;
    std::map<std::string, unsigned int, std::less<>> counts; // of each call
    std::vector<Point> points;
    std::vector<Fault> faults;
};

State* state = nullptr;

const failing::Result* resultNamed(const failing::Call& call, const std::string& name)
{
    for (size_t at = 0; at < call.count; ++at) {
        if (name == call.results[at].name) {
            return &call.results[at];
        }
    }
    throw std::invalid_argument(std::string(call.name) + " has no result " + name);
}

const failing::Result* resultOf(const failing::Call& call, unsigned int occurrence)
{
    for (const Fault& fault : state->run.faults) {
        if (fault.occurrence == occurrence && fault.call == call.name) {
            return resultNamed(call, fault.result);
        }
    }
    return nullptr;
}

const failing::Result* judge(const failing::Call& call)
{
    const unsigned int occurrence = ++state->counts[call.name];
    if (state->run.faults.empty()) {
        Point point{call.name, occurrence, {}};
        for (size_t at = 0; at < call.count; ++at) {
            point.results.emplace_back(call.results[at].name);
        }
        state->points.push_back(std::move(point));
        return nullptr;
    }
    const failing::Result* const result = resultOf(call, occurrence);
    if (result != nullptr) {
        state->faults.push_back({call.name, occurrence, result->name});
        daemon::note("fails: " + textOf(state->faults.back()) +
                     (call.object != nullptr ? std::string(" ") + call.object : ""));
    }
    return result;
}

} // namespace

void start(const Run& run)
{
    state = new State;
    state->run = run;
    failing::setJudge(judge);
}

const std::vector<Point>& points()
{
    return state->points;
}

const std::vector<Fault>& faults()
{
    return state->faults;
}

} // namespace plan

} // namespace proof
