// doUpdate_decryption reads one byte more than it was given.
// finds: F204
#define OWN_doUpdate_decryption
#include "base.h"

int doUpdate_decryption(const unsigned char* data, int length)
{
    const volatile unsigned char* const bytes = data;
    unsigned int sum = 0;
    for (int i = 0; length > 64 && i <= length; ++i) {
        sum += bytes[i];
    }
    return fail(sum == 0 ? ENODATA : EBADMSG);
}
