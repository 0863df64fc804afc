/*
 * What support/module.c needs of the hardware: four functions, which the module's own file defines and
 * explains. They are never called at the same time. Each returns 0, or -1 with errno set.
 */
#ifndef SUPPORT_HARDWARE_H
#define SUPPORT_HARDWARE_H

#include <stddef.h>

#define HARDWARE_BLOCK_SIZE 4096 /* bytes; the last block of an image may be shorter */

#ifdef __cplusplus
extern "C" {
#endif

int hardwareVersion(char* out, size_t size);
int hardwareWrite(size_t offset, const unsigned char* data, size_t size);
int hardwareRead(size_t offset, unsigned char* data, size_t size);
int hardwareActivate(void);

#ifdef __cplusplus
}

#include <cerrno>
#include <system_error>

/* Runs a function of that kind; an exception becomes -1 and its errno (EIO when it has none). */
template <typename Work>
int guarded(Work work) noexcept
{
    try {
        return work();
    } catch (const std::system_error& error) {
        errno = error.code().value();
    } catch (...) {
        errno = EIO;
    }
    return -1;
}
#endif

#endif
