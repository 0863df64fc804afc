// Nothing is wrong: in C++, with an object of the library's own and texts that allocate memory.
// finds: nothing
#define OWN_getActiveVersion
#define OWN_getUpdateProgress
#define OWN_doUpdate
#include <atomic>
#include <mutex>
#include <string>

#include "base.h"

namespace
{
struct Hardware {
    std::mutex mutex;
    std::atomic<bool> isWritten{false};
    std::string name = "a name that is too long to lie in the object itself";
} hardware;
} // namespace

int getActiveVersion(char* out)
{
    std::string version(TARNWICK_CONTROL_TEXT_SIZE, '\0');
    if (readVersion(&version[0]) != 0) {
        return -1;
    }
    strcpy(out, version.c_str());
    return 0;
}

int doUpdate(const char* name, unsigned long value)
{
    const std::lock_guard<std::mutex> lock(hardware.mutex);
    pause_ms(100);
    if (loadImage(name) != 0) {
        return -1;
    }
    if (!checksumMatches(value)) {
        return fail(EBADMSG);
    }
    const int result = install();
    hardware.isWritten = result == 0;
    return result;
}

int getUpdateProgress(unsigned int* out)
{
    *out = hardware.isWritten ? 100 : progress;
    return 0;
}
