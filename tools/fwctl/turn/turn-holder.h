// Who has the turn to update: told from fwctl's own record, from what the daemon says it is doing, and from
// which processes have the semaphore open. Changes nothing.
#ifndef TOOLS_FWCTL_TURN_TURN_HOLDER_H
#define TOOLS_FWCTL_TURN_TURN_HOLDER_H

#include <string>
#include <vector>

#include "tools/fwctl/set-state.h"

namespace fwctl
{

struct TurnState {
    enum class Kind {
        kFree,
        kHeld,       // by `holder`
        kNobodys,    // taken, but whoever took it has ended: every update waits for ever
        kUnreadable, // by this user
        kForeign,    // something else has its place: no update can begin
    };
    Kind kind = Kind::kFree;
    std::string holder;                 // "tarnwick (process 412)", "another process"
    std::vector<SemaphoreUser> waiting; // for their turn
};

// `withoutFwctl`: asked by the fwctl that has the record locked, and wants to know of all others.
TurnState lookAtTurn(bool withoutFwctl = false);

// As above, looked at until what it says has lasted: between two updates of a run, the turn is nobody's for a
// moment, and a process that ends takes a moment as well. Takes a second or two when it is nobody's.
TurnState lookAtTurnPatiently(bool withoutFwctl = false);

// "free", the holder, "nobody (stuck)" or "unreadable".
std::string describe(const TurnState& turn);

} // namespace fwctl

#endif
