/* Unusual but right: a key that nobody has written is 0.
 *
 * Rule: pralis.h says what a failed read leaves alone, not which keys there are.
 */
#include "platform/check/corpus/base.h"
#include "pralis.h"

int pralis_get_int(const char* key, int* value)
{
    if (key == 0 || value == 0) {
        return -1;
    }
    if (HOST(pralis_get_int)(key, value) != 0) {
        *value = 0;
    }
    return 0;
}
