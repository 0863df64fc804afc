#include "state-way.h"

#include <cstdlib>

#include <glib.h>

namespace vset
{

namespace
{

constexpr int kFinalizing = 20;
constexpr int kFinalized = 21;
constexpr const char* kGone = "the process has ended";

// A message that shows a state, in the states in which it means that.
struct Sign {
    const char* function;
    const char* start; // of the message
    int from;
    int to;
    int state;
};

constexpr Sign kSigns[] = {
    {"main", "g_main loop running", 0, 0, 1},
    {"downloadEMP", "Request (", 1, 1, 2},
    {"isNeedUpdate", "", 1, 3, 4},
    {"check_update_module", "need update item", 1, 4, 5},
    {"sendLaunchRequest", "launch failed", 7, 7, 8},
    {"pralis_fwstatus_UI_cb", "fwstatus_ui_cb val 1", 7, 10, 11},
    {"pralis_fwstatus_UI_cb", "fwstatus_ui_cb val 4", 7, 10, 16},
    {"pralis_fwstatus_UI_cb", "fwstatus_ui_cb val 4", 14, 14, 15},
    {"doUpdateFirmwareUI", "Try doUpdateFirmwareUI", 7, 11, 12},
    {"service_finalize", "service finalize", 0, 19, kFinalizing},
};

bool startsWith(const std::string& text, const std::string& start)
{
    return text.compare(0, start.size(), start) == 0;
}

std::optional<int> numberOf(const std::string& text)
{
    const bool isNumber =
        !text.empty() && text.size() <= 3 && text.find_first_not_of("0123456789") == std::string::npos;
    return isNumber ? std::optional<int>(std::atoi(text.c_str())) : std::nullopt;
}

} // namespace

int64_t millisecondsOf(const std::string& time)
{
    GDateTime* const parsed = g_date_time_new_from_iso8601(time.c_str(), nullptr);
    if (parsed == nullptr)
        return 0;
    const int64_t milliseconds =
        g_date_time_to_unix(parsed) * 1000 + g_date_time_get_microsecond(parsed) / 1000;
    g_date_time_unref(parsed);
    return milliseconds;
}

// Each message is in both logs; the trace always tells the function.
bool StateWay::take(const LogRecord& record)
{
    if (record.buffer != LogBuffer::Trace)
        return false;
    if (record.function == "service_initialize" && record.message == "service initialize") {
        const int64_t time = millisecondsOf(record.time);
        if (running())
            endLatest(0); // with its set, or killed
        runs_.push_back({record.process, time, std::nullopt, {{0, time, false, record.message}}, time});
        if (runs_.size() > kKeptRuns)
            runs_.pop_front();
        return true;
    }
    if (runs_.empty() || runs_.back().process != record.process)
        return false;
    runs_.back().lastHeard = millisecondsOf(record.time);
    if (record.function == "FWSVC_state_handler") {
        const std::optional<int> number = numberOf(record.message);
        return number && addStep(*number, millisecondsOf(record.time), true, "");
    }
    const int state = runs_.back().steps.back().state;
    for (const Sign& sign : kSigns) {
        if (state >= sign.from && state <= sign.to && record.function == sign.function &&
            startsWith(record.message, sign.start))
            return addStep(sign.state, millisecondsOf(record.time), false, record.message);
    }
    return false;
}

bool StateWay::addStep(int state, int64_t time, bool isLogged, const std::string& reason)
{
    std::vector<WayStep>& steps = runs_.back().steps;
    if (steps.back().state != state) {
        steps.push_back({state, time, isLogged, reason});
        if (state == kFinalizing && runs_.back().end) // its end was seen before its last record
            steps.push_back({kFinalized, *runs_.back().end, false, kGone});
        return true;
    }
    const bool isConfirmed = isLogged && !steps.back().isLogged;
    steps.back().isLogged = steps.back().isLogged || isLogged;
    return isConfirmed;
}

bool StateWay::endRun(int process, int64_t time)
{
    if (running() != process)
        return false;
    endLatest(time);
    return true;
}

void StateWay::endLatest(int64_t time)
{
    WayRun& run = runs_.back();
    run.end = time != 0 ? time : run.lastHeard;
    if (run.steps.back().state == kFinalizing)
        addStep(kFinalized, *run.end, false, kGone);
}

std::optional<int> StateWay::running() const
{
    if (runs_.empty() || runs_.back().end)
        return std::nullopt;
    return runs_.back().process;
}

std::optional<int> StateWay::state() const
{
    if (runs_.empty())
        return std::nullopt;
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
