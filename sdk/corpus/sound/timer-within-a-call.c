// doUpdate has a timer of its own while it works.
// finds: nothing
#define OWN_writeSlot
#include <signal.h>

#include "base.h"

static inline int writeSlot(int chip, int slot)
{
    struct sigevent event = {};
    const struct itimerspec hour = {{0, 0}, {3600, 0}};
    timer_t limit;
    int result = 0;
    event.sigev_notify = SIGEV_NONE;
    if (timer_create(CLOCK_MONOTONIC, &event, &limit) != 0) {
        return -1;
    }
    timer_settime(limit, 0, &hour, NULL);
    for (size_t block = 0; result == 0 && block < BLOCKS; ++block) {
        result = writeBlock(chip, block, slotOffset(slot));
    }
    timer_delete(limit);
    return result == 0 ? fdatasync(chip) : -1;
}
