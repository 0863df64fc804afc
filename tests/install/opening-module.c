// A control library that wants a device: what came of that stands in a file, one word that errno has or
// "opened".
#define _GNU_SOURCE // strerrorname_np
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

__attribute__((constructor)) static void openDevice(void)
{
    const int device = open("/dev/module-device", O_RDWR | O_CLOEXEC);
    const char* const result = device >= 0 ? "opened" : strerrorname_np(errno);
    FILE* const file = fopen("/var/lib/hardware/device", "w");
    if (file != NULL) {
        fprintf(file, "%s\n", result);
        fclose(file);
    }
    if (device >= 0) {
        close(device);
    }
}
