// Several faults of an update, each of another kind.
// finds: F205 F217 F305 F308 F311 F313 F414 F423 F424
//
// It goes to the hardware's directory and comes back, and the same with the time zone; it waits for any
// child, whosever that is; it closes the hardware twice. An older version is refused instead of judged; the
// identifier is told beside a failure without the chip. Of an image in memory nothing but the head is looked
// at, and it is neither read back nor flushed.
#include <sys/wait.h>
#define OWN_getEMPID
#define OWN_compareVersion
#define OWN_install
#define OWN_doUpdate_decryption
#include "base.h"

int getEMPID(char* out)
{
    strcpy(out, IDENTIFIER);
    return access(HARDWARE, F_OK);
}

static inline int compareVersion(const char* offered, int* verdict)
{
    char installed[TARNWICK_CONTROL_TEXT_SIZE] = "";
    unsigned int theirs = 0;
    unsigned int ours = 0;
    if (readVersion(installed) != 0 || parseVersion(installed, &ours) != 0 ||
        parseVersion(offered, &theirs) != 0) {
        return -1;
    }
    *verdict = theirs > ours;
    return theirs < ours ? fail(EPERM) : 0;
}

static inline int install(void)
{
    char directory[256];
    if (getcwd(directory, sizeof directory) == NULL || chdir("/var/lib/hardware") != 0) {
        return -1;
    }
    const int chip = openHardware(O_RDWR);
    const int active = chip < 0 ? -1 : activeSlot(chip);
    setenv("TZ", "UTC", 1);
    setProgress(0);
    int result = active >= 0 && writeSlot(chip, 1 - active) == 0 && verifySlot(chip, 1 - active) == 0
                     ? switchTo(chip, 1 - active)
                     : -1;
    const int cause = errno;
    if (chip >= 0) {
        close(chip);
        close(chip);
    }
    const pid_t helper = fork();
    if (helper == 0) {
        _exit(0);
    }
    wait(NULL);
    unsetenv("TZ");
    if (chdir(directory) != 0) {
        result = -1;
    }
    errno = cause;
    return result;
}

static int installAtOnce(void)
{
    const int chip = openHardware(O_RDWR);
    const int active = chip < 0 ? -1 : activeSlot(chip);
    int result = active;
    for (size_t block = 0; result >= 0 && block < BLOCKS; ++block) {
        result = writeBlock(chip, block, slotOffset(1 - active));
    }
    if (result >= 0 && pwrite(chip, active == 0 ? "1" : "0", 1, 0) != 1) {
        result = -1;
    }
    const int cause = errno;
    if (chip >= 0) {
        close(chip);
    }
    errno = cause;
    return result;
}

int doUpdate_decryption(const unsigned char* data, int length)
{
    char version[TARNWICK_CONTROL_TEXT_SIZE];
    if (length != (int)IMAGE_SIZE || versionInHead(data, version) != 0) {
        return fail(EBADMSG);
    }
    pthread_mutex_lock(&hardwareMutex);
    memcpy(image, data, IMAGE_SIZE);
    const int result = installAtOnce();
    pthread_mutex_unlock(&hardwareMutex);
    return result;
}
