// What the page is told of the set, and how its orders are carried out.
#include "vset/console/console.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <filesystem>
#include <system_error>
#include <unistd.h>
#include <utility>

#include "common/daemon/daemon-events.h"
#include "common/daemon/places.h"
#include "common/json-text.h"
#include "console-interface.h"
#include "vset/clock/clock-page.h"
#include "vset/console/real-time.h"
#include "vset/platformd/contract.h"
#include "vset/platformd/service-time.h"

namespace vset
{

namespace
{

namespace fs = std::filesystem;

constexpr const char* kInvalid = "org.pellor.platform.Error.Invalid";
constexpr const char* kOptionsFile = "/var/lib/platform/console.json";
using common::places::kFactoryMarker;
using common::places::kFeed;
using common::places::kManagerMarker;
using common::places::kMirroringKey;
constexpr const char* kWriter = "console";

// Milliseconds of the PC's time.
constexpr int64_t kPushInterval = 60;
constexpr int64_t kWatchInterval = 1000;
constexpr int64_t kModuleInterval = 2000;
constexpr int64_t kUpdateModuleInterval = 300; // while a module is being written
constexpr int64_t kLongestWithoutLog = 1000;

constexpr int kUpdatingState = 12;
constexpr size_t kRecordsAtGreeting = 2500;

// Sections of the platform's model, and our own.
constexpr const char* kModelSections[] = {"power",    "locks",    "reboots",  "settings", "flags",
                                          "launches", "packages", "watchdog", "mounts"};
constexpr const char* kOwnSections[] = {"set",    "daemon",   "states", "way", "modules",
                                        "screen", "switches", "usb",    "feed"};

// `number` lets a page tell what it has already.
Json::Value toJson(const LogRecord& record, uint64_t number)
{
    Json::Value json;
    json["n"] = Json::UInt64(number);
    json["t"] = Json::Int64(millisecondsOf(record));
    json["b"] = record.buffer == LogBuffer::Trace ? "trace" : "system";
    json["p"] = record.priority;
    json["tag"] = record.tag;
    json["pid"] = record.process;
    json["tid"] = record.thread;
    json["f"] = record.function;
    json["l"] = record.line;
    json["m"] = record.message;
    return json;
}

std::optional<std::string> touch(const char* path)
{
    const int file = open(path, O_WRONLY | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0644);
    if (file < 0) {
        return std::string(path) + ": " + std::generic_category().message(errno);
    }
    close(file);
    return std::nullopt;
}

std::optional<std::string> removeFile(const char* path)
{
    if (unlink(path) != 0 && errno != ENOENT) {
        return std::string(path) + ": " + std::generic_category().message(errno);
    }
    return std::nullopt;
}

} // namespace

Console::Console(GDBusConnection* bus, SetModel& set)
    : set_(set), object_(bus, const_cast<GDBusInterfaceInfo*>(&org_pellor_platform_console_interface),
                         [this](const auto& method, const auto& sender, GVariant* parameters,
                                auto* invocation) { handle(method, sender, parameters, invocation); }),
      screen_([this](const std::string& application, const std::string& button) {
          object_.emit("ScreenInput", g_variant_new("(s)", button.c_str()), application.c_str());
      }),
      web_((loadOptions(), port_), {[this] {
                                        modules_.ask();
                                        return greeting();
                                    },
                                    [this](const Json::Value& order) { return carryOut(order); },
                                    [this](const std::string& name) { return usb_.add(name); }})
{
    if (web_.port() != port_) {
        port_ = web_.port();
        saveOptions(Keeping::kUntilPowerOff); // a boot waits for no disk
    }
    if (isFactory_) {
        touch(kFactoryMarker); // before the daemon starts, which looks only then
    }
    set_.changed.connect([this](const std::vector<std::string>& sections) {
        for (const std::string& section : sections) {
            mark(section);
        }
    });
    set_.launches.sent.connect([this](const Launch& request) { onLaunch(request); });
    set_.clients.gone.connect([this](const std::string& name) { screen_.drop(name); });
    screen_.changed.connect([this] { mark("screen"); });
    modules_.changed.connect([this] { mark("modules"); });
    daemon_.changed.connect([this] { mark("daemon"); });
    daemon_.ended.connect([this](int process, int64_t time) {
        followLog(); // its run is known from there
        if (way_.endRun(process, time)) {
            mark("way");
        }
    });
    log_.record.connect([this](const LogRecord& record) { takeLog(record); });
    logTimer_.start(kLongestWithoutLog, [this] { followLog(); });
    publishUrl();
    watch();
    watchModules();
}

// ---- Options that outlive a boot ----

void Console::loadOptions()
{
    const Json::Value kept = loadJson(kOptionsFile);
    const UiBehaviour behaviour{kept["ui"].isString() ? kept["ui"].asString() : "interactive",
                                kept["ui_after_ms"].isUInt() ? kept["ui_after_ms"].asUInt() : 0};
    if (!faultOf(behaviour)) {
        behaviour_ = behaviour;
    }
    isFactory_ = kept["factory"].isBool() && kept["factory"].asBool();
    const unsigned int port = kept["port"].isUInt() ? kept["port"].asUInt() : 0;
    port_ = port <= 65535 ? port : 0; // the same after a reboot, so that an open page finds the set again
}

Console::Fault Console::saveOptions(Keeping keeping) const
{
    Json::Value kept;
    kept["ui"] = behaviour_.name;
    kept["ui_after_ms"] = behaviour_.after;
    kept["factory"] = isFactory_;
    kept["port"] = port_;
    try {
        saveJson(kOptionsFile, kept, keeping);
    } catch (const std::system_error& error) {
        return std::string("the console's options cannot be kept: ") + error.what();
    }
    return std::nullopt;
}

// Whole or not there at all: whoever waits for the file may read it at once.
void Console::publishUrl() const
try {
    saveText(kConsoleUrlPath, web_.url() + "\n", Keeping::kUntilPowerOff);
} catch (const std::system_error&) {
    fprintf(stderr, "platformd: cannot write %s\n", kConsoleUrlPath);
}

// ---- Sections ----

Json::Value Console::setSection() const
{
    Json::Value json;
    std::array<char, 65> name{};
    gethostname(name.data(), name.size() - 1);
    json["name"] = name.data();
    json["time_ms"] = Json::Int64(wallMilliseconds());
    json["rate"] = clockRate();
    json["clock"] = hasClock();
    json["url"] = web_.url();
    return json;
}

Json::Value Console::switchesSection() const
{
    Json::Value json;
    json["mirroring"] = set_.settings.get(kMirroringKey).value_or(0) == 1;
    json["factory"] = isFactory_;
    json["factory_marker"] = access(kFactoryMarker, F_OK) == 0;
    json["package_manager"] = access(kManagerMarker, F_OK) == 0;
    json["ui"] = behaviour_.name;
    json["ui_after_ms"] = behaviour_.after;
    return json;
}

Json::Value Console::feedSection()
{
    Json::Value json = Json::arrayValue;
    std::vector<fs::directory_entry> entries;
    std::error_code error;
    for (fs::directory_iterator entry(kFeed, error); !error && entry != fs::directory_iterator();
         entry.increment(error)) {
        entries.push_back(*entry);
    }
    std::sort(entries.begin(), entries.end());
    for (const fs::directory_entry& entry : entries) {
        Json::Value file;
        file["name"] = entry.path().filename().string();
        file["size"] = Json::UInt64(entry.file_size(error));
        json.append(file);
    }
    return json;
}

// What the daemon's states are called; it never changes.
Json::Value Console::statesSection()
{
    Json::Value json = Json::arrayValue;
    for (int number = 0; number < common::kDaemonStates; ++number) {
        Json::Value state;
        state["name"] = common::daemonStateName(number);
        state["label"] = common::daemonStateLabel(number);
        json.append(state);
    }
    return json;
}

Json::Value Console::sectionOf(const std::string& name) const
{
    if (name == "set") {
        return setSection();
    }
    if (name == "daemon") {
        return daemon_.snapshot();
    }
    if (name == "states") {
        return statesSection();
    }
    if (name == "way") {
        return way_.toJson();
    }
    if (name == "modules") {
        return modules_.snapshot();
    }
    if (name == "screen") {
        return screen_.snapshot();
    }
    if (name == "switches") {
        return switchesSection();
    }
    if (name == "usb") {
        return usb_.snapshot();
    }
    if (name == "feed") {
        return feedSection();
    }
    return set_.snapshotOf(name);
}

Json::Value Console::sections()
{
    followLog();
    Json::Value json;
    for (const char* name : kModelSections) {
        json[name] = sectionOf(name);
    }
    for (const char* name : kOwnSections) {
        json[name] = sectionOf(name);
    }
    return json;
}

Json::Value Console::greeting()
{
    Json::Value message;
    message["type"] = "greeting";
    message["sections"] = sections();
    message["records"] = Json::arrayValue;
    const auto& latest = log_.latest();
    for (size_t at = latest.size() - std::min(latest.size(), kRecordsAtGreeting); at < latest.size(); ++at) {
        message["records"].append(toJson(latest[at], log_.count() - latest.size() + at + 1));
    }
    return message;
}

void Console::mark(const std::string& section)
{
    const auto isKnown = [&](const char* name) { return section == name; };
    if (std::none_of(std::begin(kModelSections), std::end(kModelSections), isKnown) &&
        std::none_of(std::begin(kOwnSections), std::end(kOwnSections), isKnown)) {
        return;
    }
    news_.insert(section);
    if (section == "settings") {
        news_.insert("switches");
    }
    if (!pushTimer_.isRunning()) {
        pushTimer_.start(kPushInterval, [this] { push(); });
    }
}

void Console::push()
{
    Json::Value message;
    message["type"] = "news";
    for (const std::string& section : std::exchange(news_, {})) {
        told_[section] = message["sections"][section] = sectionOf(section);
    }
    message["records"] = std::exchange(newRecords_, Json::arrayValue);
    if (web_.hasPages()) {
        web_.tell(message);
    }
}

// What has no event of its own.
void Console::watch()
{
    mark("set");
    // One that lives for milliseconds, because nothing is pending, is never seen running.
    const std::optional<int> process = way_.running();
    if (process && access(("/proc/" + std::to_string(*process)).c_str(), F_OK) != 0 &&
        way_.endRun(*process, 0)) {
        mark("way");
    }
    for (const char* section : {"usb", "feed", "switches"}) {
        if (sectionOf(section) != told_[section]) {
            mark(section);
        }
    }
    watchTimer_.start(kWatchInterval, [this] { watch(); });
}

void Console::watchModules()
{
    const bool isUpdating = way_.state() == kUpdatingState || set_.power.isLocked();
    if (web_.hasPages()) {
        modules_.ask();
    }
    const int64_t interval = isUpdating ? kUpdateModuleInterval : kModuleInterval;
    moduleTimer_.start(interval, [this] { watchModules(); });
}

// When somebody asks for what is in it, or soon after the boot, which does not wait for the past to be read.
void Console::followLog()
{
    if (isFollowing_) {
        return;
    }
    log_.start();
    isFollowing_ = true; // what was there already is part of the greeting
}

void Console::takeLog(const LogRecord& record)
{
    const bool wasUpdating = way_.state() == kUpdatingState;
    if (way_.take(record)) {
        mark("way");
    }
    if (wasUpdating != (way_.state() == kUpdatingState) && moduleTimer_.isRunning()) {
        watchModules();
    }
    if (!isFollowing_) {
        return;
    }
    newRecords_.append(toJson(record, log_.count()));
    if (newRecords_.size() > LogTail::kKept) {
        newRecords_ = Json::arrayValue; // nobody has taken them
    }
    mark("set");
}

// ---- What orders do ----

Console::Fault Console::setFactory(bool isOn)
{
    Fault fault = isOn ? touch(kFactoryMarker) : removeFile(kFactoryMarker);
    if (fault) {
        return fault;
    }
    isFactory_ = isOn;
    mark("switches");
    return saveOptions();
}

Console::Fault Console::setPackageManager(bool isReady)
{
    Fault fault = set_.packages.setManagerDelay(isReady ? 0 : -1);
    if (!fault) {
        fault = isReady ? touch(kManagerMarker) : removeFile(kManagerMarker);
    }
    mark("switches");
    return fault;
}

Console::Fault Console::setMirroring(bool isOn)
{
    return set_.settings.set(kMirroringKey, isOn ? 1 : 0, kWriter);
}

Console::Fault Console::changeClock(const ClockChange& change)
{
    if (!hasClock()) {
        return "this set runs without a clock: start its command with `vset run --clock-rate 1`";
    }
    try {
        ClockFile(kClockPage, ClockFile::Opening::kExisting).change(change);
    } catch (const std::exception& error) {
        return error.what();
    }
    mark("set");
    return std::nullopt;
}

Console::Fault Console::setUpgradeUI(const std::string& name, unsigned int after)
{
    const UiBehaviour behaviour{name, after};
    if (Fault fault = faultOf(behaviour)) {
        return fault;
    }
    behaviour_ = behaviour;
    mark("switches");
    return saveOptions();
}

void Console::onLaunch(const Launch& request)
{
    if (request.application != kUpgradeUI) {
        return;
    }
    const bool isStarted = screen_.launch(request, behaviour_);
    set_.launches.reply(request.id, isStarted ? 0 : -1);
}

// ---- Bus ----

void Console::handleModules(GDBusMethodInvocation* invocation)
{
    modules_.ask([this, invocation] {
        g_dbus_method_invocation_return_value(
            invocation, g_variant_new("(s)", common::compactJson(modules_.snapshot()).c_str()));
    });
}

void Console::handle(const std::string& method, const std::string& sender, GVariant* parameters,
                     GDBusMethodInvocation* invocation)
{
    if (method == "GetModules") {
        handleModules(invocation);
        return;
    }
    if (method == "GetUrl" || method == "Snapshot") {
        const std::string value = method == "GetUrl" ? web_.url() : common::compactJson(sections());
        g_dbus_method_invocation_return_value(invocation, g_variant_new("(s)", value.c_str()));
        return;
    }
    Fault fault;
    if (method == "UpdateScreen") {
        const char* text = "";
        g_variant_get(parameters, "(&s)", &text);
        fault = screen_.update(sender, set_.clients.find(sender).process, text);
    } else {
        fault = carryOut(orderOf(method, parameters));
    }
    if (fault) {
        g_dbus_method_invocation_return_dbus_error(invocation, kInvalid, fault->c_str());
    } else {
        g_dbus_method_invocation_return_value(invocation, nullptr);
    }
}

} // namespace vset
