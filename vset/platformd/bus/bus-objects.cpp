#include "vset/platformd/bus/bus-objects.h"

#include <stdexcept>
#include <utility>

#include "common/glib-pointers.h"
#include "vset/platformd/contract.h"
#include "vset/platformd/guarded.h"

namespace vset
{

namespace
{

void onCall(GDBusConnection*, const char* sender, const char*, const char*, const char* method,
            GVariant* parameters, GDBusMethodInvocation* invocation, gpointer handler)
{
    const bool isDone = guarded(method, [&] {
        (*static_cast<BusObject::Handler*>(handler))(method, sender, parameters, invocation);
    });
    if (!isDone) {
        g_dbus_method_invocation_return_error(invocation, G_DBUS_ERROR, G_DBUS_ERROR_FAILED, "%s failed",
                                              method);
    }
}

constexpr GDBusInterfaceVTable kTable = {onCall, nullptr, nullptr, {}};

} // namespace

BusObject::BusObject(GDBusConnection* bus, GDBusInterfaceInfo* interface, Handler handler)
    : bus_(bus), interface_(interface), handler_(std::move(handler))
{
    common::ErrorSlot error;
    registration_ = g_dbus_connection_register_object(bus_, kPlatformPath, interface_, &kTable, &handler_,
                                                      nullptr, error.address());
    if (registration_ == 0) {
        throw std::runtime_error("cannot serve " + std::string(interface_->name) + ": " + error.text());
    }
}

BusObject::~BusObject()
{
    g_dbus_connection_unregister_object(bus_, registration_);
}

void BusObject::emit(const char* signal, GVariant* parameters, const char* destination) const
{
    g_dbus_connection_emit_signal(bus_, destination, kPlatformPath, interface_->name, signal, parameters,
                                  nullptr);
}

} // namespace vset
