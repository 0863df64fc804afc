// doUpdate_decryption takes data without content as nothing to do.
// finds: F414 F428
#define OWN_doUpdate_decryption
#include "base.h"

int doUpdate_decryption(const unsigned char* data, int length)
{
    (void)data;
    return length <= 0 ? 0 : fail(EBADMSG);
}
