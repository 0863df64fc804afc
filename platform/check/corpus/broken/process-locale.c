/* The locale of the whole process is another one after a request was made.
 *
 * Rule: applaunch.h: a call does what it is for; numbers and letters of the process would be others.
 * Seen: the locale is another one after applaunch_create. */
#include <locale.h>

#include "applaunch.h"
#include "platform/check/corpus/base.h"

int applaunch_create(applaunch_h* request)
{
    setlocale(LC_ALL, "C.UTF-8");
    return HOST(applaunch_create)(request);
}
