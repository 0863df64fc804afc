// Runs a script with the library in a worker process, and tells how it ended: by itself, by a crash, an exit,
// a call that did not return, or by the power cut that was asked for.
#ifndef TOOLS_FWMOD_CHECK_EXAMINER_SUPERVISOR_H
#define TOOLS_FWMOD_CHECK_EXAMINER_SUPERVISOR_H

#include <cstdint>
#include <functional>
#include <json/json.h>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "tools/fwmod/check/examiner/machine/machine.h"
#include "tools/fwmod/check/protocol/findings.h"
#include "tools/fwmod/check/protocol/job.h"
#include "vset/write-watch/write-watch.h"

namespace fwmod::examiner
{

class Worker;
using Script = std::function<void(Worker&)>;

// One write of an update.
struct SeenWrite {
    std::string call;
    std::string path;
    std::uint64_t bytes = 0;
    bool isLasting = false;                // without a flush
    unsigned int update = 0;               // of the session, by number from 1
    bool hasFailed = false;                // it is the one that was to fail
    std::optional<std::uint64_t> position; // in the file, where it is known
    std::string source;                    // what gets the path for its name

    std::string inWords() const; // "write to /var/lib/hardware/tuner", "sync"
    bool isFlush() const;
    bool isFallible() const; // a flush that can tell a failure
    bool isNaming() const;   // gives a file its name, and its name is what counts
    bool isContent() const { return bytes > 0 || isNaming(); }
    bool isOfFirmware() const { return bytes >= 256; } // less is a note or a selector
};

// What the watch saw of an update.
struct Writes {
    unsigned int during = 0;    // doUpdate
    unsigned int late = 0;      // after it had returned
    std::uint64_t bytes = 0;    // during
    std::vector<SeenWrite> all; // during
};

// Files of the hardware that are mapped for writing, at a flush: stores are not seen, but what has come of
// them is.
struct MappedFlush {
    struct Range {
        std::string path;
        std::uint64_t begin = 0;
        std::uint64_t end = 0;
    };
    unsigned int write = 0;                      // the flush, by number from 1
    std::map<std::string, std::string> contents; // before it; the set's paths
    std::vector<Range> flushed;                  // by it; none by one that waits for nothing
};

struct Session {
    bool isFinished = false;       // the script came to its end
    bool isCut = false;            // the power was cut as asked for
    Json::Value told;              // by the script: see sessions.cpp
    std::vector<Finding> findings; // of the script
    std::optional<Finding> death;  // how it ended otherwise
    std::string lastCall;          // the one that was under way then
    bool wasGuardHit = false;
    bool wasCrash = false;
    bool wasHang = false;
    Writes writes;
    std::vector<MappedFlush> mappedFlushes; // where they are looked at
    std::optional<vset::WriteWatch::Spoilt> spoilt;
    double watchDelay = 0; // seconds that the watch may have cost the library, on a loaded machine
};

struct Watch {
    bool isOn = false;
    unsigned int cutAt = 0;     // before this write of doUpdate, from 1, flushes counted
    unsigned int failAt = 0;    // this one fails with EIO
    unsigned int spoilAt = 0;   // this one succeeds, and the hardware holds something else
    bool looksAtMapped = false; // keep what mapped files hold at each flush
    bool holdsReads = false;    // of the hardware: they may be made to fail
    bool cutsAtContent = false; // before the first write that is no flush
};

class Supervisor
{
public:
    explicit Supervisor(const Job& job) : job_(job), suspects_(job.suspects) {}

    Session run(Machine& machine, const Script& script, const Watch& watch = {});

    const Job& job() const { return job_; }

    // The call that has ended a session is not made again from now on: the others are to be seen, too. One
    // that hung takes all its kind along, because each would cost the time limit.
    void avoid(const Session& session);
    const std::set<std::string>& suspects() const { return suspects_; }

    unsigned int calls() const { return calls_; }

private:
    const Job& job_;
    std::set<std::string> suspects_;
    unsigned int calls_ = 0;
};

} // namespace fwmod::examiner

#endif
