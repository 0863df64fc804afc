// vset get, set, power, poweroff, reboot, fault, property, packages, reply: what a set's platform knows and
// does.
#include <cstdio>
#include <limits>
#include <memory>
#include <optional>

#include "common/terminal/visible-text.h"
#include "vset/client/control-client.h"
#include "vset/commands/commands.h"
#include "vset/commands/show.h"
#include "vset/launcher/crash-order.h"

namespace vset
{

namespace
{

template <typename Number>
constexpr common::Range<Number> kAny{std::numeric_limits<Number>::min(), std::numeric_limits<Number>::max()};

constexpr unsigned int kLongestDelay = 24 * 60 * 60 * 1000; // milliseconds

} // namespace

// ---- Settings ----

void defineGet(common::CommandLine& command)
{
    struct Options {
        std::string set;
        std::string key;
    };
    const auto options = std::make_shared<Options>();
    takeSet(command, options->set);
    command.text("KEY", options->key, "Settings key; `vset show SET settings` lists them").required();
    command.footer("Example: vset get /tmp/tv memory/ep_firmware_update_app/fw_update_status");
    command.onRun([options] {
        const Json::Value settings = ControlClient::ofSet(options->set).snapshot()["settings"];
        if (!settings.isMember(options->key)) {
            throw ControlError("there is no settings key \"" + common::visible(options->key) +
                               "\": `vset show " + common::inShell(options->set) + " settings` lists them");
        }
        std::printf("%d\n", settings[options->key]["value"].asInt());
    });
}

void defineSet(common::CommandLine& command)
{
    struct Options {
        std::string set;
        std::string key;
        std::optional<int> value;
        bool isRemoved = false;
    };
    const auto options = std::make_shared<Options>();
    takeSet(command, options->set);
    command.text("KEY", options->key, "Settings key").required();
    const common::Option value =
        command.number("VALUE", options->value, kAny<int>, "A whole number of 32 bits");
    command.flag("--remove", options->isRemoved, "Remove the key instead").excludes(value);
    command.footer("Keys that start with memory/ are forgotten at a reboot of the set.\n"
                   "Example: vset set /tmp/tv memory/menu/network/screenmirroring/smsrc_status 1");
    command.onRun([options] {
        if (!options->isRemoved && !options->value) {
            throw common::WrongUse("set: VALUE is required (or --remove)");
        }
        const ControlClient client = ControlClient::ofSet(options->set);
        if (options->isRemoved) {
            client.removeSetting(options->key);
        } else {
            client.setSetting(options->key, *options->value);
        }
    });
}

// ---- Power ----

int powerState(const std::string& text)
{
    if (text == "on" || text == "normal") {
        return 0;
    }
    if (text == "standby") {
        return 2;
    }
    try {
        return common::numberFrom(text, common::Range<int>{0, 255});
    } catch (const common::WrongUse& error) {
        throw common::WrongUse(std::string("STATE: ") + error.what() + ", on, or standby");
    }
}

void definePower(common::CommandLine& command)
{
    struct Options {
        std::string set;
        std::string state;
    };
    const auto options = std::make_shared<Options>();
    takeSet(command, options->set);
    const common::Option state =
        command.text("STATE", options->state, "on (0), standby (2), or another state's number");
    command.footer("Example: vset power /tmp/tv standby");
    command.onRun([options, state] {
        const std::optional<int> wanted =
            state.isGiven() ? std::optional<int>(powerState(options->state)) : std::nullopt;
        const ControlClient client = ControlClient::ofSet(options->set);
        if (wanted) {
            client.setPowerState(*wanted);
        } else {
            showPower(client.snapshot()["power"]);
        }
    });
}

void definePowerOff(common::CommandLine& command)
{
    struct Options {
        std::string set;
        int reason = 0;
    };
    const auto options = std::make_shared<Options>();
    takeSet(command, options->set);
    command.number("--reason", options->reason, kAny<int>, "Number that the power-off event carries");
    command.footer(
        "The set's programs hear of it; it goes off a second later, or when no power lock is held.");
    command.onRun([options] { ControlClient::ofSet(options->set).powerOff(options->reason); });
}

void defineReboot(common::CommandLine& command)
{
    struct Options {
        std::string set;
        unsigned int reason = 0;
    };
    const auto options = std::make_shared<Options>();
    takeSet(command, options->set);
    command.number("--reason", options->reason, kAny<unsigned int>, "Number to be recorded with it");
    command.footer("It reboots a second later, or when no power lock is held.");
    command.onRun([options] { ControlClient::ofSet(options->set).reboot(options->reason); });
}

// ---- Faults ----

namespace
{

struct FaultOptions {
    std::string set;
    std::string call;
    std::string service; // after the word kService instead of a call
    std::string what;
    std::string argument;
    std::optional<int> result;
    std::optional<int> count;
    std::optional<unsigned int> delay;
    bool isReset = false;
};

constexpr const char* kService = "service";

void crashService(const FaultOptions& options)
{
    if (options.what != "crash") {
        throw common::WrongUse("fault: service NAME crash: that is all that a service can do");
    }
    if (options.result || options.count || !options.argument.empty() || options.isReset) {
        throw common::WrongUse("fault: service: only --delay goes with it");
    }
    CrashOrder order;
    order.service = options.service;
    if (options.delay) {
        order.downtime = std::chrono::milliseconds(*options.delay);
    }
    orderCrash(options.set, order);
}

void runFault(const FaultOptions& options)
{
    if (options.call == kService) {
        crashService(options);
        return;
    }
    if (!options.service.empty()) {
        throw common::WrongUse("fault: " + common::visible(options.service) +
                               ": a call stands alone; `service NAME crash` is for services");
    }
    const bool isDelay = options.delay.has_value();
    const bool isResult = options.result.has_value();
    const bool isOrder = isDelay || isResult || options.count || !options.argument.empty();
    if (options.call.empty() && isOrder) {
        throw common::WrongUse("fault: CALL: which call shall fail or be late?");
    }
    const ControlClient client = ControlClient::ofSet(options.set);
    if (options.isReset) {
        client.resetFaults(options.call);
        return;
    }
    if (options.call.empty()) {
        showFaults(client.snapshot()["faults"]);
        return;
    }
    const int count = options.count.value_or(-1);
    if (isDelay) {
        client.setDelay(options.call, *options.delay, count, options.argument);
    }
    if (isResult || !isDelay) {
        client.setFault(options.call, options.result.value_or(-1), count, options.argument);
    }
}

} // namespace

void defineFault(common::CommandLine& command)
{
    const auto options = std::make_shared<FaultOptions>();
    takeSet(command, options->set);
    command.text("CALL", options->call,
                 "The call as its header names it; none: show what is ordered. Or: service NAME crash");
    command.text("NAME", options->service, "After \"service\": platformd or psmountd");
    command.text("WHAT", options->what, "\"crash\": the service is killed, and started again after --delay");
    const common::Option result =
        command.number("--result", options->result, kAny<int>, "What it gives instead of doing anything")
            .usually("-1");
    const common::Option delay =
        command
            .number("--delay", options->delay, common::Range<unsigned int>{0, kLongestDelay},
                    "Answer so many milliseconds late; of a service: be away so long (1000)")
            .called("MS");
    const common::Option count =
        command.number("--count", options->count, common::Range<int>{1, kAny<int>.highest}, "How many times")
            .usually("until reset");
    const common::Option argument =
        command.text("--for", options->argument, "Only for this key, flag, application, package or number");
    common::Option reset =
        command.flag("--reset", options->isReset, "End the orders for CALL, or all of them");
    for (const common::Option& other : {result, delay, count, argument}) {
        reset.excludes(other);
    }
    command.footer("Examples:\n"
                   "  vset fault /tmp/tv applaunch_send_launch_request --count 9\n"
                   "  vset fault /tmp/tv pralis_get_int --for memory/enterprise/swupgrade/working_status\n"
                   "  vset fault /tmp/tv PS_Mount --count 1\n"
                   "  vset fault /tmp/tv service platformd crash --delay 5000\n"
                   "  vset fault /tmp/tv --reset");
    command.onRun([options] { runFault(*options); });
}

// ---- System information, packages, launches ----

void defineProperty(common::CommandLine& command)
{
    struct Options {
        std::string set;
        std::optional<int> key;
        std::string value;
    };
    const auto options = std::make_shared<Options>();
    takeSet(command, options->set);
    command.number("KEY", options->key, kAny<int>, "Its number; 128 is the software version. None: show all");
    const common::Option value = command.text("VALUE", options->value, "New text").mayBeEmpty();
    command.footer("Example: vset property /tmp/tv 128 VSET-2026-1.1");
    command.onRun([options, value] {
        const ControlClient client = ControlClient::ofSet(options->set);
        if (value.isGiven()) {
            client.setProperty(*options->key, options->value);
            return;
        }
        const Json::Value properties = client.snapshot()["properties"];
        if (!options->key) {
            showProperties(properties);
            return;
        }
        const std::string number = std::to_string(*options->key);
        if (!properties.isMember(number)) {
            throw ControlError("there is no system information " + number +
                               ": `vset property SET` lists what there is");
        }
        std::printf("%s\n", common::visible(properties[number].asString()).c_str());
    });
}

void definePackages(common::CommandLine& command)
{
    struct Options {
        std::string set;
        std::optional<unsigned int> delay;
        std::optional<int> managerDelay;
    };
    const auto options = std::make_shared<Options>();
    takeSet(command, options->set);
    command
        .number("--delay", options->delay, common::Range<unsigned int>{0, kLongestDelay},
                "From a request to the delivery")
        .called("MS");
    command
        .number("--manager-delay", options->managerDelay,
                common::Range<int>{-1, static_cast<int>(kLongestDelay)},
                "From the boot to \"ready\"; -1: never")
        .called("MS");
    command.footer("Both times are kept over reboots.\n"
                   "A package NAME is the file root/srv/feed/NAME.img in the set's directory.");
    command.onRun([options] {
        const ControlClient client = ControlClient::ofSet(options->set);
        if (options->delay) {
            client.setPackageDelay(*options->delay);
        }
        if (options->managerDelay) {
            client.setPackageManagerDelay(*options->managerDelay);
        }
        if (!options->delay && !options->managerDelay) {
            showPackages(client.snapshot()["packages"]);
        }
    });
}

void defineReply(common::CommandLine& command)
{
    struct Options {
        std::string set;
        unsigned int launch = 0;
        int result = 0;
    };
    const auto options = std::make_shared<Options>();
    takeSet(command, options->set);
    command
        .number("LAUNCH", options->launch, kAny<unsigned int>,
                "Its number; `vset show SET launches` lists them")
        .required();
    command.number("RESULT", options->result, kAny<int>, "The application's answer").required();
    command.onRun(
        [options] { ControlClient::ofSet(options->set).replyLaunch(options->launch, options->result); });
}

} // namespace vset
