/* A key that is subscribed to is asked for once; from then on its value is what was told last, or written
 * here.
 *
 * Rule: pralis.h: a value that was written is what every process reads from then on, and no main loop has to
 * run. Seen: what another process writes is read here when its change was told, and not before. */
#include "platform/check/corpus/key-listeners.h"

enum { MOST_KNOWN = 64 };

static struct {
    char key[128];
    int value;
} known[MOST_KNOWN];
static int known_count;
static pthread_mutex_t knowing = PTHREAD_MUTEX_INITIALIZER;

static int place_of(const char* key)
{
    int i = 0;
    while (i < known_count && strcmp(known[i].key, key) != 0) {
        ++i;
    }
    return i;
}

static void keep(const char* key, int value)
{
    pthread_mutex_lock(&knowing);
    const int i = place_of(key);
    if (i < MOST_KNOWN) {
        snprintf(known[i].key, sizeof known[i].key, "%s", key);
        known[i].value = value;
        known_count = i == known_count ? known_count + 1 : known_count;
    }
    pthread_mutex_unlock(&knowing);
}

static int is_listened_to(const char* key)
{
    pthread_mutex_lock(&listening);
    const int count = count_of(key);
    pthread_mutex_unlock(&listening);
    return count > 0;
}

static void forget(const char* key)
{
    pthread_mutex_lock(&knowing);
    const int i = place_of(key);
    if (i < known_count) {
        known[i] = known[--known_count];
    }
    pthread_mutex_unlock(&knowing);
}

static void tell_all(const char* key, keynode* node)
{
    struct listener now[MOST_LISTENERS];
    int count = 0;
    keep(key, pralis_keynode_get_int(node));
    pthread_mutex_lock(&listening);
    for (int i = 0; i < listener_count; ++i) {
        if (strcmp(listeners[i].key, key) == 0) {
            now[count++] = listeners[i];
        }
    }
    pthread_mutex_unlock(&listening);
    for (int i = 0; i < count; ++i) {
        now[i].cb(node, now[i].user_data);
    }
}

int pralis_get_int(const char* key, int* value)
{
    if (key == NULL || value == NULL) {
        return -1;
    }
    if (!is_listened_to(key)) {
        forget(key);
        return HOST(pralis_get_int)(key, value);
    }
    pthread_mutex_lock(&knowing);
    const int i = place_of(key);
    const int is_known = i < known_count;
    if (is_known) {
        *value = known[i].value;
    }
    pthread_mutex_unlock(&knowing);
    if (is_known) {
        return 0;
    }
    const int result = HOST(pralis_get_int)(key, value);
    if (result == 0) {
        keep(key, *value);
    }
    return result;
}

int pralis_set_int(const char* key, int value)
{
    const int result = HOST(pralis_set_int)(key, value);
    if (result == 0 && is_listened_to(key)) {
        keep(key, value);
    }
    return result;
}
