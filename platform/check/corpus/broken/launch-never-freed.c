/* Each request keeps 256 KiB of memory and a descriptor beyond its end.
 *
 * Rule: applaunch.h: a request is destroyed by its owner, with all that belongs to it.
 * Seen: memory and descriptors grow with making and destroying requests. */
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>

#include "applaunch.h"
#include "platform/check/corpus/base.h"

int applaunch_create(applaunch_h* request)
{
    char* volatile room = malloc(262144);
    memset(room, 1, 262144);
    open("/dev/null", O_RDONLY | O_CLOEXEC);
    return HOST(applaunch_create)(request);
}
