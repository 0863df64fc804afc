/* The end of a request is told also when no callback was given.
 *
 * Rule: appbinary_manager.h, ABM_DownloadAppBinary: "cb" may be null.
 * Seen: the process was ended by SIGSEGV in a request without a callback. */
#include "appbinary_manager.h"
#include "platform/check/corpus/package-call.h"

bool appbinaryManager::ABM_DownloadAppBinary(DownloadCallback cb, void* user_data,
                                             const std::string& package_id)
{
    const bool is_taken = hostDownload(cb, user_data, package_id);
    const volatile DownloadCallback told = cb;
    told(package_id, 1, user_data); // has begun
    return is_taken;
}
