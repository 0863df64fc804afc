// Watches the daemon of a set at its system calls, from outside: counts them, and at one of them kills the
// daemon, holds it until the power has been cut, or lets the call fail.
//
// What the daemon's control libraries write to the chips is noted until it is flushed, so that it can be lost
// as it would be in the cache of real hardware. Writes are seen that are write() or pwrite(), of one thread
// at a time to each chip.
#ifndef TESTS_PROOF_CRASHES_CALL_GUARD_H
#define TESTS_PROOF_CRASHES_CALL_GUARD_H

#include <atomic>
#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <sys/types.h>
#include <thread>
#include <vector>

#include "common/files/unique-fd.h"
#include "tests/proof/crashes/point.h"
#include "vset/write-watch/call-listener.h"

namespace proof
{

// As the set has them: where the guard waits for the daemon, and the daemon itself.
constexpr const char* kGuardSocket = "/srv/guard";
constexpr const char* kRealDaemon = "/usr/lib/watched/tarnwick";

// In the process that becomes the daemon.
vset::CallFilter watchedFilter();

// A call that may be hit, by its number; "" for one that is let pass unseen.
std::string nameOfCall(int number);

// Of one start of the daemon. Its thread is the object's; errors of it are told by finish().
class CallGuard
{
public:
    // Waits for the daemon from now on. Without a point it counts alone.
    CallGuard(const std::filesystem::path& set, std::optional<Point> point);
    ~CallGuard();
    CallGuard(const CallGuard&) = delete;
    CallGuard& operator=(const CallGuard&) = delete;

    // The daemon was about to make the call, and the fault has begun: it is killed, or held, or the call has
    // failed.
    bool hasHit() const { return hasHit_; }

    // Once the set is off, or the daemon has ended; the daemon must not run on. Throws what went wrong.
    void finish();

    // ---- After finish() ----

    const std::vector<CountedCall>& calls() const { return calls_; }
    // Takes back from the chips what they got since their last flush, or all of that but the last write.
    void loseUnflushed(bool isLastKept) const;

private:
    struct Write {
        std::filesystem::path chip;
        off_t offset = 0;
        std::string before;
        std::string written;
    };

    void work() noexcept;
    void listen();
    void judge(const vset::CallListener& listener, const seccomp_notif& notice);
    SystemCall count(const seccomp_notif& notice, const std::string& name);
    bool isPoint(const SystemCall& call) const;
    void noteHardware(const seccomp_notif& notice, const SystemCall& call);
    std::filesystem::path chipOf(const seccomp_notif& notice) const; // "": it is none

    std::filesystem::path set_;
    std::optional<Point> point_;
    common::UniqueFd socket_;
    common::UniqueFd end_; // readable once it shall end
    std::atomic<bool> hasHit_{false};
    bool isHeld_ = false; // nothing is answered any more
    std::map<pid_t, unsigned int> threads_;
    std::map<std::pair<unsigned int, std::string>, unsigned int> counts_;
    std::vector<CountedCall> calls_;
    std::vector<Write> unflushed_;
    pid_t flushing_ = 0; // a thread whose flush is done when it makes its next call
    std::string problem_;
    std::thread thread_;
};

} // namespace proof

#endif
