/*
 * The image file of this module: one line of text, "NAME VERSION CHECKSUM\n", then the payload. The checksum,
 * eight hexadecimal digits, is that of the payload, so that an image vouches for itself. A chip holds the
 * whole file. Versions are one to four numbers with dots between them, compared as numbers: 1.10 is newer
 * than 1.9.
 */
#ifndef SUPPORT_IMAGE_H
#define SUPPORT_IMAGE_H

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

enum { IMAGE_LINE_SIZE = 256 }; /* room for the longest first line */

/* The system's checksum, the one of doUpdate. */
unsigned long imageChecksum(const unsigned char* data, size_t size);

/* Writes the first line of an image with this payload; `line` holds IMAGE_LINE_SIZE bytes. */
int imageLine(const char* name, const char* version, const unsigned char* payload, size_t size, char* line);

/* 0 when the bytes are a complete, undamaged image for the module `name`, else -1 and errno EBADMSG. */
int imageCheck(const unsigned char* data, size_t size, const char* name);

/* Writes the verdict on `offered`, as checkVersion has it. -1 and errno EINVAL when either is no version. */
int imageCompareVersions(const char* offered, const char* installed, int* verdict);

#ifdef __cplusplus
}
#endif

#endif
