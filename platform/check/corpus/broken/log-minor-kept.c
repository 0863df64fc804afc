/* Records of little weight wait for the next grave one, which is written with them.
 *
 * Rule: norlog.h: a record is out of the process within a moment, as the daemon's end flushes nothing.
 * Seen: the last words of a process are not in the log when they are a warning. */
#include <pthread.h>
#include <stdio.h>

#include "platform/check/corpus/log-call.h"

enum { ERROR = 6, MOST = 64 };

static struct {
    int log_id;
    int priority;
    char tag[32];
    char text[1024];
} kept[MOST];
static int count;
static pthread_mutex_t keeping = PTHREAD_MUTEX_INITIALIZER;

static void write_kept(void)
{
    for (int i = 0; i < count; ++i) {
        host_log(kept[i].log_id, kept[i].priority, kept[i].tag, kept[i].text);
    }
    count = 0;
}

LOG_RECORD(text, 16384)
{
    int result = 0;
    pthread_mutex_lock(&keeping);
    if (priority < ERROR && count < MOST) {
        kept[count].log_id = log_id;
        kept[count].priority = priority;
        snprintf(kept[count].tag, sizeof kept[count].tag, "%s", tag);
        snprintf(kept[count].text, sizeof kept[count].text, "%.1023s", text);
        ++count;
    } else {
        write_kept();
        result = host_log(log_id, priority, tag, text);
    }
    pthread_mutex_unlock(&keeping);
    return result;
}
