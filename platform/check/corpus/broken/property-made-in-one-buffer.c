/* A property's text is put together in a buffer that all threads have, and then copied.
 *
 * Rule: sysprop.h: a text of its own for each call; platform/README.md: several at a time.
 * Seen: of threads that read it at once some get another one's text. */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "platform/check/corpus/base.h"
#include "sysprop.h"

int sysprop_get_value_string(int key, char** value)
{
    static char made[256];
    char* text = NULL;
    made[0] = '\0';
    const int result = HOST(sysprop_get_value_string)(key, &text);
    if (result != 0) {
        return result;
    }
    for (const char* part = text; *part != '\0'; ++part) {
        strncat(made, part, 1);
        usleep(*part == '-' ? 500 : 0);
    }
    free(text);
    *value = strdup(made);
    return 0;
}
