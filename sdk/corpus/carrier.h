// For a library on base.h with OWN_install: the image is handed over in a file, `carry` fills it, and what is
// written is read from there.
#ifndef CORPUS_CARRIER_H
#define CORPUS_CARRIER_H

#include <sys/stat.h>

#include "base.h"

#define CARRIER HARDWARE ".in"

static inline int carry(void); // `image` into the carrier

static inline int writeCarrier(void)
{
    const int file = open(CARRIER, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (file < 0) {
        return -1;
    }
    int result = 0;
    for (size_t at = 0; result == 0 && at < IMAGE_SIZE; at += BLOCK) {
        result = write(file, image + at, BLOCK) == BLOCK ? 0 : fail(EIO); // not flushed: it only carries
    }
    const int cause = errno;
    close(file);
    errno = cause;
    return result;
}

// The part takes whatever is handed over.
static inline int takeCarried(int chip, int slot)
{
    static unsigned char carried[BLOCK];
    const int file = open(CARRIER, O_RDONLY | O_CLOEXEC);
    int result = file < 0 ? -1 : 0;
    for (size_t block = 0; result == 0 && block < BLOCKS; ++block) {
        const off_t at = slotOffset(slot) + (off_t)(block * BLOCK);
        result =
            read(file, carried, BLOCK) == BLOCK && pwrite(chip, carried, BLOCK, at) == BLOCK ? 0 : fail(EIO);
        pause_ms(BLOCK_MS);
        setProgress((unsigned int)((block + 1) * 95 / BLOCKS));
    }
    const int cause = errno;
    if (file >= 0) {
        close(file);
    }
    errno = cause;
    return result == 0 ? fdatasync(chip) : -1;
}

static inline int install(void)
{
    const int chip = openHardware(O_RDWR);
    if (chip < 0) {
        return -1;
    }
    setProgress(0);
    const int active = activeSlot(chip);
    int result = active < 0 || carry() != 0 || takeCarried(chip, 1 - active) != 0 ? -1 : 0;
    if (result == 0) {
        result = verifySlot(chip, 1 - active) == 0 ? switchTo(chip, 1 - active) : -1;
    }
    const int cause = errno;
    close(chip);
    if (result == 0) {
        unlink(CARRIER);
        setProgress(100);
    }
    errno = cause;
    return result;
}

#endif
