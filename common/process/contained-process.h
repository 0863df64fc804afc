// Code of others, such as a control library's, in a process of its own with everything that it starts: what
// it prints, signals and leaves behind stays its own affair.
//
//   this process  <-  the watcher  <-  the process, in a group of its own  <-  what it starts
//
// A signal of the process to its group or to its parent does not reach this one, nor the shell that waits for
// it; the watcher heeds none. Processes that it leaves behind, also those that have left its group, are ended
// after it, and nobody waits for the ends of pipes that they hold. When this process ends, by Ctrl-C or by
// SIGKILL, the others end with it, or finish their work first: see Orphaned.
//
// To be used while this process has a single thread: the others are plain forks. It becomes the one that
// orphans are given to (PR_SET_CHILD_SUBREAPER). Errors are Failure.
#ifndef COMMON_PROCESS_CONTAINED_PROCESS_H
#define COMMON_PROCESS_CONTAINED_PROCESS_H

#include <chrono>
#include <functional>
#include <optional>
#include <sys/types.h>

#include "common/files/unique-fd.h"

namespace common
{

class ContainedProcess
{
public:
    enum class Orphaned { kEnds, kGoesOn }; // when this process has ended

    struct End {
        int status = 0;           // of the process, as waitpid() gives it
        unsigned leftBehind = 0;  // processes that went on without it, and were ended
        bool isUnwatched = false; // the watcher had been killed, which nobody does but the process
    };

    // Runs `work` in the process, which ends with status 0 after it: `work` lets no exception pass. Its
    // standard input is empty.
    ContainedProcess(const std::function<void()>& work, Orphaned orphaned);
    ~ContainedProcess(); // ends it
    ContainedProcess(const ContainedProcess&) = delete;
    ContainedProcess& operator=(const ContainedProcess&) = delete;

    pid_t process() const { return process_; }

    // A pipe with what is printed to standard output and standard error, by all of them; not blocking. It has
    // to be read for as long as the process runs. There may be more when it has ended.
    int output() const { return output_.get(); }

    // For poll(), beside hasEnded(): readable, or -1, when that is to be asked.
    int news() const { return report_.get(); }
    // Whether the process has ended, and what it has left behind as well. To be asked now and then, also
    // without news.
    bool hasEnded();

    // Of the process; what it has started is ended after it.
    void kill() const;

    End wait();

private:
    bool hear();
    void letGo();

    pid_t watcher_ = -1;
    pid_t process_ = -1;
    UniqueFd output_;
    UniqueFd report_;                             // of the watcher
    std::chrono::steady_clock::time_point woken_; // the watcher, last
    std::optional<End> end_;
};

// In the process itself: ends what it has started, and what those have started, after waiting that long for
// them to end by themselves. Gives the number of those that had to be ended.
unsigned endLeftBehind(std::chrono::milliseconds grace);

} // namespace common

#endif
