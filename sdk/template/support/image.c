#include "image.h"

#include <errno.h>
#include <stdio.h>
#include <string.h>

#include "file.h"

/* CRC with 32 bits, most significant bit first, nothing reflected or inverted (tarnwick/control.h). */
unsigned long imageChecksum(const unsigned char* data, size_t size)
{
    const unsigned long polynomial = 0x01B23CA3;
    unsigned long checksum = 0;
    for (size_t at = 0; at < size; ++at) {
        checksum ^= (unsigned long)data[at] << 24;
        for (int bit = 0; bit < 8; ++bit) {
            checksum = (checksum << 1 ^ (checksum & 0x80000000 ? polynomial : 0)) & 0xFFFFFFFF;
        }
    }
    return checksum;
}

int imageLine(const char* name, const char* version, const unsigned char* payload, size_t size, char* line)
{
    const int length =
        snprintf(line, IMAGE_LINE_SIZE, "%s %s %08lx\n", name, version, imageChecksum(payload, size));
    return length > 0 && length < IMAGE_LINE_SIZE ? 0 : failWith(ENAMETOOLONG);
}

int imageCheck(const unsigned char* data, size_t size, const char* name)
{
    const unsigned char* const end = memchr(data, '\n', size < IMAGE_LINE_SIZE ? size : IMAGE_LINE_SIZE - 1);
    if (end == NULL) {
        return failWith(EBADMSG);
    }
    const size_t length = (size_t)(end - data) + 1;
    char line[IMAGE_LINE_SIZE] = "";
    char version[IMAGE_LINE_SIZE] = "";
    int verdict;
    memcpy(line, data, length);
    if (sscanf(line, "%*s %127s", version) != 1 || imageCompareVersions(version, version, &verdict) != 0) {
        return failWith(EBADMSG);
    }
    /* Written anew, it must be the same line: one comparison for name, checksum and everything between. */
    if (imageLine(name, version, data + length, size - length, line) != 0 || strlen(line) != length ||
        memcmp(line, data, length) != 0) {
        return failWith(EBADMSG);
    }
    return 0;
}

/* ---- Versions ---- */

enum { NUMBERS = 4, DIGITS = 9 };

/* Numbers that are missing at the end are 0: 1.1 is the same as 1.1.0. */
static int parseVersion(const char* text, unsigned long numbers[NUMBERS])
{
    memset(numbers, 0, NUMBERS * sizeof numbers[0]);
    for (int index = 0; index < NUMBERS; ++index) {
        const size_t digits = strspn(text, "0123456789");
        if (digits == 0 || digits > DIGITS) {
            return -1;
        }
        for (size_t at = 0; at < digits; ++at) {
            numbers[index] = numbers[index] * 10 + (unsigned long)(text[at] - '0');
        }
        text += digits;
        if (*text == '\0') {
            return 0;
        }
        if (*text++ != '.') {
            return -1;
        }
    }
    return -1; /* a fifth number */
}

int imageCompareVersions(const char* offered, const char* installed, int* verdict)
{
    unsigned long left[NUMBERS];
    unsigned long right[NUMBERS];
    *verdict = 0;
    if (parseVersion(offered, left) != 0 || parseVersion(installed, right) != 0) {
        return failWith(EINVAL);
    }
    for (int index = 0; index < NUMBERS && *verdict == 0; ++index) {
        *verdict = (left[index] > right[index]) - (left[index] < right[index]);
    }
    return 0;
}
