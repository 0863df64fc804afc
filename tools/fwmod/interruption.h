// SIGINT, SIGTERM, SIGHUP and SIGQUIT for commands that have something to put away: every wait looks, and
// ends with an exception, which main turns into the usual end of a program by a signal.
#ifndef TOOLS_FWMOD_INTERRUPTION_H
#define TOOLS_FWMOD_INTERRUPTION_H

namespace fwmod
{

struct Interrupted {
    int signal;
};

// While it lives, the signals are only noted, for the waits to see. One at a time.
class InterruptionWatch
{
public:
    InterruptionWatch();
    ~InterruptionWatch();
    InterruptionWatch(const InterruptionWatch&) = delete;
    InterruptionWatch& operator=(const InterruptionWatch&) = delete;

    static void check(); // throws Interrupted
};

} // namespace fwmod

#endif
