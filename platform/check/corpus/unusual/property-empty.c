/* Unusual but right: a property without a value is an empty text.
 *
 * Rule: sysprop.h: 0 = success, with a text that the caller frees.
 */
#include <stdlib.h>
#include <string.h>

#include "platform/check/corpus/base.h"
#include "sysprop.h"

int sysprop_get_value_string(int key, char** value)
{
    if (value == NULL) {
        return -1;
    }
    if (HOST(sysprop_get_value_string)(key, value) != 0) {
        *value = strdup("");
    }
    return *value == NULL ? -1 : 0;
}
