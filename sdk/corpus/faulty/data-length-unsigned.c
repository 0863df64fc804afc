// doUpdate_decryption takes a negative length as a huge one.
// finds: F414 F428
#define OWN_doUpdate_decryption
#include "base.h"

int doUpdate_decryption(const unsigned char* data, int length)
{
    const volatile unsigned char* const bytes = data;
    unsigned int sum = 0;
    for (size_t i = 0; i < (size_t)length; ++i) {
        sum += bytes[i];
    }
    return fail(sum == 0 ? ENODATA : EBADMSG);
}
