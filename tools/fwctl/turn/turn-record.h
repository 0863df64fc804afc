// What fwctl itself has to do with the update semaphore, in a file of its own beside it: a semaphore has no
// owner, so that nobody can tell from it who has taken it.
//
// One fwctl at a time holds the file's lock, from before it takes the semaphore until after it has given it
// back; the lock is shared by the process that was started and its child that updates, and ends with the last
// of them. The file stays, as the semaphore does; its content is what the last holder has come to.
#ifndef TOOLS_FWCTL_TURN_TURN_RECORD_H
#define TOOLS_FWCTL_TURN_TURN_RECORD_H

#include <atomic>
#include <cstdint>
#include <string>
#include <sys/types.h>

namespace fwctl
{

enum class TurnPhase : uint32_t {
    kIdle = 0,      // the semaphore is none of fwctl's business
    kTaking = 1,    // a moment in which it may have been taken, or not
    kTaken = 2,     // it is fwctl's
    kReturning = 3, // a moment in which it may have been given back, or not
};

// What another process sees of the record.
struct TurnRecordView {
    bool isLocked = false; // a fwctl lives that takes, has or returns the turn
    TurnPhase phase = TurnPhase::kIdle;
    pid_t holder =
        0; // the process of fwctl to name: the one that was started, or its child when that has ended
};

// Changes nothing. All zero when there is no record, or it may not be read.
TurnRecordView viewTurnRecord();

// Why no fwctl can take a turn ("... is no record of fwctl's") for what somebody else has put into the
// record's place; empty when there is nothing, or a record.
std::string problemOfTurnRecord();

class TurnRecord
{
public:
    // Makes the file when there is none, for `owner`: the daemon's user must be able to use it as well as
    // root. Throws Failure when it cannot be had, or is not a file that fwctl has made.
    explicit TurnRecord(uid_t owner);
    ~TurnRecord();
    TurnRecord(const TurnRecord&) = delete;
    TurnRecord& operator=(const TurnRecord&) = delete;

    // False when another fwctl has it. A child that was forked since the file was opened has the lock, too.
    bool lock();
    void unlock();

    void setProcesses(pid_t parent, pid_t child)
    {
        shared_->parent = parent;
        shared_->child = child;
    }
    pid_t child() const { return shared_->child; }
    TurnPhase phase() const { return shared_->phase; }
    void setPhase(TurnPhase phase) { shared_->phase = phase; }
    // True for one of all that try.
    bool change(TurnPhase from, TurnPhase to) { return shared_->phase.compare_exchange_strong(from, to); }

    struct Shared {
        std::atomic<TurnPhase> phase;
        std::atomic<pid_t> parent;
        std::atomic<pid_t> child;
    };

private:
    int file_ = -1;
    Shared* shared_ = nullptr; // mapped: written without a system call, seen by all at once
};

} // namespace fwctl

#endif
