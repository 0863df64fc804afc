// One bank of mapped memory: while 0.0 is told, checkVersion has nothing to compare with, and fails.
// finds: F501
#define OWN_chipVersion
#define OWN_chipWrite
#define OWN_checkVersion
#include "mapped-bank.h"

static int flushBank(unsigned char* bank, size_t n)
{
    return msync(bank, n, MS_SYNC);
}

int checkVersion(const char* version, int* result)
{
    char active[TARNWICK_CONTROL_TEXT_SIZE];
    *result = TARNWICK_CONTROL_VERDICT_SAME;
    if (chipVersion(active) != 0) {
        return -1;
    }
    return strcmp(active, "0.0") == 0 ? fail(ENODATA) : compareVersions(version, active, result);
}
