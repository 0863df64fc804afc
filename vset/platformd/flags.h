// Boot-event flags: raised or not, until the next boot.
#pragma once

#include <cstdint>
#include <map>
#include <string>

#include <json/json.h>

#include "clients.h"
#include "event.h"
#include "history.h"

namespace vset
{

class Flags
{
public:
    void raise(const std::string& flag, const Client& by);
    bool isRaised(const std::string& flag) const { return raised_.count(flag) > 0; }
    // Lowering a flag that is not raised is fine, and recorded too.
    void reset(const std::string& flag, const Client& by);

    Json::Value snapshot() const;
    // Raises what is raised in a snapshot of this boot. Tells nobody.
    void restore(const Json::Value& snapshot);

    Event<> changed;

private:
    struct Step {
        int64_t time;
        std::string flag;
        bool isRaise;
        Client by;
    };

    std::map<std::string, int64_t> raised_; // when, wall milliseconds
    History<Step> history_;
};

} // namespace vset
