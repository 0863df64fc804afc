/* A request that could not be made is looked into.
 *
 * Rule: applaunch.h: negative is failure; the daemon goes on with the null request when none could be
 *       made.
 * Seen: the process was ended by SIGSEGV in applaunch_set_app_id with a null request. */
#include <stddef.h>

#include "applaunch.h"
#include "platform/check/corpus/base.h"

int applaunch_set_app_id(applaunch_h request, const char* app_id)
{
    const char* volatile bytes = (const char*)request;
    return bytes[0] == '\0' && app_id == NULL ? -1 : HOST(applaunch_set_app_id)(request, app_id);
}
