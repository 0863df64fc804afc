#include "vset/clock/clock-file.h"

#include <cerrno>
#include <climits>
#include <cmath>
#include <cstdio>
#include <ctime>
#include <fcntl.h>
#include <linux/futex.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <system_error>
#include <unistd.h>

#include "common/errors.h"
#include "common/files/shared-page.h"

namespace vset
{

namespace
{

constexpr int64_t kNanoseconds = 1'000'000'000; // of a second
constexpr double kNanosecondsPerSecond = kNanoseconds;

// 2100-01-01. Dates beyond, and before 1970, are nowhere tested, neither in the daemon nor in what it stands
// on.
constexpr int64_t kEndOfWall = 4'102'444'800 * kNanoseconds;
// Back and forth again and again, monotonic time would leave what 64 bits hold.
constexpr int64_t kLongestUptime = 150 * int64_t{365} * 86400 * kNanoseconds;

// Asked of the kernel itself: in the set, the library function tells the set's time.
int64_t hostTime(clockid_t clock)
{
    timespec now{};
    syscall(SYS_clock_gettime, clock, &now);
    return now.tv_sec * kNanoseconds + now.tv_nsec;
}

int64_t wallOf(const ClockState& state)
{
    return state.monotonicAt(hostTime(CLOCK_MONOTONIC)) + state.wallOffset;
}

ClockState jumped(ClockState state, double seconds)
{
    if (!(std::abs(seconds) <= kLongestJump)) { // nor what is no number
        throw common::WrongUse(
            "a clock jumps by at most 315360000 seconds (ten years), forwards or backwards");
    }
    const auto jump = static_cast<int64_t>(std::llround(seconds * kNanosecondsPerSecond));
    (jump > 0 ? state.setBase : state.wallOffset) += jump;
    const int64_t wall = wallOf(state);
    if (wall < 0 || wall >= kEndOfWall || state.setBase > kLongestUptime) {
        throw common::WrongUse(
            "a set's clock goes from 1970 to 2099, and its uptime to 150 years: it stays as it is");
    }
    return state;
}

[[noreturn]] void fail(const std::string& what)
{
    throw std::system_error(errno, std::generic_category(), what);
}

} // namespace

// The only way to the page: what stands there is believed by every program of the set. Wakes everybody who
// waits for a change, on a word of the page or for an event of the file.
void ClockFile::store(const ClockState& state)
{
    if (!(state.rate >= kLowestRate && state.rate <= kHighestRate)) {
        throw common::WrongUse("a clock's rate is a number from 0.01 to 1000");
    }
    writeClock(page(), state);
    syscall(SYS_futex, &page().sequence, FUTEX_WAKE, INT_MAX, nullptr, nullptr, 0);
    if (futimens(file_, nullptr) != 0) {
        fail("cannot tell the set of its clock");
    }
}

ClockFile::ClockFile(const std::string& path, Opening opening)
    : file_(open(path.c_str(),
                 O_RDWR | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY |
                     (opening == Opening::kNewToo ? O_CREAT : 0),
                 0644)),
      memory_(MAP_FAILED)
{
    if (file_ < 0) {
        fail("cannot open " + path);
    }
    const bool isReady = flock(file_, LOCK_EX) == 0 && common::reserve(file_, sizeof(ClockPage));
    if (isReady) {
        memory_ = mmap(nullptr, sizeof(ClockPage), PROT_READ | PROT_WRITE, MAP_SHARED, file_, 0);
    }
    if (memory_ == MAP_FAILED) {
        close(file_);
        fail("cannot lock and map " + path);
    }
}

ClockFile::~ClockFile()
{
    munmap(memory_, sizeof(ClockPage));
    close(file_);
}

void ClockFile::reset(double rate)
{
    const int64_t now = hostTime(CLOCK_MONOTONIC);
    page().magic = kClockMagic;
    page().sequence = 0; // a writer that was killed half-way left it odd
    store({now, now, hostTime(CLOCK_REALTIME) - now, rate});
}

void ClockFile::change(const ClockChange& change)
{
    ClockState state = readClock(page());
    const int64_t now = hostTime(CLOCK_MONOTONIC);
    state.setBase = state.monotonicAt(now);
    state.hostBase = now;
    state.rate = change.rate.value_or(state.rate);
    if (change.jump) {
        state = jumped(state, *change.jump);
    }
    store(state);
}

std::string ClockFile::description() const
{
    const ClockState state = readClock(page());
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

} // namespace vset
