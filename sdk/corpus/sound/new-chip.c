// Hardware that answers and has no firmware that it knows is told as 0.0, which wants any update.
// finds: nothing
#define OWN_getActiveVersion
#include "base.h"

int getActiveVersion(char* out)
{
    char byte = 0;
    const int chip = openHardware(O_RDONLY);
    if (chip < 0) {
        return -1;
    }
    const int answers = pread(chip, &byte, 1, 0) >= 0;
    close(chip);
    if (!answers) {
        return fail(EIO);
    }
    if (readVersion(out) != 0) {
        strcpy(out, "0.0");
    }
    return 0;
}
