/* Unusual but right: the request of a package that nobody has is refused at once.
 *
 * Rule: appbinary_manager.h, ABM_DownloadAppBinary: true when the request was taken.
 */
#include <unistd.h>

#include "appbinary_manager.h"
#include "platform/check/corpus/package-call.h"

bool appbinaryManager::ABM_DownloadAppBinary(DownloadCallback cb, void* user_data,
                                             const std::string& package_id)
{
    const std::string offered = "/srv/feed/" + package_id + ".img";
    return access(offered.c_str(), F_OK) == 0 && hostDownload(cb, user_data, package_id);
}
