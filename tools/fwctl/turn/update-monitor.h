// Follows updates from outside, by the daemon's own messages: which module is being written, how far it is,
// and how it ended. The texts are an interface that other programs read, so they may be relied on.
#ifndef TOOLS_FWCTL_TURN_UPDATE_MONITOR_H
#define TOOLS_FWCTL_TURN_UPDATE_MONITOR_H

#include <atomic>
#include <list>
#include <mutex>
#include <string>
#include <sys/types.h>
#include <thread>
#include <vector>

#include "tools/fwctl/turn/update-child.h"

class FWUpdateSymbol;

namespace fwctl
{

struct UpdateOutcome {
    FWUpdateSymbol* module = nullptr;
    std::string result = "started"; // then "updated", "failed", "not-needed"
    std::string reason;             // the daemon's last words on it
    bool isLate = false;            // it took longer than its expected time
    pid_t thread = 0;               // that updates it; outlives the wait for it when it is late
};

// module, result, reason and late, as --json prints them.
Json::Value asJson(const UpdateOutcome& outcome);

// Tells the parent process progress and outcomes while it lives, on a thread of its own. One at a time.
class UpdateMonitor
{
public:
    // Modules and link must outlive the monitor, and every call of the modules.
    UpdateMonitor(std::list<FWUpdateSymbol>& modules, UpdateLink& link);
    ~UpdateMonitor();
    UpdateMonitor(const UpdateMonitor&) = delete;
    UpdateMonitor& operator=(const UpdateMonitor&) = delete;

    // For an update that begins without a message: an external module's, on this thread.
    void follow(FWUpdateSymbol& module);

    // What has become of the updates, once those that were given up as late have ended too. A library that
    // never returns is waited for without end: the hardware is being written.
    std::vector<UpdateOutcome> finish();

    // What a watched call says (library-calls.h): the reason of a failure, unless the daemon says more.
    void noteTrouble(const std::string& text);

private:
    void tell();
    void note(const std::string& message);
    void begin(const std::string& firmwareName);
    void append(FWUpdateSymbol& module);
    bool isKnown(const FWUpdateSymbol& module) const;
    bool isBegunHere() const; // an update on the calling thread
    FWUpdateSymbol* current();
    void draw();
    bool waitForLateOnes();

    std::list<FWUpdateSymbol>& modules_;
    UpdateLink& link_;
    std::mutex mutex_;
    std::vector<UpdateOutcome> outcomes_;
    std::atomic<bool> isEnding_{false};
    std::thread drawer_;
};

} // namespace fwctl

#endif
