#include "vset/platformd/service-time.h"

#include <algorithm>
#include <limits>
#include <utility>

#include "vset/platformd/guarded.h"

namespace vset
{

int64_t wallMilliseconds()
{
    return g_get_real_time() / 1000;
}

int64_t monotonicMilliseconds()
{
    return g_get_monotonic_time() / 1000;
}

void Timer::start(int64_t milliseconds, std::function<void()> action)
{
    stop();
    action_ = std::move(action);
    const int64_t longest = std::numeric_limits<guint>::max();
    source_ = g_timeout_add(static_cast<guint>(std::clamp<int64_t>(milliseconds, 0, longest)), onTime, this);
}

void Timer::stop()
{
    if (source_ != 0) {
        g_source_remove(std::exchange(source_, 0));
    }
}

gboolean Timer::onTime(gpointer self)
{
    auto* const timer = static_cast<Timer*>(self);
    timer->source_ = 0;
    const std::function<void()> action = std::move(timer->action_); // it may start or destroy the timer
    guarded("a timer", action);
    return G_SOURCE_REMOVE;
}

} // namespace vset
