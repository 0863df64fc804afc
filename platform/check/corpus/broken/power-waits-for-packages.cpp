// Packages and power are asked under one lock, and the store takes its time for what it does not have.
//
// Rule: pwrctl.h: every call may be made on the daemon's main loop, and answers within half a second.
// Seen: the state that is asked for while a package is comes late.
#include <mutex>
#include <unistd.h>

#include "platform/check/corpus/base.h"
#include "platform/check/corpus/package-call.h"
#include "pwrctl.h"

namespace
{

std::mutex& vendor()
{
    static auto* const mutex = new std::mutex;
    return *mutex;
}

} // namespace

bool appbinaryManager::ABM_DownloadAppBinary(DownloadCallback cb, void* user_data,
                                             const std::string& package_id)
{
    const std::lock_guard<std::mutex> lock(vendor());
    const bool is_taken = hostDownload(cb, user_data, package_id);
    usleep(800000);
    return is_taken;
}

int pwrctl_get_state(void)
{
    const std::lock_guard<std::mutex> lock(vendor());
    return HOST(pwrctl_get_state)();
}
