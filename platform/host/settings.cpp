// pralis.h: the settings store.

#include "platform/host/bus.h"
#include "platform/host/exported.h"
#include "platform/host/subscriptions.h"
#include "pralis.h"

struct keynode {
    int value;
};

namespace
{

constexpr platform::EventKind kKeyChanged = {"KeyChanged", "SubscribeKey", "UnsubscribeKey"};

platform::CallbackIdentity identityOf(pralis_key_changed_cb cb)
{
    return reinterpret_cast<platform::CallbackIdentity>(cb);
}

} // namespace

PLATFORM_EXPORT int pralis_get_int(const char* key, int* value)
{
    if (!platform::isText(key) || value == nullptr) {
        return platform::kFailure;
    }
    const auto reply = platform::call(platform::kPlatform, "GetInt", g_variant_new("(s)", key), "(ii)");
    if (reply == nullptr) {
        return platform::kFailure;
    }
    int result = platform::kFailure;
    int stored = 0;
    g_variant_get(reply.get(), "(ii)", &result, &stored);
    if (result == 0) {
        *value = stored;
    }
    return result;
}

PLATFORM_EXPORT int pralis_set_int(const char* key, int value)
{
    if (!platform::isText(key)) {
        return platform::kFailure;
    }
    return platform::callForResult("SetInt", g_variant_new("(si)", key, value));
}

PLATFORM_EXPORT int pralis_notify_key_changed(const char* key, pralis_key_changed_cb cb, void* user_data)
{
    if (!platform::isText(key) || cb == nullptr) {
        return platform::kFailure;
    }
    return platform::subscribe(kKeyChanged, key, identityOf(cb), [cb, user_data](GVariant* parameters) {
        keynode node{};
        g_variant_get(parameters, "(&si)", nullptr, &node.value);
        cb(&node, user_data);
    });
}

PLATFORM_EXPORT int pralis_ignore_key_changed(const char* key, pralis_key_changed_cb cb)
{
    if (!platform::isText(key)) {
        return platform::kFailure;
    }
    return platform::unsubscribe(kKeyChanged, key, identityOf(cb));
}

PLATFORM_EXPORT int pralis_keynode_get_int(const keynode* node)
{
    return node == nullptr ? platform::kFailure : node->value;
}
