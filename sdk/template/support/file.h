/*
 * Files, and one that stands for a chip. Any thread. Each function returns 0, or -1 with errno set.
 */
#ifndef SUPPORT_FILE_H
#define SUPPORT_FILE_H

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

/* -1, with this errno. */
int failWith(int error);

/* All of a file; null with errno set when it cannot be had. The caller frees it. */
unsigned char* readFile(const char* path, size_t* size);

/* A block of a file, as a whole or not at all: EIO when the file ends before. */
int readBlock(const char* path, size_t offset, unsigned char* data, size_t size);

/* It is on the disk when the function returns. The block at 0 makes the file, and empties an old one. */
int writeBlock(const char* path, size_t offset, const unsigned char* data, size_t size);

/* Puts another file in the place of `path`, in one step that is on the disk when the function returns. */
int replaceFile(const char* path, const char* other);

/* Into `out` of `size` bytes. EPROTO when there is no text, or too much. */
int copyText(const char* text, char* out, size_t size);

#ifdef __cplusplus
}
#endif

#endif
