// The C library walks through the hardware's directory, and goes into it meanwhile.
// finds: F305
#define OWN_allUpdateDone
#define _GNU_SOURCE
#include <ftw.h>

#include "chip.h"

static int removeRemains(const char* path, const struct stat* status, int kind, struct FTW* place)
{
    (void)status;
    return kind == FTW_F && strcmp(path + place->base, "chip.old") == 0 ? remove(path + place->base) : 0;
}

int allUpdateDone(void)
{
    return nftw(CHIP_DIR, removeRemains, 4, FTW_PHYS | FTW_CHDIR);
}
