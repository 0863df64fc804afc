/* Every look at the power state keeps 64 KiB of memory.
 *
 * Rule: a call keeps nothing of what it needs.
 * Seen: the memory of the process grows with pwrctl_get_state. */
#include <stdlib.h>
#include <string.h>

#include "platform/check/corpus/base.h"
#include "pwrctl.h"

int pwrctl_get_state(void)
{
    static char* last;
    char* answer = malloc(65536);
    if (answer != NULL) {
        memset(answer, 1, 65536);
        memcpy(answer, &last, sizeof last); /* known to the library, and never looked at again */
        last = answer;
    }
    return HOST(pwrctl_get_state)();
}
