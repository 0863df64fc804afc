/* Unusual but right: failures are -13 for settings, a result above 0 with a return value of 0 for mounts,
 * and -71 with a result of 0 for nodes.
 *
 * Rule: pralis.h: negative failure. ps_mount.h: a call succeeded when both are 0.
 */
#include "platform/check/corpus/base.h"
#include "pralis.h"
#include "ps_mount.h"

int pralis_get_int(const char* key, int* value)
{
    return HOST(pralis_get_int)(key, value) == 0 ? 0 : -13;
}

static int as_result(int returned, int* result)
{
    if (returned != 0 && *result == 0) {
        *result = 5;
    }
    return 0;
}

int PS_Mount(const char* command, int length, int flags, int* result)
{
    *result = 0;
    return as_result(HOST(PS_Mount)(command, length, flags, result), result);
}

int PS_Umount(const char* directory, int length, int flags, int* result)
{
    *result = 0;
    return as_result(HOST(PS_Umount)(directory, length, flags, result), result);
}

int PS_Mknod(const char* command, int length, int flags, int* result)
{
    const int returned = HOST(PS_Mknod)(command, length, flags, result);
    const int has_failed = returned != 0 || *result != 0;
    *result = 0;
    return has_failed ? -71 : 0;
}
