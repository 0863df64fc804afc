// Updates in a child process, supervised: whatever happens to the child, the turn to update is given back and
// the parent says how it ended; whatever happens to the parent, the child finishes what it has begun to
// write.
#ifndef TOOLS_FWCTL_TURN_UPDATE_CHILD_H
#define TOOLS_FWCTL_TURN_UPDATE_CHILD_H

#include <cstdint>
#include <functional>
#include <json/json.h>
#include <mutex>
#include <set>
#include <string>

#include "tools/fwctl/modules/isolated.h"
#include "tools/fwctl/turn/update-turn.h"

namespace fwctl
{

// The child's end. The child may say what it likes with `telling`; these have a meaning for the parent. Every
// thread may call say() and tellProgress().
class UpdateLink
{
public:
    UpdateLink(Telling& telling, UpdateTurn& turn, int permission)
        : telling_(telling), turn_(turn), permission_(permission)
    {
    }

    Telling& telling() { return telling_; }

    // A line on standard error, above the progress.
    void say(const std::string& line) { telling_.put("say", line); }
    void tellProgress(const std::string& module, unsigned int percent);
    // Objects with module, result ("started" until it is known) and reason; each time all of them.
    void tellOutcomes(const Json::Value& outcomes) { telling_.put("outcomes", outcomes); }

    // Of the daemon's code: what that mounts does not outlast the update, unless it was mounted before. The
    // daemon leaves the package of a failed update mounted for its next try; here nobody has one.
    void noteDaemonMessage(const std::string& message);
    std::set<std::string> mounted() const;

    // The set shall not go off in so many milliseconds, nor before the parent has told the result.
    void keepPower(uint32_t milliseconds) { telling_.put("power", milliseconds); }

    // Waits until the parent has the turn. Does not return when the parent ends before.
    void takeTurn();

private:
    Telling& telling_;
    UpdateTurn& turn_;
    mutable std::mutex mutex_;
    std::set<std::string> mounted_;
    int permission_; // a byte comes from the parent with the turn
};

// Runs `work` in a child, which has the daemon's user and a private update semaphore, and gives all that it
// has told. When it failed: "failure", and "culprit", the module (or ""); outcomes that were begun are then
// "failed" with that reason. Throws what `work` throws, as CommandError with the same status.
Json::Value runUpdate(const std::function<void(UpdateLink&)>& work);

} // namespace fwctl

#endif
