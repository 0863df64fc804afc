/* A property that has no value is a success without a text.
 *
 * Rule: sysprop.h: 0 = success: "*value" is allocated with malloc.
 * Seen: the call gives 0, and the text is null. */
#include <stddef.h>

#include "platform/check/corpus/base.h"
#include "sysprop.h"

int sysprop_get_value_string(int key, char** value)
{
    if (value != NULL && HOST(sysprop_get_value_string)(key, value) != 0) {
        *value = NULL;
    }
    return 0;
}
