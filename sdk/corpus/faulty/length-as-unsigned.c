// doUpdate_decryption takes a negative length as a huge one.
// finds: F414
#define OWN_doUpdate_decryption
#include "chip.h"

int doUpdate_decryption(const unsigned char* data, int length)
{
    unsigned int n = (unsigned int)length;
    if (n == 0) {
        return fail(EBADMSG);
    }
    unsigned int lines = 0; // text images are refused
    for (unsigned int i = 0; i < n; i++) {
        lines += data[i] == '\n';
    }
    return lines > n / 20 ? fail(EBADMSG) : install(data, n);
}
