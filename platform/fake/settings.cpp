// pralis.h: the settings store.

#include "platform/fake/fake-platform.h"
#include "platform/fake/support.h"

using fakeSupport::orEmpty;
using fakeSupport::quoted;
using fakeSupport::removeSubscriber;

void FakePlatform::setSetting(const std::string& key, int value)
{
    const std::lock_guard<std::mutex> lock(mutex);
    state.settings[key] = value;
}

std::optional<int> FakePlatform::setting(const std::string& key) const
{
    const std::lock_guard<std::mutex> lock(mutex);
    const auto found = state.settings.find(key);
    return found != state.settings.end() ? std::optional<int>(found->second) : std::nullopt;
}

std::vector<std::pair<std::string, int>> FakePlatform::settingWrites() const
{
    const std::lock_guard<std::mutex> lock(mutex);
    return state.settingWrites;
}

int FakePlatform::changeSetting(const std::string& key, int value)
{
    setSetting(key, value);
    keynode node{key, value};
    return callSettingSubscribers(key, &node);
}

int FakePlatform::fireNullNode(const std::string& key)
{
    return callSettingSubscribers(key, nullptr);
}

bool FakePlatform::isSubscribed(const std::string& key) const
{
    const std::lock_guard<std::mutex> lock(mutex);
    const auto found = state.settingSubscribers.find(key);
    return found != state.settingSubscribers.end() && !found->second.empty();
}

int FakePlatform::callSettingSubscribers(const std::string& key, keynode* node)
{
    std::vector<Subscriber<pralis_key_changed_cb>> subscribers;
    {
        const std::lock_guard<std::mutex> lock(mutex);
        subscribers = state.settingSubscribers[key];
    }
    for (const auto& subscriber : subscribers) {
        subscriber.callback(node, subscriber.userData);
    }
    return static_cast<int>(subscribers.size());
}

int FakePlatform::subscribe(const std::string& key, pralis_key_changed_cb callback, void* userData)
{
    const std::lock_guard<std::mutex> lock(mutex);
    state.settingSubscribers[key].push_back({callback, userData});
    return 0;
}

int FakePlatform::ignore(const std::string& key, pralis_key_changed_cb callback)
{
    const std::lock_guard<std::mutex> lock(mutex);
    return removeSubscriber(state.settingSubscribers[key], callback);
}

int FakePlatform::writeSetting(const std::string& key, int value)
{
    const std::lock_guard<std::mutex> lock(mutex);
    state.settings[key] = value;
    state.settingWrites.emplace_back(key, value);
    return 0;
}

int pralis_get_int(const char* key, int* value)
{
    const std::optional<int> scripted = fakePlatform().enter("pralis_get_int", quoted(key), orEmpty(key));
    const std::optional<int> stored = fakePlatform().setting(orEmpty(key));
    if (scripted.value_or(0) != 0 || !stored) {
        return scripted.value_or(0) != 0 ? *scripted : -1;
    }
    *value = *stored;
    return 0;
}

int pralis_set_int(const char* key, int value)
{
    const std::optional<int> scripted =
        fakePlatform().enter("pralis_set_int", quoted(key) + ", " + std::to_string(value), orEmpty(key));
    return scripted.value_or(0) != 0 ? *scripted : fakePlatform().writeSetting(orEmpty(key), value);
}

int pralis_notify_key_changed(const char* key, pralis_key_changed_cb cb, void* user_data)
{
    const std::optional<int> scripted =
        fakePlatform().enter("pralis_notify_key_changed", quoted(key), orEmpty(key));
    return scripted.value_or(0) != 0 ? *scripted : fakePlatform().subscribe(orEmpty(key), cb, user_data);
}

int pralis_ignore_key_changed(const char* key, pralis_key_changed_cb cb)
{
    const std::optional<int> scripted =
        fakePlatform().enter("pralis_ignore_key_changed", quoted(key), orEmpty(key));
    return scripted.value_or(0) != 0 ? *scripted : fakePlatform().ignore(orEmpty(key), cb);
}

int pralis_keynode_get_int(const keynode* node)
{
    return node->value;
}
