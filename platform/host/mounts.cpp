// ps_mount.h: the privileged mount service.

#include <string.h>
#include <string>

#include "platform/host/bus.h"
#include "platform/host/exported.h"
#include "ps_mount.h"

namespace
{

// `text` is a buffer of `length` bytes; what it says ends at the first zero byte, if there is one.
int mountCall(const char* method, const char* text, int length, int* result)
{
    if (text == nullptr || length < 0 || result == nullptr) {
        return platform::kFailure;
    }
    *result = platform::kFailure;
    const std::string command(text, strnlen(text, static_cast<size_t>(length)));
    if (!platform::isText(command.c_str())) {
        return platform::kFailure;
    }
    const auto reply =
        platform::call(platform::kMounts, method, g_variant_new("(s)", command.c_str()), "(ii)");
    if (reply == nullptr) {
        return platform::kFailure;
    }
    int returned = platform::kFailure;
    g_variant_get(reply.get(), "(ii)", &returned, result);
    return returned;
}

} // namespace

PLATFORM_EXPORT int PS_Mount(const char* command, int length, int /*flags*/, int* result)
{
    return mountCall("Mount", command, length, result);
}

PLATFORM_EXPORT int PS_Mknod(const char* command, int length, int /*flags*/, int* result)
{
    return mountCall("Mknod", command, length, result);
}

PLATFORM_EXPORT int PS_Umount(const char* directory, int length, int /*flags*/, int* result)
{
    return mountCall("Umount", directory, length, result);
}
