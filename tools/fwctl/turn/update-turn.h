// The turn to update, which the semaphore /SEM_UPDATE_CONTROL gives to one process of the set at a time.
//
// fwctl updates in a child process. Parent and child share the turn: whichever of them is left gives it back,
// once, and never while the child is still at work. While the child has it, the daemon's own code in it takes
// and gives back a semaphore that is private to the child: it would give the turn back after its time-out,
// when a late update is still being written.
#ifndef TOOLS_FWCTL_TURN_UPDATE_TURN_H
#define TOOLS_FWCTL_TURN_UPDATE_TURN_H

#include <string>

#include "tools/fwctl/turn/turn-record.h"

namespace fwctl
{

// Returns when nobody has the turn. Says on standard error who has it meanwhile. Throws Failure when it is
// nobody's and stays so. Takes nothing itself.
void waitForUpdateTurn();

// Says on standard error who has the turn, when it is another one than the last time. Throws as above.
class TurnWait
{
public:
    void tell();

private:
    std::string told_;
    long looks_ = 0;
};

// In the child, as the daemon's user: makes the semaphore when there is none, and has the daemon's code of
// this process use a private one from now on. Throws Failure.
void prepareUpdateSemaphore();

class UpdateTurn
{
public:
    // `owner` is the daemon's user. Throws Failure, see TurnRecord.
    explicit UpdateTurn(uid_t owner) : record_(owner) {}

    // In the parent of `child`: takes the turn when it is free. False when somebody else has it. From then on
    // Ctrl-C and the like only get an explanation, until settle().
    bool tryToTake(pid_t child);

    // In the child when its work is done, and in the parent when the child has ended: whoever comes first
    // gives the turn back, if it was taken. A process that was killed at the wrong moment has left unclear
    // whether it has taken it, or given it back; then it is looked at who else may have it.
    void settle();

    // Gives back a turn that is nobody's, and only such a one; true when it did. Throws Failure.
    static bool freeNobodys(uid_t owner);

    // Sets a semaphore that somebody has posted too often to 1 again; true when it did. Throws Failure.
    static bool lowerRaised(uid_t owner);

private:
    TurnRecord record_;
    bool isParents_ = false; // it has taken the turn
};

} // namespace fwctl

#endif
