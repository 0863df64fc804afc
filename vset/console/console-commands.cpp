#include "console/console-commands.h"

#include <cstdio>
#include <filesystem>
#include <sstream>
#include <string>
#include <system_error>

#include <json/json.h>
#include <sys/stat.h>
#include <unistd.h>

#include "control-client.h"

namespace
{

namespace fs = std::filesystem;
using vset::ControlClient;
using vset::ControlError;

CLI::App* addCommand(CLI::App& app, const char* name, const char* description, std::string& set)
{
    CLI::App* const command = app.add_subcommand(name, description);
    command->add_option("SET", set, "Directory of the set")->required();
    return command;
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
    Json::Value json;
    std::istringstream text(textOf(client, method));
    std::string errors;
    if (!Json::parseFromStream(Json::CharReaderBuilder(), text, &json, &errors))
        throw ControlError("the console of the set tells nonsense: " + errors);
    return json;
}

// ---- Console ----

void addConsole(CLI::App& app)
{
    static std::string set;
    CLI::App* const command =
        addCommand(app, "console", "Show the address of a running set's page for the browser", set);
    command->callback([] { std::printf("%s\n", textOf(ControlClient::ofSet(set), "GetUrl").c_str()); });
}

// ---- Switches ----

struct Switch {
    const char* command;
    const char* description;
    const char* method;
    const char* section; // of the console's snapshot
    const char* footer;
};
constexpr Switch kSwitches[] = {
    {"mirroring", "Show or turn screen mirroring", "SetMirroring", "mirroring",
     "While a screen is mirrored, going to standby starts no update."},
    {"factory", "Show or turn the factory production switch", "SetFactory", "factory",
     "The daemon looks at it when it starts: it counts from the next restart (`vset reboot SET`). It keeps "
     "its\n"
     "position over a reboot."},
    {"pkgmgr", "Show or turn whether the package manager is ready", "SetPackageManager", "package_manager",
     "The daemon waits up to 60 s for it before it offers an update. off: not ready at the next boots "
     "either."},
};

void addSwitch(CLI::App& app, const Switch& known, std::string& set, std::string& position)
{
    CLI::App* const command = addCommand(app, known.command, known.description, set);
    command->add_option("POSITION", position, "on or off")->check(CLI::IsMember({"on", "off"}));
    command->footer(known.footer);
    command->callback([&known, &set, &position] {
        const ControlClient client = ControlClient::ofSet(set);
        if (position.empty())
            std::printf("%s\n",
                        jsonOf(client, "Snapshot")["switches"][known.section].asBool() ? "on" : "off");
        else
            client.callConsole(known.method, g_variant_new("(b)", position == "on" ? TRUE : FALSE));
    });
}

void addSwitches(CLI::App& app)
{
    static std::string sets[std::size(kSwitches)];
    static std::string positions[std::size(kSwitches)];
    for (size_t index = 0; index < std::size(kSwitches); ++index)
        addSwitch(app, kSwitches[index], sets[index], positions[index]);
}

// ---- USB slot ----

// Copies a directory beside the slot and puts it in: whole or not at all. Works on a set that is switched
// off, too.
void insertStick(const std::string& set, const fs::path& source)
{
    const fs::path media = fs::path(set) / "root/opt/media";
    struct stat owner {
    };
    if (stat(media.c_str(), &owner) != 0)
        throw ControlError("there is no set in " + set + ": make one with `vset new " + set + "`");
    const fs::path unfinished = media / (".stick-" + std::to_string(getpid()));
    try {
        fs::copy(source, unfinished, fs::copy_options::recursive | fs::copy_options::copy_symlinks);
        // The page must be able to remove what a command has inserted.
        if (geteuid() == 0) {
            (void)lchown(unfinished.c_str(), owner.st_uid, owner.st_gid);
            for (const fs::directory_entry& entry : fs::recursive_directory_iterator(unfinished))
                (void)lchown(entry.path().c_str(), owner.st_uid, owner.st_gid);
        }
        fs::remove_all(media / "USBDriveA");
        fs::rename(unfinished, media / "USBDriveA");
    } catch (const fs::filesystem_error& error) {
        std::error_code ignored;
        fs::remove_all(unfinished, ignored);
        throw ControlError(std::string("the stick cannot be inserted: ") + error.what());
    }
}

void removeStick(const std::string& set)
{
    const fs::path stick = fs::path(set) / "root/opt/media/USBDriveA";
    std::error_code error;
    if (fs::remove_all(stick, error) == 0 && !error)
        throw ControlError("there is no stick in the slot of " + set);
    if (error)
        throw ControlError("the stick cannot be removed: " + error.message());
}

void addUsb(CLI::App& app)
{
    static std::string set;
    static std::string directory;
    CLI::App* const command =
        addCommand(app, "usb", "Insert a directory of the PC as a USB stick, or remove it", set);
    command->require_subcommand(1);
    CLI::App* const insert =
        command->add_subcommand("insert", "Put the files of DIR into the slot, as a copy");
    insert->add_option("DIR", directory, "Directory of the PC")->required()->check(CLI::ExistingDirectory);
    insert->callback([] { insertStick(set, directory); });
    command->add_subcommand("remove", "Pull the stick out")->callback([] { removeStick(set); });
    command->footer(
        "Examples:\n"
        "  vset usb /tmp/tv insert ~/stick     its files appear in /opt/media/USBDriveA of the set\n"
        "  vset usb /tmp/tv remove");
}

// ---- Upgrade UI ----

void addBehaviour(CLI::App* command, const char* name, const char* description, std::string& set,
                  unsigned int& after)
{
    CLI::App* const behaviour = command->add_subcommand(name, description);
    behaviour->add_option("--after", after, "Milliseconds until the click")
        ->check(CLI::Range(0U, 3600000U))
        ->capture_default_str();
    behaviour->callback([name, &set, &after] {
        ControlClient::ofSet(set).callConsole("SetUpgradeUI", g_variant_new("(su)", name, after));
    });
}

void printScreen(const std::string& set)
{
    const Json::Value json = jsonOf(ControlClient::ofSet(set), "Snapshot");
    const Json::Value& screen = json["screen"];
    if (!screen["shown"].asBool()) {
        std::printf("no application is on the screen; the next upgrade UI: %s\n",
                    json["switches"]["ui"].asCString());
        return;
    }
    std::printf("%s\n%s\n", screen["title"].asCString(), screen["text"].asCString());
    for (const Json::Value& button : screen["buttons"])
        std::printf("[%s] %s\n", button["id"].asCString(), button["label"].asCString());
}

void addUi(CLI::App& app)
{
    static std::string set;
    static std::string button;
    static unsigned int after = 0;
    CLI::App* const command =
        addCommand(app, "ui", "Show the upgrade UI, click in it, or say what the next one does", set);
    command->require_subcommand(0, 1);
    addBehaviour(command, "accept", "The next ones accept the update, and close when it is done", set, after);
    addBehaviour(command, "decline", "The next ones decline", set, after);
    addBehaviour(command, "close", "The next ones are closed without an answer", set, after);
    addBehaviour(command, "ignore", "The next ones answer nothing", set, after);
    addBehaviour(command, "interactive", "The next ones wait for a person", set, after);
    CLI::App* const click = command->add_subcommand("click", "Click a button of the screen now");
    click->add_option("BUTTON", button, "accept, decline or close")->required();
    click->callback(
        [] { ControlClient::ofSet(set).callConsole("Click", g_variant_new("(s)", button.c_str())); });
    command->final_callback([command] {
        if (command->get_subcommands().empty())
            printScreen(set);
    });
    command->footer("Examples:\n"
                    "  vset ui /tmp/tv                         what is on the screen\n"
                    "  vset ui /tmp/tv accept --after 2000     the next offer is accepted after two seconds\n"
                    "  vset ui /tmp/tv click decline           now");
}

// ---- Modules ----

std::string shown(const Json::Value& value)
{
    return value.isString() ? value.asString() : value.isNull() ? "-" : value.asString();
}

void addModules(CLI::App& app)
{
    static std::string set;
    static bool isJson = false;
    CLI::App* const command =
        addCommand(app, "modules", "Ask the modules of a running set for their versions and progress", set);
    command->add_flag("--json", isJson, "As JSON");
    command->footer(
        "Each control library is asked in a process of its own. The progress is the library's own figure:\n"
        "the published key stands still while a module is written.");
    command->callback([] {
        const Json::Value modules = jsonOf(ControlClient::ofSet(set), "GetModules");
        if (isJson) {
            std::printf("%s\n", modules.toStyledString().c_str());
            return;
        }
        if (modules.empty())
            std::printf("no control library is installed in the set\n");
        for (const Json::Value& module : modules) {
            std::printf("%-16s installed %-10s progress %3s%s%s\n", module["name"].asCString(),
                        shown(module["installed"]).c_str(), shown(module["progress"]).c_str(),
                        module["pending"].asBool() ? "  pending" : "",
                        module["error"].isString() ? ("  " + module["error"].asString()).c_str() : "");
            for (const Json::Value& offer : module["offers"])
                std::printf("%-16s offered   %-10s in the %s, ui_use %s\n", "",
                            shown(offer["version"]).c_str(), offer["source"].asCString(),
                            shown(offer["ui_use"]).c_str());
        }
    });
}

} // namespace

void addConsoleCommands(CLI::App& app)
{
    addConsole(app);
    addModules(app);
    addUi(app);
    addUsb(app);
    addSwitches(app);
}
