// doUpdate changes into the image's directory and stays there.
// finds: F305
#include <libgen.h>
#define OWN_doUpdate
#include "chip.h"

int doUpdate(const char* name, unsigned long value)
{
    char copy[4096], *file;
    snprintf(copy, sizeof copy, "%s", name);
    file = strrchr(copy, '/');
    if (file != NULL) {
        *file++ = '\0';
        if (chdir(copy) != 0) {
            return -1;
        }
    } else {
        file = copy;
    }
    size_t n = 0;
    unsigned char* data = slurp(file, &n);
    if (data == NULL) {
        return -1;
    }
    int done = checksumOf(data, n) == value ? install(data, n) : fail(EBADMSG);
    int kept = errno;
    free(data);
    errno = kept;
    return done;
}
