/* Unusual but right: calls leave another errno behind, successful ones too.
 *
 * Rule: platform/README.md: the two logs leave errno alone; of the others nothing is said.
 */
#include <errno.h>

#include "flagpost.h"
#include "platform/check/corpus/base.h"
#include "pralis.h"
#include "pwrctl.h"

int pralis_get_int(const char* key, int* value)
{
    const int result = HOST(pralis_get_int)(key, value);
    errno = EAGAIN;
    return result;
}

int pralis_set_int(const char* key, int value)
{
    const int result = HOST(pralis_set_int)(key, value);
    errno = ENOTTY;
    return result;
}

int pwrctl_get_state(void)
{
    const int result = HOST(pwrctl_get_state)();
    errno = EINTR;
    return result;
}

int FlagpostIsDone(const char* flag)
{
    const int result = HOST(FlagpostIsDone)(flag);
    errno = ENOENT;
    return result;
}
