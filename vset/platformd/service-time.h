// The set's time, which a person can make run faster or jump, and timers on it.
#ifndef VSET_PLATFORMD_SERVICE_TIME_H
#define VSET_PLATFORMD_SERVICE_TIME_H

#include <cstdint>
#include <functional>
#include <glib.h>

namespace vset
{

// Wall clock, milliseconds since 1970 UTC: for what is shown and kept.
int64_t wallMilliseconds();

// Monotonic clock of the set, milliseconds: for everything that lasts.
int64_t monotonicMilliseconds();

// Runs something once, later, on the main thread; not at all when it is stopped or destroyed before.
class Timer
{
public:
    Timer() = default;
    ~Timer() { stop(); }
    Timer(const Timer&) = delete;
    Timer& operator=(const Timer&) = delete;

    // Starts anew when it is running already. A delay beyond what GLib can count is cut to 49 days.
    void start(int64_t milliseconds, std::function<void()> action);
    void stop();
    bool isRunning() const { return source_ != 0; }

private:
    static gboolean onTime(gpointer self);

    guint source_ = 0;
    std::function<void()> action_;
};

} // namespace vset

#endif
