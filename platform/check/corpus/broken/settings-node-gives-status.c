/* A changed key's value is asked for, and its success is answered.
 *
 * Rule: pralis.h, pralis_keynode_get_int: the new value itself, not a status.
 * Seen: the node gives 0 whatever was written. */
#include <stddef.h>

#include "pralis.h"

int pralis_keynode_get_int(const keynode* node)
{
    return node == NULL ? -1 : 0;
}
