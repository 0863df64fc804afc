// The version is a note that is written when an update begins.
// finds: F220 F413 F503
#define OWN_getActiveVersion
#define OWN_checkVersion
#define OWN_doUpdate
#include "chip.h"

#define NOTE CHIP ".version"

static int note_write(const char* version)
{
    int fd = open(NOTE ".tmp", O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) {
        return -1;
    }
    if (writeAll(fd, (const unsigned char*)version, strlen(version)) != 0 || fsync(fd) != 0) {
        return closeFailed(fd);
    }
    close(fd);
    return rename(NOTE ".tmp", NOTE);
}

int getActiveVersion(char* out)
{
    size_t n = 0;
    unsigned char* note = slurp(NOTE, &n);
    if (note == NULL) {
        return chipVersion(out);
    }
    snprintf(out, TARNWICK_CONTROL_TEXT_SIZE, "%.*s", (int)n, (char*)note);
    free(note);
    return 0;
}

int checkVersion(const char* version, int* result)
{
    char active[TARNWICK_CONTROL_TEXT_SIZE];
    *result = TARNWICK_CONTROL_VERDICT_SAME;
    if (getActiveVersion(active) != 0) {
        return -1;
    }
    return compareVersions(version, active, result);
}

int doUpdate(const char* name, unsigned long value)
{
    size_t n = 0;
    unsigned char* data = slurp(name, &n);
    struct image image;
    if (data == NULL) {
        return -1;
    }
    int done = -1;
    if (checksumOf(data, n) != value) {
        fail(EBADMSG);
    } else if (parseImage(data, n, &image) == 0 && note_write(image.version) == 0) {
        done = install(data, n);
    }
    int kept = errno;
    free(data);
    errno = kept;
    return done;
}
