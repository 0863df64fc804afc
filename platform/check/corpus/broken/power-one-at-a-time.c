/* Power calls wait in one line, each for a tenth of a second and a bit.
 *
 * Rule: pwrctl.h: every call may be made from any thread, and answers within half a second, several at a time
 * as well. Seen: of six threads that ask for the state at once the last waits for longer than half a second.
 */
#include <pthread.h>
#include <unistd.h>

#include "platform/check/corpus/base.h"
#include "pwrctl.h"

static pthread_mutex_t line = PTHREAD_MUTEX_INITIALIZER;

#define IN_LINE(call)                                                                                        \
    pthread_mutex_lock(&line);                                                                               \
    usleep(150000);                                                                                          \
    const int result = call;                                                                                 \
    pthread_mutex_unlock(&line);                                                                             \
    return result

int pwrctl_get_state(void)
{
    IN_LINE(HOST(pwrctl_get_state)());
}

int pwrctl_lock_state(int kind, unsigned int duration_ms)
{
    IN_LINE(HOST(pwrctl_lock_state)(kind, duration_ms));
}

int pwrctl_unlock_state(int kind)
{
    IN_LINE(HOST(pwrctl_unlock_state)(kind));
}
