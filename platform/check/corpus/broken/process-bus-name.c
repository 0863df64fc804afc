/* The library takes the daemon's name on the bus for itself, on a connection of its own, when it is
 * loaded.
 *
 * Rule: platform/README.md: the bus on which the daemon owns its name is the one other thing that it
 *       needs of the set.
 * Seen: org.pellor.tv.tarnwick has another owner, and cannot be got. */
#include <gio/gio.h>

#include "platform/check/corpus/base.h"
#include "pralis.h"

__attribute__((constructor)) static void take_name(void)
{
    if (HOST(pralis_get_int) == NULL) {
        return; /* a program that has nothing to do with the platform */
    }
    char* address = g_dbus_address_get_for_bus_sync(G_BUS_TYPE_SYSTEM, NULL, NULL);
    const GDBusConnectionFlags flags =
        G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT | G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION;
    GDBusConnection* bus =
        address == NULL ? NULL : g_dbus_connection_new_for_address_sync(address, flags, NULL, NULL, NULL);
    g_free(address);
    if (bus != NULL) {
        GVariant* reply = g_dbus_connection_call_sync(bus, "org.freedesktop.DBus", "/org/freedesktop/DBus",
                                                      "org.freedesktop.DBus", "RequestName",
                                                      g_variant_new("(su)", "org.pellor.tv.tarnwick", 0U),
                                                      NULL, G_DBUS_CALL_FLAGS_NONE, 2000, NULL, NULL);
        g_clear_pointer(&reply, g_variant_unref);
    }
}
