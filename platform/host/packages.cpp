// appbinary_manager.h: package requests.

#include <atomic>

#include "appbinary_manager.h"
#include "platform/host/bus.h"
#include "platform/host/exported.h"
#include "platform/host/subscriptions.h"

namespace
{

constexpr const char* kDone = "PackageDone";

// Numbers the requests of this process; the service sends the number back with the end of the request.
guint nextToken()
{
    static std::atomic<guint> last{0};
    guint token = ++last;
    while (token == 0) { // after four billion requests
        token = ++last;
    }
    return token;
}

bool expectEnd(guint token, appbinaryManager::DownloadCallback cb, void* userData)
{
    return platform::expectOnce(kDone, token, [cb, userData](GVariant* parameters) {
        guint id = 0;
        const char* package = nullptr;
        int status = 0;
        g_variant_get(parameters, "(u&si)", &id, &package, &status);
        cb(package, status, userData);
    });
}

} // namespace

namespace appbinaryManager
{

PLATFORM_EXPORT bool ABM_DownloadAppBinary(DownloadCallback cb, void* user_data,
                                           const std::string& package_id)
{
    if (!platform::isText(package_id.c_str())) {
        return false;
    }
    const guint token = nextToken();
    if (cb != nullptr && !expectEnd(token, cb, user_data)) {
        return false;
    }
    const int result =
        platform::callForResult("DownloadPackage", g_variant_new("(us)", token, package_id.c_str()));
    if (result != 0 && cb != nullptr) {
        platform::forget(kDone, token);
    }
    return result == 0;
}

} // namespace appbinaryManager
