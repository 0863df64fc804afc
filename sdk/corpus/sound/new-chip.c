// Hardware that answers and has no firmware that it knows is told as 0.0, which wants any update.
// finds: nothing
#define OWN_getActiveVersion
#include "base.h"

int getActiveVersion(char* out)
{
    const int chip = openHardware(O_RDONLY);
    if (chip < 0) {
        return -1;
    }
    close(chip);
    if (readVersion(out) != 0) {
        strcpy(out, "0.0");
    }
    return 0;
}
