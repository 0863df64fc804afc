// appbinary_manager.h: package requests.

#include "appbinary_manager.h"
#include "platform/fake/fake-platform.h"
#include "platform/fake/support.h"

using fakeSupport::quoted;

std::vector<std::string> FakePlatform::packageRequests() const
{
    const std::lock_guard<std::mutex> lock(mutex);
    return state.packageRequests;
}

int FakePlatform::completePackageRequests(int status)
{
    std::vector<std::function<void(int)>> completions;
    {
        const std::lock_guard<std::mutex> lock(mutex);
        completions.swap(state.packageCompletions);
    }
    for (const auto& complete : completions) {
        complete(status);
    }
    return static_cast<int>(completions.size());
}

void FakePlatform::keepPackageRequest(std::string id, std::function<void(int status)> complete)
{
    const std::lock_guard<std::mutex> lock(mutex);
    state.packageRequests.push_back(std::move(id));
    if (complete) {
        state.packageCompletions.push_back(std::move(complete));
    }
}

bool appbinaryManager::ABM_DownloadAppBinary(DownloadCallback cb, void* user_data,
                                             const std::string& package_id)
{
    const std::string arguments = std::string(cb != nullptr ? "callback" : "null") + ", " +
                                  (user_data != nullptr ? "data" : "null") + ", " +
                                  quoted(package_id.c_str());
    const bool taken = fakePlatform().enter("ABM_DownloadAppBinary", arguments).value_or(1) != 0;
    std::function<void(int)> complete;
    if (cb != nullptr && taken) {
        complete = [=](int status) { cb(package_id, status, user_data); };
    }
    fakePlatform().keepPackageRequest(package_id, std::move(complete));
    return taken;
}
