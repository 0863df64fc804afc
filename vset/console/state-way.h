// The way that the daemon's service state has taken, read from what the daemon logged.
//
// The daemon writes its state's number once a second; such a step is certain, its time is that of the first
// number. States that pass between two seconds are inferred from the other messages of their moment, and
// marked so; a later number confirms them. States that leave no trace are not shown.
#ifndef VSET_CONSOLE_STATE_WAY_H
#define VSET_CONSOLE_STATE_WAY_H

#include <cstdint>
#include <deque>
#include <json/json.h>
#include <optional>
#include <string>
#include <vector>

#include "vset/client/platform-log.h"

namespace vset
{

struct WayStep {
    int state = 0;
    int64_t time = 0;      // wall milliseconds of the set
    bool isLogged = false; // the number itself was seen
    std::string reason;    // of an inferred step: the message that shows it
};

// One life of the daemon.
struct WayRun {
    int process = 0;
    int64_t start = 0;
    std::optional<int64_t> end;
    std::vector<WayStep> steps;
    int64_t lastHeard = 0; // its latest record
};

class StateWay
{
public:
    static constexpr size_t kKeptRuns = 20;

    // Takes the next record of the log. True when the way has changed.
    bool take(const LogRecord& record);

    // The daemon's process is gone: a finalising daemon has reached its last state. True when that is new. It
    // ended at `time`, or 0: nobody saw it, after its last record then.
    bool endRun(int process, int64_t time);

    // The process of the latest run, unless it has ended.
    std::optional<int> running() const;

    // The state of the latest run; nothing before the first.
    std::optional<int> state() const;

    Json::Value toJson() const;

private:
    void endLatest(int64_t time);
    bool addStep(int state, int64_t time, bool isLogged, const std::string& reason);

    std::deque<WayRun> runs_;
};

// The milliseconds since 1970 of a record's time; 0 for a malformed one.
int64_t millisecondsOf(const LogRecord& record);

} // namespace vset

#endif
