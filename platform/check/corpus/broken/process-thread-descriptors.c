/* Each thread that reads the power state gets a descriptor of its own, which nobody closes.
 *
 * Rule: platform/README.md: a call that is made again and again keeps no more descriptors, also when each is
 * made on a thread of its own. Seen: after twenty threads there are twenty more. */
#include <fcntl.h>

#include "platform/check/corpus/base.h"
#include "pwrctl.h"

static _Thread_local int own = -1;

int pwrctl_get_state(void)
{
    if (own < 0) {
        own = open("/dev/null", O_RDONLY | O_CLOEXEC);
    }
    return HOST(pwrctl_get_state)();
}
