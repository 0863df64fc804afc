// A process's system calls, held in the kernel until another process has judged them (seccomp user
// notification): the process to be watched puts a filter on itself, which stays over exec and covers its
// threads and children, and hands the listening end to the watcher over a connected Unix socket.
//
// Linux 5.5 or later. A process can be watched once. Errors are std::system_error.
#ifndef VSET_WRITE_WATCH_CALL_LISTENER_H
#define VSET_WRITE_WATCH_CALL_LISTENER_H

#include <cstdint>
#include <memory>
#include <optional>
#include <seccomp.h>

namespace vset
{

// In the process that is to be watched, before it starts threads.
class CallFilter
{
public:
    enum class Others { kPass, kHeld };
    // What becomes of calls that are not named.
    explicit CallFilter(Others others);

    void hold(const char* call);
    void pass(const char* call);

    // Puts it in place. Gives up new privileges for good.
    void submit(int socket);

private:
    std::unique_ptr<void, decltype(&seccomp_release)> filter_;
    Others others_;
};

// The watcher's end. One thread at a time.
class CallListener
{
public:
    // Takes the listening end from the other end of the socket; waits for it.
    explicit CallListener(int socket);
    ~CallListener();
    CallListener(const CallListener&) = delete;
    CallListener& operator=(const CallListener&) = delete;

    // For poll(): readable when a call waits; hung up once the last watched process has ended.
    int descriptor() const { return descriptor_; }

    // Takes the call that waits; blocks when none does. Nothing when its thread has ended meanwhile. Threads
    // are numbered as the watcher's process namespace has them.
    std::optional<seccomp_notif> next() const;

    // A call that gets neither of them waits on.
    void letPass(std::uint64_t id) const;
    // In the place of the call: its result, or its errno when that is not 0.
    void answer(std::uint64_t id, std::int64_t value, int error) const;

private:
    int descriptor_;
};

} // namespace vset

#endif
