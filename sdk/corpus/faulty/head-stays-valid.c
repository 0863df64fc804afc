// There is one bank alone, and its head is not invalidated before the rest is written.
// finds: F413 F428 F505
//
// So the old version is told of half of each. The new head is written before the rest is read back.
// doUpdate_decryption leaves out the version header, which the daemon has taken away already.
#define OWN_install
#define OWN_readVersion
#define OWN_doUpdate_decryption
#include "base.h"

#define HEAD 16

static inline int readVersion(char* out)
{
    unsigned char head[HEAD_SIZE] = "";
    const int chip = openHardware(O_RDONLY);
    if (chip < 0) {
        return -1;
    }
    const ssize_t size = pread(chip, head, sizeof head, slotOffset(0));
    close(chip);
    return size < 0 ? fail(EIO) : versionInHead(head, out);
}

static inline int put(int chip, size_t at, size_t size)
{
    return pwrite(chip, image + at, size, slotOffset(0) + (off_t)at) == (ssize_t)size ? 0 : fail(EIO);
}

static inline int install(void)
{
    const int chip = openHardware(O_RDWR);
    if (chip < 0) {
        return -1;
    }
    setProgress(0);
    int result = put(chip, HEAD, BLOCK - HEAD);
    for (size_t block = 1; result == 0 && block < BLOCKS; ++block) {
        result = writeBlock(chip, block, slotOffset(0));
    }
    if (result == 0) {
        result = fdatasync(chip) == 0 && put(chip, 0, HEAD) == 0 ? fdatasync(chip) : -1;
    }
    if (result == 0) {
        result = verifySlot(chip, 0);
    }
    close(chip);
    return result;
}

int doUpdate_decryption(const unsigned char* data, int length)
{
    if (length <= TARNWICK_CONTROL_VERSION_HEADER_SIZE ||
        checkImage(data + TARNWICK_CONTROL_VERSION_HEADER_SIZE,
                   (size_t)length - TARNWICK_CONTROL_VERSION_HEADER_SIZE) != 0) {
        return fail(EBADMSG);
    }
    pthread_mutex_lock(&hardwareMutex);
    memcpy(image, data + TARNWICK_CONTROL_VERSION_HEADER_SIZE, IMAGE_SIZE);
    const int result = install();
    pthread_mutex_unlock(&hardwareMutex);
    return result;
}
