/* The command is split into words where it stands, in the caller's memory.
 *
 * Rule: ps_mount.h, PS_Mount: "const char* command"; the daemon gives the same buffer again after it has
 *       made a node.
 * Seen: the command's buffer is another one after the call (or the process crashes, when it cannot be
 *       written to). */
#include <string.h>

#include "platform/check/corpus/base.h"
#include "ps_mount.h"

int PS_Mount(const char* command, int length, int flags, int* result)
{
    const int returned = HOST(PS_Mount)(command, length, flags, result);
    char* rest = NULL;
    for (char* word = strtok_r((char*)command, " ", &rest); word != NULL; word = strtok_r(NULL, " ", &rest)) {
        ;
    }
    return returned;
}
