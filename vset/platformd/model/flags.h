// Boot-event flags: raised or not, until the next boot.
#ifndef VSET_PLATFORMD_MODEL_FLAGS_H
#define VSET_PLATFORMD_MODEL_FLAGS_H

#include <cstdint>
#include <json/json.h>
#include <map>
#include <string>

#include "vset/platformd/bus/clients.h"
#include "vset/platformd/event.h"
#include "vset/platformd/history.h"

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
    // What of the snapshot outlives the service: it is written at every change, without the history.
    Json::Value kept() const;
    // Raises what was kept in this boot. Tells nobody.
    void restore(const Json::Value& kept);

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

#endif
