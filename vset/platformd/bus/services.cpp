// The platform's services on the set's bus: a handler for each call but those of mounts, which psmountd has.
#include "vset/platformd/bus/services.h"

#include <cstring>

#include "common/glib-pointers.h"
#include "platform-interfaces.h"
#include "vset/platformd/service-time.h"

namespace vset
{

namespace
{

constexpr int kSuccess = 0;
constexpr int kFailure = -1;

GVariant* result(int number)
{
    return g_variant_new("(i)", number);
}

GVariant* successIf(bool isSuccess)
{
    return result(isSuccess ? kSuccess : kFailure);
}

std::string textOf(GVariant* parameters)
{
    const char* text = nullptr;
    g_variant_get_child(parameters, 0, "&s", &text);
    return text;
}

int numberOf(GVariant* parameters)
{
    int number = 0;
    g_variant_get_child(parameters, 0, "i", &number);
    return number;
}

unsigned int requestOf(GVariant* parameters)
{
    guint32 request = 0;
    g_variant_get_child(parameters, 0, "u", &request);
    return request;
}

// ---- Settings ----

GVariant* getInt(SetModel& set, const Client&, GVariant* parameters)
{
    const auto value = set.settings.get(textOf(parameters));
    return g_variant_new("(ii)", value ? kSuccess : kFailure, value.value_or(0));
}

GVariant* setInt(SetModel& set, const Client& client, GVariant* parameters)
{
    const char* key = nullptr;
    int value = 0;
    g_variant_get(parameters, "(&si)", &key, &value);
    const std::string writer = client.command + "[" + std::to_string(client.process) + "]";
    return successIf(!set.settings.set(key, value, writer));
}

GVariant* subscribeKey(SetModel& set, const Client& client, GVariant* parameters)
{
    set.subscribers.add(client, "key", textOf(parameters));
    return result(kSuccess);
}

GVariant* unsubscribeKey(SetModel& set, const Client& client, GVariant* parameters)
{
    return successIf(set.subscribers.remove(client.name, "key", textOf(parameters)));
}

// ---- Power ----

GVariant* getState(SetModel& set, const Client&, GVariant*)
{
    return result(set.power.state());
}

GVariant* subscribeState(SetModel& set, const Client& client, GVariant*)
{
    set.subscribers.add(client, "state", "");
    return result(kSuccess);
}

GVariant* unsubscribeState(SetModel& set, const Client& client, GVariant*)
{
    return successIf(set.subscribers.remove(client.name, "state", ""));
}

GVariant* subscribePowerOff(SetModel& set, const Client& client, GVariant*)
{
    set.subscribers.add(client, "poweroff", "");
    return result(kSuccess);
}

GVariant* unsubscribePowerOff(SetModel& set, const Client& client, GVariant*)
{
    return successIf(set.subscribers.remove(client.name, "poweroff", ""));
}

GVariant* lockState(SetModel& set, const Client& client, GVariant* parameters)
{
    int kind = 0;
    guint32 duration = 0;
    g_variant_get(parameters, "(iu)", &kind, &duration);
    set.power.lock(client, kind, duration);
    return result(kSuccess);
}

GVariant* unlockState(SetModel& set, const Client& client, GVariant* parameters)
{
    return successIf(set.power.unlock(client.name, numberOf(parameters)));
}

GVariant* requestReboot(SetModel& set, const Client& client, GVariant* parameters)
{
    set.power.requestReboot(requestOf(parameters), client);
    return result(kSuccess);
}

// ---- Application launch ----

GVariant* createLaunch(SetModel& set, const Client& client, GVariant*)
{
    return g_variant_new("(iu)", kSuccess, set.launches.create(client));
}

GVariant* addLaunchExtra(SetModel& set, const Client& client, GVariant* parameters)
{
    guint32 request = 0;
    const char* key = nullptr;
    const char* value = nullptr;
    g_variant_get(parameters, "(u&s&s)", &request, &key, &value);
    return successIf(set.launches.addExtra(request, client.name, key, value));
}

GVariant* setLaunchApp(SetModel& set, const Client& client, GVariant* parameters)
{
    guint32 request = 0;
    const char* application = nullptr;
    g_variant_get(parameters, "(u&s)", &request, &application);
    return successIf(set.launches.setApplication(request, client.name, application));
}

GVariant* sendLaunch(SetModel& set, const Client& client, GVariant* parameters)
{
    return successIf(set.launches.send(requestOf(parameters), client.name));
}

GVariant* destroyLaunch(SetModel& set, const Client& client, GVariant* parameters)
{
    return successIf(set.launches.destroy(requestOf(parameters), client.name));
}

// ---- System information, flags, watchdog, packages ----

GVariant* getProperty(SetModel& set, const Client&, GVariant* parameters)
{
    const auto value = set.properties.get(numberOf(parameters));
    return g_variant_new("(is)", value ? kSuccess : kFailure, value.value_or("").c_str());
}

GVariant* raiseFlag(SetModel& set, const Client& client, GVariant* parameters)
{
    set.flags.raise(textOf(parameters), client);
    return result(kSuccess);
}

GVariant* isFlagRaised(SetModel& set, const Client&, GVariant* parameters)
{
    return result(set.flags.isRaised(textOf(parameters)) ? 1 : 0);
}

GVariant* resetFlag(SetModel& set, const Client& client, GVariant* parameters)
{
    set.flags.reset(textOf(parameters), client);
    return result(kSuccess);
}

GVariant* registerWatchdog(SetModel& set, const Client& client, GVariant* parameters)
{
    return successIf(set.watchdog.add(client, numberOf(parameters)));
}

GVariant* notifyWatchdog(SetModel& set, const Client& client, GVariant*)
{
    return successIf(set.watchdog.notify(client.name));
}

GVariant* unregisterWatchdog(SetModel& set, const Client& client, GVariant*)
{
    return successIf(set.watchdog.remove(client.name));
}

GVariant* downloadPackage(SetModel& set, const Client& client, GVariant* parameters)
{
    guint32 token = 0;
    const char* package = nullptr;
    g_variant_get(parameters, "(u&s)", &token, &package);
    set.packages.request(client, token, package);
    return result(kSuccess);
}

// ---- All methods ----

constexpr int kNoArgument = -1;

struct Method {
    const char* name;
    const char* call; // as its header declares it
    int subject;      // the parameter that says what the call is about, or kNoArgument
    GVariant* (*run)(SetModel& set, const Client& client, GVariant* parameters);
};

constexpr Method kMethods[] = {
    {"GetInt", "pralis_get_int", 0, getInt},
    {"SetInt", "pralis_set_int", 0, setInt},
    {"SubscribeKey", "pralis_notify_key_changed", 0, subscribeKey},
    {"UnsubscribeKey", "pralis_ignore_key_changed", 0, unsubscribeKey},
    {"GetState", "pwrctl_get_state", kNoArgument, getState},
    {"SubscribeState", "pwrctl_subscribe_state_changed_event", kNoArgument, subscribeState},
    {"UnsubscribeState", "pwrctl_unsubscribe_state_changed_event", kNoArgument, unsubscribeState},
    {"SubscribePowerOff", "pwrctl_subscribe_poweroff_event", kNoArgument, subscribePowerOff},
    {"UnsubscribePowerOff", "pwrctl_unsubscribe_poweroff_event", kNoArgument, unsubscribePowerOff},
    {"LockState", "pwrctl_lock_state", 0, lockState},
    {"UnlockState", "pwrctl_unlock_state", 0, unlockState},
    {"RequestReboot", "pwrctl_request_reboot", 0, requestReboot},
    {"CreateLaunch", "applaunch_create", kNoArgument, createLaunch},
    {"AddLaunchExtra", "applaunch_add_extra_data", 1, addLaunchExtra},
    {"SetLaunchApp", "applaunch_set_app_id", 1, setLaunchApp},
    {"SendLaunch", "applaunch_send_launch_request", 0, sendLaunch},
    {"DestroyLaunch", "applaunch_destroy", 0, destroyLaunch},
    {"GetProperty", "sysprop_get_value_string", 0, getProperty},
    {"RaiseFlag", "FlagpostEventDone", 0, raiseFlag},
    {"IsFlagRaised", "FlagpostIsDone", 0, isFlagRaised},
    {"ResetFlag", "FlagpostResetEvent", 0, resetFlag},
    {"RegisterWatchdog", "hangwatch_register_watchdog_service", 0, registerWatchdog},
    {"NotifyWatchdog", "hangwatch_watchdog_notify", kNoArgument, notifyWatchdog},
    {"UnregisterWatchdog", "hangwatch_unregister_watchdog_service", kNoArgument, unregisterWatchdog},
    {"DownloadPackage", "ABM_DownloadAppBinary", 1, downloadPackage},
};

const Method* findMethod(const std::string& name)
{
    for (const Method& method : kMethods) {
        if (name == method.name) {
            return &method;
        }
    }
    return nullptr;
}

std::string subjectOf(const Method& method, GVariant* parameters)
{
    if (method.subject == kNoArgument) {
        return "";
    }
    const common::GlibPointer<GVariant> value(
        g_variant_get_child_value(parameters, static_cast<gsize>(method.subject)));
    if (g_variant_is_of_type(value.get(), G_VARIANT_TYPE_STRING) != FALSE) {
        return g_variant_get_string(value.get(), nullptr);
    }
    const common::GlibPointer<char> text(g_variant_print(value.get(), FALSE));
    return text.get();
}

// The reply of a call that shall fail: the result, and empty values for the rest.
GVariant* failingReply(const Method& method, int number)
{
    if (std::strcmp(method.name, "GetInt") == 0) {
        return g_variant_new("(ii)", number, 0);
    }
    if (std::strcmp(method.name, "CreateLaunch") == 0) {
        return g_variant_new("(iu)", number, 0U);
    }
    if (std::strcmp(method.name, "GetProperty") == 0) {
        return g_variant_new("(is)", number, "");
    }
    return result(number);
}

// An answer that waits for its time.
struct LateAnswer {
    GDBusMethodInvocation* invocation;
    common::GlibPointer<GVariant> reply;

    static gboolean onTime(gpointer data)
    {
        const std::unique_ptr<LateAnswer> answer(static_cast<LateAnswer*>(data));
        g_dbus_method_invocation_return_value(answer->invocation, answer->reply.get());
        return G_SOURCE_REMOVE;
    }
};

} // namespace

Services::Services(GDBusConnection* bus, SetModel& set)
    : set_(set),
      object_(bus, const_cast<GDBusInterfaceInfo*>(&org_pellor_platform_services_interface),
              [this](const std::string& method, const std::string& sender, GVariant* parameters,
                     GDBusMethodInvocation* invocation) { handle(method, sender, parameters, invocation); })
{
    connectSignals();
}

std::vector<std::string> Services::callNames()
{
    std::vector<std::string> names;
    for (const Method& method : kMethods) {
        names.emplace_back(method.call);
    }
    return names;
}

void Services::handle(const std::string& name, const std::string& sender, GVariant* parameters,
                      GDBusMethodInvocation* invocation)
{
    const Method* const method = findMethod(name);
    if (method == nullptr) {
        g_dbus_method_invocation_return_error(invocation, G_DBUS_ERROR, G_DBUS_ERROR_UNKNOWN_METHOD,
                                              "%s is not served", name.c_str());
        return;
    }
    const Faults::Verdict verdict = set_.faults.take(method->call, subjectOf(*method, parameters));
    // A copy: the client may end while its call is being carried out.
    const Client client = set_.clients.find(sender);
    GVariant* const reply =
        verdict.result ? failingReply(*method, *verdict.result) : method->run(set_, client, parameters);
    if (verdict.delay == 0) {
        g_dbus_method_invocation_return_value(invocation, reply);
        return;
    }
    auto late = std::make_unique<LateAnswer>();
    late->invocation = invocation;
    late->reply.reset(g_variant_ref_sink(reply));
    g_timeout_add(verdict.delay, LateAnswer::onTime, late.release());
}

void Services::connectSignals()
{
    set_.settings.written.connect([this](const std::string& key, int value) {
        object_.emit("KeyChanged", g_variant_new("(si)", key.c_str(), value));
    });
    set_.power.stateChanged.connect([this](int previous, int current) {
        object_.emit("StateChanged", g_variant_new("(ii)", previous, current));
    });
    set_.power.poweringOff.connect(
        [this](int reason) { object_.emit("PowerOff", g_variant_new("(i)", reason)); });
    set_.launches.replied.connect([this](const Launch& launch) {
        object_.emit("LaunchReplied", g_variant_new("(ui)", launch.id, *launch.reply),
                     launch.owner.name.c_str());
    });
    set_.packages.done.connect([this](const PackageRequest& request) {
        object_.emit("PackageDone",
                     g_variant_new("(usi)", request.token, request.package.c_str(),
                                   request.state == "delivered" ? kSuccess : kFailure),
                     request.client.name.c_str());
    });
}

} // namespace vset
