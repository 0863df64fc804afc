#include "vset/platformd/model/power.h"

#include <algorithm>
#include <cstdio>
#include <system_error>
#include <utility>

#include "vset/platformd/files.h"

namespace vset
{

namespace
{

constexpr int kHighestState = 255;

struct StateName {
    int state;
    const char* name;
};
constexpr StateName kStateNames[] = {{0, "normal"}, {2, "standby"}};

const char* nameOf(int state)
{
    for (const StateName& known : kStateNames) {
        if (known.state == state) {
            return known.name;
        }
    }
    return "";
}

const char* nameOf(Ending ending)
{
    return ending == Ending::Reboot ? "reboot" : "power-off";
}

} // namespace

Power::Power(std::string historyFile, bool isCarriedOut)
    : stateSince_(wallMilliseconds()), historyFile_(std::move(historyFile)), isCarriedOut_(isCarriedOut)
{
    const Json::Value kept = loadJson(historyFile_);
    for (const Json::Value& ending : kept["endings"]) {
        if (ending.isObject()) {
            endings_.add(ending);
        }
    }
}

// ---- State ----

std::optional<std::string> Power::setState(int state)
{
    if (state < 0 || state > kHighestState) {
        return "a power state is a number from 0 (normal) to " + std::to_string(kHighestState) +
               "; 2 is standby";
    }
    if (state == state_) {
        return std::nullopt;
    }
    const int previous = std::exchange(state_, state);
    stateSince_ = wallMilliseconds();
    stateChanges_.add({stateSince_, previous, state});
    stateChanged.tell(previous, state);
    changedState.tell();
    return std::nullopt;
}

Json::Value Power::snapshotOfState() const
{
    Json::Value json;
    json["state"] = state_;
    json["name"] = nameOf(state_);
    json["since_ms"] = Json::Int64(stateSince_);
    json["pending_end"] = pending_ ? nameOf(*pending_) : "";
    json["history"] = Json::arrayValue;
    for (const StateChange& change : stateChanges_) {
        Json::Value entry;
        entry["time_ms"] = Json::Int64(change.time);
        entry["previous"] = change.previous;
        entry["current"] = change.current;
        json["history"].append(entry);
    }
    return json;
}

void Power::restoreState(const Json::Value& snapshot)
{
    if (!snapshot.isObject() || !snapshot["state"].isInt() || !snapshot["since_ms"].isInt64()) {
        return;
    }
    state_ = snapshot["state"].asInt();
    stateSince_ = snapshot["since_ms"].asInt64();
}

// ---- Locks ----

Power::Locks::iterator Power::findLock(const std::string& ownerName, int kind)
{
    return std::find_if(locks_.begin(), locks_.end(), [&](const std::unique_ptr<Lock>& lock) {
        return lock->kind == kind && lock->owner.name == ownerName;
    });
}

void Power::lock(const Client& owner, int kind, unsigned int milliseconds)
{
    const auto old = findLock(owner.name, kind);
    if (old != locks_.end()) {
        endLock(old, "replaced");
    }
    auto lock = std::make_unique<Lock>();
    lock->owner = owner;
    lock->kind = kind;
    lock->duration = milliseconds;
    lock->startWall = wallMilliseconds();
    lock->endMonotonic = monotonicMilliseconds() + milliseconds;
    lock->expiry.start(milliseconds, [this, raw = lock.get()] { expire(raw); });
    locks_.push_back(std::move(lock));
    changedLocks.tell();
}

bool Power::unlock(const std::string& ownerName, int kind)
{
    const auto found = findLock(ownerName, kind);
    if (found == locks_.end()) {
        return false;
    }
    endLock(found, "released");
    changedLocks.tell();
    endWhenFree();
    return true;
}

void Power::releaseAllOf(const std::string& ownerName)
{
    const size_t before = locks_.size();
    for (auto lock = locks_.begin(); lock != locks_.end();) {
        lock = (*lock)->owner.name == ownerName ? endLock(lock, "owner ended") : std::next(lock);
    }
    if (locks_.size() == before) {
        return;
    }
    changedLocks.tell();
    endWhenFree();
}

Power::Locks::iterator Power::endLock(Locks::iterator lock, const char* why)
{
    const Lock& past = **lock;
    pastLocks_.add({past.owner, past.kind, past.duration, past.startWall, wallMilliseconds(), why});
    return locks_.erase(lock);
}

void Power::expire(const Lock* lock)
{
    const auto found = std::find_if(locks_.begin(), locks_.end(),
                                    [&](const std::unique_ptr<Lock>& held) { return held.get() == lock; });
    if (found == locks_.end()) {
        return;
    }
    endLock(found, "expired");
    changedLocks.tell();
    endWhenFree();
}

Json::Value Power::snapshotOfLocks() const
{
    Json::Value json;
    json["held"] = Json::arrayValue;
    json["history"] = Json::arrayValue;
    for (const std::unique_ptr<Lock>& lock : locks_) {
        Json::Value entry;
        entry["kind"] = lock->kind;
        entry["duration_ms"] = lock->duration;
        entry["start_ms"] = Json::Int64(lock->startWall);
        entry["left_ms"] = Json::Int64(std::max<int64_t>(0, lock->endMonotonic - monotonicMilliseconds()));
        entry["owner"] = toJson(lock->owner);
        json["held"].append(entry);
    }
    for (const PastLock& lock : pastLocks_) {
        Json::Value entry;
        entry["kind"] = lock.kind;
        entry["duration_ms"] = lock.duration;
        entry["start_ms"] = Json::Int64(lock.startWall);
        entry["end_ms"] = Json::Int64(lock.endWall);
        entry["end"] = lock.end;
        entry["owner"] = toJson(lock.owner);
        json["history"].append(entry);
    }
    return json;
}

// ---- End ----

void Power::requestPowerOff(int reason, const Client& requester)
{
    poweringOff.tell(reason);
    request(Ending::PowerOff, reason, requester);
}

void Power::requestReboot(unsigned int reason, const Client& requester)
{
    request(Ending::Reboot, reason, requester);
}

// The first request decides how the set ends; later ones are recorded beside it.
void Power::request(Ending ending, int64_t reason, const Client& requester)
{
    Json::Value entry;
    entry["kind"] = nameOf(ending);
    entry["reason"] = Json::Int64(reason);
    entry["time_ms"] = Json::Int64(wallMilliseconds());
    entry["requester"] = toJson(requester);
    entry["outcome"] = pending_ ? "the set is ending already" : "waiting";
    endings_.add(entry);
    saveEndings();
    if (!pending_) {
        pending_ = ending;
        isGraceOver_ = false;
        grace_.start(kGraceMilliseconds, [this] {
            isGraceOver_ = true;
            endWhenFree();
        });
    }
    changedEndings.tell();
    changedState.tell();
}

void Power::endWhenFree()
{
    if (pending_ && isGraceOver_ && locks_.empty()) {
        finishEnding();
    }
}

void Power::finishEnding()
{
    const Ending ending = *pending_;
    pending_.reset();
    for (Json::Value& entry : endings_) {
        if (entry["outcome"].isString() && entry["outcome"].asString() == "waiting") {
            entry["outcome"] = isCarriedOut_ ? "carried out" : "recorded only";
        }
    }
    saveEndings();
    changedEndings.tell();
    changedState.tell();
    if (isCarriedOut_) {
        ended.tell(ending);
    }
}

void Power::saveEndings() const
{
    Json::Value kept;
    kept["endings"] = snapshotOfEndings();
    try {
        saveJson(historyFile_, kept);
    } catch (const std::system_error& error) {
        fprintf(stderr, "platformd: the history of power-offs and reboots cannot be kept: %s\n",
                error.what());
    }
}

Json::Value Power::snapshotOfEndings() const
{
    Json::Value json = Json::arrayValue;
    for (const Json::Value& ending : endings_) {
        json.append(ending);
    }
    return json;
}

} // namespace vset
