// applaunch.h: requests to launch an application.

#include "platform/fake/fake-platform.h"
#include "platform/fake/support.h"

using fakeSupport::orEmpty;
using fakeSupport::quoted;

struct applaunch {
    LaunchAttempt attempt;
};

std::vector<LaunchAttempt> FakePlatform::launches() const
{
    const std::lock_guard<std::mutex> lock(mutex);
    return state.launches;
}

int FakePlatform::openLaunchRequests() const
{
    const std::lock_guard<std::mutex> lock(mutex);
    return state.openLaunchRequests;
}

void FakePlatform::countLaunchRequest(int change)
{
    const std::lock_guard<std::mutex> lock(mutex);
    state.openLaunchRequests += change;
}

void FakePlatform::keepLaunch(LaunchAttempt attempt)
{
    const std::lock_guard<std::mutex> lock(mutex);
    state.launches.push_back(std::move(attempt));
}

int applaunch_create(applaunch_h* request)
{
    const int scripted = fakePlatform().enter("applaunch_create", "").value_or(0);
    if (scripted != 0) {
        return scripted; // `*request` stays as it was
    }
    *request = new applaunch();
    fakePlatform().countLaunchRequest(1);
    return 0;
}

int applaunch_destroy(applaunch_h request)
{
    const int scripted = fakePlatform().enter("applaunch_destroy", "").value_or(0);
    if (request == nullptr) {
        return -1;
    }
    delete request;
    fakePlatform().countLaunchRequest(-1);
    return scripted;
}

int applaunch_add_extra_data(applaunch_h request, const char* key, const char* value)
{
    const std::string arguments = quoted(key) + ", " + quoted(value);
    const int scripted =
        fakePlatform().enter("applaunch_add_extra_data", arguments, orEmpty(key)).value_or(0);
    if (request == nullptr || scripted != 0) {
        return scripted != 0 ? scripted : -1;
    }
    request->attempt.extras.emplace_back(orEmpty(key), orEmpty(value));
    return 0;
}

int applaunch_set_app_id(applaunch_h request, const char* app_id)
{
    const int scripted = fakePlatform().enter("applaunch_set_app_id", quoted(app_id)).value_or(0);
    if (request == nullptr || scripted != 0) {
        return scripted != 0 ? scripted : -1;
    }
    request->attempt.appId = orEmpty(app_id);
    return 0;
}

int applaunch_send_launch_request(applaunch_h request, applaunch_reply_cb cb, void*)
{
    const int scripted = fakePlatform().enter("applaunch_send_launch_request", "").value_or(0);
    if (request == nullptr) {
        return -1;
    }
    LaunchAttempt attempt = request->attempt;
    attempt.wantsReply = cb != nullptr;
    attempt.result = scripted;
    fakePlatform().keepLaunch(std::move(attempt));
    return scripted;
}
