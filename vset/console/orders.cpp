// What a person can order, on the page or by a command: one table for both.
#include <algorithm>
#include <array>

#include "common/glib-pointers.h"
#include "vset/console/console.h"

namespace vset
{

namespace
{

constexpr unsigned int kPersonsReboot = 0;
constexpr int kPersonsPowerOff = 0;

Client person()
{
    Client client;
    client.command = "console";
    return client;
}

bool isOn(const Json::Value& order)
{
    return order["on"] == true;
}

Json::Value toJson(GVariant* value)
{
    switch (g_variant_classify(value)) {
    case G_VARIANT_CLASS_BOOLEAN:
        return g_variant_get_boolean(value) != FALSE;
    case G_VARIANT_CLASS_UINT32:
        return g_variant_get_uint32(value);
    case G_VARIANT_CLASS_DOUBLE:
        return g_variant_get_double(value);
    case G_VARIANT_CLASS_STRING:
        return g_variant_get_string(value, nullptr);
    default:
        return Json::nullValue;
    }
}

} // namespace

struct Console::Order {
    const char* name;   // "do" of the page's message
    const char* method; // of console.xml; none where Control has one, or only the page needs it
    std::array<const char*, 2> arguments; // of the method, in their order: members of the page's message
    Fault (*carryOut)(Console& console, const Json::Value& order);
};

const std::array<Console::Order, Console::kOrderCount> Console::kOrders{{
    {"power",
     nullptr,
     {},
     [](Console& console, const Json::Value& order) -> Fault {
         if (!order["state"].isInt()) {
             return "a power state is a number";
         }
         return console.set_.power.setState(order["state"].asInt());
     }},
    {"poweroff",
     nullptr,
     {},
     [](Console& console, const Json::Value&) -> Fault {
         console.set_.power.requestPowerOff(kPersonsPowerOff, person());
         return std::nullopt;
     }},
    {"reboot",
     nullptr,
     {},
     [](Console& console, const Json::Value&) -> Fault {
         console.set_.power.requestReboot(kPersonsReboot, person());
         return std::nullopt;
     }},
    {"mirroring",
     "SetMirroring",
     {"on"},
     [](Console& console, const Json::Value& order) { return console.setMirroring(isOn(order)); }},
    {"factory",
     "SetFactory",
     {"on"},
     [](Console& console, const Json::Value& order) { return console.setFactory(isOn(order)); }},
    {"package-manager",
     "SetPackageManager",
     {"on"},
     [](Console& console, const Json::Value& order) { return console.setPackageManager(isOn(order)); }},
    {"ui",
     "SetUpgradeUI",
     {"behaviour", "after"},
     [](Console& console, const Json::Value& order) -> Fault {
         if (!order["behaviour"].isString() || !order["after"].isUInt()) {
             return "the upgrade UI's behaviour is a name and a time";
         }
         return console.setUpgradeUI(order["behaviour"].asString(), order["after"].asUInt());
     }},
    {"click",
     "Click",
     {"button"},
     [](Console& console, const Json::Value& order) -> Fault {
         return order["button"].isString() ? console.screen_.click(order["button"].asString())
                                           : Fault("a button has a name");
     }},
    {"clock-jump",
     "JumpClock",
     {"seconds"},
     [](Console& console, const Json::Value& order) -> Fault {
         return order["seconds"].isNumeric()
                    ? console.changeClock({std::nullopt, order["seconds"].asDouble()})
                    : Fault("a clock jumps by a number of seconds");
     }},
    {"clock-rate",
     "SetClockRate",
     {"rate"},
     [](Console& console, const Json::Value& order) -> Fault {
         return order["rate"].isNumeric() ? console.changeClock({order["rate"].asDouble(), std::nullopt})
                                          : Fault("a clock's rate is a number");
     }},
    {"usb-begin", nullptr, {}, [](Console& console, const Json::Value&) { return console.usb_.begin(); }},
    {"usb-insert", nullptr, {}, [](Console& console, const Json::Value&) { return console.usb_.insert(); }},
    {"usb-remove",
     "RemoveUsb",
     {},
     [](Console& console, const Json::Value&) { return console.usb_.remove(); }},
}};

const Console::Order* Console::findOrder(const std::function<bool(const Order&)>& isMeant)
{
    const auto* const found = std::find_if(kOrders.begin(), kOrders.end(), isMeant);
    return found == kOrders.end() ? nullptr : found;
}

Json::Value Console::orderOf(const std::string& method, GVariant* parameters)
{
    Json::Value message;
    const Order* const order =
        findOrder([&](const Order& known) { return known.method != nullptr && method == known.method; });
    if (order == nullptr) {
        return message; // which is no order
    }
    message["do"] = order->name;
    for (gsize index = 0; index < g_variant_n_children(parameters); ++index) {
        const common::GlibPointer<GVariant> value(g_variant_get_child_value(parameters, index));
        message[order->arguments.at(index)] = toJson(value.get());
    }
    return message;
}

Console::Fault Console::carryOut(const Json::Value& message)
{
    const std::string name = message["do"].isString() ? message["do"].asString() : "";
    const Order* const order = findOrder([&](const Order& known) { return name == known.name; });
    if (order == nullptr) {
        return "there is no order \"" + name + "\"";
    }
    Fault fault = order->carryOut(*this, message);
    for (const char* section : {"usb", "switches", "power"}) {
        mark(section);
    }
    return fault;
}

} // namespace vset
