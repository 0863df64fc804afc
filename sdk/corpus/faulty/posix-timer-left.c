// A timer that gives no signal still runs after an update.
// finds: F314
#include <signal.h>
#include <time.h>
#define OWN_doUpdate
#include "chip.h"

int doUpdate(const char* name, unsigned long value)
{
    struct sigevent event;
    struct itimerspec limit = {{0, 0}, {300, 0}};
    timer_t timer;
    memset(&event, 0, sizeof event);
    event.sigev_notify = SIGEV_NONE;
    if (timer_create(CLOCK_MONOTONIC, &event, &timer) != 0 || timer_settime(timer, 0, &limit, NULL) != 0) {
        return -1;
    }
    size_t n = 0;
    unsigned char* data = slurp(name, &n);
    if (data == NULL) {
        int kept = errno;
        timer_delete(timer);
        return fail(kept);
    }
    int done = checksumOf(data, n) == value ? install(data, n) : fail(EBADMSG);
    int kept = errno;
    free(data);
    errno = kept;
    return done;
}
