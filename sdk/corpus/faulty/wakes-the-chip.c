// setContext writes to a register of the chip.
// finds: F213
#define OWN_setContext
#include "chip.h"

int setContext(const char* name, int caller, char* context)
{
    (void)name;
    (void)caller;
    (void)context;
    int fd = open(CHIP ".power", O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
    if (fd >= 0) {
        if (write(fd, "on\n", 3) != 3) {
            close(fd);
            return -1;
        }
        close(fd);
    }
    return 0;
}
