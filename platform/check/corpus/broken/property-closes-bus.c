/* A property's connection is closed when it was read, and it is the one of the whole process.
 *
 * Rule: platform/README.md: the connection to the system bus, and the name on it, stay the daemon's.
 * Seen: after the first property the process's connection is closed. */
#include <gio/gio.h>

#include "platform/check/corpus/base.h"
#include "sysprop.h"

int sysprop_get_value_string(int key, char** value)
{
    GDBusConnection* bus = g_bus_get_sync(G_BUS_TYPE_SYSTEM, NULL, NULL);
    const int result = HOST(sysprop_get_value_string)(key, value);
    if (bus != NULL) {
        g_dbus_connection_close_sync(bus, NULL, NULL);
        g_object_unref(bus);
    }
    return result;
}
