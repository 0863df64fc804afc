// Requests to launch an application, each recorded from its first extra to the application's reply.
#ifndef VSET_PLATFORMD_MODEL_LAUNCHES_H
#define VSET_PLATFORMD_MODEL_LAUNCHES_H

#include <cstdint>
#include <json/json.h>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "vset/platformd/bus/clients.h"
#include "vset/platformd/event.h"
#include "vset/platformd/history.h"

namespace vset
{

struct Launch {
    unsigned int id = 0;
    Client owner;
    std::string application;
    std::vector<std::pair<std::string, std::string>> extras; // in the order in which they came
    bool isSent = false;
    bool isDestroyed = false;
    int64_t time = 0; // of the sending, else of the making; wall milliseconds
    std::optional<int> reply;
};

class Launches
{
public:
    unsigned int create(const Client& owner);
    // Each is false when `owner` has no such request at hand.
    bool addExtra(unsigned int id, const std::string& owner, const std::string& key,
                  const std::string& value);
    bool setApplication(unsigned int id, const std::string& owner, const std::string& application);
    // False too without an application; a request may be sent again.
    bool send(unsigned int id, const std::string& owner);
    bool destroy(unsigned int id, const std::string& owner);
    void destroyAllOf(const std::string& owner);

    // The application's answer, for one that was sent. The text of what is wrong, or nothing.
    std::optional<std::string> reply(unsigned int id, int result);

    Json::Value snapshot() const;

    Event<const Launch&> sent;
    Event<const Launch&> replied; // to a request that its owner still holds
    Event<> changed;

private:
    Launch* find(unsigned int id, const std::string& owner);

    unsigned int lastId_ = 0;
    History<Launch> launches_;
};

} // namespace vset

#endif
