// The set's power: its state, the locks that keep it from switching off, and how it ends.
//
// A power-off or a reboot is carried out once no lock is held and a second has passed, in which everybody can
// react to its event. What was asked for is kept over the reboot.
#ifndef VSET_PLATFORMD_MODEL_POWER_H
#define VSET_PLATFORMD_MODEL_POWER_H

#include <cstdint>
#include <json/json.h>
#include <list>
#include <memory>
#include <optional>
#include <string>

#include "vset/platformd/bus/clients.h"
#include "vset/platformd/event.h"
#include "vset/platformd/history.h"
#include "vset/platformd/service-time.h"

namespace vset
{

enum class Ending { PowerOff, Reboot };

class Power
{
public:
    static constexpr int64_t kGraceMilliseconds = 1000;

    // `historyFile` keeps the power-offs and reboots. Without `isCarriedOut` they are only recorded.
    Power(std::string historyFile, bool isCarriedOut);

    // ---- State: 0 normal, 2 standby; other numbers are states of the set too ----
    int state() const { return state_; }
    // The text of what is wrong with the number, or nothing. The state it already has is no change.
    std::optional<std::string> setState(int state);

    // ---- Locks: of one kind and owner there is at most one; a new one takes the place of the old ----
    void lock(const Client& owner, int kind, unsigned int milliseconds);
    // False when the owner holds no lock of that kind.
    bool unlock(const std::string& ownerName, int kind);
    void releaseAllOf(const std::string& ownerName);
    bool isLocked() const { return !locks_.empty(); }

    // ---- End ----
    void requestPowerOff(int reason, const Client& requester);
    void requestReboot(unsigned int reason, const Client& requester);

    Json::Value snapshotOfState() const;
    // Takes the state from a snapshot of this boot. Tells nobody.
    void restoreState(const Json::Value& snapshot);
    Json::Value snapshotOfLocks() const;
    Json::Value snapshotOfEndings() const;

    Event<int, int> stateChanged; // previous, current
    Event<int> poweringOff;       // reason
    Event<Ending> ended;          // it is time to end the set
    Event<> changedState;
    Event<> changedLocks;
    Event<> changedEndings;

private:
    struct Lock {
        Client owner;
        int kind = 0;
        unsigned int duration = 0;
        int64_t startWall = 0;
        int64_t endMonotonic = 0;
        Timer expiry;
    };
    struct PastLock {
        Client owner;
        int kind;
        unsigned int duration;
        int64_t startWall;
        int64_t endWall;
        const char* end; // why: a literal
    };
    struct StateChange {
        int64_t time;
        int previous;
        int current;
    };
    using Locks = std::list<std::unique_ptr<Lock>>;

    Locks::iterator findLock(const std::string& ownerName, int kind);
    Locks::iterator endLock(Locks::iterator lock, const char* why);
    void expire(const Lock* lock);
    void request(Ending ending, int64_t reason, const Client& requester);
    void endWhenFree();
    void finishEnding();
    void saveEndings() const;

    int state_ = 0;
    int64_t stateSince_;
    History<StateChange> stateChanges_;
    Locks locks_;
    History<PastLock> pastLocks_;

    std::string historyFile_;
    bool isCarriedOut_;
    History<Json::Value> endings_;
    std::optional<Ending> pending_;
    Timer grace_;
    bool isGraceOver_ = false;
};

} // namespace vset

#endif
