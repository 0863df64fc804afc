// doUpdate_decryption forgets to close the hardware when it refuses an image.
// finds: F310 F428
#define OWN_doUpdate_decryption
#include "base.h"

int doUpdate_decryption(const unsigned char* data, int length)
{
    (void)data;
    (void)length;
    return openHardware(O_RDONLY) < 0 ? -1 : fail(EBADMSG);
}
