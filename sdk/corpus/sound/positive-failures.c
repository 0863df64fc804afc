// Failures are positive numbers, the errno value itself.
// finds: nothing
#define OWN_getActiveVersion
#define OWN_checkVersion
#define OWN_doUpdate
#define OWN_doUpdate_decryption
#include "chip.h"

int getActiveVersion(char* out)
{
    return chipVersion(out) == 0 ? 0 : errno;
}

int checkVersion(const char* version, int* result)
{
    char active[TARNWICK_CONTROL_TEXT_SIZE];
    *result = TARNWICK_CONTROL_VERDICT_SAME;
    if (chipVersion(active) != 0 || compareVersions(version, active, result) != 0) {
        return errno;
    }
    return 0;
}

int doUpdate(const char* name, unsigned long value)
{
    size_t n = 0;
    unsigned char* data = slurp(name, &n);
    if (data == NULL) {
        return errno;
    }
    int done = checksumOf(data, n) == value ? install(data, n) : fail(EBADMSG);
    int kept = errno;
    free(data);
    errno = kept;
    return done == 0 ? 0 : kept;
}

int doUpdate_decryption(const unsigned char* data, int length)
{
    if (length <= 0 || install(data, (size_t)length) != 0) {
        return length <= 0 ? (errno = EBADMSG) : errno;
    }
    return 0;
}
