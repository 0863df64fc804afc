// vset console, modules, ui, usb, mirroring, factory, pkgmgr: what a person does at the television.
#include <cstdio>
#include <memory>

#include "common/json-text.h"
#include "common/terminal/visible-text.h"
#include "vset/client/control-client.h"
#include "vset/commands/commands.h"
#include "vset/television/set-contents.h"

namespace vset
{

namespace
{

using common::visible;

std::string shown(const Json::Value& value)
{
    return value.isConvertibleTo(Json::stringValue) && !value.isNull() ? visible(value.asString()) : "-";
}

std::string textOf(const ControlClient& client, const char* method)
{
    const auto reply = client.callConsole(method, nullptr, "(s)");
    const char* text = nullptr;
    g_variant_get(reply.get(), "(&s)", &text);
    return text;
}

Json::Value jsonOf(const ControlClient& client, const char* method)
{
    std::string why;
    std::optional<Json::Value> json = common::parseJson(textOf(client, method), &why);
    if (!json) {
        throw ControlError("the console of the set tells nonsense: " + why);
    }
    return *std::move(json);
}

} // namespace

void defineConsole(common::CommandLine& command)
{
    const auto set = std::make_shared<std::string>();
    takeSet(command, *set);
    command.onRun([set] { std::printf("%s\n", textOf(ControlClient::ofSet(*set), "GetUrl").c_str()); });
}

// ---- Switches ----

namespace
{

void defineSwitch(common::CommandLine& command, const char* method, const char* section)
{
    struct Options {
        std::string set;
        std::string position;
    };
    const auto options = std::make_shared<Options>();
    takeSet(command, options->set);
    command.text("POSITION", options->position, "on or off").oneOf({"on", "off"});
    command.onRun([options, method, section] {
        const ControlClient client = ControlClient::ofSet(options->set);
        if (options->position.empty()) {
            const bool isOn = jsonOf(client, "Snapshot")["switches"][section].asBool();
            std::printf("%s\n", isOn ? "on" : "off");
        } else {
            client.callConsole(method, g_variant_new("(b)", options->position == "on" ? TRUE : FALSE));
        }
    });
}

} // namespace

void defineMirroring(common::CommandLine& command)
{
    defineSwitch(command, "SetMirroring", "mirroring");
    command.footer("While a screen is mirrored, going to standby starts no update.");
}

void defineFactory(common::CommandLine& command)
{
    defineSwitch(command, "SetFactory", "factory");
    command.footer(
        "The daemon looks at it when it starts: it counts from the next restart (`vset reboot SET`). "
        "It keeps its\nposition over a reboot.");
}

void definePackageManager(common::CommandLine& command)
{
    defineSwitch(command, "SetPackageManager", "package_manager");
    command.footer(
        "The daemon waits up to 60 s for it before it offers an update. off: not ready at the next "
        "boots either.");
}

// ---- USB slot ----

namespace
{

void printSlot(const std::string& set)
{
    const Json::Value slot = jsonOf(ControlClient::ofSet(set), "Snapshot")["usb"];
    if (!slot["inserted"].asBool()) {
        std::puts("no stick is in the USB slot");
        return;
    }
    for (const Json::Value& file : slot["files"]) {
        std::printf("%12s  %s\n", shown(file["size"]).c_str(), shown(file["name"]).c_str());
    }
    if (slot["files"].empty()) {
        std::puts("the stick in the USB slot is empty");
    } else if (slot["more"].asInt() > 0) {
        std::printf("and %d more\n", slot["more"].asInt());
    }
}

} // namespace

void defineUsb(common::CommandLine& command)
{
    struct Options {
        std::string set;
        std::string directory;
    };
    const auto options = std::make_shared<Options>();
    takeSet(command, options->set);
    common::CommandLine& insert = command.command("insert", "Put the files of DIR into the slot, as a copy");
    insert.text("DIR", options->directory, "Directory of the PC").required();
    insert.onRun([options] { SetContents(options->set).putStick(options->directory); });
    command.command("remove", "Pull the stick out").onRun([options] {
        SetContents(options->set).removeStick();
    });
    command.onRun([options] { printSlot(options->set); });
    command.footer(
        "Examples:\n"
        "  vset usb /tmp/tv                    the files of the stick in the slot\n"
        "  vset usb /tmp/tv insert ~/stick     its files appear in /opt/media/USBDriveA of the set\n"
        "  vset usb /tmp/tv remove");
}

// ---- Upgrade UI ----

namespace
{

struct UiOptions {
    std::string set;
    std::string button;
    unsigned int after = 0;
};

struct Behaviour {
    const char* name;
    const char* summary;
};

constexpr Behaviour kBehaviours[] = {
    {"accept", "The next ones accept the update, and close when it is done"},
    {"decline", "The next ones decline"},
    {"close", "The next ones are closed without an answer"},
    {"ignore", "The next ones answer nothing"},
    {"interactive", "The next ones wait for a person"},
};

void printScreen(const std::string& set)
{
    const Json::Value json = jsonOf(ControlClient::ofSet(set), "Snapshot");
    const Json::Value& screen = json["screen"];
    if (!screen["shown"].asBool()) {
        std::printf("no application is on the screen; the next upgrade UI: %s\n",
                    json["switches"]["ui"].asCString());
        return;
    }
    // What an application shows is its own, and may be of any kind.
    std::printf("%s\n%s\n", shown(screen["title"]).c_str(), shown(screen["text"]).c_str());
    for (const Json::Value& button : screen["buttons"]) {
        if (button.isObject()) {
            std::printf("[%s] %s\n", shown(button["id"]).c_str(), shown(button["label"]).c_str());
        }
    }
}

} // namespace

void defineUi(common::CommandLine& command)
{
    constexpr common::Range<unsigned int> kUntilClick{0, 3'600'000};
    const auto options = std::make_shared<UiOptions>();
    takeSet(command, options->set);
    for (const Behaviour& behaviour : kBehaviours) {
        common::CommandLine& choice = command.command(behaviour.name, behaviour.summary);
        choice.number("--after", options->after, kUntilClick, "Milliseconds until the click");
        choice.onRun([options, name = behaviour.name] {
            ControlClient::ofSet(options->set)
                .callConsole("SetUpgradeUI", g_variant_new("(su)", name, options->after));
        });
    }
    common::CommandLine& click = command.command("click", "Click a button of the screen now");
    click.text("BUTTON", options->button, "accept, decline or close").required();
    click.onRun([options] {
        ControlClient::ofSet(options->set)
            .callConsole("Click", g_variant_new("(s)", busText(options->button)));
    });
    command.onRun([options] { printScreen(options->set); });
    command.footer("Examples:\n"
                   "  vset ui /tmp/tv                         what is on the screen\n"
                   "  vset ui /tmp/tv accept --after 2000     the next offer is accepted after two seconds\n"
                   "  vset ui /tmp/tv click decline           now");
}

// ---- Modules ----

namespace
{

void printModule(const Json::Value& module)
{
    std::printf("%-16s installed %-10s progress %3s%s%s\n", shown(module["name"]).c_str(),
                shown(module["installed"]).c_str(), shown(module["progress"]).c_str(),
                module["pending"].asBool() ? "  pending" : "",
                module["error"].isString() ? ("  " + shown(module["error"])).c_str() : "");
    for (const Json::Value& offer : module["offers"]) {
        std::printf("%-16s offered   %-10s in the %s, ui_use %s\n", "", shown(offer["version"]).c_str(),
                    shown(offer["source"]).c_str(), shown(offer["ui_use"]).c_str());
    }
}

} // namespace

void defineModules(common::CommandLine& command)
{
    struct Options {
        std::string set;
        bool isJson = false;
    };
    const auto options = std::make_shared<Options>();
    takeSet(command, options->set);
    command.flag("--json", options->isJson, "As JSON");
    command.footer(
        "Each control library is asked in a process of its own. The progress is the library's own figure:\n"
        "the published key stands still while a module is written.");
    command.onRun([options] {
        const Json::Value modules = jsonOf(ControlClient::ofSet(options->set), "GetModules");
        if (options->isJson) {
            std::printf("%s\n", common::indentedJson(modules).c_str());
            return;
        }
        if (modules.empty()) {
            std::printf("no control library is installed in the set\n");
        }
        for (const Json::Value& module : modules) {
            printModule(module);
        }
    });
}

} // namespace vset
