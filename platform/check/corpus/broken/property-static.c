/* The property's text is the library's own.
 *
 * Rule: sysprop.h: "*value" is allocated with malloc and freed by the caller.
 * Seen: the text cannot be freed: the process was ended by SIGABRT in free(). */
#include <stdio.h>
#include <stdlib.h>

#include "platform/check/corpus/base.h"
#include "sysprop.h"

int sysprop_get_value_string(int key, char** value)
{
    static char text[256];
    char* found = NULL;
    const int result = HOST(sysprop_get_value_string)(key, &found);
    if (result == 0) {
        snprintf(text, sizeof text, "%s", found);
        free(found);
        *value = text;
    }
    return result;
}
