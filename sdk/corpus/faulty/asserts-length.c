// doUpdate_decryption asserts that there is data.
// finds: F414
#include <assert.h>
#define OWN_doUpdate_decryption
#include "chip.h"

int doUpdate_decryption(const unsigned char* data, int length)
{
    assert(length > 0);
    return install(data, (size_t)length);
}
