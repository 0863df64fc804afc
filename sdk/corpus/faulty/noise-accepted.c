// doUpdate_decryption writes whatever it is given.
// finds: F414
#define OWN_doUpdate_decryption
#include "base.h"

int doUpdate_decryption(const unsigned char* data, int length)
{
    if (length <= 0) {
        return fail(EBADMSG);
    }
    memcpy(image, data, (size_t)length < IMAGE_SIZE ? (size_t)length : IMAGE_SIZE);
    return install();
}
