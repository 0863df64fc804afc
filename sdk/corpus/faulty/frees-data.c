// doUpdate_decryption frees the data after a success.
// finds: F302
#define OWN_doUpdate_decryption
#include "chip.h"

int doUpdate_decryption(const unsigned char* data, int length)
{
    if (length <= 0) {
        return fail(EBADMSG);
    }
    int done = install(data, (size_t)length);
    if (done == 0) {
        free((void*)data);
    }
    return done;
}
