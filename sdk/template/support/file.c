#include "file.h"

#include <errno.h>
#include <fcntl.h>
#include <libgen.h>
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

int failWith(int error)
{
    errno = error;
    return -1;
}

/* Closes a file and keeps the errno of what was done with it. */
static int closeAfter(int file, int result)
{
    const int kept = errno;
    close(file);
    errno = kept;
    return result;
}

static int readAt(int file, size_t offset, unsigned char* data, size_t size)
{
    while (size > 0) {
        const ssize_t count = pread(file, data, size, (off_t)offset);
        if (count < 0) {
            return -1;
        }
        if (count == 0) {
            return failWith(EIO);
        }
        data += count;
        offset += (size_t)count;
        size -= (size_t)count;
    }
    return 0;
}

static int writeAt(int file, size_t offset, const unsigned char* data, size_t size)
{
    while (size > 0) {
        const ssize_t count = pwrite(file, data, size, (off_t)offset);
        if (count < 0) {
            return -1;
        }
        data += count;
        offset += (size_t)count;
        size -= (size_t)count;
    }
    return fdatasync(file);
}

static unsigned char* readAll(int file, size_t* size)
{
    struct stat status;
    if (fstat(file, &status) != 0) {
        return NULL;
    }
    *size = (size_t)status.st_size;
    unsigned char* const data = malloc(*size + 1); /* never of no size, which may give null */
    if (data != NULL && readAt(file, 0, data, *size) == 0) {
        return data;
    }
    free(data);
    return NULL;
}

unsigned char* readFile(const char* path, size_t* size)
{
    const int file = open(path, O_RDONLY | O_CLOEXEC);
    if (file < 0) {
        return NULL;
    }
    unsigned char* const data = readAll(file, size);
    closeAfter(file, 0);
    return data;
}

int readBlock(const char* path, size_t offset, unsigned char* data, size_t size)
{
    const int file = open(path, O_RDONLY | O_CLOEXEC);
    return file < 0 ? -1 : closeAfter(file, readAt(file, offset, data, size));
}

int writeBlock(const char* path, size_t offset, const unsigned char* data, size_t size)
{
    const int file = open(path, O_WRONLY | O_CREAT | O_CLOEXEC | (offset == 0 ? O_TRUNC : 0), 0644);
    return file < 0 ? -1 : closeAfter(file, writeAt(file, offset, data, size));
}

static int flushDirectoryOf(const char* path)
{
    char name[PATH_MAX];
    if (copyText(path, name, sizeof name) != 0) {
        return -1;
    }
    const int directory = open(dirname(name), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    return directory < 0 ? -1 : closeAfter(directory, fsync(directory));
}

int replaceFile(const char* path, const char* other)
{
    return rename(other, path) == 0 ? flushDirectoryOf(path) : -1;
}

int copyText(const char* text, char* out, size_t size)
{
    const size_t length = strlen(text);
    if (length == 0 || length >= size) {
        return failWith(EPROTO);
    }
    memcpy(out, text, length + 1);
    return 0;
}
