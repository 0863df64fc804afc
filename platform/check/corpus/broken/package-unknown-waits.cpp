/* The call returns when the package is there, which one that nobody has never is.
 *
 * Rule: appbinary_manager.h, ABM_DownloadAppBinary: true when the request was taken; how it ended "cb"
 *       learns.
 * Seen: the request of an unknown package does not return. */
#include <unistd.h>

#include "appbinary_manager.h"
#include "platform/check/corpus/package-call.h"

bool appbinaryManager::ABM_DownloadAppBinary(DownloadCallback cb, void* user_data,
                                             const std::string& package_id)
{
    const bool is_taken = hostDownload(cb, user_data, package_id);
    const std::string image = "/opt/usr/apps/appbinarymanager/" + package_id + ".img";
    while (is_taken && access(image.c_str(), F_OK) != 0) {
        usleep(100000);
    }
    return is_taken;
}
