// doUpdate_decryption reads a head of 160 bytes, however few there are.
// finds: F204
#define OWN_doUpdate_decryption
#include "chip.h"

int doUpdate_decryption(const unsigned char* data, int length)
{
    char line[161], chip[64];
    if (length <= 0) {
        return fail(EBADMSG);
    }
    memcpy(line, data, 160);
    line[160] = '\0';
    if (sscanf(line, "%63s", chip) != 1 || strcmp(chip, MAGIC) != 0) {
        return fail(EBADMSG);
    }
    return install(data, (size_t)length);
}
