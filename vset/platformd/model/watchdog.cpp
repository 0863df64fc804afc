#include "vset/platformd/model/watchdog.h"

namespace vset
{

bool Watchdog::add(const Client& service, int period)
{
    if (period <= 0) {
        return false;
    }
    Watched& watched = watched_[service.name];
    watched.service = service;
    watched.period = period;
    watched.registered = wallMilliseconds();
    watched.lastBeat = 0;
    watched.beats = 0;
    expectBeat(watched);
    record(service, "registered");
    return true;
}

bool Watchdog::notify(const std::string& service)
{
    const auto found = watched_.find(service);
    if (found == watched_.end()) {
        return false;
    }
    found->second.lastBeat = wallMilliseconds();
    ++found->second.beats;
    expectBeat(found->second);
    changed.tell();
    return true;
}

bool Watchdog::remove(const std::string& service)
{
    return end(service, "unregistered");
}

void Watchdog::drop(const std::string& service)
{
    end(service, "ended");
}

bool Watchdog::end(const std::string& service, const char* step)
{
    const auto found = watched_.find(service);
    if (found == watched_.end()) {
        return false;
    }
    const Client client = found->second.service;
    watched_.erase(found);
    record(client, step);
    return true;
}

void Watchdog::expectBeat(Watched& watched)
{
    watched.timer.start(int64_t{1000} * watched.period, [this, &watched] {
        record(watched.service, "missed");
        expectBeat(watched);
    });
}

void Watchdog::record(const Client& service, const char* step)
{
    history_.add({wallMilliseconds(), service, step});
    changed.tell();
}

Json::Value Watchdog::snapshot() const
{
    Json::Value json;
    json["registered"] = Json::arrayValue;
    json["history"] = Json::arrayValue;
    for (const auto& [name, watched] : watched_) {
        Json::Value entry;
        entry["service"] = toJson(watched.service);
        entry["period_s"] = watched.period;
        entry["registered_ms"] = Json::Int64(watched.registered);
        entry["last_beat_ms"] =
            watched.beats > 0 ? Json::Value(Json::Int64(watched.lastBeat)) : Json::Value();
        entry["beats"] = Json::Int64(watched.beats);
        json["registered"].append(entry);
    }
    for (const Step& step : history_) {
        Json::Value entry;
        entry["time_ms"] = Json::Int64(step.time);
        entry["step"] = step.step;
        entry["service"] = toJson(step.service);
        json["history"].append(entry);
    }
    return json;
}

} // namespace vset
