/*
 * The module on a chip of its own, a file of the build directory, without a daemon. Arguments: the sample
 * images 1.0 and 1.1. Prints what fails, and where.
 */
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <tarnwick/control.h>

#include "support/file.h"
#include "support/hardware.h"
#include "support/image.h"

static int failures;

#define EXPECT(condition)                                                                                    \
    do {                                                                                                     \
        if (!(condition)) {                                                                                  \
            fprintf(stderr, "%s:%d: %s\n", __FILE__, __LINE__, #condition);                                  \
            ++failures;                                                                                      \
        }                                                                                                    \
    } while (0)

static int runs(const char* version)
{
    char active[TARNWICK_CONTROL_TEXT_SIZE] = "";
    return getActiveVersion(active) == 0 && strcmp(active, version) == 0;
}

static int verdictOn(const char* version)
{
    int verdict = 99;
    return checkVersion(version, &verdict) == 0 ? verdict : 99;
}

static unsigned int percent(void)
{
    unsigned int progress = 99;
    return getUpdateProgress(&progress) == 0 ? progress : 99;
}

static unsigned long checksumOf(const char* path)
{
    size_t size = 0;
    unsigned char* const data = readFile(path, &size);
    const unsigned long checksum = data != NULL ? imageChecksum(data, size) : 0;
    free(data);
    return checksum;
}

static void testVersions(void)
{
    EXPECT(runs("0.0"));
    EXPECT(verdictOn("0.0") == TARNWICK_CONTROL_VERDICT_SAME);
    EXPECT(verdictOn("0.0.1") == TARNWICK_CONTROL_VERDICT_NEWER);
    EXPECT(verdictOn("new") == 99);
    int verdict = 0;
    EXPECT(imageCompareVersions("1.9", "1.10", &verdict) == 0 && verdict == TARNWICK_CONTROL_VERDICT_OLDER);
}

static void testUpdate(const char* image, const char* version)
{
    EXPECT(doUpdate(image, checksumOf(image)) == 0);
    EXPECT(percent() == 100);
    EXPECT(runs(version));
}

/* Whatever is refused leaves the firmware alone. */
static void testRefusals(const char* image, const char* version)
{
    errno = 0;
    EXPECT(doUpdate(image, checksumOf(image) ^ 1) != 0 && errno == EBADMSG);
    EXPECT(doUpdate("nowhere", 0) != 0 && errno == ENOENT);
    EXPECT(doUpdate_decryption((const unsigned char*)"", 0) != 0 && errno == EBADMSG);
    EXPECT(runs(version));
}

/* The power went in the middle of an update: the next one starts over. */
static void testAfterPowerCut(const char* image, const char* version)
{
    const unsigned char garbage[HARDWARE_BLOCK_SIZE] = "half an image";
    EXPECT(hardwareWrite(0, garbage, sizeof garbage) == 0);
    testUpdate(image, version);
}

int main(int argc, char** argv)
{
    if (argc != 5) {
        fprintf(stderr, "usage: %s VERSION IMAGE NEWER_VERSION NEWER_IMAGE\n", argv[0]);
        return 2;
    }
    remove(HARDWARE_FILE);
    testVersions();
    testUpdate(argv[2], argv[1]);
    testRefusals(argv[4], argv[1]);
    testAfterPowerCut(argv[4], argv[3]);
    EXPECT(verdictOn(argv[1]) == TARNWICK_CONTROL_VERDICT_OLDER);
    return failures == 0 ? 0 : 1;
}
