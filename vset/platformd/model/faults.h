// Calls of the platform that shall fail or be late, as a person or a test has ordered by `vset fault`.
#ifndef VSET_PLATFORMD_MODEL_FAULTS_H
#define VSET_PLATFORMD_MODEL_FAULTS_H

#include <json/json.h>
#include <map>
#include <optional>
#include <string>
#include <utility>

#include "vset/platformd/event.h"

namespace vset
{

class Faults
{
public:
    // What shall happen to one call.
    struct Verdict {
        std::optional<int> result; // answered instead of doing anything
        unsigned int delay = 0;    // milliseconds before the answer
    };

    // `argument` empty: whatever the call is about. `count` below 0: until reset; 0 ends it.
    void setResult(const std::string& call, const std::string& argument, int result, int count);
    void setDelay(const std::string& call, const std::string& argument, unsigned int milliseconds, int count);
    // All of them for an empty `call`.
    void reset(const std::string& call);

    // Asks for a call that is being made: counts it.
    Verdict take(const std::string& call, const std::string& argument);

    Json::Value snapshot() const;

    Event<> changed;

private:
    struct Order {
        int64_t value = 0; // result, or milliseconds
        int left = 0;      // below 0: no end
        int64_t hits = 0;
    };
    using Orders = std::map<std::pair<std::string, std::string>, Order>;

    void set(Orders& orders, const std::string& call, const std::string& argument, const Order& order);
    std::optional<int64_t> hit(Orders& orders, const std::string& call, const std::string& argument);

    Orders results_;
    Orders delays_;
};

} // namespace vset

#endif
