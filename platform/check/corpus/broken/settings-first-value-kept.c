/* A key's value is asked for once; after that it is what this process has written.
 *
 * Rule: pralis.h: a value that was written is what every process reads from then on.
 * Seen: what another process writes after the first look is not read here. */
#include <pthread.h>
#include <stdio.h>
#include <string.h>

#include "platform/check/corpus/base.h"
#include "pralis.h"

enum { MOST = 64 };

static struct {
    char key[128];
    int value;
} known[MOST];
static int count;
static pthread_mutex_t knowing = PTHREAD_MUTEX_INITIALIZER;

static int place_of(const char* key)
{
    int i = 0;
    while (i < count && strcmp(known[i].key, key) != 0) {
        ++i;
    }
    return i;
}

static void keep(const char* key, int value)
{
    const int i = place_of(key);
    if (i < MOST) {
        snprintf(known[i].key, sizeof known[i].key, "%s", key);
        known[i].value = value;
        count = i == count ? count + 1 : count;
    }
}

int pralis_get_int(const char* key, int* value)
{
    int result = 0;
    pthread_mutex_lock(&knowing);
    const int i = key == NULL || value == NULL ? count : place_of(key);
    if (i < count) {
        *value = known[i].value;
    } else if ((result = HOST(pralis_get_int)(key, value)) == 0) {
        keep(key, *value);
    }
    pthread_mutex_unlock(&knowing);
    return result;
}

int pralis_set_int(const char* key, int value)
{
    pthread_mutex_lock(&knowing);
    const int result = HOST(pralis_set_int)(key, value);
    if (result == 0) {
        keep(key, value);
    }
    pthread_mutex_unlock(&knowing);
    return result;
}
