// setContext counts the questions in a spare byte of the hardware.
// finds: F213
#define OWN_setContext
#include "base.h"

int setContext(const char* name, int caller, char* context)
{
    (void)name, (void)caller, (void)context;
    unsigned char count = 0;
    const int chip = openHardware(O_RDWR);
    if (chip < 0) {
        return -1;
    }
    if (pread(chip, &count, 1, BLOCK - 1) == 1) {
        ++count;
        if (pwrite(chip, &count, 1, BLOCK - 1) != 1) {
            fail(EIO);
        }
    }
    close(chip);
    return 0;
}
