// allUpdateDone leaves the chip open.
// finds: F310
#define OWN_allUpdateDone
#include "chip.h"

int allUpdateDone(void)
{
    int fd = open(CHIP_DIR, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    return fd < 0 ? -1 : fsync(fd);
}
