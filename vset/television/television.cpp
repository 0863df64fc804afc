// The driver of a set: how it is made, switched on, seen and handled from outside, and ended.
#include "include/tarnwick/television.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <ctime>
#include <dlfcn.h>
#include <fcntl.h>
#include <poll.h>
#include <sstream>
#include <sys/inotify.h>
#include <sys/mman.h>
#include <unistd.h>

#include "common/daemon/daemon-events.h"
#include "common/errors.h"
#include "common/files/unique-fd.h"
#include "common/files/whole-file.h"
#include "common/json-text.h"
#include "vset/client/control-client.h"
#include "vset/client/platform-log.h"
#include "vset/clock/mapped-page.h"
#include "vset/television/process.h"
#include "vset/television/set-contents.h"
#include "vset/television/set-life.h"
#include "vset/television/set-power.h"
#include "vset/television/users.h"

namespace tarnwick
{

namespace
{

namespace fs = std::filesystem;
using vset::kPatience;

constexpr const char* kDaemonOutput = "/var/log/tarnwick.out";

// What the rooms below throw reaches the caller as one kind.
template <typename Action>
auto told(Action action)
{
    try {
        return action();
    } catch (const TelevisionError&) {
        throw;
    } catch (const std::exception& error) {
        throw TelevisionError(error.what());
    }
}

std::chrono::milliseconds inMilliseconds(double seconds)
{
    return std::chrono::milliseconds(static_cast<int64_t>(seconds * 1000));
}

// ---- The program ----

// Beside this library in a build tree; in the bin of a kit that has it in its lib, or in lib/SYSTEM.
fs::path findVset()
{
    Dl_info self{};
    if (dladdr(reinterpret_cast<const void*>(&findVset), &self) == 0) {
        throw TelevisionError("this program does not know where it lies: name the vset to use");
    }
    const fs::path here = fs::canonical(self.dli_fname).parent_path();
    for (const fs::path& candidate : {here / "vset", here / "../bin/vset", here / "../../bin/vset"}) {
        if (access(candidate.c_str(), X_OK) == 0) {
            return candidate;
        }
    }
    throw TelevisionError("there is no vset beside " + here.string() +
                          " or in its kit: install the kit, or name the vset to use");
}

fs::path makeDirectory()
{
    std::error_code error;
    std::string name = fs::temp_directory_path(error) / "tv-XXXXXX";
    if (error || mkdtemp(name.data()) == nullptr) {
        throw TelevisionError("cannot make a temporary directory " + name);
    }
    fs::permissions(name, fs::perms(0755)); // the set's users pass through
    return name;
}

// As an ordinary user of the set that can gain no privilege. Without root there is only one user.
std::vector<std::string> asUpdateUser()
{
    if (geteuid() != 0) {
        return {"setpriv", "--no-new-privs"};
    }
    return {"setpriv",
            "--reuid",
            std::to_string(vset::kUpdateUser),
            "--regid",
            std::to_string(vset::kSystemGroup),
            "--clear-groups",
            "--no-new-privs"};
}

// ---- Log ----

// Wakes a wait when a log of the set grows; other changes are looked for twenty times a second.
class LogGrowth
{
public:
    explicit LogGrowth(const fs::path& directory) : handle_(inotify_init1(IN_CLOEXEC | IN_NONBLOCK))
    {
        inotify_add_watch(handle_.get(), directory.c_str(), IN_MODIFY | IN_CREATE);
    }

    void wait() const
    {
        pollfd change{handle_.get(), POLLIN, 0};
        poll(&change, 1, 50);
        char events[4096];
        while (::read(handle_.get(), events, sizeof events) > 0) {
        }
    }

private:
    common::UniqueFd handle_;
};

// The daemon's records in a piece of the log.
std::vector<Message> messagesIn(const std::string& text)
{
    std::vector<Message> messages;
    std::istringstream log(text);
    for (std::string line; std::getline(log, line);) {
        std::optional<vset::LogRecord> record = vset::parseLogLine(line);
        if (record && common::isOfDaemon(*record)) {
            messages.push_back({record->priority, std::move(record->message), record->process,
                                std::move(record->threadName), common::microsecondsOf(*record).value_or(0)});
        }
    }
    return messages;
}

// ---- Clock ----

// The set's wall clock now, microseconds since 1970.
int64_t setTime(const fs::path& clockFile)
{
    const vset::ClockPage* const page = vset::mapClockPage(clockFile.c_str());
    if (page == nullptr) {
        throw TelevisionError("cannot read " + clockFile.string());
    }
    const vset::ClockState state = vset::readClock(*page);
    munmap(const_cast<vset::ClockPage*>(page), sizeof *page);
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return (state.monotonicAt(now.tv_sec * int64_t{1'000'000'000} + now.tv_nsec) + state.wallOffset) / 1000;
}

// ---- Platform ----

// What a method of the set's console tells.
Json::Value consoleTells(const vset::ControlClient& platform, const char* method)
{
    const auto reply = platform.callConsole(method, nullptr, "(s)");
    const char* text = nullptr;
    g_variant_get(reply.get(), "(&s)", &text);
    if (std::optional<Json::Value> json = common::parseJson(text)) {
        return *std::move(json);
    }
    throw TelevisionError(std::string("the set's console tells nonsense: ") + text);
}

} // namespace

struct Television::Inside {
    explicit Inside(const Making& making)
        : vset(making.vset.empty() ? findVset() : making.vset),
          directory(making.directory.empty() ? makeDirectory() : making.directory),
          power(vset, directory, making.isRootless)
    {
    }

    void makeSet(const Making& making);
    // The newest one, or one in which nothing has happened yet.
    vset::Boot boot() const;
    vset::SetContents contents() const { return vset::SetContents(directory); }
    vset::SetLife life() const
    {
        return told([this] { return vset::readLife(directory); });
    }
    vset::Meanwhile meanwhile()
    {
        return [this] { power.look(); };
    }

    fs::path vset;
    fs::path directory;
    bool isKept = false;
    vset::SetPower power;
    std::unique_ptr<vset::Process> daemon; // `vset exec`, whose child is the daemon
};

void Television::Inside::makeSet(const Making& making)
{
    std::vector<std::string> words = {vset, "new"};
    if (making.isBare) {
        words.emplace_back("--bare");
    }
    words.emplace_back(directory);
    vset::runOrThrow(words);
}

vset::Boot Television::Inside::boot() const
{
    const vset::SetLife life = this->life();
    return life.boots.empty() ? vset::Boot{} : life.boots.back();
}

Television::Television(const fs::path& vset) : Television(Making{vset}) {}

Television::Television(const Making& making) : inside_(std::make_unique<Inside>(making))
{
    try {
        told([&] { inside_->makeSet(making); });
    } catch (...) {
        std::error_code ignored;
        fs::remove_all(inside_->directory, ignored);
        throw;
    }
}

Television::~Television()
{
    try {
        switchOff();
    } catch (...) {
        inside_->power.cut(); // the object's end is the set's
    }
    inside_->daemon.reset();
    std::error_code ignored;
    if (!inside_->isKept) {
        fs::remove_all(inside_->directory, ignored);
    }
}

const fs::path& Television::set() const
{
    return inside_->directory;
}

void Television::keep()
{
    inside_->isKept = true;
}

// ---- Contents ----

fs::path Television::outside(const std::string& path) const
{
    return told([&] { return inside_->contents().outside(path); });
}

void Television::write(const std::string& path, const std::string& content) const
{
    told([&] { inside_->contents().write(path, content); });
}

std::string Television::read(const std::string& path) const
{
    return common::readWhole(outside(path));
}

bool Television::exists(const std::string& path) const
{
    std::error_code ignored; // what cannot be looked at is not there
    return fs::exists(fs::symlink_status(outside(path), ignored));
}

void Television::put(const fs::path& from, const std::string& directory, const std::string& name) const
{
    told([&] { inside_->contents().put(from, directory, name); });
}

void Television::putLibrary(const fs::path& file, Controls where) const
{
    const auto place = where == Controls::kSystem ? vset::SetContents::Controls::kSystem
                                                  : vset::SetContents::Controls::kProduct;
    told([&] { inside_->contents().putLibrary(file, place); });
}

void Television::putPackage(const fs::path& file, Package where) const
{
    const auto place =
        where == Package::kFeed ? vset::SetContents::Place::kFeed : vset::SetContents::Place::kDelivered;
    told([&] { inside_->contents().putPackage(file, place); });
}

void Television::putFirmware(const fs::path& directory) const
{
    told([&] { inside_->contents().putFirmware(directory); });
}

void Television::putHardware(const fs::path& chips) const
{
    told([&] { inside_->contents().putHardware(chips); });
}

void Television::putStick(const fs::path& directory) const
{
    told([&] { inside_->contents().putStick(directory); });
}

void Television::removeStick() const
{
    told([&] { inside_->contents().removeStick(); });
}

void Television::putSigningKey(const fs::path& file) const
{
    told([&] { inside_->contents().putSigningKey(file); });
}

// ---- Power of the whole set ----

void Television::switchOn(std::optional<unsigned int> cutAtWrite)
{
    std::vector<std::string> words;
    if (cutAtWrite) {
        words = {"--cut-power-at-write", std::to_string(*cutAtWrite)};
    }
    inside_->daemon.reset();
    inside_->power.start(words);
    waitForBoot(1);
}

void Television::switchOnAlone(unsigned int loopNodes)
{
    inside_->daemon.reset();
    // The command ends with its input, and the set with it.
    inside_->power.start({"-n", std::to_string(loopNodes), "--clock-rate", "1", "--", "cat"});
    waitForBoot(1);
}

int Television::runAlone(const std::vector<std::string>& words, const Alone& how)
{
    std::vector<std::string> all;
    if (how.clockRate) {
        all.push_back("--clock-rate=" + std::to_string(*how.clockRate));
    }
    if (how.cutAtWrite) {
        all.insert(all.end(), {"--cut-power-at-write", std::to_string(*how.cutAtWrite)});
    }
    all.emplace_back("--");
    all.insert(all.end(), words.begin(), words.end());
    inside_->daemon.reset();
    inside_->power.start(all, how.takeLine);
    inside_->power.closeInput();
    const auto limit = how.limit ? inMilliseconds(*how.limit) : std::chrono::hours(24 * 365);
    const std::optional<int> status = inside_->power.waitForEnd(limit);
    if (!status) {
        throw TelevisionError(words[0] + " does not end in the set\n" + launcherOutput());
    }
    inside_->power.throwIfCut();
    return *status;
}

void Television::powerOff()
{
    if (!isOn()) {
        return;
    }
    inside_->power.act([](const vset::ControlClient& platform) { platform.powerOff(0); });
    waitForEnd();
    inside_->power.throwIfCut();
}

void Television::switchOff()
{
    inside_->power.end();
    inside_->daemon.reset();
}

void Television::cutPower()
{
    inside_->power.cut();
    inside_->daemon.reset();
}

bool Television::isOn()
{
    return inside_->power.isOn();
}

int Television::waitForEnd()
{
    const std::optional<int> status = inside_->power.waitForEnd(kPatience);
    if (!status) {
        throw TelevisionError("the set does not end\n" + logTail());
    }
    return *status;
}

void Television::reboot()
{
    inside_->power.act([](const vset::ControlClient& platform) { platform.reboot(0); });
}

void Television::waitForBoot(int number)
{
    const auto isUp = [&] {
        const vset::SetLife life = inside_->life();
        return life.boots.size() >= static_cast<size_t>(number) &&
               life.boots[static_cast<size_t>(number) - 1].isUp;
    };
    waitUntil(isUp, "boot " + std::to_string(number));
}

int Television::boots() const
{
    return static_cast<int>(inside_->life().boots.size());
}

std::optional<unsigned int> Television::writes() const
{
    return inside_->boot().writes;
}

std::string Television::launcherOutput() const
{
    return inside_->power.notes();
}

// ---- The daemon ----

void Television::startDaemon()
{
    std::vector<std::string> words = {inside_->vset, "exec", inside_->directory, "--"};
    const std::vector<std::string> user = asUpdateUser();
    words.insert(words.end(), user.begin(), user.end());
    words.emplace_back(vset::inset::kDaemon);
    inside_->daemon = std::make_unique<vset::Process>(words, outside(kDaemonOutput));
}

bool Television::daemonRuns()
{
    if (inside_->daemon) {
        return inside_->daemon->isRunning();
    }
    const vset::Boot boot = inside_->boot();
    return isOn() && boot.isUp && !boot.daemonEnded;
}

int Television::waitForDaemon()
{
    if (!inside_->daemon) {
        waitUntil([&] { return daemonEnd().has_value(); }, "the daemon ends");
        return daemonEnd()->status;
    }
    const std::optional<int> status = inside_->daemon->waitFor(kPatience, inside_->meanwhile());
    if (!status) {
        throw TelevisionError("the daemon does not end\n" + logTail());
    }
    return *status;
}

std::optional<End> Television::daemonEnd() const
{
    const vset::Boot boot = inside_->boot();
    return boot.daemonEnded ? std::optional(End{*boot.daemonEnded, boot.isBySignal}) : std::nullopt;
}

void Television::killDaemon()
{
    if (inside_->daemon) {
        kill(inside_->daemon->child(), SIGKILL);
    } else {
        inside_->power.command({"exec", inside_->directory, "--", "sh", "-c", "kill -9 $(pidof tarnwick)"});
    }
    waitForDaemon();
}

std::string Television::daemonStatus() const
{
    if (!inside_->daemon) {
        throw TelevisionError("startDaemon() has started none");
    }
    return common::readWhole("/proc/" + std::to_string(inside_->daemon->child()) + "/status");
}

std::string Television::daemonOutput() const
{
    return read(kDaemonOutput);
}

// ---- The log ----

std::vector<Message> Television::messages() const
{
    return messagesIn(read(vset::kLogFile));
}

std::vector<Message> Television::messagesOfBoot() const
{
    const std::string log = read(vset::kLogFile);
    const auto start = static_cast<size_t>(inside_->boot().logStart);
    return messagesIn(start <= log.size() ? log.substr(start) : log); // shorter: it was emptied since
}

std::vector<std::string> Television::texts() const
{
    std::vector<std::string> texts;
    for (Message& message : messages()) {
        texts.push_back(std::move(message.text));
    }
    return texts;
}

size_t Television::countOf(const std::string& text) const
{
    const std::vector<std::string> all = texts();
    return static_cast<size_t>(std::count(all.begin(), all.end(), text));
}

void Television::waitForText(const std::string& text, size_t count)
{
    waitUntil([&] { return countOf(text) >= count; }, "the daemon says \"" + text + "\"");
}

void Television::waitForState(int state)
{
    const auto hasCome = [&] {
        const std::vector<std::string> all = texts();
        return std::any_of(all.begin(), all.end(),
                           [&](const std::string& text) { return common::showsState(text, state); });
    };
    waitUntil(hasCome, "the daemon comes to state " + std::to_string(state));
}

void Television::clearLog()
{
    fs::resize_file(outside(vset::kLogFile), 0); // in place: whoever has it open writes on
}

std::string Television::logTail() const
{
    constexpr size_t kShown = 40;
    const std::vector<Message> all = messages();
    std::string text = "the daemon's log ends with:\n";
    for (size_t index = all.size() - std::min(all.size(), kShown); index < all.size(); ++index) {
        text += "  " + std::to_string(all[index].priority) + "  " + all[index].text + "\n";
    }
    return text + launcherOutput() + daemonOutput();
}

void Television::tellStory(std::function<void(const std::string&)> tell)
{
    told([&] { inside_->power.tellStory(std::move(tell)); });
}

// ---- Platform ----

void Television::setPower(int state)
{
    inside_->power.act([&](const vset::ControlClient& platform) { platform.setPowerState(state); });
}

int Television::power()
{
    return inside_->power.act(
        [](const vset::ControlClient& platform) { return platform.snapshot()["power"]["state"].asInt(); });
}

size_t Television::powerLocks()
{
    return inside_->power.act([](const vset::ControlClient& platform) {
        return static_cast<size_t>(platform.snapshot()["locks"]["held"].size());
    });
}

int Television::setting(const std::string& key)
{
    const Json::Value settings = inside_->power.act(
        [](const vset::ControlClient& platform) { return platform.snapshot()["settings"]; });
    if (!settings.isMember(key)) {
        throw TelevisionError("there is no settings key \"" + key + "\"");
    }
    return settings[key]["value"].asInt();
}

void Television::setSetting(const std::string& key, int value)
{
    inside_->power.act([&](const vset::ControlClient& platform) { platform.setSetting(key, value); });
}

void Television::setFault(const std::string& call, int result, int count)
{
    inside_->power.act([&](const vset::ControlClient& platform) { platform.setFault(call, result, count); });
}

void Television::resetFaults()
{
    inside_->power.act([](const vset::ControlClient& platform) { platform.resetFaults(); });
}

void Television::answerUpgradeUi(const std::string& answer, unsigned int afterMilliseconds)
{
    inside_->power.act([&](const vset::ControlClient& platform) {
        platform.callConsole("SetUpgradeUI", g_variant_new("(su)", answer.c_str(), afterMilliseconds));
    });
}

std::string Television::upgradeUiView()
{
    const Json::Value screen = inside_->power.act(
        [](const vset::ControlClient& platform) { return consoleTells(platform, "Snapshot")["screen"]; });
    return screen["shown"].asBool() ? screen["view"].asString() : "";
}

void Television::clickUpgradeUi(const std::string& button)
{
    inside_->power.act([&](const vset::ControlClient& platform) {
        platform.callConsole("Click", g_variant_new("(s)", button.c_str()));
    });
}

std::optional<int> Television::progress(const std::string& module)
{
    const Json::Value modules = inside_->power.act(
        [](const vset::ControlClient& platform) { return consoleTells(platform, "GetModules"); });
    for (const Json::Value& each : modules) {
        if (each["name"] == module && each["progress"].isInt()) {
            return each["progress"].asInt();
        }
    }
    return std::nullopt;
}

// ---- Clock ----

void Television::setClockRate(double rate)
{
    inside_->power.command({"clock", inside_->directory, "--rate", std::to_string(rate)});
}

void Television::jump(double seconds)
{
    inside_->power.command({"clock", inside_->directory, "--jump", std::to_string(seconds)});
}

void Television::freezeAfterStart(double seconds)
{
    const std::vector<Message> all = messages();
    const auto start = std::find_if(all.begin(), all.end(), [](const Message& message) {
        return common::readDaemonMessage(message.text).kind == common::DaemonEventKind::kStarted;
    });
    if (start == all.end()) {
        throw TelevisionError("the daemon has not started\n" + logTail());
    }
    setClockRate(0.01);
    const int64_t target = start->time + static_cast<int64_t>(seconds * 1e6);
    jump(static_cast<double>(target - setTime(inside_->directory / ".vset/clock")) / 1e6);
}

// ---- Other programs ----

Output Television::execute(const std::vector<std::string>& words) const
{
    std::vector<std::string> all = {inside_->vset, "exec", inside_->directory, "--"};
    all.insert(all.end(), words.begin(), words.end());
    return vset::run(all, inside_->meanwhile());
}

Output Television::command(const std::string& name, const std::vector<std::string>& words) const
{
    std::vector<std::string> all = {inside_->vset, name, inside_->directory};
    all.insert(all.end(), words.begin(), words.end());
    return vset::run(all, inside_->meanwhile());
}

std::vector<std::string> Television::loopMounts() const
{
    std::vector<std::string> lines;
    std::istringstream table(execute({"cat", "/proc/mounts"}).text);
    for (std::string line; std::getline(table, line);) {
        if (line.rfind("/dev/loop", 0) == 0) {
            lines.push_back(line);
        }
    }
    return lines;
}

// ---- Waiting ----

void Television::waitUntil(const std::function<bool()>& isSo, const std::string& what, double limit)
{
    const LogGrowth watch(outside("/var/log"));
    const auto end = std::chrono::steady_clock::now() + inMilliseconds(limit);
    while (!isSo()) {
        inside_->power.look();
        if (std::chrono::steady_clock::now() > end) {
            throw TelevisionError("this did not happen: " + what + "\n" + logTail());
        }
        if (inside_->power.hasEnded() && !isSo()) {
            inside_->power.failOnEnd(what);
        }
        watch.wait();
    }
    inside_->power.look();
}

void Television::watchWaits(std::function<void()> look)
{
    inside_->power.watch(std::move(look));
}

} // namespace tarnwick
