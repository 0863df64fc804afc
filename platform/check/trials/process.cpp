// What holds for all calls, by the one list of them, `kFunctions`: that they are there; that the bus takes
// the daemon's name; and the end by a reboot.

#include <dlfcn.h>
#include <gio/gio.h>
#include <set>
#include <unistd.h>

#include "common/glib-pointers.h"
#include "platform/check/trials/calls-once.h"
#include "platform/check/trials/trial.h"

namespace platformcheck
{

namespace
{

constexpr const char* kFunctions[] = {
    "pralis_get_int",
    "pralis_set_int",
    "pralis_notify_key_changed",
    "pralis_ignore_key_changed",
    "pralis_keynode_get_int",
    "pwrctl_get_state",
    "pwrctl_subscribe_state_changed_event",
    "pwrctl_unsubscribe_state_changed_event",
    "pwrctl_subscribe_poweroff_event",
    "pwrctl_unsubscribe_poweroff_event",
    "pwrctl_lock_state",
    "pwrctl_unlock_state",
    "pwrctl_request_reboot",
    "applaunch_create",
    "applaunch_destroy",
    "applaunch_add_extra_data",
    "applaunch_set_app_id",
    "applaunch_send_launch_request",
    "sysprop_get_value_string",
    "FlagpostEventDone",
    "FlagpostIsDone",
    "FlagpostResetEvent",
    "hangwatch_register_watchdog_service",
    "hangwatch_watchdog_notify",
    "hangwatch_unregister_watchdog_service",
    "PS_Mount",
    "PS_Mknod",
    "PS_Umount",
    "_ZN16appbinaryManager21ABM_DownloadAppBinaryEPFvRKNSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEEiPvES8_S7_",
    "__norlog_print",
    "_ZN11TraceLogger6recordEiPKcS1_iS1_z",
};

void tryLoading(Trial& trial)
{
    std::set<std::string> libraries;
    for (const char* const name : kFunctions) {
        void* const address = dlsym(RTLD_DEFAULT, name);
        if (!trial.require(address != nullptr, FindingId::MissingFunction, name)) {
            continue;
        }
        Dl_info place = {};
        if (dladdr(address, &place) != 0 && libraries.insert(place.dli_fname).second) {
            trial.tellLibrary(place.dli_fname);
        }
    }
}

// ---- The bus ----

constexpr const char* kBusName = "org.pellor.tv.tarnwick";

struct Name {
    bool isAcquired = false;
    bool isLost = false;
};

// The process that has it; 0 when the bus does not say.
guint32 ownerOfName(GDBusConnection* bus)
{
    const common::GlibPointer<GVariant> reply(g_dbus_connection_call_sync(
        bus, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
        "GetConnectionUnixProcessID", g_variant_new("(s)", kBusName), G_VARIANT_TYPE("(u)"),
        G_DBUS_CALL_FLAGS_NONE, 5000, nullptr, nullptr));
    guint32 process = 0;
    if (reply != nullptr) {
        g_variant_get(reply.get(), "(u)", &process);
    }
    return process;
}

void tryName(Trial& trial)
{
    common::ErrorSlot error;
    const common::GlibPointer<GDBusConnection> bus(
        g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, error.address()));
    if (bus == nullptr) {
        trial.found(FindingId::NoBus, error.text());
        return;
    }
    const common::GlibPointer<GVariant> reply(
        g_dbus_connection_call_sync(bus.get(), "org.freedesktop.DBus", "/org/freedesktop/DBus",
                                    "org.freedesktop.DBus", "NameHasOwner", g_variant_new("(s)", kBusName),
                                    G_VARIANT_TYPE("(b)"), G_DBUS_CALL_FLAGS_NONE, 5000, nullptr, nullptr));
    gboolean isOwned = FALSE;
    if (reply != nullptr) {
        g_variant_get(reply.get(), "(b)", &isOwned);
    }
    if (isOwned != FALSE && ownerOfName(bus.get()) == static_cast<guint32>(getpid())) {
        trial.found(FindingId::NameRefused, "a library of this process has taken it for itself");
        return;
    }
    if (isOwned != FALSE) {
        trial.refuse("the daemon runs on this set and uses what is to be checked: end it, or check before it "
                     "starts");
        return;
    }
    Name name;
    const guint id = g_bus_own_name(
        G_BUS_TYPE_SYSTEM, kBusName, G_BUS_NAME_OWNER_FLAGS_NONE, nullptr,
        [](GDBusConnection*, const gchar*, gpointer data) { static_cast<Name*>(data)->isAcquired = true; },
        [](GDBusConnection*, const gchar*, gpointer data) { static_cast<Name*>(data)->isLost = true; }, &name,
        nullptr);
    trial.iterate(5s, [&] { return name.isAcquired || name.isLost; });
    trial.require(name.isAcquired, FindingId::NameRefused,
                  name.isLost ? "the bus does not give it" : "no answer within 5 s");
    g_bus_unown_name(id);
}

// A connection that no library knows.
common::GlibPointer<GDBusConnection> ownConnection()
{
    const common::GlibPointer<char> address(
        g_dbus_address_get_for_bus_sync(G_BUS_TYPE_SYSTEM, nullptr, nullptr));
    constexpr auto kFlags = static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                                              G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION);
    return common::GlibPointer<GDBusConnection>(
        address == nullptr
            ? nullptr
            : g_dbus_connection_new_for_address_sync(address.get(), kFlags, nullptr, nullptr, nullptr));
}

// The daemon has its name, and makes its calls.
void tryKeepingName(Trial& trial)
{
    const common::GlibPointer<GDBusConnection> watching = ownConnection();
    Name name;
    const guint id = g_bus_own_name(
        G_BUS_TYPE_SYSTEM, kBusName, G_BUS_NAME_OWNER_FLAGS_NONE, nullptr,
        [](GDBusConnection*, const gchar*, gpointer data) { static_cast<Name*>(data)->isAcquired = true; },
        nullptr, &name, nullptr);
    if (watching == nullptr || !trial.iterate(5s, [&] { return name.isAcquired; })) {
        return; // is told elsewhere
    }
    struct Service {
        const char* what;
        void (*once)(Trial&);
    };
    constexpr Service kServices[] = {{"settings", settingsOnce},
                                     {"subscriptions", subscriptionOnce},
                                     {"power", powerOnce},
                                     {"power events", powerEventsOnce},
                                     {"flags", flagsOnce},
                                     {"the watchdog", watchdogOnce},
                                     {"properties", propertyOnce},
                                     {"packages", packageOnce},
                                     {"launches", launchOnce},
                                     {"mounts", mountOnce},
                                     {"the platform log", platformLogOnce},
                                     {"the trace recorder", traceLogOnce}};
    for (const Service& service : kServices) {
        service.once(trial);
        trial.iterate(20ms);
        if (!trial.require(ownerOfName(watching.get()) == static_cast<guint32>(getpid()),
                           FindingId::ConnectionLost,
                           std::string("the name is lost after calls of ") + service.what)) {
            break;
        }
    }
    g_bus_unown_name(id);
}

} // namespace

std::vector<TrialKind> processTrials()
{
    return {{"load", tryLoading}, {"bus", tryName}, {"bus-kept", tryKeepingName}};
}

} // namespace platformcheck
