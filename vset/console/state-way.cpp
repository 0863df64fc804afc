#include "vset/console/state-way.h"

#include "common/daemon/daemon-events.h"

namespace vset
{

namespace
{

constexpr int kFinalizing = 20;
constexpr int kFinalized = 21;
constexpr const char* kGone = "the process has ended";

using Kind = common::DaemonEventKind;

// An event that shows a state, in the states in which it means that.
struct Sign {
    Kind kind;
    std::optional<int> value; // the event's first one
    int from;
    int to;
    int state;
};

constexpr Sign kSigns[] = {
    {Kind::kInitialised, std::nullopt, 0, 0, 1},
    {Kind::kRequested, std::nullopt, 1, 1, 2},
    {Kind::kCheckBegun, std::nullopt, 1, 3, 4},
    {Kind::kNoFirmwareName, std::nullopt, 1, 3, 4}, // a check that ends before it begins
    {Kind::kPending, std::nullopt, 1, 4, 5},
    {Kind::kLaunchFailed, std::nullopt, 7, 7, 8},
    {Kind::kAnswer, 1, 7, 10, 11},
    {Kind::kAnswer, 4, 7, 10, 16},
    {Kind::kAnswer, 4, 14, 14, 15},
    {Kind::kAcceptedBegun, std::nullopt, 7, 11, 12},
    {Kind::kEnding, std::nullopt, 0, 19, kFinalizing},
};

} // namespace

int64_t millisecondsOf(const LogRecord& record)
{
    return common::microsecondsOf(record).value_or(0) / 1000;
}

// Each message is in both logs.
bool StateWay::take(const LogRecord& record)
{
    if (record.buffer != LogBuffer::Trace) {
        return false;
    }
    const common::DaemonEvent event = common::readDaemonMessage(record.message);
    if (event.kind == Kind::kStarted) {
        const int64_t time = millisecondsOf(record);
        if (running()) {
            endLatest(0); // with its set, or killed
        }
        runs_.push_back({record.process, time, std::nullopt, {{0, time, false, record.message}}, time});
        if (runs_.size() > kKeptRuns) {
            runs_.pop_front();
        }
        return true;
    }
    if (runs_.empty() || runs_.back().process != record.process) {
        return false;
    }
    runs_.back().lastHeard = millisecondsOf(record);
    if (event.kind == Kind::kState) {
        return addStep(event.number(0), millisecondsOf(record), true, "");
    }
    const int state = runs_.back().steps.back().state;
    for (const Sign& sign : kSigns) {
        const bool isMeant = event.kind == sign.kind && (!sign.value || *sign.value == event.number(0));
        if (isMeant && state >= sign.from && state <= sign.to) {
            return addStep(sign.state, millisecondsOf(record), false, record.message);
        }
    }
    return false;
}

bool StateWay::addStep(int state, int64_t time, bool isLogged, const std::string& reason)
{
    std::vector<WayStep>& steps = runs_.back().steps;
    if (steps.back().state != state) {
        steps.push_back({state, time, isLogged, reason});
        if (state == kFinalizing && runs_.back().end) { // its end was seen before its last record
            steps.push_back({kFinalized, *runs_.back().end, false, kGone});
        }
        return true;
    }
    const bool isConfirmed = isLogged && !steps.back().isLogged;
    steps.back().isLogged = steps.back().isLogged || isLogged;
    return isConfirmed;
}

bool StateWay::endRun(int process, int64_t time)
{
    if (running() != process) {
        return false;
    }
    endLatest(time);
    return true;
}

void StateWay::endLatest(int64_t time)
{
    WayRun& run = runs_.back();
    run.end = time != 0 ? time : run.lastHeard;
    if (run.steps.back().state == kFinalizing) {
        addStep(kFinalized, *run.end, false, kGone);
    }
}

std::optional<int> StateWay::running() const
{
    if (runs_.empty() || runs_.back().end) {
        return std::nullopt;
    }
    return runs_.back().process;
}

std::optional<int> StateWay::state() const
{
    if (runs_.empty()) {
        return std::nullopt;
    }
    return runs_.back().steps.back().state;
}

Json::Value StateWay::toJson() const
{
    Json::Value json = Json::arrayValue;
    for (const WayRun& run : runs_) {
        Json::Value entry;
        entry["pid"] = run.process;
        entry["start_ms"] = Json::Int64(run.start);
        entry["end_ms"] = run.end ? Json::Value(Json::Int64(*run.end)) : Json::Value();
        for (const WayStep& step : run.steps) {
            Json::Value one;
            one["state"] = step.state;
            one["time_ms"] = Json::Int64(step.time);
            one["source"] = step.isLogged ? "logged" : "inferred";
            one["reason"] = step.reason;
            entry["steps"].append(one);
        }
        json.append(entry);
    }
    return json;
}

} // namespace vset
