/* Records are written by a thread that looks at the caller's tag then.
 *
 * Rule: platform/README.md: texts that are passed in are gone when the call has returned.
 * Seen: a record has the tag that stands there a moment later. */
#include <pthread.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "platform/check/corpus/log-call.h"

struct waiting {
    int log_id;
    int priority;
    const char* tag;
    char text[];
};

static void* write_later(void* data)
{
    struct waiting* waiting = data;
    usleep(20000);
    host_log(waiting->log_id, waiting->priority, waiting->tag, waiting->text);
    free(waiting);
    return NULL;
}

LOG_RECORD(text, 200000)
{
    struct waiting* waiting = malloc(sizeof *waiting + strlen(text) + 1);
    pthread_t thread;
    *waiting = (struct waiting){log_id, priority, tag};
    strcpy(waiting->text, text);
    pthread_create(&thread, NULL, write_later, waiting);
    pthread_detach(thread);
    return 0;
}
