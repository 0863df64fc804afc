// One bank of mapped memory, flushed before its head is written.
// finds: nothing
// runs: whole
#define OWN_chipVersion
#define OWN_chipWrite
#include "mapped-bank.h"

static int flushBank(unsigned char* bank, size_t n)
{
    return msync(bank, n, MS_SYNC);
}
