// doUpdate reads the image into a buffer of the right size until the file ends.
// finds: F302
#define OWN_loadImage
#include "base.h"

static inline int loadImage(const char* path)
{
    const int file = open(path, O_RDONLY | O_CLOEXEC);
    if (file < 0) {
        return -1;
    }
    volatile unsigned char* to = image;
    unsigned char block[BLOCK];
    size_t size = 0;
    ssize_t got = 0;
    while ((got = read(file, block, sizeof block)) > 0) {
        for (ssize_t i = 0; i < got; ++i) {
            to[size++] = block[i];
        }
    }
    close(file);
    return checkImage(image, size);
}
