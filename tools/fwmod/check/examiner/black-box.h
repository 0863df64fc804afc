// What a worker leaves behind however it ends: a page of memory that it shares with its supervisor.
//
// A worker runs the library; it may crash, hang, or exit in the middle of a call. The page tells which call
// that was, and what the crash handler saw. The supervisor makes it before the fork and reads it afterwards,
// and at every tick to see whether a call has overrun its limit.
#ifndef TOOLS_FWMOD_CHECK_EXAMINER_BLACK_BOX_H
#define TOOLS_FWMOD_CHECK_EXAMINER_BLACK_BOX_H

#include <atomic>
#include <chrono>
#include <cstdint>
#include <sys/types.h>

#include "common/process/limits-keeper.h"
#include "common/process/process-state.h"
#include "tools/fwmod/check/protocol/findings.h"

namespace fwmod::examiner
{

using common::realNow; // limits are in the PC's own time, also in a set whose clock is faster

struct BlackBox {
    // That call the library at the same time: the update, and what is asked meanwhile.
    static constexpr int kThreads = 2;

    struct Call {
        std::atomic<std::int64_t> deadline; // in realNow(); 0 while none is under way
        char name[160];
    };
    // Something of the whole process that was changed in a call, which may have put it back.
    struct Moment {
        std::atomic<unsigned int> finding; // the number; 0: none
        char words[120];
    };
    // How far a watched update is. Writes count while it runs, and are late while its remains settle.
    enum Phase { kBefore, kRunning, kSettling, kOver };

    enum Reads { kNone, kOfHardware, kOfWritten, kOfImage }; // the third: behind an update's first write

    Call calls[kThreads];
    std::atomic<int> phase;
    std::atomic<unsigned int> count;        // of calls so far
    std::atomic<unsigned int> update;       // the latest, by number from 1
    std::atomic<unsigned int> writes;       // that it has made so far, as far as they are watched
    std::atomic<unsigned int> failingWrite; // of an update, by number from 1: it fails; 0: none does
    std::atomic<unsigned int> spoiltWrite;  // the same: the hardware gets something else
    std::atomic<unsigned int> failingFlush; // how many flushes on the one is that fails; 0: none
    std::atomic<int> failingReads;          // all of these, where they are held
    std::atomic<unsigned int> failedReads;  // how many have
    std::atomic<bool> finished;             // the worker came to its end
    std::atomic<bool> guardHit;             // the crash was in a guard page
    std::atomic<bool> staleHit;             // or in a buffer of an earlier call
    std::atomic<bool> terminated;           // by std::terminate
    std::atomic<bool> threadEnded;          // by the library, although it was not its own
    int status;                             // of the worker, as waitpid tells it; written by the keeper
    char lastWords[400];                    // what the crash handler saw
    std::atomic<pid_t> process;             // the worker
    std::atomic<int> closedTwice;           // a descriptor that was closed and was not open, and 1; 0: none
    char closedBy[160];                     // the call that has closed what is not its own
    common::LimitChanges limits;            // by the latest call
    Moment moments[6];                      // of the latest call, the first of each kind
};

// Zeroed, and shared with every process forked from here on. Never released: a program makes few.
BlackBox& makeBlackBox();

// In the worker: its crash and terminate handlers write into this one.
void openBlackBox(BlackBox& box);

// In a worker: a descriptor was closed that is not open.
void noteClosing(int descriptor);

// In a worker: whether this is its process, and a call of the library is under way on one of its threads.
bool isLibraryCalling();

// Then: what belongs to the whole process was changed.
void noteMoment(FindingId finding, const char* words);

// On every thread of a worker, before it calls the library: which call of the box is its own, and a stack for
// the crash handler, which else could not run when the library has used up the thread's.
class CallingThread
{
public:
    explicit CallingThread(int index);
    ~CallingThread();
    CallingThread(const CallingThread&) = delete;
    CallingThread& operator=(const CallingThread&) = delete;

private:
    void* stack_;
};

// A call that is under way on this thread.
class CallMark
{
public:
    CallMark(const char* name, std::chrono::milliseconds limit);
    ~CallMark();
    CallMark(const CallMark&) = delete;
    CallMark& operator=(const CallMark&) = delete;
};

} // namespace fwmod::examiner

#endif
