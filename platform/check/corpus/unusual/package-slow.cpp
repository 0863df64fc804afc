// A request for a package takes its time, and no other call waits for it.
#include <unistd.h>

#include "platform/check/corpus/package-call.h"

bool appbinaryManager::ABM_DownloadAppBinary(DownloadCallback cb, void* user_data,
                                             const std::string& package_id)
{
    usleep(300000);
    return hostDownload(cb, user_data, package_id);
}
