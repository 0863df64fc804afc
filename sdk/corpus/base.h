// A sound control library. Each library of the corpus is this one with a piece or two of its own:
//
//   #define OWN_getEMPID       before this file: the base leaves that piece out
//   #include "base.h"
//   int getEMPID(char* out)    after it: the library's own
//
// Every function below is such a piece. One that is left out and not defined is not exported.
//
// The hardware is a file: a block whose first byte ('0' or '1') names the active slot, then two slots. A slot
// holds an image byte for byte: "corpus VERSION\n", then one and the same line with the version in it up to
// the end, so that any damage shows, then kEnd. An update writes the other slot, reads it back, and switches
// over with a write of one byte, so a power cut finds the old or the new firmware complete.
//
// For C and C++. Each including file is one library.
#ifndef CORPUS_BASE_H
#define CORPUS_BASE_H

#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <tarnwick/control.h>
#include <time.h>
#include <unistd.h>

#define BLOCK 4096
#ifndef BLOCKS
#define BLOCKS 16 // of an image
#endif
#ifndef BLOCK_MS
#define BLOCK_MS 15 // that the hardware takes for one
#endif
#define HEAD_SIZE (sizeof kMagic - 1 + TARNWICK_CONTROL_TEXT_SIZE) // with the longest version and newline
#define IMAGE_SIZE ((size_t)BLOCKS * BLOCK)
#ifndef IDENTIFIER
#define IDENTIFIER "empCorpus"
#endif
#define HARDWARE "/var/lib/hardware/corpus"
#define SHIPPED_IMAGE "/lib/firmware/ext/Corpus/Corpus.bin" // for doUpdate(NAME, 0)

static const char kMagic[] = "corpus ";
static const char kEnd[] = "end of firmware\n";

static unsigned char image[IMAGE_SIZE + 1]; // one byte more shows a file that is too long
static pthread_mutex_t hardwareMutex = PTHREAD_MUTEX_INITIALIZER;
static unsigned int progress; // percent; atomic

// ---- The pieces ----

static inline int fail(int cause); // sets errno; -1
static inline void pause_ms(long milliseconds);
static inline void setProgress(unsigned int percent);

static inline int openHardware(int flags);
static inline off_t slotOffset(int slot);
static inline int flushDirectory(void); // after a renaming
static inline int activeSlot(int chip); // 0, 1, or -1
static inline int readVersion(char* out);
static inline int parseVersion(const char* text, unsigned int* number);
static inline int compareVersion(const char* offered, int* verdict);

static inline int loadImage(const char* path);                          // into `image`
static inline int versionInHead(const unsigned char* bytes, char* out); // of HEAD_SIZE bytes
static inline int checkImage(const unsigned char* bytes, size_t size);
static inline uint32_t checksum(const unsigned char* bytes, size_t size);
static inline int checksumMatches(unsigned long expected); // of `image`

static inline int install(void); // `image` into the hardware
static inline int writeBlock(int chip, size_t block, off_t at);
static inline int writeSlot(int chip, int slot);
static inline int isImageIn(int chip, int slot); // else sets errno
static inline int verifySlot(int chip, int slot);
static inline int switchTo(int chip, int slot);

// ---- Helpers ----

static inline int fail(int cause)
{
    errno = cause;
    return -1;
}

static inline void pause_ms(long milliseconds)
{
    const struct timespec time = {milliseconds / 1000, milliseconds % 1000 * 1000000};
    nanosleep(&time, NULL);
}

static inline void setProgress(unsigned int percent)
{
    __atomic_store_n(&progress, percent, __ATOMIC_SEQ_CST);
}

// ---- Hardware ----

#ifndef OWN_openHardware
static inline int openHardware(int flags)
{
    return open(HARDWARE, flags | O_CLOEXEC);
}
#endif

static inline int flushDirectory(void)
{
    const int directory = open("/var/lib/hardware", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    const int result = directory < 0 ? -1 : fsync(directory);
    if (directory >= 0) {
        close(directory);
    }
    return result;
}

static inline off_t slotOffset(int slot)
{
    return BLOCK + slot * (off_t)IMAGE_SIZE;
}

static inline int activeSlot(int chip)
{
    char name = 0;
    if (pread(chip, &name, 1, 0) != 1 || (name != '0' && name != '1')) {
        return fail(EIO);
    }
    return name - '0';
}

#ifndef OWN_readVersion
static inline int readVersion(char* out)
{
    unsigned char head[HEAD_SIZE] = "";
    const int chip = openHardware(O_RDONLY);
    if (chip < 0) {
        return -1;
    }
    const int slot = activeSlot(chip);
    const ssize_t size = slot < 0 ? -1 : pread(chip, head, sizeof head, slotOffset(slot));
    close(chip);
    return size < 0 ? fail(EIO) : versionInHead(head, out);
}
#endif

// "1.10" or "1.10+anything": two numbers of at most four digits.
static inline int parseVersion(const char* text, unsigned int* number)
{
    unsigned int major = 0;
    unsigned int minor = 0;
    int used = 0;
    const size_t numbers = strspn(text, "0123456789.");
    if (sscanf(text, "%4u.%4u%n", &major, &minor, &used) != 2 || (size_t)used != numbers ||
        (text[numbers] != '\0' && text[numbers] != '+')) {
        return fail(EINVAL);
    }
    *number = major * 10000 + minor;
    return 0;
}

#ifndef OWN_compareVersion
static inline int compareVersion(const char* offered, int* verdict)
{
    char installed[TARNWICK_CONTROL_TEXT_SIZE] = "";
    unsigned int theirs = 0;
    unsigned int ours = 0;
    if (readVersion(installed) != 0 || parseVersion(installed, &ours) != 0 ||
        parseVersion(offered, &theirs) != 0) {
        return -1;
    }
    *verdict = (theirs > ours) - (theirs < ours);
    return 0;
}
#endif

// ---- Image ----

static inline int versionInHead(const unsigned char* bytes, char* out)
{
    const unsigned char* const end = (const unsigned char*)memchr(bytes, '\n', HEAD_SIZE);
    if (end == NULL || memcmp(bytes, kMagic, strlen(kMagic)) != 0) {
        return fail(EBADMSG);
    }
    const size_t size = (size_t)(end - bytes) - strlen(kMagic);
    memcpy(out, bytes + strlen(kMagic), size);
    out[size] = '\0';
    return 0;
}

#ifndef OWN_loadImage
static inline int loadImage(const char* path)
{
    const int file = open(path, O_RDONLY | O_CLOEXEC);
    if (file < 0) {
        return -1;
    }
    size_t size = 0;
    ssize_t got = 0;
    while ((got = read(file, image + size, sizeof image - size)) > 0) {
        size += (size_t)got;
    }
    close(file);
    return checkImage(image, size);
}
#endif

#ifndef OWN_checkImage
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
            return fail(EBADMSG);
        }
    }
    return memcmp(bytes + end, kEnd, strlen(kEnd)) == 0 ? 0 : fail(EBADMSG);
}
#endif

#ifndef OWN_checksum
static inline uint32_t checksum(const unsigned char* bytes, size_t size)
{
    uint32_t sum = 0;
    for (size_t i = 0; i < size; ++i) {
        sum ^= (uint32_t)bytes[i] << 24;
        for (int bit = 0; bit < 8; ++bit) {
            sum = (sum << 1) ^ (sum & 0x80000000U ? 0x01B23CA3U : 0);
        }
    }
    return sum;
}
#endif

#ifndef OWN_checksumMatches
static inline int checksumMatches(unsigned long expected)
{
    return checksum(image, IMAGE_SIZE) == expected;
}
#endif

// ---- Update ----

#ifndef OWN_install
static inline int install(void)
{
    const int chip = openHardware(O_RDWR);
    if (chip < 0) {
        return -1;
    }
    setProgress(0);
    const int active = activeSlot(chip);
    const int slot = 1 - active;
    const int result =
        active >= 0 && writeSlot(chip, slot) == 0 && verifySlot(chip, slot) == 0 ? switchTo(chip, slot) : -1;
    close(chip);
    if (result == 0) {
        setProgress(100);
    }
    return result;
}
#endif

#ifndef OWN_writeBlock
static inline int writeBlock(int chip, size_t block, off_t at)
{
    if (pwrite(chip, image + block * BLOCK, BLOCK, at + (off_t)(block * BLOCK)) != BLOCK) {
        return fail(EIO);
    }
    pause_ms(BLOCK_MS);
    setProgress((unsigned int)((block + 1) * 95 / BLOCKS));
    return 0;
}
#endif

#ifndef OWN_writeSlot
static inline int writeSlot(int chip, int slot)
{
    for (size_t block = 0; block < BLOCKS; ++block) {
        if (writeBlock(chip, block, slotOffset(slot)) != 0) {
            return -1;
        }
    }
    return fdatasync(chip);
}
#endif

static inline int isImageIn(int chip, int slot)
{
    unsigned char written[BLOCK];
    for (size_t block = 0; block < BLOCKS; ++block) {
        const size_t at = block * BLOCK;
        if (pread(chip, written, BLOCK, slotOffset(slot) + (off_t)at) != BLOCK ||
            memcmp(written, image + at, BLOCK) != 0) {
            errno = EIO;
            return 0;
        }
    }
    return 1;
}

#ifndef OWN_verifySlot
static inline int verifySlot(int chip, int slot)
{
    return isImageIn(chip, slot) ? 0 : -1;
}
#endif

#ifndef OWN_switchTo
static inline int switchTo(int chip, int slot)
{
    if (pwrite(chip, slot == 0 ? "0" : "1", 1, 0) != 1) {
        return fail(EIO);
    }
    return fdatasync(chip);
}
#endif

// ---- Entry points ----

#ifndef OWN_setContext
int setContext(const char* name, int caller, char* context)
{
    (void)name, (void)caller, (void)context;
    return 0;
}
#endif

#ifndef OWN_getEMPID
int getEMPID(char* out)
{
    snprintf(out, TARNWICK_CONTROL_TEXT_SIZE, "%s", IDENTIFIER);
    return 0;
}
#endif

#ifndef OWN_getActiveVersion
int getActiveVersion(char* out)
{
    return readVersion(out);
}
#endif

#ifndef OWN_checkVersion
int checkVersion(const char* version, int* result)
{
    *result = TARNWICK_CONTROL_VERDICT_SAME;
    return compareVersion(version, result);
}
#endif

#ifndef OWN_doUpdate
int doUpdate(const char* name, unsigned long value)
{
    const int isPath = name[0] == '/';
    pthread_mutex_lock(&hardwareMutex);
    pause_ms(100); // a refused image takes its time, too
    int result = loadImage(isPath ? name : SHIPPED_IMAGE);
    if (result == 0 && isPath && !checksumMatches(value)) {
        result = fail(EBADMSG);
    }
    if (result == 0) {
        result = install();
    }
    pthread_mutex_unlock(&hardwareMutex);
    return result;
}
#endif

#ifndef OWN_doUpdate_decryption
int doUpdate_decryption(const unsigned char* data, int length)
{
    if (length < 0 || checkImage(data, (size_t)length) != 0) {
        return fail(EBADMSG);
    }
    pthread_mutex_lock(&hardwareMutex);
    memcpy(image, data, IMAGE_SIZE);
    const int result = install();
    pthread_mutex_unlock(&hardwareMutex);
    return result;
}
#endif

#ifndef OWN_getExpectedTime
int getExpectedTime(int* out)
{
    *out = 1;
    return 0;
}
#endif

#ifndef OWN_getUpdateProgress
int getUpdateProgress(unsigned int* out)
{
    *out = __atomic_load_n(&progress, __ATOMIC_SEQ_CST);
    return 0;
}
#endif

#ifndef OWN_allUpdateDone
int allUpdateDone(void)
{
    return 0;
}
#endif

#endif
