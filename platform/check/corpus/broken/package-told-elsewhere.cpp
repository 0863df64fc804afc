/* The request's callback runs on a thread of the library's own.
 *
 * Rule: platform/README.md: callbacks come on the thread that runs GLib's default main context.
 * Seen: the callback of a package request ran on another thread than the main loop's. */
#include <thread>

#include "appbinary_manager.h"
#include "platform/check/corpus/package-call.h"

bool appbinaryManager::ABM_DownloadAppBinary(DownloadCallback cb, void* user_data,
                                             const std::string& package_id)
{
    if (cb != nullptr) {
        std::thread([cb, user_data, package_id] { cb(package_id, 0, user_data); }).detach();
    }
    return hostDownload(nullptr, nullptr, package_id);
}
