// Which slot is active is remembered, and looked up all the same; a read of the image that fails is told.
// finds: nothing
// runs: whole
#define OWN_loadImage
#define OWN_install
#define OWN_allUpdateDone
#include "base.h"

static unsigned int notices; // atomic

static inline int loadImage(const char* path)
{
    FILE* const file = fopen(path, "re");
    if (file == NULL) {
        return -1;
    }
    const size_t size = fread(image, 1, sizeof image, file);
    const int isUnread = ferror(file);
    fclose(file);
    return isUnread ? fail(EIO) : checkImage(image, size);
}

static inline int install(void)
{
    static int next = -1;
    const int chip = openHardware(O_RDWR);
    if (chip < 0) {
        return -1;
    }
    setProgress(0);
    const int active = activeSlot(chip);
    if (active >= 0 && (next < 0 || next == active)) {
        next = 1 - active;
    }
    const int result =
        active >= 0 && writeSlot(chip, next) == 0 && verifySlot(chip, next) == 0 ? switchTo(chip, next) : -1;
    close(chip);
    if (result == 0) {
        next = 1 - next;
        setProgress(100);
    }
    return result;
}

int allUpdateDone(void)
{
    __atomic_add_fetch(&notices, 1, __ATOMIC_SEQ_CST);
    return 0;
}
