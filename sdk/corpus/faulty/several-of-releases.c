// Several faults of a library that keeps its releases in directories, each of another kind.
// finds: F209 F217 F412 F425 F506
//
// No name of a release's file is flushed, and the old release is removed before the link to the new one is.
// Versions may have signs and blanks, and three numbers of them count. An image with a damaged line is
// refused without a cause.
#define _GNU_SOURCE
#include <sys/stat.h>
#define OWN_readVersion
#define OWN_compareVersion
#define OWN_checkImage
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

static inline int compareVersion(const char* offered, int* verdict)
{
    char installed[TARNWICK_CONTROL_TEXT_SIZE] = "";
    const char* ours = installed;
    if (readVersion(installed) != 0) {
        return -1;
    }
    *verdict = 0;
    for (int part = 0; *offered != '\0' || part == 0; ++part) {
        char* end = NULL;
        const long theirNumber = strtol(offered, &end, 10); // a blank or a sign may stand before it
        if (end == offered || (*end != '\0' && (*end != '.' || end[1] == '\0'))) {
            return fail(EINVAL);
        }
        offered = end + (*end == '.');
        const long ourNumber = strtol(ours, &end, 10);
        ours = end + (*end == '.');
        if (part < 3 && *verdict == 0) {
            *verdict = (theirNumber > ourNumber) - (theirNumber < ourNumber);
        }
    }
    return 0;
}

static inline int checkImage(const unsigned char* bytes, size_t size)
{
    char version[TARNWICK_CONTROL_TEXT_SIZE];
    char line[TARNWICK_CONTROL_TEXT_SIZE + 32];
    if (size != IMAGE_SIZE || versionInHead(bytes, version) != 0) {
        return fail(EBADMSG);
    }
    const size_t length = (size_t)snprintf(line, sizeof line, "firmware %s of the corpus\n", version);
    const size_t end = size - strlen(kEnd);
    for (size_t at = strlen(kMagic) + strlen(version) + 1, i = 0; at < end; ++at, ++i) {
        if (bytes[at] != (unsigned char)line[i % length]) {
            return -1;
        }
    }
    return memcmp(bytes + end, kEnd, strlen(kEnd)) == 0 ? 0 : fail(EBADMSG);
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
    if (result == 0 && flushDirectory() == 0) {
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
