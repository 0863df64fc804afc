// The version is a note that an update leaves when everything else is done.
// finds: F220
#define OWN_getActiveVersion
#define OWN_checkVersion
#define OWN_doUpdate
#include "chip.h"

#define NOTE CHIP ".version"

static int leaveNote(const char* version)
{
    int fd = open(NOTE ".tmp", O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) {
        return -1;
    }
    if (writeAll(fd, (const unsigned char*)version, strlen(version)) != 0 || fsync(fd) != 0) {
        return closeFailed(fd);
    }
    close(fd);
    return rename(NOTE ".tmp", NOTE) == 0 ? flushDirectory() : -1;
}

int getActiveVersion(char* out)
{
    size_t n = 0;
    char* note = access(CHIP, R_OK) == 0 ? (char*)slurp(NOTE, &n) : NULL;
    const int isRead = note != NULL && n < TARNWICK_CONTROL_TEXT_SIZE;
    if (isRead) {
        memcpy(out, note, n);
        out[n] = '\0';
    }
    free(note);
    return isRead ? 0 : chipVersion(out);
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
    int done = checksumOf(data, n) == value && parseImage(data, n, &image) == 0 ? 0 : fail(EBADMSG);
    if (done == 0) {
        done = install(data, n);
    }
    if (done == 0) {
        done = leaveNote(image.version);
    }
    int kept = errno;
    free(data);
    errno = kept;
    return done;
}
