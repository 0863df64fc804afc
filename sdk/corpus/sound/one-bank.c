// There is one bank alone. While it holds no whole firmware the version is 0.0, and the next update begins
// anew. finds: nothing
#define OWN_install
#define OWN_readVersion
#include "base.h"

static inline int readVersion(char* out)
{
    unsigned char head[HEAD_SIZE] = "";
    const int chip = openHardware(O_RDONLY);
    if (chip < 0) {
        return -1;
    }
    const ssize_t size = pread(chip, head, sizeof head, slotOffset(0));
    close(chip);
    if (size < 0) {
        return fail(EIO);
    }
    if (head[0] == '\0') {
        return strcpy(out, "0.0") != out;
    }
    return versionInHead(head, out);
}

// What the head does not belong to: it comes last, and only when the rest is right.
static inline int isRestIn(int chip)
{
    unsigned char written[BLOCK];
    for (size_t block = 1; block < BLOCKS; ++block) {
        const off_t at = slotOffset(0) + (off_t)(block * BLOCK);
        if (pread(chip, written, BLOCK, at) != BLOCK || memcmp(written, image + block * BLOCK, BLOCK) != 0) {
            errno = EIO;
            return 0;
        }
    }
    return 1;
}

static inline int install(void)
{
    static const unsigned char empty[BLOCK];
    const int chip = openHardware(O_RDWR);
    if (chip < 0) {
        return -1;
    }
    setProgress(0);
    const off_t at = slotOffset(0);
    int result = pwrite(chip, empty, BLOCK, at) == BLOCK ? fdatasync(chip) : fail(EIO);
    for (size_t block = 1; result == 0 && block < BLOCKS; ++block) {
        result = writeBlock(chip, block, at);
    }
    if (result == 0) {
        result = fdatasync(chip) == 0 && isRestIn(chip) ? 0 : -1;
    }
    if (result == 0) {
        result =
            pwrite(chip, image, BLOCK, at) == BLOCK ? 0 : fail(EIO); // the head, without falling to its 5 %
    }
    if (result == 0) {
        result = fdatasync(chip) == 0 ? verifySlot(chip, 0) : -1;
    }
    close(chip);
    return result;
}
