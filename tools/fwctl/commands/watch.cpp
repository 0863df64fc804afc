// fwctl watch [--json]
#include <cstdio>
#include <gio/gio.h>
#include <glib-unix.h>
#include <map>
#include <memory>

#include "common/daemon/places.h"
#include "common/glib-pointers.h"
#include "common/json-text.h"
#include "common/terminal/visible-text.h"
#include "pralis.h"
#include "pwrctl.h"
#include "tools/fwctl/commands/command.h"
#include "tools/fwctl/modules/isolated.h"
#include "tools/fwctl/set-state.h"
#include "tools/fwctl/turn/turn-holder.h"

namespace fwctl
{

namespace
{
namespace places = common::places;

struct Key {
    const char* title;
    const char* path;
};
constexpr Key kKeys[] = {
    {"status", places::kStatusKey},
    {"progress", places::kProgressKey},
    {"working_status", places::kWorkingKey},
    {"mirroring", places::kMirroringKey},
};
constexpr guint kPollSeconds = 1; // for what nobody tells on its own

// Prints what differs from what it last printed; all of it runs on the main loop's thread.
class Watch
{
public:
    explicit Watch(bool json) : json_(json), loop_(g_main_loop_new(nullptr, FALSE)) {}

    int run();
    void show(const std::string& title, const Json::Value& value);
    void poll();

private:
    void subscribe();
    void connectToBus();
    void watchLocks(GDBusConnection* bus);

    bool json_;
    common::GlibPointer<GMainLoop> loop_;
    common::GlibPointer<GDBusConnection> bus_;
    std::map<std::string, Json::Value> shown_;
};

std::string timeOfDay()
{
    const common::GlibPointer<GDateTime> now(g_date_time_new_now_local());
    return common::GlibPointer<char>(g_date_time_format(now.get(), "%H:%M:%S")).get();
}

// ---- What the platform's headers offer ----

void onKeyChanged(keynode*, void* watch)
{
    static_cast<Watch*>(watch)->poll();
}

int onPowerState(pwrctl_state_info* info, void* watch)
{
    static_cast<Watch*>(watch)->show("power_state", info->cur_state);
    return 0;
}

int onPowerOff(pwrctl_poweroff_info* info, void* watch)
{
    static_cast<Watch*>(watch)->show("power_off", info->reason);
    return 0;
}

gboolean onTick(gpointer watch)
{
    static_cast<Watch*>(watch)->poll();
    return G_SOURCE_CONTINUE;
}

gboolean onInterrupt(gpointer loop)
{
    g_main_loop_quit(static_cast<GMainLoop*>(loop));
    return G_SOURCE_CONTINUE;
}

// ---- Power locks: a virtual set tells them, a television does not ----

// "kind 2, 45000 ms, tarnwick (412)"; what is left of each lock would change all the time.
std::string lockText(const Json::Value& locks)
{
    std::string text;
    for (const Json::Value& lock : locks["held"]) {
        text += (text.empty() ? "kind " : "; kind ") + lock["kind"].asString() + ", " +
                lock["duration_ms"].asString() + " ms, " + lock["owner"]["command"].asString() + " (" +
                lock["owner"]["pid"].asString() + ")";
    }
    return text.empty() ? "none" : text;
}

void onLocks(GObject* bus, GAsyncResult* result, gpointer watch)
{
    const common::GlibPointer<GVariant> reply(
        g_dbus_connection_call_finish(G_DBUS_CONNECTION(bus), result, nullptr));
    if (!reply) {
        return;
    }
    const char* text = nullptr;
    g_variant_get(reply.get(), "(&s)", &text);
    const std::optional<Json::Value> set = common::parseJsonObject(text);
    if (set && (*set)["locks"].isObject()) {
        static_cast<Watch*>(watch)->show("power_locks", lockText((*set)["locks"]));
    }
}

void requestLocks(GDBusConnection* bus, gpointer watch)
{
    g_dbus_connection_call(bus, places::kPlatformName, places::kPlatformPath, places::kControlInterface,
                           "Snapshot", nullptr, G_VARIANT_TYPE("(s)"), G_DBUS_CALL_FLAGS_NO_AUTO_START, -1,
                           nullptr, onLocks, watch);
}

void onSetChanged(GDBusConnection* bus, const gchar*, const gchar*, const gchar*, const gchar*, GVariant*,
                  gpointer watch)
{
    requestLocks(bus, watch);
}

void onDaemonAppeared(GDBusConnection*, const gchar*, const gchar*, gpointer watch)
{
    static_cast<Watch*>(watch)->show("daemon", "runs");
}

void onDaemonVanished(GDBusConnection*, const gchar*, gpointer watch)
{
    static_cast<Watch*>(watch)->show("daemon", "does not run");
}

// ---- The watch ----

void Watch::show(const std::string& title, const Json::Value& value)
{
    const auto known = shown_.find(title);
    if (known != shown_.end() && known->second == value) {
        return;
    }
    shown_[title] = value;
    if (json_) {
        Json::Value line;
        line["time"] = timeOfDay();
        line[title] = value;
        std::printf("%s\n", common::compactJson(line).c_str());
    } else {
        const std::string text = value.isString() ? value.asString() : common::compactJson(value);
        std::printf("%s  %-15s %s\n", timeOfDay().c_str(), title.c_str(), common::visible(text).c_str());
    }
    if (std::fflush(stdout) != 0) {
        g_main_loop_quit(loop_.get()); // nobody reads on
    }
}

void Watch::poll()
{
    for (const Key& key : kKeys) {
        int value = 0;
        show(key.title, pralis_get_int(key.path, &value) == 0 ? Json::Value(value) : Json::Value("-"));
    }
    show("update_turn", describe(lookAtTurn()));
}

void Watch::subscribe()
{
    for (const Key& key : kKeys) {
        pralis_notify_key_changed(key.path, onKeyChanged, this);
    }
    pwrctl_subscribe_state_changed_event(onPowerState, this);
    pwrctl_subscribe_poweroff_event(onPowerOff, this);
    const int state = pwrctl_get_state();
    show("power_state", state >= 0 ? Json::Value(state) : Json::Value("-"));
}

void Watch::watchLocks(GDBusConnection* bus)
{
    g_dbus_connection_signal_subscribe(bus, places::kPlatformName, places::kControlInterface, "Changed",
                                       places::kPlatformPath, nullptr, G_DBUS_SIGNAL_FLAGS_NONE, onSetChanged,
                                       this, nullptr);
    requestLocks(bus, this);
}

void Watch::connectToBus()
{
    bus_.reset(g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, nullptr));
    if (!bus_) {
        const BusProblem problem = problemOfBus();
        throw common::Failure(problem.text + ": " + problem.advice);
    }
    g_dbus_connection_set_exit_on_close(bus_.get(), FALSE);
    g_bus_watch_name_on_connection(bus_.get(), places::kDaemonName, G_BUS_NAME_WATCHER_FLAGS_NONE,
                                   onDaemonAppeared, onDaemonVanished, this, nullptr);
    watchLocks(bus_.get());
}

int Watch::run()
{
    connectToBus();
    subscribe();
    poll();
    g_timeout_add_seconds(kPollSeconds, onTick, this);
    g_unix_signal_add(SIGINT, onInterrupt, loop_.get());
    g_unix_signal_add(SIGTERM, onInterrupt, loop_.get());
    g_main_loop_run(loop_.get());
    return kDone;
}
} // namespace

void defineWatch(common::CommandLine& command)
{
    auto json = std::make_shared<bool>(false);
    command.flag("--json", *json, "For a program: one JSON object a line");
    command.footer(
        "Prints every value once, then each change with its time, until Ctrl-C. update_turn is the process\n"
        "that is updating, or \"free\". Power locks are shown on a virtual set; a television does not tell.\n"
        "Example:\n  fwctl watch");
    command.onRun([json] { return Watch(*json).run(); });
}

} // namespace fwctl
