// The deadlock watchdog: a registered service must notify it once in every period.
//
// A period that passes without a notification is recorded as missed, and the next one begins: the set of this
// PC does not restart the service, so that one can see what it does.
#ifndef VSET_PLATFORMD_MODEL_WATCHDOG_H
#define VSET_PLATFORMD_MODEL_WATCHDOG_H

#include <cstdint>
#include <json/json.h>
#include <map>
#include <string>

#include "vset/platformd/bus/clients.h"
#include "vset/platformd/event.h"
#include "vset/platformd/history.h"
#include "vset/platformd/service-time.h"

namespace vset
{

class Watchdog
{
public:
    // Period in seconds, above 0; false otherwise. Registering again begins anew.
    bool add(const Client& service, int period);
    // Each is false when the service is not registered.
    bool notify(const std::string& service);
    bool remove(const std::string& service);
    // Its connection has ended without taking leave.
    void drop(const std::string& service);

    Json::Value snapshot() const;

    Event<> changed;

private:
    struct Watched {
        Client service;
        int period = 0;
        int64_t registered = 0; // wall milliseconds, as all times here
        int64_t lastBeat = 0;   // 0: none yet
        int64_t beats = 0;
        Timer timer;
    };
    struct Step {
        int64_t time;
        Client service;
        const char* step; // a literal
    };

    void expectBeat(Watched& watched);
    void record(const Client& service, const char* step);
    bool end(const std::string& service, const char* step);

    std::map<std::string, Watched> watched_;
    History<Step> history_;
};

} // namespace vset

#endif
