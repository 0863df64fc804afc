#include "tools/fwctl/turn/turn-holder.h"

#include <algorithm>
#include <chrono>
#include <thread>
#include <unistd.h>

#include "tools/fwctl/turn/daemon-activity.h"
#include "tools/fwctl/turn/turn-record.h"

namespace fwctl
{

namespace
{
std::string nameOf(const SemaphoreUser& user)
{
    return user.name + " (process " + std::to_string(user.pid) + ")";
}

bool waits(const SemaphoreUser& user, pid_t thread)
{
    return std::find(user.waitingThreads.begin(), user.waitingThreads.end(), thread) !=
           user.waitingThreads.end();
}

// What is known of a process that has the semaphore open: an updater of the daemon's keeps it open for good.
bool mayHold(const SemaphoreUser& user, const DaemonActivity& activity)
{
    if (!activity.isKnown) {
        return user.waitingThreads.empty();
    }
    return std::any_of(activity.updating.begin(), activity.updating.end(),
                       [&](const UpdatingThread& updating) { return !waits(user, updating.thread); });
}

// Everybody but fwctl who may have the turn. A process that says nothing of itself is suspected only while
// there is no better explanation.
void findHolders(const SemaphoreUsers& users, bool isDeadFwctls, TurnState& turn)
{
    for (const SemaphoreUser& user : users.known) {
        if (!user.waitingThreads.empty()) {
            turn.waiting.push_back(user);
        }
        const DaemonActivity activity = activityOf(user.pid);
        if (mayHold(user, activity) && (activity.isKnown || !isDeadFwctls)) {
            turn.holder += (turn.holder.empty() ? "" : " or ") + nameOf(user);
        }
    }
    if (turn.holder.empty() && !users.areAllKnown && !isDeadFwctls) {
        turn.holder = "another process";
    }
}
} // namespace

TurnState lookAtTurn(bool withoutFwctl)
{
    TurnState turn;
    const SemaphoreState semaphore = peekUpdateSemaphore();
    if (!semaphore.exists || (semaphore.isReadable && semaphore.value > 0)) {
        return turn;
    }
    if (!semaphore.isReadable) {
        turn.kind = semaphore.isForeign ? TurnState::Kind::kForeign : TurnState::Kind::kUnreadable;
        return turn;
    }
    const TurnRecordView record = viewTurnRecord();
    const bool isLocked = record.isLocked && !withoutFwctl;
    findHolders(findSemaphoreUsers(), !isLocked && record.phase == TurnPhase::kTaken, turn);
    if (isLocked && record.phase != TurnPhase::kIdle) {
        turn.holder = "fwctl (process " + std::to_string(record.holder) + ")";
    }
    turn.kind = turn.holder.empty() ? TurnState::Kind::kNobodys : TurnState::Kind::kHeld;
    return turn;
}

TurnState lookAtTurnPatiently(bool withoutFwctl)
{
    constexpr int kLooks = 6;
    constexpr std::chrono::milliseconds kPause{200};
    TurnState turn = lookAtTurn(withoutFwctl);
    for (int look = 1; look < kLooks && turn.kind == TurnState::Kind::kNobodys; ++look) {
        std::this_thread::sleep_for(kPause);
        turn = lookAtTurn(withoutFwctl);
    }
    return turn;
}

std::string describe(const TurnState& turn)
{
    switch (turn.kind) {
    case TurnState::Kind::kFree:
        return "free";
    case TurnState::Kind::kNobodys:
        return "nobody (stuck)";
    case TurnState::Kind::kUnreadable:
        return "unreadable";
    case TurnState::Kind::kForeign:
        return "no semaphore";
    case TurnState::Kind::kHeld:
        break;
    }
    return turn.holder;
}

} // namespace fwctl
