#include "platform/host/bus.h"

#include <mutex>

#include "platform/host/deadline.h"

namespace platform
{

Connection connection()
{
    // GLib shares one connection in the process as long as somebody holds it; it is held for good, because
    // locks and subscriptions are the connection's and would end with it.
    static std::mutex mutex;
    static GDBusConnection* held = nullptr;
    const std::lock_guard<std::mutex> lock(mutex);
    if (held != nullptr && g_dbus_connection_is_closed(held) != FALSE) {
        g_clear_object(&held);
    }
    if (held == nullptr) {
        held = g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, nullptr);
        if (held == nullptr) {
            return nullptr;
        }
        // GLib would end the process together with the bus; here the calls fail instead.
        g_dbus_connection_set_exit_on_close(held, FALSE);
    }
    return Connection(G_DBUS_CONNECTION(g_object_ref(held)));
}

Variant call(const Service& service, const char* method, GVariant* parameters, const char* replyType)
{
    const Variant owned(parameters == nullptr ? nullptr : g_variant_ref_sink(parameters));
    const Connection bus = connection();
    if (bus == nullptr) {
        return nullptr;
    }
    const Deadline deadline;
    return Variant(g_dbus_connection_call_sync(bus.get(), service.name, service.path, service.interface,
                                               method, owned.get(), G_VARIANT_TYPE(replyType),
                                               G_DBUS_CALL_FLAGS_NO_AUTO_START, G_MAXINT,
                                               deadline.cancellable(), nullptr));
}

int callForResult(const char* method, GVariant* parameters)
{
    const Variant reply = call(kPlatform, method, parameters, "(i)");
    if (reply == nullptr) {
        return kFailure;
    }
    int result = kFailure;
    g_variant_get(reply.get(), "(i)", &result);
    return result;
}

bool isText(const char* text)
{
    return text != nullptr && g_utf8_validate(text, -1, nullptr) != FALSE;
}

} // namespace platform
