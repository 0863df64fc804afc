#include "platform/host/subscriptions.h"

#include <algorithm>
#include <atomic>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace platform
{

namespace
{

struct Subscription {
    std::string signal;
    std::string argument;
    const char* subscribeMethod = nullptr; // none for a one-time answer
    CallbackIdentity identity = nullptr;
    guint expectedId = 0; // of a one-time answer
    Deliver deliver;
    std::atomic<bool> isCancelled{false};
    std::atomic<bool> isForgotten{false}; // by a service that has ended
    guint busId = 0;
};

using SharedSubscription = std::shared_ptr<Subscription>;

// Never destroyed: callbacks may arrive while the process exits.
struct Registry {
    std::mutex mutex;
    std::vector<SharedSubscription> entries;
};

Registry& registry()
{
    static auto* const instance = new Registry;
    return *instance;
}

bool isExpectedAnswer(const Subscription& entry, GVariant* parameters)
{
    if (entry.expectedId == 0) {
        return true;
    }
    const Variant id(g_variant_get_child_value(parameters, 0));
    return g_variant_is_of_type(id.get(), G_VARIANT_TYPE_UINT32) != FALSE &&
           g_variant_get_uint32(id.get()) == entry.expectedId;
}

void onSignal(GDBusConnection*, const char*, const char*, const char*, const char*, GVariant* parameters,
              gpointer userData)
{
    const SharedSubscription entry =
        *static_cast<SharedSubscription*>(userData); // lives on when the callback unsubscribes itself
    if (!isExpectedAnswer(*entry, parameters)) {
        return;
    }
    const bool isOnce = entry->expectedId != 0;
    if (isOnce ? entry->isCancelled.exchange(true) : entry->isCancelled.load()) {
        return;
    }
    entry->deliver(parameters);
    if (isOnce) {
        forget(entry->signal.c_str(), entry->expectedId);
    }
}

void deleteShared(gpointer userData)
{
    delete static_cast<SharedSubscription*>(userData);
}

GVariant* methodArgument(const char* argument)
{
    return argument == nullptr ? nullptr : g_variant_new("(s)", argument);
}

const char* argumentOf(const Subscription& entry)
{
    return entry.argument.empty() ? nullptr : entry.argument.c_str();
}

// A service that comes back knows nothing of its earlier life: it is told again who wants to hear of what.
void subscribeAnew(GDBusConnection* bus)
{
    Registry& all = registry();
    const std::lock_guard<std::mutex> lock(all.mutex);
    for (const SharedSubscription& entry : all.entries) {
        if (entry->subscribeMethod != nullptr && entry->isForgotten.exchange(false)) {
            // Without waiting for the answer: this is the main loop.
            g_dbus_connection_call(bus, kPlatform.name, kPlatform.path, kPlatform.interface,
                                   entry->subscribeMethod, methodArgument(argumentOf(*entry)), nullptr,
                                   G_DBUS_CALL_FLAGS_NO_AUTO_START, -1, nullptr, nullptr, nullptr);
        }
    }
}

void onOwnerChanged(GDBusConnection* bus, const char*, const char*, const char*, const char*,
                    GVariant* parameters, gpointer)
{
    const char* before = nullptr;
    const char* after = nullptr;
    g_variant_get(parameters, "(&s&s&s)", nullptr, &before, &after);
    if (before[0] != '\0') {
        Registry& all = registry();
        const std::lock_guard<std::mutex> lock(all.mutex);
        for (const SharedSubscription& entry : all.entries) {
            entry->isForgotten = true;
        }
    }
    if (after[0] != '\0') {
        subscribeAnew(bus);
    }
}

// Once for each connection, together with its first subscription.
void watchOwner(GDBusConnection* bus)
{
    constexpr const char* kWatched = "platform-owner-is-watched";
    if (g_object_get_data(G_OBJECT(bus), kWatched) == nullptr) {
        g_object_set_data(G_OBJECT(bus), kWatched, bus);
        g_dbus_connection_signal_subscribe(bus, "org.freedesktop.DBus", "org.freedesktop.DBus",
                                           "NameOwnerChanged", "/org/freedesktop/DBus", kPlatform.name,
                                           G_DBUS_SIGNAL_FLAGS_NONE, onOwnerChanged, nullptr, nullptr);
    }
}

void attach(GDBusConnection* bus, const SharedSubscription& entry)
{
    watchOwner(bus);
    entry->busId = g_dbus_connection_signal_subscribe(
        bus, kPlatform.name, kPlatform.interface, entry->signal.c_str(), kPlatform.path, argumentOf(*entry),
        G_DBUS_SIGNAL_FLAGS_NONE, onSignal, new SharedSubscription(entry), deleteShared);
}

// GLib delivers to the main context that the subscribing thread has for itself; callbacks belong to the
// default one, hence a thread that has its own lets a plain thread subscribe.
void attachForDefaultContext(GDBusConnection* bus, const SharedSubscription& entry)
{
    if (g_main_context_get_thread_default() == nullptr) {
        attach(bus, entry);
    } else {
        std::thread([&] { attach(bus, entry); }).join();
    }
}

template <typename Predicate>
std::vector<SharedSubscription> take(Predicate isWanted)
{
    Registry& all = registry();
    const std::lock_guard<std::mutex> lock(all.mutex);
    const auto firstTaken =
        std::stable_partition(all.entries.begin(), all.entries.end(),
                              [&](const SharedSubscription& entry) { return !isWanted(*entry); });
    std::vector<SharedSubscription> taken(firstTaken, all.entries.end());
    all.entries.erase(firstTaken, all.entries.end());
    return taken;
}

void detach(const std::vector<SharedSubscription>& entries)
{
    const Connection bus = connection();
    for (const SharedSubscription& entry : entries) {
        entry->isCancelled = true;
        if (bus != nullptr) {
            g_dbus_connection_signal_unsubscribe(bus.get(), entry->busId);
        }
    }
}

void detachOne(const SharedSubscription& wanted)
{
    detach(take([&](const Subscription& entry) { return &entry == wanted.get(); }));
}

// A signal that another subscription brings here already may be on its way: with the service's answer behind
// it, it has been handed out to that one alone. False when there is none.
bool awaitEarlierSignals(const Subscription& entry)
{
    constexpr Service kPeer = {kPlatform.name, kPlatform.path, "org.freedesktop.DBus.Peer"};
    Registry& all = registry();
    {
        const std::lock_guard<std::mutex> lock(all.mutex);
        const auto bringsSame = [&](const SharedSubscription& other) {
            return other->signal == entry.signal && other->argument == entry.argument;
        };
        if (std::none_of(all.entries.begin(), all.entries.end(), bringsSame)) {
            return true;
        }
    }
    return call(kPeer, "Ping", nullptr, "()") != nullptr;
}

bool add(const SharedSubscription& entry)
{
    const Connection bus = connection();
    if (bus == nullptr) {
        return false;
    }
    attachForDefaultContext(bus.get(), entry);
    Registry& all = registry();
    const std::lock_guard<std::mutex> lock(all.mutex);
    all.entries.push_back(entry);
    return true;
}

} // namespace

int subscribe(const EventKind& kind, const char* argument, CallbackIdentity identity, Deliver deliver)
{
    const auto entry = std::make_shared<Subscription>();
    entry->signal = kind.signal;
    entry->argument = argument == nullptr ? "" : argument;
    entry->subscribeMethod = kind.subscribeMethod;
    entry->identity = identity;
    entry->deliver = std::move(deliver);
    if (!awaitEarlierSignals(*entry) || !add(entry)) {
        return kFailure;
    }
    // The service's answer also proves that the bus knows the subscription: from here on no event is lost.
    const int result = callForResult(kind.subscribeMethod, methodArgument(argument));
    if (result != 0) {
        detachOne(entry);
    }
    return result;
}

int unsubscribe(const EventKind& kind, const char* argument, CallbackIdentity identity)
{
    const std::string wantedArgument = argument == nullptr ? "" : argument;
    const std::vector<SharedSubscription> ended = take([&](const Subscription& entry) {
        return entry.identity == identity && entry.signal == kind.signal && entry.argument == wantedArgument;
    });
    detach(ended);
    if (ended.empty()) {
        return kFailure;
    }
    int result = 0;
    for (size_t i = 0; i < ended.size(); ++i) {
        result = std::min(result, callForResult(kind.unsubscribeMethod, methodArgument(argument)));
    }
    return result;
}

bool expectOnce(const char* signal, guint id, Deliver deliver)
{
    const auto entry = std::make_shared<Subscription>();
    entry->signal = signal;
    entry->expectedId = id;
    entry->deliver = std::move(deliver);
    return add(entry);
}

void forget(const char* signal, guint id)
{
    detach(take([&](const Subscription& entry) { return entry.expectedId == id && entry.signal == signal; }));
}

} // namespace platform
