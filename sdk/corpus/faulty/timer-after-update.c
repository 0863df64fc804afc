// doUpdate makes a timer for its own time limit and does not delete it.
// finds: F314
#define OWN_install
#include <signal.h>

#include "base.h"

static inline int install(void)
{
    struct sigevent event = {};
    const struct itimerspec hour = {{0, 0}, {3600, 0}};
    timer_t limit;
    event.sigev_notify = SIGEV_NONE;
    if (timer_create(CLOCK_MONOTONIC, &event, &limit) != 0 || timer_settime(limit, 0, &hour, NULL) != 0) {
        return -1;
    }
    const int chip = openHardware(O_RDWR);
    if (chip < 0) {
        return -1;
    }
    setProgress(0);
    const int slot = 1 - activeSlot(chip);
    const int result = writeSlot(chip, slot) == 0 && verifySlot(chip, slot) == 0 ? switchTo(chip, slot) : -1;
    close(chip);
    return result;
}
