#include "bench/bus-name.h"

#include <chrono>
#include <stdexcept>
#include <utility>

namespace bench
{

namespace
{

common::GlibPointer<GDBusConnection> connect(const std::string& address)
{
    const auto flags = static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                                         G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION);
    common::ErrorSlot error;
    common::GlibPointer<GDBusConnection> bus(
        g_dbus_connection_new_for_address_sync(address.c_str(), flags, nullptr, nullptr, error.address()));
    if (!bus) {
        throw std::runtime_error(address + ": " + error.text());
    }
    return bus;
}

} // namespace

BusName::BusName(const std::string& address, std::string name)
    : name_(std::move(name)), bus_(connect(address))
{
    const auto onChange = [](GDBusConnection*, const char*, const char*, const char*, const char*,
                             GVariant* arguments, void* self) {
        const char* owner = "";
        g_variant_get(arguments, "(&s&s&s)", nullptr, nullptr, &owner);
        static_cast<BusName*>(self)->isOwned_ = *owner != '\0';
    };
    subscription_ = g_dbus_connection_signal_subscribe(
        bus_.get(), "org.freedesktop.DBus", "org.freedesktop.DBus", "NameOwnerChanged",
        "/org/freedesktop/DBus", name_.c_str(), G_DBUS_SIGNAL_FLAGS_NONE, onChange, this, nullptr);
    isOwned_ = askWhetherOwned(); // and from now on every change is told
}

BusName::~BusName()
{
    g_dbus_connection_signal_unsubscribe(bus_.get(), subscription_);
}

bool BusName::askWhetherOwned()
{
    common::ErrorSlot error;
    const common::GlibPointer<GVariant> answer(g_dbus_connection_call_sync(
        bus_.get(), "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", "NameHasOwner",
        g_variant_new("(s)", name_.c_str()), G_VARIANT_TYPE("(b)"), G_DBUS_CALL_FLAGS_NONE, -1, nullptr,
        error.address()));
    if (!answer) {
        throw std::runtime_error("the bus does not answer: " + error.text());
    }
    gboolean is = FALSE;
    g_variant_get(answer.get(), "(b)", &is);
    return is != FALSE;
}

void BusName::waitUntilOwned()
{
    waitUntil("is owned by nobody", [](const BusName& self) { return self.isOwned_; });
}

void BusName::waitUntilFree()
{
    waitUntil("stays owned", [](const BusName& self) { return !self.isOwned_; });
}

void BusName::waitUntilBusIsGone()
{
    waitUntil("stands on a bus that goes on",
              [](const BusName& self) { return g_dbus_connection_is_closed(self.bus_.get()) != FALSE; });
}

void BusName::waitUntil(const char* what, bool (*isSo)(const BusName&))
{
    constexpr guint kPatienceMilliseconds = 10000;
    bool isOver = false;
    const guint limit = g_timeout_add(
        kPatienceMilliseconds,
        [](void* over) -> gboolean {
            *static_cast<bool*>(over) = true;
            return G_SOURCE_CONTINUE;
        },
        &isOver);
    while (!isSo(*this) && !isOver) {
        g_main_context_iteration(nullptr, TRUE);
    }
    g_source_remove(limit);
    if (!isSo(*this)) {
        throw std::runtime_error(name_ + " " + what + " for ten seconds");
    }
}

} // namespace bench
