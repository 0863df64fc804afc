#include "commands.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <optional>
#include <string>
#include <vector>

#include <json/json.h>
#include <unistd.h>

#include "control-client.h"
#include "platform-log.h"

namespace
{

using vset::ControlClient;
using vset::ControlError;

// ---- Output ----

// Text of a set on a terminal: control characters are shown, not obeyed.
std::string visible(const std::string& text)
{
    std::string shown;
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        char hex[8];
        if (c == '\n') {
            shown += "\\n";
        } else if (byte < 0x20 || byte == 0x7f) {
            snprintf(hex, sizeof hex, "\\x%02X", byte);
            shown += hex;
        } else {
            shown += c;
        }
    }
    return shown;
}

// Columns that are as wide as their widest cell.
class Table
{
public:
    explicit Table(std::vector<std::string> headings) : rows_{std::move(headings)} {}

    void add(std::vector<std::string> row)
    {
        for (std::string& cell : row)
            cell = visible(cell);
        rows_.push_back(std::move(row));
    }

    // `nothing` in place of a table without rows.
    void print(const char* nothing) const
    {
        if (rows_.size() == 1) {
            printf("  %s\n", nothing);
            return;
        }
        std::vector<size_t> widths(rows_.front().size());
        for (const auto& row : rows_) {
            for (size_t column = 0; column < row.size(); ++column)
                widths[column] = std::max(widths[column], row[column].size());
        }
        for (const auto& row : rows_)
            printRow(row, widths);
    }

private:
    static void printRow(const std::vector<std::string>& row, const std::vector<size_t>& widths)
    {
        std::string line = " ";
        for (size_t column = 0; column < row.size(); ++column)
            line += " " + row[column] + std::string(widths[column] - row[column].size() + 1, ' ');
        line.erase(line.find_last_not_of(' ') + 1);
        printf("%s\n", line.c_str());
    }

    std::vector<std::vector<std::string>> rows_;
};

void printJson(const Json::Value& json)
{
    Json::StreamWriterBuilder writer;
    writer["indentation"] = "  ";
    writer["emitUTF8"] = true;
    printf("%s\n", Json::writeString(writer, json).c_str());
}

// Milliseconds since 1970 as UTC of the set.
std::string timeText(const Json::Value& milliseconds)
{
    if (!milliseconds.isInt64() || milliseconds.asInt64() == 0)
        return "-";
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
    const std::string command = client["command"].asString();
    if (client["pid"].asInt() == 0)
        return command;
    return (command.empty() ? client["name"].asString() : command) + "[" + client["pid"].asString() + "]";
}

// ---- What `vset show` shows ----

void showPower(const Json::Value& power)
{
    const std::string name = power["name"].asString();
    printf("  state %s%s since %s UTC of the set\n", power["state"].asString().c_str(),
           name.empty() ? "" : (" (" + name + ")").c_str(), timeText(power["since_ms"]).c_str());
    if (!power["pending_end"].asString().empty())
        printf("  a %s waits for its time and for all locks\n", power["pending_end"].asCString());
}

void showLocks(const Json::Value& locks)
{
    Table table({"KIND", "OWNER", "FROM", "FOR", "UNTIL", "END"});
    for (const Json::Value& lock : locks["history"])
        table.add({lock["kind"].asString(), clientText(lock["owner"]), timeText(lock["start_ms"]),
                   secondsText(lock["duration_ms"]), timeText(lock["end_ms"]), lock["end"].asString()});
    for (const Json::Value& lock : locks["held"])
        table.add({lock["kind"].asString(), clientText(lock["owner"]), timeText(lock["start_ms"]),
                   secondsText(lock["duration_ms"]), "", "HELD, " + secondsText(lock["left_ms"]) + " left"});
    table.print("no power lock was taken since the boot");
}

void showFlags(const Json::Value& flags)
{
    Table table({"FLAG", "STEP", "TIME", "CLIENT", "NOW"});
    for (const Json::Value& step : flags["history"])
        table.add({step["flag"].asString(), step["step"].asString(), timeText(step["time_ms"]),
                   clientText(step["client"]),
                   flags["raised"].isMember(step["flag"].asString()) ? "raised" : "down"});
    table.print("no flag was raised since the boot");
}

std::string launchState(const Json::Value& launch)
{
    if (!launch["reply"].isNull())
        return "replied " + launch["reply"].asString();
    if (launch["sent"].asBool())
        return "sent";
    return launch["destroyed"].asBool() ? "never sent" : "being made";
}

void showLaunches(const Json::Value& launches)
{
    Table table({"ID", "APPLICATION", "TIME", "CLIENT", "STATE", "EXTRAS"});
    for (const Json::Value& launch : launches) {
        std::string extras;
        for (const Json::Value& extra : launch["extras"])
            extras += (extras.empty() ? "" : " ") + extra["key"].asString() + "=" + extra["value"].asString();
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
    for (const Json::Value& entry : watchdog["registered"])
        services.add({clientText(entry["service"]), entry["period_s"].asString() + " s",
                      timeText(entry["registered_ms"]), timeText(entry["last_beat_ms"]),
                      entry["beats"].asString()});
    services.print("no service is registered");
    if (watchdog["history"].empty())
        return;
    Table steps({"TIME", "STEP", "SERVICE"});
    for (const Json::Value& step : watchdog["history"])
        steps.add({timeText(step["time_ms"]), step["step"].asString(), clientText(step["service"])});
    printf("\n");
    steps.print("");
}

void showPackages(const Json::Value& packages)
{
    printf("  delivered %s after the request; package manager %s\n",
           secondsText(packages["delay_ms"]).c_str(),
           packages["manager_ready"].asBool() ? "ready" : "not ready");
    Table table({"PACKAGE", "REQUESTED", "CLIENT", "STATE", "END"});
    for (const Json::Value& request : packages["requests"])
        table.add({request["package"].asString(), timeText(request["time_ms"]), clientText(request["client"]),
                   request["state"].asString(), timeText(request["end_ms"])});
    table.print("no package was requested since the boot");
}

void showSettings(const Json::Value& settings)
{
    Table table({"KEY", "VALUE", "WRITTEN", "BY"});
    for (const std::string& key : settings.getMemberNames())
        table.add({key, settings[key]["value"].asString(), timeText(settings[key]["time_ms"]),
                   settings[key]["writer"].asString()});
    table.print("no settings key is there");
}

void showProperties(const Json::Value& properties)
{
    Table table({"KEY", "VALUE"});
    for (const std::string& key : properties.getMemberNames())
        table.add({key, properties[key].asString()});
    table.print("there is no system information");
}

void showMounts(const Json::Value& mounts)
{
    Table table({"DEVICE", "DIRECTORY", "TYPE", "OPTIONS"});
    for (const Json::Value& mount : mounts)
        table.add({mount["device"].asString(), mount["directory"].asString(), mount["type"].asString(),
                   mount["options"].asString()});
    table.print("no image is mounted");
}

void showSubscribers(const Json::Value& subscribers)
{
    Table table({"CLIENT", "EVENT", "OF"});
    for (const Json::Value& entry : subscribers)
        table.add({clientText(entry["client"]), entry["event"].asString(), entry["argument"].asString()});
    table.print("nobody listens to an event");
}

void showFaults(const Json::Value& faults)
{
    Table table({"CALL", "FOR", "ORDER", "LEFT", "HITS"});
    for (const Json::Value& fault : faults)
        table.add({fault["call"].asString(), fault["argument"].asString(),
                   fault.isMember("result") ? "result " + fault["result"].asString()
                                            : secondsText(fault["delay_ms"]) + " late",
                   fault["left"].asInt() < 0 ? "until reset" : fault["left"].asString(),
                   fault["hits"].asString()});
    table.print("no fault is ordered");
}

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
    for (const Section& section : kSections)
        names.emplace_back(section.name);
    return names;
}

void show(const Json::Value& snapshot, const std::string& wanted)
{
    for (const Section& section : kSections) {
        if (wanted != "all" && wanted != section.name)
            continue;
        if (wanted == "all")
            printf("%s\n", section.name);
        section.show(snapshot[section.name]);
        if (wanted == "all")
            printf("\n");
    }
}

// ---- Log ----

struct LogOptions {
    std::string set;
    bool isFollowing = false;
    bool isJson = false;
    std::string priority = "debug";
    std::string buffer = "system";
    std::string text;
};

int priorityNumber(const std::string& name)
{
    for (int priority = 3; priority <= 6; ++priority) {
        if (name == vset::priorityName(priority) || name == std::to_string(priority))
            return priority;
    }
    throw CLI::ValidationError("--priority",
                               "\"" + name + "\" is not debug, info, warning or error (3 to 6)");
}

bool isWanted(const vset::LogRecord& record, const LogOptions& options, int lowest)
{
    const bool isTrace = record.buffer == vset::LogBuffer::Trace;
    const bool isOfBuffer = options.buffer == "both" || isTrace == (options.buffer == "trace");
    return isOfBuffer && record.priority >= lowest && record.text.find(options.text) != std::string::npos;
}

std::string placeOf(const vset::LogRecord& record)
{
    if (record.file.empty())
        return record.tag.empty() ? "-" : record.tag;
    const std::string name = record.file.substr(record.file.find_last_of('/') + 1);
    return name + ":" + std::to_string(record.line) + " " + record.function;
}

const char* colourOf(int priority)
{
    if (priority >= 6)
        return "\033[31m";
    return priority == 5 ? "\033[33m" : priority <= 3 ? "\033[2m" : "";
}

void printRecord(const vset::LogRecord& record, bool isColoured)
{
    // The column grows with what came so far, so that the log stays aligned without knowing its end.
    static size_t placeWidth = 24;
    constexpr size_t kWidest = 56;
    const std::string place = visible(placeOf(record));
    placeWidth = std::min(kWidest, std::max(placeWidth, place.size()));

    std::string message = record.message;
    message.erase(message.find_last_not_of('\n') + 1);
    const std::string clock = record.time.size() >= 23 ? record.time.substr(11, 12) : record.time;
    printf("%s%s  %-7s  %s  %-*s  %s%s\n", isColoured ? colourOf(record.priority) : "",
           visible(clock).c_str(), vset::priorityName(record.priority).c_str(),
           record.buffer == vset::LogBuffer::Trace ? "trc" : "sys", static_cast<int>(placeWidth),
           place.c_str(), visible(message).c_str(), isColoured ? "\033[0m" : "");
    fflush(stdout);
}

void printRecordAsJson(const vset::LogRecord& record)
{
    Json::Value json;
    json["time"] = record.time;
    json["buffer"] = record.buffer == vset::LogBuffer::Trace ? "trace" : std::to_string(record.logId);
    json["priority"] = record.priority;
    json["tag"] = record.tag;
    json["pid"] = record.process;
    json["tid"] = record.thread;
    json["thread"] = record.threadName;
    json["file"] = record.file;
    json["function"] = record.function;
    json["line"] = record.line;
    json["message"] = record.message;
    Json::StreamWriterBuilder writer;
    writer["indentation"] = "";
    printf("%s\n", Json::writeString(writer, json).c_str());
    fflush(stdout);
}

void runLog(const LogOptions& options)
{
    const int lowest = priorityNumber(options.priority);
    const char* const noColour = std::getenv("NO_COLOR");
    const bool isColoured = isatty(STDOUT_FILENO) != 0 && (noColour == nullptr || *noColour == '\0');
    vset::LogReader reader(options.set + "/root" + vset::kLogFile);
    const auto print = [&](const vset::LogRecord& record) {
        if (!isWanted(record, options, lowest))
            return true;
        if (options.isJson)
            printRecordAsJson(record);
        else
            printRecord(record, isColoured);
        return true;
    };
    if (options.isFollowing) {
        reader.follow(print);
        return;
    }
    while (const auto record = reader.next())
        print(*record);
}

// ---- Commands ----

CLI::App* addCommand(CLI::App& app, const char* name, const char* description, std::string& set)
{
    CLI::App* const command = app.add_subcommand(name, description);
    command->add_option("SET", set, "Directory of the set")->required();
    return command;
}

void addGet(CLI::App& app)
{
    static std::string set;
    static std::string key;
    CLI::App* const command = addCommand(app, "get", "Read a settings key of a running set", set);
    command->add_option("KEY", key, "Settings key; `vset show SET settings` lists them")->required();
    command->footer("Example: vset get /tmp/tv memory/ep_firmware_update_app/fw_update_status");
    command->callback([] {
        const Json::Value settings = ControlClient::ofSet(set).snapshot()["settings"];
        if (!settings.isMember(key))
            throw ControlError("there is no settings key \"" + visible(key) + "\": `vset show " + set +
                               " settings` lists them");
        printf("%d\n", settings[key]["value"].asInt());
    });
}

void addSet(CLI::App& app)
{
    static std::string set;
    static std::string key;
    static int value = 0;
    static bool isRemoving = false;
    CLI::App* const command = addCommand(app, "set", "Write a settings key of a running set", set);
    command->add_option("KEY", key, "Settings key")->required();
    CLI::Option* const number = command->add_option("VALUE", value, "A whole number of 32 bits");
    command->add_flag("--remove", isRemoving, "Remove the key instead")->excludes(number);
    command->footer("Keys that start with memory/ are forgotten at a reboot of the set.\n"
                    "Example: vset set /tmp/tv memory/menu/network/screenmirroring/smsrc_status 1");
    command->callback([number] {
        if (!isRemoving && number->count() == 0)
            throw CLI::RequiredError("VALUE");
        const ControlClient client = ControlClient::ofSet(set);
        if (isRemoving)
            client.removeSetting(key);
        else
            client.setSetting(key, value);
    });
}

int powerState(const std::string& text)
{
    if (text == "on" || text == "normal")
        return 0;
    if (text == "standby")
        return 2;
    int number = 0;
    if (!CLI::detail::lexical_cast(text, number) || number < 0 || number > 255)
        throw CLI::ValidationError("STATE",
                                   "\"" + visible(text) + "\" is not on, standby, or a number from 0 to 255");
    return number;
}

void addPower(CLI::App& app)
{
    static std::string set;
    static std::string state;
    CLI::App* const command =
        addCommand(app, "power", "Show or change the power state of a running set", set);
    command->add_option("STATE", state, "on (0), standby (2), or another state's number");
    command->footer("Example: vset power /tmp/tv standby");
    command->callback([] {
        const std::optional<int> wanted =
            state.empty() ? std::nullopt : std::optional<int>(powerState(state));
        const ControlClient client = ControlClient::ofSet(set);
        if (wanted)
            client.setPowerState(*wanted);
        else
            showPower(client.snapshot()["power"]);
    });
}

void addPowerOff(CLI::App& app)
{
    static std::string set;
    static int reason = 0;
    CLI::App* const command = addCommand(app, "poweroff", "Power a running set off, as its switch does", set);
    command->add_option("--reason", reason, "Number that the power-off event carries")->capture_default_str();
    command->footer(
        "The set's programs hear of it; it goes off a second later, or when no power lock is held.");
    command->callback([] { ControlClient::ofSet(set).powerOff(reason); });
}

void addReboot(CLI::App& app)
{
    static std::string set;
    static unsigned int reason = 0;
    CLI::App* const command = addCommand(app, "reboot", "Let a running set reboot", set);
    command->add_option("--reason", reason, "Number to be recorded with it")->capture_default_str();
    command->footer("It reboots a second later, or when no power lock is held.");
    command->callback([] { ControlClient::ofSet(set).reboot(reason); });
}

void addShow(CLI::App& app)
{
    static std::string set;
    static std::string section = "all";
    static bool isJson = false;
    CLI::App* const command = addCommand(app, "show", "Show what a running set's platform knows", set);
    command->add_option("SECTION", section, "What to show")
        ->check(CLI::IsMember(sectionNames()))
        ->capture_default_str();
    command->add_flag("--json", isJson, "As JSON, for programs");
    command->footer("Times are UTC of the set.\nExample: vset show /tmp/tv locks");
    command->callback([] {
        const Json::Value snapshot = ControlClient::ofSet(set).snapshot();
        if (isJson)
            printJson(section == "all" ? snapshot : snapshot[section]);
        else
            show(snapshot, section);
    });
}

void addLog(CLI::App& app)
{
    static LogOptions options;
    CLI::App* const command = addCommand(app, "log", "Show the log of a set, running or not", options.set);
    command->add_flag("-f,--follow", options.isFollowing, "Go on as the log grows, until Ctrl-C");
    command->add_option("--priority", options.priority, "At least debug, info, warning or error (3 to 6)")
        ->capture_default_str();
    command
        ->add_option("--buffer", options.buffer, "Which log: the platform's (system), the recorder's (trace)")
        ->check(CLI::IsMember({"system", "trace", "both"}))
        ->capture_default_str();
    command->add_option("--grep", options.text, "Only records that contain this text");
    command->add_flag("--json", options.isJson, "One JSON object a line, for programs");
    command->footer("Columns: time (UTC of the set), priority, log, call location, message.\n"
                    "Coloured on a terminal, unless NO_COLOR is set.\n"
                    "Example: vset log /tmp/tv -f --priority info --grep update");
    command->callback([] { runLog(options); });
}

struct FaultOptions {
    std::string set;
    std::string call;
    std::string argument;
    int result = -1;
    int count = -1;
    unsigned int delay = 0;
    bool isReset = false;
};

void runFault(const FaultOptions& options, bool isDelay, bool isResult)
{
    if (options.call.empty() && !options.isReset && (isDelay || isResult))
        throw CLI::ValidationError("CALL", "which call shall fail or be late?");
    const ControlClient client = ControlClient::ofSet(options.set);
    if (options.isReset) {
        client.resetFaults(options.call);
        return;
    }
    if (options.call.empty()) {
        showFaults(client.snapshot()["faults"]);
        return;
    }
    if (isDelay)
        client.setDelay(options.call, options.delay, options.count, options.argument);
    if (isResult || !isDelay)
        client.setFault(options.call, options.result, options.count, options.argument);
}

void addFault(CLI::App& app)
{
    static FaultOptions options;
    CLI::App* const command =
        addCommand(app, "fault", "Make a call of the platform fail or be late", options.set);
    command->add_option("CALL", options.call, "The call as its header names it; none: show what is ordered");
    CLI::Option* const result =
        command->add_option("--result", options.result, "What it gives instead of doing anything")
            ->capture_default_str();
    CLI::Option* const delay =
        command->add_option("--delay", options.delay, "Answer so many milliseconds late")->type_name("MS");
    CLI::Option* const count = command->add_option("--count", options.count, "How many times")
                                   ->check(CLI::PositiveNumber)
                                   ->default_str("until reset");
    CLI::Option* const argument = command->add_option(
        "--for", options.argument, "Only for this key, flag, application, package or number");
    CLI::Option* const reset =
        command->add_flag("--reset", options.isReset, "End the orders for CALL, or all of them");
    for (CLI::Option* const other : {result, delay, count, argument})
        reset->excludes(other);
    command->footer("Examples:\n"
                    "  vset fault /tmp/tv applaunch_send_launch_request --count 9\n"
                    "  vset fault /tmp/tv pralis_get_int --for memory/enterprise/swupgrade/working_status\n"
                    "  vset fault /tmp/tv PS_Mount --count 1\n"
                    "  vset fault /tmp/tv --reset");
    command->callback([result, delay] { runFault(options, delay->count() > 0, result->count() > 0); });
}

void addProperty(CLI::App& app)
{
    static std::string set;
    static std::optional<int> key;
    static std::string value;
    CLI::App* const command =
        addCommand(app, "property", "Read or write the system information of a running set", set);
    command->add_option("KEY", key, "Its number; 128 is the software version. None: show all");
    CLI::Option* const text = command->add_option("VALUE", value, "New text");
    command->footer("Example: vset property /tmp/tv 128 VSET-2026-1.1");
    command->callback([text] {
        const ControlClient client = ControlClient::ofSet(set);
        if (text->count() > 0) {
            client.setProperty(*key, value);
            return;
        }
        const Json::Value properties = client.snapshot()["properties"];
        if (!key) {
            showProperties(properties);
            return;
        }
        if (!properties.isMember(std::to_string(*key)))
            throw ControlError("there is no system information " + std::to_string(*key));
        printf("%s\n", visible(properties[std::to_string(*key)].asString()).c_str());
    });
}

void addPackages(CLI::App& app)
{
    static std::string set;
    static std::optional<unsigned int> delay;
    static std::optional<int> managerDelay;
    CLI::App* const command =
        addCommand(app, "packages", "Show or time the package service of a running set", set);
    command->add_option("--delay", delay, "From a request to the delivery")->type_name("MS");
    command->add_option("--manager-delay", managerDelay, "From the boot to \"ready\"; -1: never")
        ->type_name("MS");
    command->footer("Both times are kept over reboots.\n"
                    "A package NAME is the file root/srv/feed/NAME.img in the set's directory.");
    command->callback([] {
        const ControlClient client = ControlClient::ofSet(set);
        if (delay)
            client.setPackageDelay(*delay);
        if (managerDelay)
            client.setPackageManagerDelay(*managerDelay);
        if (!delay && !managerDelay)
            showPackages(client.snapshot()["packages"]);
    });
}

void addReply(CLI::App& app)
{
    static std::string set;
    static unsigned int launch = 0;
    static int result = 0;
    CLI::App* const command = addCommand(app, "reply", "Answer an application launch of a running set", set);
    command->add_option("LAUNCH", launch, "Its number; `vset show SET launches` lists them")->required();
    command->add_option("RESULT", result, "The application's answer")->required();
    command->callback([] { ControlClient::ofSet(set).replyLaunch(launch, result); });
}

} // namespace

void addControlCommands(CLI::App& app)
{
    for (const auto add : {addGet, addSet, addPower, addPowerOff, addReboot, addShow, addLog, addFault,
                           addProperty, addPackages, addReply})
        add(app);
}
