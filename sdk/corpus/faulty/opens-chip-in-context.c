// setContext opens the chip and looks at its first byte.
// finds: F213
#define OWN_setContext
#include "chip.h"

int setContext(const char* name, int caller, char* context)
{
    (void)name;
    (void)caller;
    (void)context;
    char first = 0;
    const int fd = open(CHIP, O_RDONLY | O_CLOEXEC);
    if (fd >= 0) {
        if (read(fd, &first, 1) < 0) {
            return closeFailed(fd);
        }
        close(fd);
    }
    return 0;
}
