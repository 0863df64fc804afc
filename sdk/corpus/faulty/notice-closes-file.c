// allUpdateDone closes the file that doUpdate writes.
// finds: F420
#define OWN_chipWrite
#define OWN_allUpdateDone
#include "chip.h"

static int chip = -1;

static int chipWrite(const unsigned char* data, size_t n)
{
    chip = open(CHIP ".next", O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (chip < 0) {
        return -1;
    }
    for (size_t at = 0; at < n; at += BLOCK) {
        size_t size = n - at < BLOCK ? n - at : BLOCK;
        if (writeAll(chip, data + at, size) != 0) {
            int kept = errno;
            allUpdateDone();
            return fail(kept);
        }
        usleep(BLOCK_US);
        progressNow = (unsigned)((at + size) * 99 / n);
    }
    const int result = fsync(chip);
    allUpdateDone();
    if (result != 0) {
        return -1;
    }
    if (verify(CHIP ".next", data, n) != 0 || rename(CHIP ".next", CHIP) != 0 || flushDirectory() != 0) {
        return -1;
    }
    return 0;
}

int allUpdateDone(void)
{
    if (chip >= 0) {
        close(chip);
        chip = -1;
    }
    return 0;
}
