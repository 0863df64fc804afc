/* The identifier is looked at by a thread that may run after the call.
 *
 * Rule: appbinary_manager.h: package_id is gone when the call has returned.
 * Seen: what is asked for is what stands there by then. */
#include <thread>
#include <unistd.h>

#include "appbinary_manager.h"
#include "platform/check/corpus/package-call.h"

bool appbinaryManager::ABM_DownloadAppBinary(DownloadCallback cb, void* user_data,
                                             const std::string& package_id)
{
    std::thread([cb, user_data, &package_id] {
        usleep(20000);
        hostDownload(cb, user_data, package_id);
    }).detach();
    return true;
}
