#include "vset/platformd/model/launches.h"

#include "vset/platformd/service-time.h"

namespace vset
{

unsigned int Launches::create(const Client& owner)
{
    Launch launch;
    launch.id = ++lastId_;
    launch.owner = owner;
    launch.time = wallMilliseconds();
    launches_.add(launch);
    changed.tell();
    return launch.id;
}

Launch* Launches::find(unsigned int id, const std::string& owner)
{
    for (Launch& launch : launches_) {
        if (launch.id == id && launch.owner.name == owner && !launch.isDestroyed) {
            return &launch;
        }
    }
    return nullptr;
}

bool Launches::addExtra(unsigned int id, const std::string& owner, const std::string& key,
                        const std::string& value)
{
    Launch* const launch = find(id, owner);
    if (launch == nullptr || key.empty()) {
        return false;
    }
    launch->extras.emplace_back(key, value);
    changed.tell();
    return true;
}

bool Launches::setApplication(unsigned int id, const std::string& owner, const std::string& application)
{
    Launch* const launch = find(id, owner);
    if (launch == nullptr || application.empty()) {
        return false;
    }
    launch->application = application;
    changed.tell();
    return true;
}

bool Launches::send(unsigned int id, const std::string& owner)
{
    Launch* const launch = find(id, owner);
    if (launch == nullptr || launch->application.empty()) {
        return false;
    }
    launch->isSent = true;
    launch->reply.reset();
    launch->time = wallMilliseconds();
    sent.tell(*launch);
    changed.tell();
    return true;
}

bool Launches::destroy(unsigned int id, const std::string& owner)
{
    Launch* const launch = find(id, owner);
    if (launch == nullptr) {
        return false;
    }
    launch->isDestroyed = true;
    changed.tell();
    return true;
}

void Launches::destroyAllOf(const std::string& owner)
{
    bool isAny = false;
    for (Launch& launch : launches_) {
        const bool isTheirs = launch.owner.name == owner && !launch.isDestroyed;
        launch.isDestroyed = launch.isDestroyed || isTheirs;
        isAny = isAny || isTheirs;
    }
    if (isAny) {
        changed.tell();
    }
}

std::optional<std::string> Launches::reply(unsigned int id, int result)
{
    for (Launch& launch : launches_) {
        if (launch.id != id) {
            continue;
        }
        if (!launch.isSent) {
            return "launch " + std::to_string(id) + " was not sent";
        }
        if (launch.reply) {
            return "launch " + std::to_string(id) + " has its reply already";
        }
        launch.reply = result;
        if (!launch.isDestroyed) {
            replied.tell(launch);
        }
        changed.tell();
        return std::nullopt;
    }
    return "there is no launch " + std::to_string(id);
}

Json::Value Launches::snapshot() const
{
    Json::Value json = Json::arrayValue;
    for (const Launch& launch : launches_) {
        Json::Value entry;
        entry["id"] = launch.id;
        entry["application"] = launch.application;
        entry["time_ms"] = Json::Int64(launch.time);
        entry["sent"] = launch.isSent;
        entry["destroyed"] = launch.isDestroyed;
        entry["reply"] = launch.reply ? Json::Value(*launch.reply) : Json::Value();
        entry["owner"] = toJson(launch.owner);
        entry["extras"] = Json::arrayValue;
        for (const auto& [key, value] : launch.extras) {
            Json::Value extra;
            extra["key"] = key;
            extra["value"] = value;
            entry["extras"].append(extra);
        }
        json.append(entry);
    }
    return json;
}

} // namespace vset
