// doUpdate reads the image where it usually is, whatever path it is given.
// finds: F401 F411
#define OWN_loadImage
#include "base.h"

static inline int loadImage(const char* path)
{
    (void)path;
    const int file = open("/opt/usr/apps/appbinarymanager/emps/empCorpus/Corpus.bin", O_RDONLY | O_CLOEXEC);
    if (file < 0) {
        return -1;
    }
    const ssize_t size = read(file, image, sizeof image);
    close(file);
    return size < 0 ? -1 : checkImage(image, (size_t)size);
}
