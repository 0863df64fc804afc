// The least that a service on the system bus does: it owns a name, and wakes up for a heartbeat as the
// daemon's watchdog wants one.
//
// Usage: bare-service NAME

#include <gio/gio.h>

int main(int argc, char** argv)
{
    if (argc != 2) {
        g_printerr("Usage: bare-service NAME\n");
        return 2;
    }
    GMainLoop* const loop = g_main_loop_new(nullptr, FALSE);
    g_bus_own_name(G_BUS_TYPE_SYSTEM, argv[1], G_BUS_NAME_OWNER_FLAGS_NONE, nullptr, nullptr, nullptr,
                   nullptr, nullptr);
    g_timeout_add(5000, [](void*) -> gboolean { return G_SOURCE_CONTINUE; }, nullptr);
    g_main_loop_run(loop);
    g_main_loop_unref(loop);
    return 0;
}
