// applaunch.h: requests to launch an application. The request itself is kept by the service, which records it
// from its first extra to its reply; a handle here is the service's number for it.

#include "applaunch.h"
#include "platform/host/bus.h"
#include "platform/host/exported.h"
#include "platform/host/subscriptions.h"

struct applaunch {
    guint id;
};

namespace
{

constexpr const char* kReplied = "LaunchReplied";

} // namespace

PLATFORM_EXPORT int applaunch_create(applaunch_h* request)
{
    if (request == nullptr) {
        return platform::kFailure;
    }
    *request = nullptr;
    const auto reply = platform::call(platform::kPlatform, "CreateLaunch", nullptr, "(iu)");
    if (reply == nullptr) {
        return platform::kFailure;
    }
    int result = platform::kFailure;
    guint id = 0;
    g_variant_get(reply.get(), "(iu)", &result, &id);
    if (result == 0) {
        *request = new applaunch{id};
    }
    return result;
}

PLATFORM_EXPORT int applaunch_destroy(applaunch_h request)
{
    if (request == nullptr) {
        return platform::kFailure;
    }
    const std::unique_ptr<applaunch> owned(request);
    // The reply's callback gets the handle, which is gone from here on.
    platform::forget(kReplied, owned->id);
    return platform::callForResult("DestroyLaunch", g_variant_new("(u)", owned->id));
}

PLATFORM_EXPORT int applaunch_add_extra_data(applaunch_h request, const char* key, const char* value)
{
    if (request == nullptr || !platform::isText(key) || !platform::isText(value)) {
        return platform::kFailure;
    }
    return platform::callForResult("AddLaunchExtra", g_variant_new("(uss)", request->id, key, value));
}

PLATFORM_EXPORT int applaunch_set_app_id(applaunch_h request, const char* app_id)
{
    if (request == nullptr || !platform::isText(app_id)) {
        return platform::kFailure;
    }
    return platform::callForResult("SetLaunchApp", g_variant_new("(us)", request->id, app_id));
}

PLATFORM_EXPORT int applaunch_send_launch_request(applaunch_h request, applaunch_reply_cb cb, void* user_data)
{
    if (request == nullptr) {
        return platform::kFailure;
    }
    if (cb != nullptr) {
        const bool isExpected =
            platform::expectOnce(kReplied, request->id, [request, cb, user_data](GVariant* parameters) {
                guint id = 0;
                int result = 0;
                g_variant_get(parameters, "(ui)", &id, &result);
                cb(request, result, user_data);
            });
        if (!isExpected) {
            return platform::kFailure;
        }
    }
    const int result = platform::callForResult("SendLaunch", g_variant_new("(u)", request->id));
    if (result != 0) {
        platform::forget(kReplied, request->id);
    }
    return result;
}
