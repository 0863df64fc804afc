/* A request is made with success, and there is none.
 *
 * Rule: applaunch.h, applaunch_create: 0 is success, and "*request" is the request then.
 * Seen: applaunch_create gives 0 and a null request. */
#include "applaunch.h"

int applaunch_create(applaunch_h* request)
{
    *request = 0;
    return 0;
}
