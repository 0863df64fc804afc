/* Every question keeps a copy of its answer, with room for the longest.
 *
 * Rule: sysprop.h: the one text that is handed out is the caller's to free, and nothing else is left.
 * Seen: the memory of the process grows with sysprop_get_value_string. */
#include <stdlib.h>
#include <string.h>

#include "platform/check/corpus/base.h"
#include "sysprop.h"

int sysprop_get_value_string(int key, char** value)
{
    const int result = HOST(sysprop_get_value_string)(key, value);
    char* volatile copy = malloc(131072);
    memset(copy, 0, 131072);
    if (result == 0) {
        strncpy(copy, *value, 131071);
    }
    return result;
}
