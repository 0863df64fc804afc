// A link names the firmware in use, and the other one is removed before that link was flushed.
// finds: F506
#define _GNU_SOURCE
#include <sys/stat.h>
#define OWN_readVersion
#define OWN_install
#include "base.h"

#define ROOM "/var/lib/hardware/"
#define LINK ROOM "now"

static int readAll(const char* path, unsigned char* out, size_t size)
{
    const int file = open(path, O_RDONLY | O_CLOEXEC);
    const ssize_t got = file < 0 ? -1 : read(file, out, size);
    if (file >= 0) {
        close(file);
    }
    return (int)got;
}

// The factory's is a plain file, behind its block.
static inline int readVersion(char* out)
{
    static const char* const kFiles[] = {LINK "/code", HARDWARE};
    for (size_t i = 0; i < 2; ++i) {
        unsigned char head[BLOCK + HEAD_SIZE] = "";
        if (readAll(kFiles[i], head, sizeof head) > 0) {
            return versionInHead(i == 0 ? head : head + BLOCK, out);
        }
    }
    return fail(EIO);
}

static int flushRoom(const char* path)
{
    const int room = open(path, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    const int result = room < 0 ? -1 : fsync(room);
    if (room >= 0) {
        close(room);
    }
    return result;
}

static int writeRelease(const char* room)
{
    static unsigned char written[IMAGE_SIZE + 1];
    char path[128];
    snprintf(path, sizeof path, "%s/code", room);
    if (mkdir(room, 0755) != 0 && errno != EEXIST) {
        return -1;
    }
    const int file = open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    int result = file < 0 ? -1 : 0;
    for (size_t block = 0; result == 0 && block < BLOCKS; ++block) {
        result = writeBlock(file, block, 0);
    }
    if (result == 0) {
        result = fsync(file);
    }
    if (file >= 0) {
        close(file);
    }
    if (result == 0 && flushRoom(room) == 0 && flushDirectory() == 0) {
        return readAll(path, written, sizeof written) == (int)IMAGE_SIZE &&
                       memcmp(written, image, IMAGE_SIZE) == 0
                   ? 0
                   : fail(EIO);
    }
    return -1;
}

static void removeRelease(const char* room)
{
    char path[128];
    snprintf(path, sizeof path, "%s/code", room);
    unlink(path);
    rmdir(room);
}

static inline int install(void)
{
    char now[16] = "";
    const ssize_t length = readlink(LINK, now, sizeof now - 1);
    if (length <= 0 && access(HARDWARE, W_OK) != 0) {
        return -1;
    }
    const char* const next = length > 0 && strcmp(now, "r1") == 0 ? "r2" : "r1";
    char room[64];
    snprintf(room, sizeof room, ROOM "%s", next);
    setProgress(0);
    unlink(LINK ".next");
    if (writeRelease(room) != 0 || symlink(next, LINK ".next") != 0 || rename(LINK ".next", LINK) != 0) {
        return -1;
    }
    if (length > 0) {
        snprintf(room, sizeof room, ROOM "%s", now);
        removeRelease(room);
    } else {
        unlink(HARDWARE); // the factory's
    }
    setProgress(100);
    return flushDirectory();
}
