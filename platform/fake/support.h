// What the files of the fake platform share.
#ifndef PLATFORM_FAKE_SUPPORT_H
#define PLATFORM_FAKE_SUPPORT_H

#include <algorithm>
#include <string>

namespace fakeSupport
{

// Of a call's argument, as the list of calls shows it.
inline std::string quoted(const char* text)
{
    return text != nullptr ? "\"" + std::string(text) + "\"" : "null";
}

inline std::string orEmpty(const char* text)
{
    return text != nullptr ? text : "";
}

// Removes the first subscription with that callback; as on the set, there must be one.
template <typename Subscribers, typename Callback>
int removeSubscriber(Subscribers& subscribers, Callback callback)
{
    const auto found = std::find_if(subscribers.begin(), subscribers.end(),
                                    [&](const auto& subscriber) { return subscriber.callback == callback; });
    if (found == subscribers.end()) {
        return -1;
    }
    subscribers.erase(found);
    return 0;
}

} // namespace fakeSupport

#endif
