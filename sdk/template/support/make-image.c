/*
 * make-image NAME VERSION BYTES OUT: a sample image with BYTES bytes of payload, the same for the same
 * arguments.
 */
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "image.h"

/* Bytes that differ from version to version and compress badly, as firmware does. */
static void fill(unsigned char* payload, size_t size, const char* seed)
{
    unsigned long state = imageChecksum((const unsigned char*)seed, strlen(seed)) | 1;
    for (size_t at = 0; at < size; ++at) {
        state = (state * 1664525 + 1013904223) & 0xFFFFFFFF;
        payload[at] = (unsigned char)(state >> 24);
    }
}

static int writeImage(const char* path, const char* line, const unsigned char* payload, size_t size)
{
    FILE* const out = fopen(path, "wb");
    if (out == NULL) {
        return -1;
    }
    const int isWritten = fputs(line, out) >= 0 && fwrite(payload, 1, size, out) == size;
    return fclose(out) == 0 && isWritten ? 0 : -1;
}

static int makeImage(const char* name, const char* version, size_t size, const char* path)
{
    char line[IMAGE_LINE_SIZE];
    unsigned char* const payload = malloc(size);
    if (payload == NULL) {
        return -1;
    }
    fill(payload, size, version);
    int result = imageLine(name, version, payload, size, line);
    if (result == 0) {
        result = writeImage(path, line, payload, size);
    }
    free(payload);
    return result;
}

int main(int argc, char** argv)
{
    int verdict;
    const size_t size = argc == 5 ? strtoul(argv[3], NULL, 10) : 0;
    if (size == 0 || imageCompareVersions(argv[2], argv[2], &verdict) != 0) {
        fprintf(stderr, "usage: make-image NAME VERSION BYTES OUT\n"
                        "VERSION is one to four numbers with dots between them, such as 1.1\n");
        return 2;
    }
    if (makeImage(argv[1], argv[2], size, argv[4]) != 0) {
        fprintf(stderr, "make-image: %s: %s\n", argv[4], strerror(errno));
        return 1;
    }
    return 0;
}
