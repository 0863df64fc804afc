/* Records are collected, and written when the process exits.
 *
 * Rule: norlog.h: the log is what others read while the daemon runs, and the daemon ends by quick_exit,
 *       which runs no exit handler.
 * Seen: the log has no record of a process that has ended by quick_exit. */
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "platform/check/corpus/log-call.h"

struct record {
    struct record* next;
    int log_id;
    int priority;
    char tag[32];
    char text[4096];
};

static struct record* first;
static struct record** last = &first;
static pthread_mutex_t collecting = PTHREAD_MUTEX_INITIALIZER;

static void write_all(void)
{
    for (const struct record* record = first; record != NULL; record = record->next) {
        host_log(record->log_id, record->priority, record->tag, record->text);
    }
}

LOG_RECORD(text, 4096)
{
    struct record* record = calloc(1, sizeof *record);
    record->log_id = log_id;
    record->priority = priority;
    snprintf(record->tag, sizeof record->tag, "%s", tag);
    snprintf(record->text, sizeof record->text, "%s", text);
    pthread_mutex_lock(&collecting);
    if (first == NULL) {
        atexit(write_all);
    }
    *last = record;
    last = &record->next;
    pthread_mutex_unlock(&collecting);
    return 0;
}
