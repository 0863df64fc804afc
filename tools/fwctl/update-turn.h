// The update semaphore as fwctl waits for it: saying who has it, and free to be interrupted.
#ifndef FWCTL_UPDATE_TURN_H
#define FWCTL_UPDATE_TURN_H

#include <semaphore.h>

// Returns when nobody has the semaphore. Says on standard error who has it meanwhile. Throws Failure when it
// is stuck, that is taken while no process has it open. Takes nothing itself: an update takes it again.
void waitForUpdateTurn();

// The semaphore, taken for an operation of the daemon's that does not take it itself; given back at the end
// of the scope. Throws Failure when it cannot be had. Make an InterruptGuard first: a process that ends
// without giving it back stops every update of the set.
class UpdateTurn
{
public:
    UpdateTurn();
    ~UpdateTurn();
    UpdateTurn(const UpdateTurn&) = delete;
    UpdateTurn& operator=(const UpdateTurn&) = delete;

private:
    sem_t* semaphore_;
};

// While it lives, Ctrl-C and the like only get an explanation.
class InterruptGuard
{
public:
    InterruptGuard();
    ~InterruptGuard();
    InterruptGuard(const InterruptGuard&) = delete;
    InterruptGuard& operator=(const InterruptGuard&) = delete;
};

#endif
