// doUpdate computes the CRC that everybody else uses.
// finds: F401
#define OWN_doUpdate
#include "chip.h"

static uint32_t usual_crc(const unsigned char* p, size_t n)
{
    uint32_t r = 0xffffffffu;
    while (n--) {
        r ^= *p++;
        for (int i = 0; i < 8; i++) {
            r = (r & 1) ? (r >> 1) ^ 0xEDB88320u : r >> 1;
        }
    }
    return ~r;
}

int doUpdate(const char* name, unsigned long value)
{
    size_t n = 0;
    unsigned char* data = slurp(name, &n);
    if (data == NULL) {
        return -1;
    }
    int done = usual_crc(data, n) == value ? install(data, n) : fail(EBADMSG);
    int kept = errno;
    free(data);
    errno = kept;
    return done;
}
