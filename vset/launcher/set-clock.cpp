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

constexpr int64_t kNanoseconds = 1'000'000'000; // of a second
constexpr double kNanosecondsPerSecond = kNanoseconds;

int64_t hostTime(clockid_t clock)
{
    timespec now{};
    clock_gettime(clock, &now);
    return now.tv_sec * kNanoseconds + now.tv_nsec;
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

int64_t wallOf(const ClockState& state)
{
    return state.monotonicAt(hostTime(CLOCK_MONOTONIC)) + state.wallOffset;
}

std::string describe(const ClockState& state)
{
    const int64_t wall = wallOf(state);
    const double ahead = static_cast<double>(wall - hostTime(CLOCK_REALTIME)) / kNanosecondsPerSecond;
    const std::time_t seconds = wall / kNanoseconds;
    std::tm parts{};
    localtime_r(&seconds, &parts);
    char date[32];
    std::strftime(date, sizeof date, "%Y-%m-%d %H:%M:%S", &parts);
    char text[128];
    std::snprintf(text, sizeof text, "%s  rate %g  %+.3f s to the PC", date, state.rate, ahead);
    return text;
}

// 2100-01-01. Dates beyond, and before 1970, are nowhere tested, neither in the daemon nor in what it stands
// on.
constexpr int64_t kEndOfWall = 4'102'444'800 * kNanoseconds;
// Back and forth again and again, monotonic time would leave what 64 bits hold.
constexpr int64_t kLongestUptime = 150 * int64_t{365 * 86400} * kNanoseconds;

ClockState jumped(ClockState state, double seconds)
{
    if (!(std::abs(seconds) <= kLongestJump)) // nor what is no number
        throw common::WrongUse(
            "a clock jumps by at most 315360000 seconds (ten years), forwards or backwards");
    const auto jump = static_cast<int64_t>(std::llround(seconds * kNanosecondsPerSecond));
    (jump > 0 ? state.setBase : state.wallOffset) += jump;
    const int64_t wall = wallOf(state);
    if (wall < 0 || wall >= kEndOfWall || state.setBase > kLongestUptime)
        throw common::WrongUse(
            "a set's clock goes from 1970 to 2099, and its uptime to 150 years: it stays as it is");
    return state;
}

// The only way to the page: what stands there is believed by every program of the set.
void store(ClockPage& page, const ClockState& state)
{
    if (!(state.rate >= kLowestRate && state.rate <= kHighestRate))
        throw common::WrongUse("a clock's rate is a number from 0.01 to 1000");
    writeClock(page, state);
}

} // namespace

void resetClock(const SetDirectory& set, double rate)
{
    MappedClock clock(set.clockFile());
    const int64_t now = hostTime(CLOCK_MONOTONIC);
    clock.page().magic = kClockMagic;
    clock.page().sequence = 0; // a writer that was killed half-way left it odd
    store(clock.page(), {now, now, hostTime(CLOCK_REALTIME) - now, rate});
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
    state.rate = change.rate.value_or(state.rate);
    if (change.jump)
        state = jumped(state, *change.jump);
    store(clock.page(), state);
    return describe(state);
}

} // namespace vset
