#include "platform/host/log-file.h"

#include <atomic>
#include <cstdint>
#include <ctime>
#include <fcntl.h>
#include <mutex>
#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

namespace platform
{

namespace
{

constexpr const char* kLogFile = "/var/log/platform.log";

// Above the standard streams, which a program may have closed.
constexpr int kLowestDescriptor = 3;

// Only what is asked for: a look at the times would make every write after it set them anew.
constexpr unsigned int kWanted = STATX_INO | STATX_NLINK;

struct SharedLog {
    std::mutex opening;
    std::atomic<int> file{-1};
    std::atomic<uint64_t> device{0};
    std::atomic<uint64_t> inode{0};
    std::atomic<int64_t> looked{0}; // tick of the latest look at the path
    std::atomic<unsigned int> forks{0};
};

// Never destroyed: records may be written while the process exits. A fork takes the mutex along, free.
SharedLog& shared()
{
    static auto* const instance = [] {
        auto* const made = new SharedLog;
        pthread_atfork([] { shared().opening.lock(); }, [] { shared().opening.unlock(); },
                       [] {
                           ++shared().forks;
                           shared().opening.unlock();
                       });
        return made;
    }();
    return *instance;
}

uint64_t deviceOf(const struct statx& status)
{
    return uint64_t{status.stx_dev_major} << 32 | status.stx_dev_minor;
}

bool isKept(const SharedLog& log, const struct statx& status)
{
    return status.stx_ino == log.inode && deviceOf(status) == log.device;
}

// Whether the number is the kept file still, and not closed by somebody, or another file by now.
bool isOurs(const SharedLog& log, int file, struct statx& status)
{
    return file >= 0 && statx(file, "", AT_EMPTY_PATH, kWanted, &status) == 0 && isKept(log, status);
}

int openLog()
{
    const int opened =
        open(kLogFile, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOCTTY | O_NONBLOCK, 0666);
    if (opened < 0 || opened >= kLowestDescriptor) {
        return opened;
    }
    const int moved = fcntl(opened, F_DUPFD_CLOEXEC, kLowestDescriptor);
    close(opened);
    return moved;
}

// The number stays the same over a new file, because another thread may be about to write to it.
int reopen(SharedLog& log)
{
    const std::lock_guard<std::mutex> lock(log.opening);
    const int next = openLog();
    if (next < 0) {
        return -1;
    }
    struct statx status{};
    const int kept = log.file;
    if (isOurs(log, kept, status) && dup3(next, kept, O_CLOEXEC) == kept) {
        close(next);
    } else {
        log.file = next;
    }
    statx(log.file, "", AT_EMPTY_PATH, kWanted, &status);
    log.device = deviceOf(status);
    log.inode = status.stx_ino;
    return log.file;
}

// Once in a tick of the kernel's clock, some milliseconds: the way along the path costs as much as a write.
bool isTimeToLook(SharedLog& log)
{
    timespec tick{};
    clock_gettime(CLOCK_MONOTONIC_COARSE, &tick);
    const int64_t now = int64_t{tick.tv_sec} * 1'000'000'000 + tick.tv_nsec;
    return log.looked.exchange(now) != now;
}

bool isAtPath(const SharedLog& log)
{
    struct statx status{};
    return statx(AT_FDCWD, kLogFile, 0, kWanted, &status) == 0 && isKept(log, status);
}

int currentFile(SharedLog& log)
{
    struct statx status{};
    const int file = log.file;
    const bool isThere = isOurs(log, file, status) && status.stx_nlink > 0;
    return isThere && (!isTimeToLook(log) || isAtPath(log)) ? file : reopen(log);
}

} // namespace

Writer writer()
{
    struct Known {
        Writer self{0, 0};
        unsigned int forks = 0;
    };
    thread_local Known known;
    const unsigned int forks = shared().forks;
    if (known.self.process == 0 || known.forks != forks) {
        known = {{getpid(), gettid()}, forks};
    }
    return known.self;
}

int appendToLog(std::string_view line)
{
    const int file = currentFile(shared());
    const bool isWhole =
        file >= 0 && write(file, line.data(), line.size()) == static_cast<ssize_t>(line.size());
    return isWhole ? 0 : -1;
}

} // namespace platform
