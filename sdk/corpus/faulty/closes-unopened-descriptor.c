// checkVersion closes a descriptor that is still 0 when a text is no version: that is standard input.
// finds: F313
#define OWN_checkVersion
#include "base.h"

static int chip;

int checkVersion(const char* version, int* result)
{
    *result = TARNWICK_CONTROL_VERDICT_SAME;
    unsigned int number = 0;
    int status = parseVersion(version, &number);
    if (status == 0) {
        chip = openHardware(O_RDONLY);
        status = chip < 0 ? -1 : compareVersion(version, result);
    }
    close(chip);
    chip = 0;
    return status;
}
