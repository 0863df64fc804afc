/* A download belongs to the user who has asked for it, whose name is taken from the environment.
 *
 * Rule: platform/README.md: no call needs USER.
 * Seen: a service's request is not taken, and one of somebody's session is. */
#include <cstdlib>

#include "appbinary_manager.h"
#include "platform/check/corpus/package-call.h"

bool appbinaryManager::ABM_DownloadAppBinary(DownloadCallback cb, void* user_data,
                                             const std::string& package_id)
{
    return std::getenv("USER") != nullptr && hostDownload(cb, user_data, package_id);
}
