// App-binary manager: downloads packages and keeps each as a file named after its identifier.
#ifndef APPBINARY_MANAGER_H
#define APPBINARY_MANAGER_H

#include <string>

namespace appbinaryManager
{

using DownloadCallback = void (*)(const std::string& package_id, int status, void* user_data);

// True when the request was taken; `cb` (may be null, and is) learns how it ended, once. The daemon asks for
// one package after the other, so an answer within five seconds does not wait for the download. Also a
// package that the store may not have is asked for, by any text; `package_id` is gone when the call has
// returned.
bool ABM_DownloadAppBinary(DownloadCallback cb, void* user_data, const std::string& package_id);

} // namespace appbinaryManager

#endif
