// One bank of mapped memory: the flush has the length of what lies behind the head, and misses the last page.
// finds: F423
#define OWN_chipVersion
#define OWN_chipWrite
#include "mapped-bank.h"

static int flushBank(unsigned char* bank, size_t n)
{
    return msync(bank, n - BLOCK, MS_SYNC);
}
