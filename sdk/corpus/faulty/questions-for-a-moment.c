// Several things of the whole process are changed for the moment of a question, and put back before its end.
// finds: F305 F306 F307 F308 F312 F315
//
// The version is read from the hardware's directory, without interruption, with a mask of its own and a limit
// that the log needs; numbers are read in the C locale of another zone.
#define OWN_readVersion
#define OWN_checkVersion
#include <locale.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include "base.h"

static inline int readHead(unsigned char* head, size_t size)
{
    const int chip = open("corpus", O_RDONLY | O_CLOEXEC);
    if (chip < 0) {
        return -1;
    }
    const int slot = activeSlot(chip);
    const ssize_t got = slot < 0 ? -1 : pread(chip, head, size, slotOffset(slot));
    close(chip);
    return got < 0 ? fail(EIO) : 0;
}

static inline int readVersion(char* out)
{
    unsigned char head[HEAD_SIZE] = "";
    struct rlimit files;
    const int here = open(".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    void (*const before)(int) = signal(SIGTERM, SIG_IGN);
    const mode_t mask = umask(077);
    getrlimit(RLIMIT_NOFILE, &files);
    const struct rlimit fewer = {files.rlim_cur / 2, files.rlim_max};
    setrlimit(RLIMIT_NOFILE, &fewer);
    const int result = chdir("/var/lib/hardware") != 0 ? -1 : readHead(head, sizeof head);
    const int cause = errno;
    setrlimit(RLIMIT_NOFILE, &files);
    umask(mask);
    signal(SIGTERM, before);
    if (here < 0 || fchdir(here) != 0) {
        return -1;
    }
    close(here);
    errno = cause;
    return result != 0 ? -1 : versionInHead(head, out);
}

int checkVersion(const char* version, int* result)
{
    char before[64];
    *result = TARNWICK_CONTROL_VERDICT_SAME;
    snprintf(before, sizeof before, "%s", setlocale(LC_ALL, NULL));
    setlocale(LC_ALL, "C.UTF-8");
    setenv("TZ", "UTC", 1);
    const int done = compareVersion(version, result);
    const int cause = errno;
    unsetenv("TZ");
    setlocale(LC_ALL, before);
    errno = cause;
    return done;
}
