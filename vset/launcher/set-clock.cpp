#include "launcher/set-clock.h"

#include "clock/clock-page.h"

#include <cmath>
#include <cstdio>
#include <ctime>
#include <new>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <unistd.h>

namespace vset
{

namespace
{

constexpr double kNanosecondsPerSecond = 1e9;

int64_t hostTime(clockid_t clock)
{
    timespec now{};
    clock_gettime(clock, &now);
    return now.tv_sec * int64_t{1000000000} + now.tv_nsec;
}

// The page of a set, mapped for writing and locked against other writers.
class MappedClock
{
public:
    explicit MappedClock(const fs::path& path)
        : file_(open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0644))
    {
        if (!file_)
            failWithErrno("cannot open " + path.string());
        check(flock(file_.get(), LOCK_EX), "cannot lock " + path.string());
        check(ftruncate(file_.get(), sizeof(ClockPage)), "cannot size " + path.string());
        memory_ = mmap(nullptr, sizeof(ClockPage), PROT_READ | PROT_WRITE, MAP_SHARED, file_.get(), 0);
        if (memory_ == MAP_FAILED)
            failWithErrno("cannot map " + path.string());
    }
    MappedClock(const MappedClock&) = delete;
    MappedClock& operator=(const MappedClock&) = delete;
    ~MappedClock() { munmap(memory_, sizeof(ClockPage)); }

    ClockPage& page() { return *static_cast<ClockPage*>(memory_); }

private:
    UniqueFd file_;
    void* memory_ = nullptr;
};

std::string describe(const ClockState& state)
{
    const int64_t wall = state.monotonicAt(hostTime(CLOCK_MONOTONIC)) + state.wallOffset;
    const double ahead = static_cast<double>(wall - hostTime(CLOCK_REALTIME)) / kNanosecondsPerSecond;
    const std::time_t seconds = wall / 1000000000;
    std::tm parts{};
    localtime_r(&seconds, &parts);
    char date[32];
    std::strftime(date, sizeof date, "%Y-%m-%d %H:%M:%S", &parts);
    char text[128];
    std::snprintf(text, sizeof text, "%s  rate %g  %+.3f s to the PC", date, state.rate, ahead);
    return text;
}

} // namespace

void resetClock(const SetDirectory& set, double rate)
{
    MappedClock clock(set.clockFile());
    const int64_t now = hostTime(CLOCK_MONOTONIC);
    clock.page().magic = kClockMagic;
    clock.page().sequence = 0; // a writer that was killed half-way left it odd
    writeClock(clock.page(), {now, now, hostTime(CLOCK_REALTIME) - now, rate});
}

std::string changeClock(const fs::path& path, const ClockChange& change)
{
    const SetDirectory set = SetDirectory::open(path);
    const std::optional<RunningSet> running = set.running();
    if (!running)
        throw Error("set " + path.string() + " is not running: start it with `vset run " + path.string() +
                    "`");
    if (!running->clock)
        throw Error("set " + path.string() +
                    " runs without a clock: start its command with `vset run --clock-rate 1`");
    MappedClock clock(set.clockFile());
    ClockState state = readClock(clock.page());
    if (!change.rate && !change.jump)
        return describe(state);
    const int64_t now = hostTime(CLOCK_MONOTONIC);
    state.setBase = state.monotonicAt(now);
    state.hostBase = now;
    const auto jump = static_cast<int64_t>(std::llround(change.jump.value_or(0.0) * kNanosecondsPerSecond));
    (jump > 0 ? state.setBase : state.wallOffset) += jump;
    state.rate = change.rate.value_or(state.rate);
    writeClock(clock.page(), state);
    return describe(state);
}

} // namespace vset
