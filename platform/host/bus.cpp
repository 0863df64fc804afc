#include "bus.h"

#include "deadline.h"

namespace platform
{

Connection connection()
{
    Connection bus(g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, nullptr));
    // GLib would end the process together with the bus; here the calls fail instead.
    if (bus != nullptr)
        g_dbus_connection_set_exit_on_close(bus.get(), FALSE);
    return bus;
}

Variant call(const Service& service, const char* method, GVariant* parameters, const char* replyType)
{
    const Variant owned(parameters == nullptr ? nullptr : g_variant_ref_sink(parameters));
    const Connection bus = connection();
    if (bus == nullptr)
        return nullptr;
    const Deadline deadline;
    return Variant(g_dbus_connection_call_sync(bus.get(), service.name, service.path, service.interface,
                                               method, owned.get(), G_VARIANT_TYPE(replyType),
                                               G_DBUS_CALL_FLAGS_NO_AUTO_START, G_MAXINT,
                                               deadline.cancellable(), nullptr));
}

int callForResult(const char* method, GVariant* parameters)
{
    const Variant reply = call(kPlatform, method, parameters, "(i)");
    if (reply == nullptr)
        return kFailure;
    int result = kFailure;
    g_variant_get(reply.get(), "(i)", &result);
    return result;
}

bool isText(const char* text)
{
    return text != nullptr && g_utf8_validate(text, -1, nullptr) != FALSE;
}

} // namespace platform
