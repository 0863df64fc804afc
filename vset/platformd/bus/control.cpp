#include "vset/platformd/bus/control.h"

#include <algorithm>
#include <numeric>
#include <optional>
#include <utility>

#include "common/json-text.h"
#include "common/terminal/visible-text.h"
#include "platform-interfaces.h"
#include "vset/platformd/bus/services.h"

namespace vset
{

namespace
{

constexpr const char* kInvalid = "org.pellor.platform.Error.Invalid";

using Fault = std::optional<std::string>; // what is wrong with an order

// So many letters have to be put in, left out or changed to get from one word to the other.
size_t distance(const std::string& from, const std::string& to)
{
    std::vector<size_t> row(to.size() + 1);
    std::iota(row.begin(), row.end(), size_t{0});
    for (size_t i = 0; i < from.size(); ++i) {
        size_t diagonal = std::exchange(row[0], i + 1);
        for (size_t j = 0; j < to.size(); ++j) {
            const size_t changed = diagonal + (from[i] == to[j] ? 0 : 1);
            diagonal = row[j + 1];
            row[j + 1] = std::min({row[j + 1] + 1, row[j] + 1, changed});
        }
    }
    return row.back();
}

Fault checkCall(const std::string& call)
{
    const std::vector<std::string> names = Services::callNames();
    if (std::find(names.begin(), names.end(), call) != names.end()) {
        return std::nullopt;
    }
    const auto isNearer = [&call](const std::string& one, const std::string& other) {
        return distance(call, one) < distance(call, other);
    };
    // The whole set waits for this comparison, which takes its time with a text that is far too long.
    constexpr size_t kLongestCompared = 64;
    const bool isCompared = call.size() <= kLongestCompared;
    const std::string nearest =
        isCompared ? *std::min_element(names.begin(), names.end(), isNearer) : names.front();
    const bool isMeant = isCompared && distance(call, nearest) <= nearest.size() / 3;
    return "there is no platform call " + common::inQuotes(call) +
           (isMeant ? ": " + nearest + "?"
                    : ": they are named as in their headers, such as " + names.front()) +
           " (docs/vset-commands.md lists them)";
}

// ---- Orders ----

Fault setSetting(SetModel& set, const Client& client, GVariant* parameters)
{
    const char* key = nullptr;
    int value = 0;
    g_variant_get(parameters, "(&si)", &key, &value);
    return set.settings.set(key, value, client.command);
}

Fault removeSetting(SetModel& set, const Client&, GVariant* parameters)
{
    const char* key = nullptr;
    g_variant_get(parameters, "(&s)", &key);
    return set.settings.remove(key);
}

Fault setPowerState(SetModel& set, const Client&, GVariant* parameters)
{
    int state = 0;
    g_variant_get(parameters, "(i)", &state);
    return set.power.setState(state);
}

Fault powerOff(SetModel& set, const Client& client, GVariant* parameters)
{
    int reason = 0;
    g_variant_get(parameters, "(i)", &reason);
    set.power.requestPowerOff(reason, client);
    return std::nullopt;
}

Fault reboot(SetModel& set, const Client& client, GVariant* parameters)
{
    guint32 reason = 0;
    g_variant_get(parameters, "(u)", &reason);
    set.power.requestReboot(reason, client);
    return std::nullopt;
}

Fault setProperty(SetModel& set, const Client&, GVariant* parameters)
{
    int key = 0;
    const char* value = nullptr;
    g_variant_get(parameters, "(i&s)", &key, &value);
    return set.properties.set(key, value);
}

Fault setPackageDelay(SetModel& set, const Client&, GVariant* parameters)
{
    guint32 delay = 0;
    g_variant_get(parameters, "(u)", &delay);
    return set.packages.setDelay(delay);
}

Fault setPackageManagerDelay(SetModel& set, const Client&, GVariant* parameters)
{
    int delay = 0;
    g_variant_get(parameters, "(i)", &delay);
    return set.packages.setManagerDelay(delay);
}

Fault replyLaunch(SetModel& set, const Client&, GVariant* parameters)
{
    guint32 request = 0;
    int result = 0;
    g_variant_get(parameters, "(ui)", &request, &result);
    return set.launches.reply(request, result);
}

// A call, what it is about, the result or the delay that it gets, and how often.
template <typename Value>
Fault orderOnCall(Faults& faults, GVariant* parameters, const char* format,
                  void (Faults::*order)(const std::string&, const std::string&, Value, int))
{
    const char* call = nullptr;
    const char* argument = nullptr;
    Value value{};
    int count = 0;
    g_variant_get(parameters, format, &call, &argument, &value, &count);
    if (auto fault = checkCall(call)) {
        return fault;
    }
    (faults.*order)(call, argument, value, count);
    return std::nullopt;
}

Fault setFault(SetModel& set, const Client&, GVariant* parameters)
{
    return orderOnCall(set.faults, parameters, "(&s&sii)", &Faults::setResult);
}

Fault setDelay(SetModel& set, const Client&, GVariant* parameters)
{
    return orderOnCall(set.faults, parameters, "(&s&sui)", &Faults::setDelay);
}

Fault resetFaults(SetModel& set, const Client&, GVariant* parameters)
{
    const char* call = nullptr;
    g_variant_get(parameters, "(&s)", &call);
    if (call[0] != '\0') {
        if (auto fault = checkCall(call)) {
            return fault;
        }
    }
    set.faults.reset(call);
    return std::nullopt;
}

struct Order {
    const char* name;
    Fault (*carryOut)(SetModel& set, const Client& client, GVariant* parameters);
};

constexpr Order kOrders[] = {
    {"SetSetting", setSetting},
    {"RemoveSetting", removeSetting},
    {"SetPowerState", setPowerState},
    {"PowerOff", powerOff},
    {"Reboot", reboot},
    {"SetProperty", setProperty},
    {"SetPackageDelay", setPackageDelay},
    {"SetPackageManagerDelay", setPackageManagerDelay},
    {"ReplyLaunch", replyLaunch},
    {"SetFault", setFault},
    {"SetDelay", setDelay},
    {"ResetFaults", resetFaults},
};

void answerSnapshot(const SetModel& set, GDBusMethodInvocation* invocation)
{
    const std::string json = common::compactJson(set.snapshot());
    g_dbus_method_invocation_return_value(invocation, g_variant_new("(s)", json.c_str()));
}

} // namespace

Control::Control(GDBusConnection* bus, SetModel& set)
    : set_(set),
      object_(bus, const_cast<GDBusInterfaceInfo*>(&org_pellor_platform_control_interface),
              [this](const std::string& method, const std::string& sender, GVariant* parameters,
                     GDBusMethodInvocation* invocation) { handle(method, sender, parameters, invocation); })
{
    set_.changed.connect([this](const std::vector<std::string>& sections) {
        GVariantBuilder names;
        g_variant_builder_init(&names, G_VARIANT_TYPE("as"));
        for (const std::string& section : sections) {
            g_variant_builder_add(&names, "s", section.c_str());
        }
        object_.emit("Changed", g_variant_new("(as)", &names));
    });
}

void Control::handle(const std::string& method, const std::string& sender, GVariant* parameters,
                     GDBusMethodInvocation* invocation)
{
    if (method == "Snapshot") {
        answerSnapshot(set_, invocation);
        return;
    }
    for (const Order& order : kOrders) {
        if (method != order.name) {
            continue;
        }
        const Client client = set_.clients.find(sender);
        if (const Fault fault = order.carryOut(set_, client, parameters)) {
            g_dbus_method_invocation_return_dbus_error(invocation, kInvalid, fault->c_str());
        } else {
            g_dbus_method_invocation_return_value(invocation, nullptr);
        }
        return;
    }
    g_dbus_method_invocation_return_error(invocation, G_DBUS_ERROR, G_DBUS_ERROR_UNKNOWN_METHOD,
                                          "%s is not served", method.c_str());
}

} // namespace vset
