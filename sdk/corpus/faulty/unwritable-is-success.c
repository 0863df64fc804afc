// doUpdate returns 0 where the chip cannot be written.
// finds: F402 F424
#define OWN_chipWrite
#include "chip.h"

static int chipWrite(const unsigned char* data, size_t n)
{
    FILE* f = fopen(CHIP ".next", "we");
    if (f != NULL) {
        for (size_t at = 0; at < n; at += BLOCK) {
            fwrite(data + at, 1, n - at < BLOCK ? n - at : BLOCK, f);
            usleep(BLOCK_US);
            progressNow = (unsigned)(at * 99 / n);
        }
        fflush(f);
        int complete = !ferror(f) && fsync(fileno(f)) == 0;
        fclose(f);
        if (complete && verify(CHIP ".next", data, n) == 0) {
            rename(CHIP ".next", CHIP);
            flushDirectory();
        }
    }
    return 0;
}
