#include "vset/platformd/bus/subscribers.h"

namespace vset
{

void Subscribers::add(const Client& client, const std::string& event, const std::string& argument)
{
    Entry& entry = entries_[{client.name, event, argument}];
    entry.client = client;
    ++entry.count;
    changed.tell();
}

bool Subscribers::remove(const std::string& client, const std::string& event, const std::string& argument)
{
    const auto found = entries_.find({client, event, argument});
    if (found == entries_.end()) {
        return false;
    }
    if (--found->second.count == 0) {
        entries_.erase(found);
    }
    changed.tell();
    return true;
}

void Subscribers::removeAllOf(const std::string& client)
{
    bool isAny = false;
    for (auto entry = entries_.begin(); entry != entries_.end();) {
        const bool isTheirs = std::get<0>(entry->first) == client;
        isAny = isAny || isTheirs;
        entry = isTheirs ? entries_.erase(entry) : std::next(entry);
    }
    if (isAny) {
        changed.tell();
    }
}

Json::Value Subscribers::snapshot() const
{
    Json::Value json = Json::arrayValue;
    for (const auto& [key, entry] : entries_) {
        Json::Value subscriber;
        subscriber["client"] = toJson(entry.client);
        subscriber["event"] = std::get<1>(key);
        subscriber["argument"] = std::get<2>(key);
        subscriber["count"] = entry.count;
        json.append(subscriber);
    }
    return json;
}

} // namespace vset
