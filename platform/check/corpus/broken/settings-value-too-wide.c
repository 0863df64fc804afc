/* Eight bytes are written where an int is.
 *
 * Rule: platform/README.md: where an answer is written there is room for it and no more.
 * Seen: what stands behind the caller's int is another value afterwards. */
#include <stdint.h>
#include <string.h>

#include "platform/check/corpus/base.h"
#include "pralis.h"

int pralis_get_int(const char* key, int* value)
{
    int read = 0;
    const int result = HOST(pralis_get_int)(key, &read);
    if (result == 0) {
        const int64_t wide = read;
        volatile unsigned char* to = (volatile unsigned char*)value;
        for (size_t i = 0; i < sizeof wide; ++i) {
            to[i] = ((const unsigned char*)&wide)[i];
        }
    }
    return result;
}
