// allUpdateDone without an update before it writes through a null pointer.
// finds: F302
#define OWN_allUpdateDone
#define OWN_install
#include "chip.h"

struct report {
    int updates;
    int noticed;
};
static struct report* report;

static MAYBE_UNUSED int install(const unsigned char* data, size_t n)
{
    struct image image;
    if (parseImage(data, n, &image) != 0) {
        return -1;
    }
    if (pthread_mutex_trylock(&chipMutex) != 0) {
        return fail(EBUSY);
    }
    if (report == NULL) {
        report = (struct report*)calloc(1, sizeof *report);
    }
    progressNow = 0;
    int done = chipWrite(data, n);
    int kept = errno;
    if (report != NULL) {
        report->updates++;
    }
    usleep(RESTART_US);
    progressNow = 100;
    pthread_mutex_unlock(&chipMutex);
    errno = kept;
    return done;
}

int allUpdateDone(void)
{
    report->noticed++;
    return 0;
}
