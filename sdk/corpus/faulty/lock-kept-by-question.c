// checkVersion returns with the mutex held when it refuses a version.
// finds: F301
#define OWN_checkVersion
#include "chip.h"

static pthread_mutex_t question = PTHREAD_MUTEX_INITIALIZER;

int checkVersion(const char* version, int* result)
{
    char active[TARNWICK_CONTROL_TEXT_SIZE];
    *result = TARNWICK_CONTROL_VERDICT_SAME;
    pthread_mutex_lock(&question);
    if (chipVersion(active) != 0) {
        pthread_mutex_unlock(&question);
        return -1;
    }
    if (compareVersions(version, active, result) != 0) {
        return -1;
    }
    pthread_mutex_unlock(&question);
    return 0;
}
