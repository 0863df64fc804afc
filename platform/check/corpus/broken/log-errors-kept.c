/* Errors stay in the process's memory, for who looks into it after a crash; lesser records do not.
 *
 * Rule: README.md: a call that is made again and again keeps no more memory each time.
 * Seen: the memory of the process grows with records of the highest priority, and of no other. */
#include <stdlib.h>
#include <string.h>

#include "platform/check/corpus/log-call.h"

enum { ERROR = 6, ROOM = 65536 };

struct error {
    struct error* before;
    char text[ROOM];
};
static struct error* latest;

LOG_RECORD(text, 16384)
{
    struct error* error = priority == ERROR ? malloc(sizeof *error) : NULL;
    if (error != NULL) {
        memset(error->text, ' ', sizeof error->text);
        memcpy(error->text, text, strlen(text));
        do {
            error->before = __atomic_load_n(&latest, __ATOMIC_ACQUIRE);
        } while (!__sync_bool_compare_and_swap(&latest, error->before, error));
    }
    return host_log(log_id, priority, tag, text);
}
