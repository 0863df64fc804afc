// doUpdate takes the hardware as updated for as long as the process lives.
// finds: F418
#define OWN_loadImage
#include "base.h"

static int isDone;

static inline int loadImage(const char* path)
{
    if (isDone) {
        return fail(EALREADY);
    }
    const int file = open(path, O_RDONLY | O_CLOEXEC);
    if (file < 0) {
        return -1;
    }
    const ssize_t size = read(file, image, sizeof image);
    close(file);
    if (size < 0 || checkImage(image, (size_t)size) != 0) {
        return -1;
    }
    isDone = 1;
    return 0;
}
