/* A value is kept until the main loop hears of its change.
 *
 * Rule: pralis.h: a value that was written is what every process reads from then on; no main loop has to run.
 * Seen: while the main loop stands, another process's write is not read. */
#include <string.h>

#include "platform/check/corpus/base.h"
#include "pralis.h"

static struct {
    char key[128];
    int value;
} kept[16];
static int count;

static void forget(keynode* node, void* at)
{
    (void)node;
    ((char*)at)[0] = '\0';
}

int pralis_get_int(const char* key, int* value)
{
    for (int i = 0; i < count; ++i) {
        if (strcmp(kept[i].key, key) == 0) {
            *value = kept[i].value;
            return 0;
        }
    }
    const int result = HOST(pralis_get_int)(key, value);
    if (result == 0 && count < 16 && strlen(key) < sizeof kept[0].key) {
        strcpy(kept[count].key, key);
        kept[count].value = *value;
        HOST(pralis_notify_key_changed)(key, forget, kept[count].key);
        ++count;
    }
    return result;
}

int pralis_set_int(const char* key, int value)
{
    for (int i = 0; i < count; ++i) {
        kept[i].value = strcmp(kept[i].key, key) == 0 ? value : kept[i].value;
    }
    return HOST(pralis_set_int)(key, value);
}
