// The PC's time, for what is watched, drawn or limited: the set's clock may run a thousand times faster or
// jump by years, and nobody looks a thousand times as often or waits for years.
#ifndef VSET_CONSOLE_REAL_TIME_H
#define VSET_CONSOLE_REAL_TIME_H

#include <cstdint>
#include <functional>
#include <glib.h>

namespace vset
{

// Set seconds per second of the PC; 1 without a clock of the set's own. Any thread.
double clockRate();

// Whether the set has a clock of its own, which can be changed.
bool hasClock();

// As Timer (vset/platformd/service-time.h), but on a timer of the kernel that the set's clock does not reach.
// It never ends for a process that has no descriptor left.
class RealTimer
{
public:
    RealTimer();
    ~RealTimer();
    RealTimer(const RealTimer&) = delete;
    RealTimer& operator=(const RealTimer&) = delete;

    // Starts anew when it is running already.
    void start(int64_t milliseconds, std::function<void()> action);
    void stop();
    bool isRunning() const { return static_cast<bool>(action_); }

private:
    static gboolean onTime(gint timer, GIOCondition condition, gpointer self);
    void arm(int64_t milliseconds) const;

    int timer_;
    guint source_ = 0;
    std::function<void()> action_;
};

} // namespace vset

#endif
