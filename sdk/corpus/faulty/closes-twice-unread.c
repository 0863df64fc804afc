// When the image cannot be read, its descriptor is closed twice.
// finds: F313
#define OWN_loadImage
#include "base.h"

static inline int loadImage(const char* path)
{
    const int file = open(path, O_RDONLY | O_CLOEXEC);
    if (file < 0) {
        return -1;
    }
    size_t size = 0;
    ssize_t got = 0;
    while ((got = read(file, image + size, sizeof image - size)) > 0) {
        size += (size_t)got;
    }
    if (got < 0) {
        close(file);
    }
    close(file);
    return got < 0 ? fail(EIO) : checkImage(image, size);
}
