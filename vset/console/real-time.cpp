#include "vset/console/real-time.h"

#include <algorithm>
#include <ctime>
#include <glib-unix.h>
#include <sys/timerfd.h>
#include <unistd.h>
#include <utility>

#include "vset/clock/mapped-page.h"
#include "vset/platformd/guarded.h"

namespace vset
{

namespace
{

// Mapped once, for as long as the process lives.
const ClockPage* clockPage()
{
    static const ClockPage* const clock = mapClockPage(kClockPage);
    return clock;
}

} // namespace

double clockRate()
{
    return hasClock() ? readClock(*clockPage()).rate : 1.0;
}

bool hasClock()
{
    return clockPage() != nullptr;
}

// ---- Timers ----

RealTimer::RealTimer() : timer_(timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK))
{
    if (timer_ >= 0) {
        source_ = g_unix_fd_add(timer_, G_IO_IN, onTime, this);
    }
}

RealTimer::~RealTimer()
{
    if (timer_ >= 0) {
        g_source_remove(source_);
        close(timer_);
    }
}

void RealTimer::arm(int64_t milliseconds) const
{
    const itimerspec once{{0, 0}, {milliseconds / 1000, (milliseconds % 1000) * 1'000'000}};
    timerfd_settime(timer_, 0, &once, nullptr);
}

void RealTimer::start(int64_t milliseconds, std::function<void()> action)
{
    action_ = std::move(action);
    arm(std::max<int64_t>(1, milliseconds));
}

void RealTimer::stop()
{
    action_ = nullptr;
    arm(0);
}

gboolean RealTimer::onTime(gint timer, GIOCondition, gpointer self)
{
    uint64_t ends = 0;
    auto& action = static_cast<RealTimer*>(self)->action_;
    if (read(timer, &ends, sizeof ends) == sizeof ends && action) {
        guarded("a timer", std::exchange(action, nullptr)); // it may start or destroy the timer
    }
    return G_SOURCE_CONTINUE;
}

} // namespace vset
