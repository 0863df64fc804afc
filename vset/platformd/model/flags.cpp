#include "vset/platformd/model/flags.h"

#include "vset/platformd/service-time.h"

namespace vset
{

void Flags::raise(const std::string& flag, const Client& by)
{
    const int64_t now = wallMilliseconds();
    raised_.emplace(flag, now);
    history_.add({now, flag, true, by});
    changed.tell();
}

void Flags::reset(const std::string& flag, const Client& by)
{
    raised_.erase(flag);
    history_.add({wallMilliseconds(), flag, false, by});
    changed.tell();
}

Json::Value Flags::kept() const
{
    Json::Value json;
    json["raised"] = Json::objectValue;
    for (const auto& [flag, time] : raised_) {
        json["raised"][flag] = Json::Int64(time);
    }
    return json;
}

Json::Value Flags::snapshot() const
{
    Json::Value json = kept();
    json["history"] = Json::arrayValue;
    for (const Step& step : history_) {
        Json::Value entry;
        entry["time_ms"] = Json::Int64(step.time);
        entry["flag"] = step.flag;
        entry["step"] = step.isRaise ? "raised" : "reset";
        entry["client"] = toJson(step.by);
        json["history"].append(entry);
    }
    return json;
}

void Flags::restore(const Json::Value& kept)
{
    if (!kept.isObject() || !kept["raised"].isObject()) {
        return;
    }
    for (const std::string& flag : kept["raised"].getMemberNames()) {
        if (kept["raised"][flag].isInt64()) {
            raised_.emplace(flag, kept["raised"][flag].asInt64());
        }
    }
}

} // namespace vset
