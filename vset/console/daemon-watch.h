// The daemon's process as /proc shows it: whether it runs, and its threads from first to last sight.
#ifndef VSET_CONSOLE_DAEMON_WATCH_H
#define VSET_CONSOLE_DAEMON_WATCH_H

#include <cstdint>
#include <json/json.h>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "vset/console/real-time.h"
#include "vset/platformd/event.h"
#include "vset/platformd/history.h"

namespace vset
{

class DaemonWatch
{
public:
    // Looks five times a second of the PC's time; a thread that lives shorter may stay unseen.
    DaemonWatch();

    // 0 when it does not run.
    int process() const { return process_; }
    Json::Value snapshot() const;

    Event<> changed;
    Event<int, int64_t> ended; // process, wall milliseconds

private:
    struct Thread {
        int process;
        int id;
        std::string name;
        int64_t start; // first sight, wall milliseconds
        std::optional<int64_t> end;
    };

    void look();
    bool lookAtThreads(int64_t now);

    RealTimer timer_;
    int process_ = 0;
    std::map<int, Thread> running_;
    History<Thread> gone_;
};

} // namespace vset

#endif
