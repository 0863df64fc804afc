// App-binary manager: downloads packages and keeps each as a file named after its identifier.
#ifndef APPBINARY_MANAGER_H
#define APPBINARY_MANAGER_H

#include <string>

namespace appbinaryManager
{

using DownloadCallback = void (*)(const std::string& package_id, int status, void* user_data);

// True when the request was taken; `cb` (may be null) learns how it ended.
bool ABM_DownloadAppBinary(DownloadCallback cb, void* user_data, const std::string& package_id);

} // namespace appbinaryManager

#endif
