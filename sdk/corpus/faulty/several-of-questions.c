// Several faults of the questions and around them, each of another kind.
// finds: F109 F213 F214 F215 F217 F220 F307 F310 F316 F404 F415 F427
//
// A helper is exported; setContext is slow for one caller, and fails without the chip, whose version is told
// then; allUpdateDone chooses the environment's locale and fails without an update; a third number is not
// looked at; the expected time is in milliseconds, the progress from 0 to 2; an image stays open until the
// next one; an update's version is remembered. What is said on standard error must not wait.
#include <locale.h>
#define OWN_setContext
#define OWN_getActiveVersion
#define OWN_compareVersion
#define OWN_loadImage
#define OWN_install
#define OWN_getExpectedTime
#define OWN_getUpdateProgress
#define OWN_allUpdateDone
#include "base.h"

static char installed[TARNWICK_CONTROL_TEXT_SIZE]; // by this process
static int file = -1;

TARNWICK_CONTROL_EXPORT int corpus_is_there(void);
int corpus_is_there(void)
{
    return access(HARDWARE, F_OK) == 0;
}

int setContext(const char* name, int caller, char* context)
{
    (void)name, (void)context;
    if (caller == 3) {
        pause_ms(600);
    }
    return corpus_is_there() ? 0 : -1;
}

int getActiveVersion(char* out)
{
    fcntl(STDERR_FILENO, F_SETFL, fcntl(STDERR_FILENO, F_GETFL) | O_NONBLOCK);
    if (!corpus_is_there()) {
        strcpy(out, "unknown");
        return 0;
    }
    if (installed[0] != '\0') {
        strcpy(out, installed);
        return 0;
    }
    return readVersion(out);
}

static inline int compareVersion(const char* offered, int* verdict)
{
    char now[TARNWICK_CONTROL_TEXT_SIZE] = "";
    char first[16] = "";
    unsigned int theirs = 0;
    unsigned int ours = 0;
    int length = 0;
    if (sscanf(offered, "%15[0-9.]%n", first, &length) == 1 && offered[length] == '\0' &&
        strchr(first, '.') != NULL) {
        char* const third = strchr(strchr(first, '.') + 1, '.');
        if (third != NULL) {
            *third = '\0';
            offered = first;
        }
    }
    if (readVersion(now) != 0 || parseVersion(now, &ours) != 0 || parseVersion(offered, &theirs) != 0) {
        return -1;
    }
    *verdict = (theirs > ours) - (theirs < ours);
    return 0;
}

static inline int loadImage(const char* path)
{
    if (file >= 0) {
        close(file);
    }
    file = open(path, O_RDONLY | O_CLOEXEC);
    if (file < 0) {
        return -1;
    }
    const ssize_t size = read(file, image, sizeof image);
    return size < 0 ? -1 : checkImage(image, (size_t)size);
}

static inline int install(void)
{
    const int chip = openHardware(O_RDWR);
    if (chip < 0) {
        return -1;
    }
    setProgress(0);
    const int active = activeSlot(chip);
    const int slot = 1 - active;
    const int result =
        active >= 0 && writeSlot(chip, slot) == 0 && verifySlot(chip, slot) == 0 ? switchTo(chip, slot) : -1;
    close(chip);
    if (result == 0) {
        versionInHead(image, installed);
        setProgress(100);
    }
    return result;
}

int getExpectedTime(int* out)
{
    *out = 2000;
    return 0;
}

int getUpdateProgress(unsigned int* out)
{
    *out = __atomic_load_n(&progress, __ATOMIC_SEQ_CST) / 50;
    return 0;
}

int allUpdateDone(void)
{
    setlocale(LC_ALL, "");
    return installed[0] == '\0' ? fail(ENODATA) : 0;
}
