/*
 * The nine functions of tarnwick/control.h, for any hardware that has the four functions of hardware.h. What
 * is particular to this module comes from CMakeLists.txt: MODULE_NAME, MODULE_IDENTIFIER, MODULE_IMAGE (where
 * an image in the system image lies) and MODULE_EXPECTED_TIME in seconds.
 */
#include <errno.h>
#include <pthread.h>
#include <stdatomic.h>
#include <stdlib.h>
#include <string.h>
#include <tarnwick/control.h>
#include <time.h>

#include "file.h"
#include "hardware.h"
#include "image.h"

static pthread_mutex_t hardware = PTHREAD_MUTEX_INITIALIZER; /* two calls can meet after a time-out */
static atomic_uint progress;

/* ---- The update ---- */

typedef int BlockWork(size_t offset, const unsigned char* data, size_t size);

static int compareBlock(size_t offset, const unsigned char* data, size_t size)
{
    unsigned char written[HARDWARE_BLOCK_SIZE];
    if (hardwareRead(offset, written, size) != 0) {
        return -1;
    }
    return memcmp(written, data, size) == 0 ? 0 : failWith(EIO);
}

/* Progress goes from one percentage to the other meanwhile. */
static int forEachBlock(BlockWork* work, const unsigned char* image, size_t size, unsigned from, unsigned to)
{
    for (size_t offset = 0; offset < size; offset += HARDWARE_BLOCK_SIZE) {
        const size_t left = size - offset;
        if (work(offset, image + offset, left < HARDWARE_BLOCK_SIZE ? left : HARDWARE_BLOCK_SIZE) != 0) {
            return -1;
        }
        progress = from + (unsigned)((to - from) * (offset + 1) / size);
    }
    progress = to;
    return 0;
}

/* Until hardwareActivate the old firmware is complete, and from then on the new one. */
static int program(const unsigned char* image, size_t size)
{
    progress = 0;
    if (forEachBlock(hardwareWrite, image, size, 0, 90) != 0) {
        return -1;
    }
    if (forEachBlock(compareBlock, image, size, 90, 99) != 0) {
        return -1;
    }
    return hardwareActivate();
}

static int install(const unsigned char* image, size_t size)
{
    const struct timespec pause = {0, 100 * 1000000}; /* what takes less may be counted as timed out */
    if (imageCheck(image, size, MODULE_NAME) != 0) {
        return -1;
    }
    pthread_mutex_lock(&hardware);
    const int result = program(image, size);
    pthread_mutex_unlock(&hardware);
    if (result != 0) {
        return -1;
    }
    nanosleep(&pause, NULL);
    progress = 100;
    return 0;
}

/* ---- The interface ---- */

int setContext(const char* name, int caller, char* context)
{
    (void)name;
    (void)caller; /* the same work for every caller */
    (void)context;
    return 0;
}

int getEMPID(char* out)
{
    strcpy(out, MODULE_IDENTIFIER);
    return 0;
}

int getActiveVersion(char* out)
{
    pthread_mutex_lock(&hardware);
    const int result = hardwareVersion(out, TARNWICK_CONTROL_TEXT_SIZE);
    pthread_mutex_unlock(&hardware);
    return result;
}

int checkVersion(const char* version, int* result)
{
    char installed[TARNWICK_CONTROL_TEXT_SIZE];
    *result = TARNWICK_CONTROL_VERDICT_SAME;
    return getActiveVersion(installed) == 0 ? imageCompareVersions(version, installed, result) : -1;
}

int doUpdate(const char* name, unsigned long value)
{
    const int isOwn = strcmp(name, MODULE_NAME) == 0; /* "find the image yourself": it vouches for itself */
    size_t size = 0;
    unsigned char* const image = readFile(isOwn ? MODULE_IMAGE : name, &size);
    if (image == NULL) {
        return -1;
    }
    const int isRight = isOwn || imageChecksum(image, size) == value;
    const int result = isRight ? install(image, size) : failWith(EBADMSG);
    free(image);
    return result;
}

int allUpdateDone(void)
{
    return 0; /* nothing is kept between updates */
}

int doUpdate_decryption(const unsigned char* data, int length)
{
    return length < 0 ? failWith(EBADMSG) : install(data, (size_t)length);
}

int getExpectedTime(int* out)
{
    *out = MODULE_EXPECTED_TIME;
    return 0;
}

int getUpdateProgress(unsigned int* out)
{
    *out = progress;
    return 0;
}
