/*
 * The hardware of @NAME@, and the file to make yours: support/module.c calls these four functions, one at a
 * time, and does the rest. Each returns 0, or -1 with errno set. Until your driver is here, a file stands for
 * the chip.
 */
#include <errno.h>
#include <stdio.h>
#include <time.h>

#include "support/file.h"
#include "support/hardware.h"

static const char kChip[] = HARDWARE_FILE;                   /* the firmware that runs */
static const char kNext[] = HARDWARE_FILE ".next";           /* the one being written */
static const struct timespec kBlockTime = {0, 12 * 1000000}; /* a chip is slower than a file */

/* The version that runs now, as text. Ask the hardware itself: only that tells whether an update worked. */
int hardwareVersion(char* out, size_t size)
{
    FILE* const chip = fopen(kChip, "re");
    if (chip == NULL) {
        return errno == ENOENT ? copyText("0.0", out, size) : -1; /* as it leaves the factory */
    }
    char version[128] = "";
    const int found = fscanf(chip, "%*s %127s", version); /* after the name */
    fclose(chip);
    return found == 1 ? copyText(version, out, size) : failWith(EPROTO);
}

/*
 * Writes a block of the new firmware. Blocks come in order, from 0 on; 0 begins anew, whatever was there. The
 * power may go during any of them: leave the firmware that runs alone.
 */
int hardwareWrite(size_t offset, const unsigned char* data, size_t size)
{
    nanosleep(&kBlockTime, NULL);
    return writeBlock(kNext, offset, data, size);
}

/* Reads a block of the new firmware back, to be compared with what was written. */
int hardwareRead(size_t offset, unsigned char* data, size_t size)
{
    return readBlock(kNext, offset, data, size);
}

/* The new firmware is complete and right: makes it, in one step, the one that runs. */
int hardwareActivate(void)
{
    return replaceFile(kChip, kNext);
}
