/* Keys are told apart by their first 32 characters, so that the update's status and its progress are one.
 *
 * Rule: pralis.h: every key has a value of its own.
 * Seen: a write of one key changes another one. */
#include <stdio.h>

#include "platform/check/corpus/base.h"
#include "pralis.h"

static const char* cut(const char* key, char (*name)[33])
{
    snprintf(*name, sizeof *name, "%s", key == NULL ? "" : key);
    return *name;
}

int pralis_set_int(const char* key, int value)
{
    char name[33];
    return HOST(pralis_set_int)(cut(key, &name), value);
}

int pralis_get_int(const char* key, int* value)
{
    char name[33];
    return HOST(pralis_get_int)(cut(key, &name), value) == 0 ? 0 : HOST(pralis_get_int)(key, value);
}

int pralis_notify_key_changed(const char* key, pralis_key_changed_cb cb, void* user_data)
{
    char name[33];
    return HOST(pralis_notify_key_changed)(cut(key, &name), cb, user_data);
}

int pralis_ignore_key_changed(const char* key, pralis_key_changed_cb cb)
{
    char name[33];
    return HOST(pralis_ignore_key_changed)(cut(key, &name), cb);
}
