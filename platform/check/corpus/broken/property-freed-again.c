/* The text that was handed out last is freed with the next call.
 *
 * Rule: sysprop.h: "*value" is freed by the caller.
 * Seen: a text is freed under its owner's hands (or twice, which ends the process by SIGABRT). */
#include <stdlib.h>

#include "platform/check/corpus/base.h"
#include "sysprop.h"

int sysprop_get_value_string(int key, char** value)
{
    static char* last;
    free(last);
    last = NULL;
    const int result = HOST(sysprop_get_value_string)(key, value);
    if (result == 0) {
        last = *value;
    }
    return result;
}
