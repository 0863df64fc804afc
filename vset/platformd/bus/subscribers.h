// Who has asked to hear of which event.
#ifndef VSET_PLATFORMD_BUS_SUBSCRIBERS_H
#define VSET_PLATFORMD_BUS_SUBSCRIBERS_H

#include <json/json.h>
#include <map>
#include <string>
#include <tuple>

#include "vset/platformd/bus/clients.h"
#include "vset/platformd/event.h"

namespace vset
{

class Subscribers
{
public:
    // `event` is "key", "state" or "poweroff"; `argument` the key, else empty. Counts repeated ones.
    void add(const Client& client, const std::string& event, const std::string& argument);
    // False when there is none.
    bool remove(const std::string& client, const std::string& event, const std::string& argument);
    void removeAllOf(const std::string& client);

    Json::Value snapshot() const;

    Event<> changed;

private:
    struct Entry {
        Client client;
        int count = 0;
    };

    std::map<std::tuple<std::string, std::string, std::string>, Entry> entries_; // client, event, argument
};

} // namespace vset

#endif
