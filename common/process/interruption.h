// SIGINT, SIGTERM, SIGHUP and SIGQUIT for commands that have something to put away: every wait looks, and
// ends with an exception, which main turns into the usual end of a program by a signal.
#ifndef COMMON_PROCESS_INTERRUPTION_H
#define COMMON_PROCESS_INTERRUPTION_H

namespace common
{

struct Interrupted {
    int signal;
};

// While it lives, the signals are only noted, for the waits to see; one that the program was told to ignore
// stays ignored. One at a time.
class InterruptionWatch
{
public:
    InterruptionWatch();
    ~InterruptionWatch();
    InterruptionWatch(const InterruptionWatch&) = delete;
    InterruptionWatch& operator=(const InterruptionWatch&) = delete;

    static bool isThere(); // one lives
    static void leave();   // the signals do what they did before: in a child that inherits it
    static void check();   // throws Interrupted
    static int times();    // how often there was one: who asks again wants the end at once
};

} // namespace common

#endif
