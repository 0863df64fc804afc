/* The service's latest answer is kept until the next one comes, and callers get copies of it.
 *
 * Rule: platform/README.md: every call may come from any thread, several at a time.
 * Seen: of threads that ask for several keys at once some get the answer to another key. */
#include <pthread.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "platform/check/corpus/base.h"
#include "sysprop.h"

static pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
static char* latest;

static int ask(int key)
{
    char* answer = NULL;
    const int result = HOST(sysprop_get_value_string)(key, &answer);
    pthread_mutex_lock(&mutex);
    free(latest);
    latest = result == 0 ? answer : NULL;
    pthread_mutex_unlock(&mutex);
    return result;
}

int sysprop_get_value_string(int key, char** value)
{
    const int result = ask(key);
    usleep(100);
    pthread_mutex_lock(&mutex);
    char* const copy = latest == NULL ? NULL : strdup(latest);
    pthread_mutex_unlock(&mutex);
    if (result != 0 || copy == NULL) {
        free(copy);
        return result != 0 ? result : -1;
    }
    *value = copy;
    return 0;
}
