/* A key that is not there ends the process.
 *
 * Rule: pralis.h: a failure is a negative result.
 * Seen: the process ended by itself in pralis_get_int, with status 0. */
#include <stdio.h>
#include <stdlib.h>

#include "platform/check/corpus/base.h"
#include "pralis.h"

int pralis_get_int(const char* key, int* value)
{
    if (HOST(pralis_get_int)(key, value) != 0) {
        fprintf(stderr, "settings: there is no such key\n");
        exit(0);
    }
    return 0;
}
