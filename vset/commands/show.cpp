#include "vset/commands/show.h"

#include <cstdio>
#include <ctime>
#include <memory>
#include <string>
#include <vector>

#include "common/json-text.h"
#include "common/terminal/table.h"
#include "common/terminal/visible-text.h"
#include "vset/client/control-client.h"
#include "vset/commands/commands.h"

namespace vset
{

namespace
{

using common::Table;

// ---- Cells ----

// Milliseconds since 1970 as UTC of the set.
std::string timeText(const Json::Value& milliseconds)
{
    if (!milliseconds.isInt64() || milliseconds.asInt64() == 0) {
        return "-";
    }
    const time_t seconds = static_cast<time_t>(milliseconds.asInt64() / 1000);
    tm parts{};
    gmtime_r(&seconds, &parts);
    char date[64];
    strftime(date, sizeof date, "%Y-%m-%d %H:%M:%S", &parts);
    char fraction[8];
    snprintf(fraction, sizeof fraction, ".%03d", static_cast<int>(milliseconds.asInt64() % 1000));
    return std::string(date) + fraction;
}

std::string secondsText(const Json::Value& milliseconds)
{
    char text[32];
    snprintf(text, sizeof text, "%.1f s", static_cast<double>(milliseconds.asInt64()) / 1000);
    return text;
}

std::string clientText(const Json::Value& client)
{
    std::string command = client["command"].asString();
    if (client["pid"].asInt() == 0) {
        return command;
    }
    return (command.empty() ? client["name"].asString() : command) + "[" + client["pid"].asString() + "]";
}

// ---- What `vset show` shows ----

} // namespace

void showPower(const Json::Value& power)
{
    const std::string name = power["name"].asString();
    printf("  state %s%s since %s UTC of the set\n", power["state"].asString().c_str(),
           name.empty() ? "" : (" (" + name + ")").c_str(), timeText(power["since_ms"]).c_str());
    if (!power["pending_end"].asString().empty()) {
        printf("  a %s waits for its time and for all locks\n", power["pending_end"].asCString());
    }
}

namespace
{

void showLocks(const Json::Value& locks)
{
    Table table({"KIND", "OWNER", "FROM", "FOR", "UNTIL", "END"});
    for (const Json::Value& lock : locks["history"]) {
        table.add({lock["kind"].asString(), clientText(lock["owner"]), timeText(lock["start_ms"]),
                   secondsText(lock["duration_ms"]), timeText(lock["end_ms"]), lock["end"].asString()});
    }
    for (const Json::Value& lock : locks["held"]) {
        table.add({lock["kind"].asString(), clientText(lock["owner"]), timeText(lock["start_ms"]),
                   secondsText(lock["duration_ms"]), "", "HELD, " + secondsText(lock["left_ms"]) + " left"});
    }
    table.print("no power lock was taken since the boot");
}

void showFlags(const Json::Value& flags)
{
    Table table({"FLAG", "STEP", "TIME", "CLIENT", "NOW"});
    for (const Json::Value& step : flags["history"]) {
        table.add({step["flag"].asString(), step["step"].asString(), timeText(step["time_ms"]),
                   clientText(step["client"]),
                   flags["raised"].isMember(step["flag"].asString()) ? "raised" : "down"});
    }
    table.print("no flag was raised since the boot");
}

std::string launchState(const Json::Value& launch)
{
    if (!launch["reply"].isNull()) {
        return "replied " + launch["reply"].asString();
    }
    if (launch["sent"].asBool()) {
        return "sent";
    }
    return launch["destroyed"].asBool() ? "never sent" : "being made";
}

void showLaunches(const Json::Value& launches)
{
    Table table({"ID", "APPLICATION", "TIME", "CLIENT", "STATE", "EXTRAS"});
    for (const Json::Value& launch : launches) {
        std::string extras;
        for (const Json::Value& extra : launch["extras"]) {
            extras += (extras.empty() ? "" : " ") + extra["key"].asString() + "=" + extra["value"].asString();
        }
        table.add({launch["id"].asString(), launch["application"].asString(), timeText(launch["time_ms"]),
                   clientText(launch["owner"]), launchState(launch), extras});
    }
    table.print("no application launch was requested since the boot");
}

void showReboots(const Json::Value& endings)
{
    Table table({"WHAT", "REASON", "TIME", "CLIENT", "OUTCOME"});
    for (const Json::Value& ending : endings) {
        char reason[32];
        snprintf(reason, sizeof reason, "0x%llx",
                 static_cast<unsigned long long>(ending["reason"].asInt64()));
        table.add({ending["kind"].asString(), reason, timeText(ending["time_ms"]),
                   clientText(ending["requester"]), ending["outcome"].asString()});
    }
    table.print("no reboot or power-off was requested yet");
}

void showWatchdog(const Json::Value& watchdog)
{
    Table services({"SERVICE", "PERIOD", "REGISTERED", "LAST BEAT", "BEATS"});
    for (const Json::Value& entry : watchdog["registered"]) {
        services.add({clientText(entry["service"]), entry["period_s"].asString() + " s",
                      timeText(entry["registered_ms"]), timeText(entry["last_beat_ms"]),
                      entry["beats"].asString()});
    }
    services.print("no service is registered");
    if (watchdog["history"].empty()) {
        return;
    }
    Table steps({"TIME", "STEP", "SERVICE"});
    for (const Json::Value& step : watchdog["history"]) {
        steps.add({timeText(step["time_ms"]), step["step"].asString(), clientText(step["service"])});
    }
    printf("\n");
    steps.print("");
}

} // namespace

void showPackages(const Json::Value& packages)
{
    printf("  delivered %s after the request; package manager %s\n",
           secondsText(packages["delay_ms"]).c_str(),
           packages["manager_ready"].asBool() ? "ready" : "not ready");
    Table table({"PACKAGE", "REQUESTED", "CLIENT", "STATE", "END"});
    for (const Json::Value& request : packages["requests"]) {
        table.add({request["package"].asString(), timeText(request["time_ms"]), clientText(request["client"]),
                   request["state"].asString(), timeText(request["end_ms"])});
    }
    table.print("no package was requested since the boot");
}

namespace
{

void showSettings(const Json::Value& settings)
{
    Table table({"KEY", "VALUE", "WRITTEN", "BY"});
    for (const std::string& key : settings.getMemberNames()) {
        table.add({key, settings[key]["value"].asString(), timeText(settings[key]["time_ms"]),
                   settings[key]["writer"].asString()});
    }
    table.print("no settings key is there");
}

} // namespace

void showProperties(const Json::Value& properties)
{
    Table table({"KEY", "VALUE"});
    for (const std::string& key : properties.getMemberNames()) {
        table.add({key, properties[key].asString()});
    }
    table.print("there is no system information");
}

namespace
{

void showMounts(const Json::Value& mounts)
{
    Table table({"DEVICE", "DIRECTORY", "TYPE", "OPTIONS"});
    for (const Json::Value& mount : mounts) {
        table.add({mount["device"].asString(), mount["directory"].asString(), mount["type"].asString(),
                   mount["options"].asString()});
    }
    table.print("no image is mounted");
}

void showSubscribers(const Json::Value& subscribers)
{
    Table table({"CLIENT", "EVENT", "OF"});
    for (const Json::Value& entry : subscribers) {
        table.add({clientText(entry["client"]), entry["event"].asString(), entry["argument"].asString()});
    }
    table.print("nobody listens to an event");
}

} // namespace

void showFaults(const Json::Value& faults)
{
    Table table({"CALL", "FOR", "ORDER", "LEFT", "HITS"});
    for (const Json::Value& fault : faults) {
        table.add({fault["call"].asString(), fault["argument"].asString(),
                   fault.isMember("result") ? "result " + fault["result"].asString()
                                            : secondsText(fault["delay_ms"]) + " late",
                   fault["left"].asInt() < 0 ? "until reset" : fault["left"].asString(),
                   fault["hits"].asString()});
    }
    table.print("no fault is ordered");
}

namespace
{

struct Section {
    const char* name; // as in the snapshot
    void (*show)(const Json::Value& section);
};

constexpr Section kSections[] = {
    {"power", showPower},
    {"locks", showLocks},
    {"reboots", showReboots},
    {"watchdog", showWatchdog},
    {"flags", showFlags},
    {"packages", showPackages},
    {"mounts", showMounts},
    {"launches", showLaunches},
    {"settings", showSettings},
    {"faults", showFaults},
    {"subscribers", showSubscribers},
    {"properties", showProperties},
};

std::vector<std::string> sectionNames()
{
    std::vector<std::string> names = {"all"};
    for (const Section& section : kSections) {
        names.emplace_back(section.name);
    }
    return names;
}

void show(const Json::Value& snapshot, const std::string& wanted)
{
    for (const Section& section : kSections) {
        if (wanted != "all" && wanted != section.name) {
            continue;
        }
        if (wanted == "all") {
            printf("%s\n", section.name);
        }
        section.show(snapshot[section.name]);
        if (wanted == "all") {
            printf("\n");
        }
    }
}

} // namespace

void defineShow(common::CommandLine& command)
{
    struct Options {
        std::string set;
        std::string section = "all";
        bool isJson = false;
    };
    const auto options = std::make_shared<Options>();
    takeSet(command, options->set);
    command.text("SECTION", options->section, "What to show").oneOf(sectionNames());
    command.flag("--json", options->isJson, "As JSON, for programs");
    command.footer("Times are UTC of the set.\nExample: vset show /tmp/tv locks");
    command.onRun([options] {
        const Json::Value snapshot = ControlClient::ofSet(options->set).snapshot();
        if (options->isJson) {
            std::printf("%s\n", common::indentedJson(options->section == "all" ? snapshot
                                                                               : snapshot[options->section])
                                    .c_str());
        } else {
            show(snapshot, options->section);
        }
    });
}

} // namespace vset
