// The hardware is mapped at the first question, and read there for ever, whatever becomes of it.
// finds: F215
#include <sys/mman.h>
#define OWN_readVersion
#include "base.h"

static inline int readVersion(char* out)
{
    static const unsigned char* chip;
    const size_t size = BLOCK + 2 * IMAGE_SIZE;
    pthread_mutex_lock(&hardwareMutex);
    if (chip == NULL) {
        const int file = openHardware(O_RDONLY);
        void* const mapped = file < 0 ? MAP_FAILED : mmap(NULL, size, PROT_READ, MAP_SHARED, file, 0);
        if (file >= 0) {
            close(file);
        }
        chip = mapped == MAP_FAILED ? NULL : (const unsigned char*)mapped;
    }
    pthread_mutex_unlock(&hardwareMutex);
    if (chip == NULL) {
        return fail(EIO);
    }
    if (chip[0] != '0' && chip[0] != '1') {
        return fail(EIO);
    }
    return versionInHead(chip + slotOffset(chip[0] - '0'), out);
}
