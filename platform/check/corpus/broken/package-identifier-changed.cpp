/* Identifiers are made small letters, where they stand.
 *
 * Rule: platform/README.md: texts that are passed in belong to the daemon.
 * Seen: after the call the caller's text is another one. */
#include <algorithm>
#include <cctype>

#include "appbinary_manager.h"
#include "platform/check/corpus/package-call.h"

bool appbinaryManager::ABM_DownloadAppBinary(DownloadCallback cb, void* user_data,
                                             const std::string& package_id)
{
    auto& name = const_cast<std::string&>(package_id);
    std::transform(name.begin(), name.end(), name.begin(),
                   [](unsigned char letter) { return static_cast<char>(std::tolower(letter)); });
    return hostDownload(cb, user_data, package_id);
}
