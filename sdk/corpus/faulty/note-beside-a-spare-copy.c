// The version is a note that an update leaves, beside a spare copy of the new firmware.
// finds: F220
#define OWN_chipVersion
#define OWN_install
#include "chip.h"

#define NOTE CHIP ".version"

static int writeFile(const char* path, const unsigned char* data, size_t n)
{
    int fd = open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) {
        return -1;
    }
    if (writeAll(fd, data, n) != 0 || fsync(fd) != 0) {
        return closeFailed(fd);
    }
    close(fd);
    return 0;
}

static int versionOf(const char* path, char* out)
{
    size_t n = 0;
    struct image image;
    unsigned char* whole = slurp(path, &n);
    int done = whole == NULL ? -1 : parseImage(whole, n, &image);
    int kept = errno;
    free(whole);
    if (done == 0) {
        strcpy(out, image.version);
    }
    errno = kept;
    return done;
}

static int chipVersion(char* out)
{
    size_t n = 0;
    if (versionOf(CHIP, out) != 0) {
        return -1;
    }
    unsigned char* note = slurp(NOTE, &n);
    if (note != NULL && n > 0 && n < 64) {
        snprintf(out, TARNWICK_CONTROL_TEXT_SIZE, "%.*s", (int)n, (char*)note);
    }
    free(note);
    return 0;
}

static int install(const unsigned char* data, size_t n)
{
    struct image image;
    if (parseImage(data, n, &image) != 0) {
        return -1;
    }
    progressNow = 0;
    if (chipWrite(data, n) != 0 || writeFile(CHIP ".spare", data, n) != 0 ||
        writeFile(NOTE, (const unsigned char*)image.version, strlen(image.version)) != 0 ||
        flushDirectory() != 0) {
        return -1;
    }
    usleep(RESTART_US);
    progressNow = 100;
    return 0;
}
