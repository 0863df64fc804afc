#include "include/tarnwick/television.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <ctime>
#include <dlfcn.h>
#include <fcntl.h>
#include <fstream>
#include <iterator>
#include <poll.h>
#include <sstream>
#include <sys/inotify.h>
#include <sys/mman.h>
#include <unistd.h>

#include "common/daemon-events.h"
#include "common/errors.h"
#include "vset/client/control-client.h"
#include "vset/client/platform-log.h"
#include "vset/clock/clock-page.h"
#include "vset/television/process.h"
#include "vset/television/set-contents.h"
#include "vset/television/set-life.h"
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

std::string readWhole(const fs::path& path)
{
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
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

int64_t microsecondsOf(const std::string& time)
{
    std::tm parts{};
    const char* const rest = strptime(time.c_str(), "%Y-%m-%dT%H:%M:%S", &parts);
    const int64_t seconds = timegm(&parts);
    return seconds * 1'000'000 + (rest != nullptr && *rest == '.' ? std::atoi(rest + 1) : 0);
}

// Wakes a wait when a log of the set grows; other changes are looked for twenty times a second.
class LogWatch
{
public:
    explicit LogWatch(const fs::path& directory) : handle_(inotify_init1(IN_CLOEXEC | IN_NONBLOCK))
    {
        inotify_add_watch(handle_, directory.c_str(), IN_MODIFY | IN_CREATE);
    }
    ~LogWatch() { close(handle_); }
    LogWatch(const LogWatch&) = delete;
    LogWatch& operator=(const LogWatch&) = delete;

    void wait() const
    {
        pollfd change{handle_, POLLIN, 0};
        poll(&change, 1, 50);
        char events[4096];
        while (::read(handle_, events, sizeof events) > 0) {
        }
    }

private:
    int handle_;
};

// ---- Clock ----

// The set's wall clock now, microseconds since 1970.
int64_t setTime(const fs::path& clockFile)
{
    const int file = open(clockFile.c_str(), O_RDONLY | O_CLOEXEC);
    void* const memory = mmap(nullptr, sizeof(vset::ClockPage), PROT_READ, MAP_SHARED, file, 0);
    close(file);
    if (memory == MAP_FAILED) {
        throw TelevisionError("cannot read " + clockFile.string());
    }
    const vset::ClockState state = vset::readClock(*static_cast<const vset::ClockPage*>(memory));
    munmap(memory, sizeof(vset::ClockPage));
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return (state.monotonicAt(now.tv_sec * int64_t{1'000'000'000} + now.tv_nsec) + state.wallOffset) / 1000;
}

} // namespace

struct Television::Inside {
    explicit Inside(const fs::path& program)
        : vset(program.empty() ? findVset() : program), directory(makeDirectory())
    {
    }

    vset::SetContents contents() const { return vset::SetContents(directory); }
    vset::SetLife life() const
    {
        return told([this] { return vset::readLife(directory); });
    }
    fs::path said() const { return directory / "vset.out"; } // by `vset run`
    void start(const std::vector<std::string>& arguments);
    // After a reboot the connection is a new one.
    vset::ControlClient platform() const { return vset::ControlClient::ofSet(directory); }

    fs::path vset;
    fs::path directory;
    bool isKept = false;
    std::unique_ptr<vset::Process> power;  // `vset run`
    std::unique_ptr<vset::Process> daemon; // `vset exec`, whose child is the daemon
};

void Television::Inside::start(const std::vector<std::string>& arguments)
{
    std::vector<std::string> words = {vset, "run", directory};
    words.insert(words.end(), arguments.begin(), arguments.end());
    // What an earlier time on has said and written down is no sign of this one.
    std::ofstream(said(), std::ios::trunc).close();
    fs::remove(directory / vset::kLifeFile);
    power = std::make_unique<vset::Process>(words, said());
}

Television::Television(const fs::path& vset) : inside_(std::make_unique<Inside>(vset))
{
    try {
        vset::runOrThrow({inside_->vset, "new", inside_->directory});
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
    } catch (const std::exception&) {
        cutPower(); // the object's end is the set's
    }
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
    return readWhole(outside(path));
}

bool Television::exists(const std::string& path) const
{
    std::error_code ignored; // what cannot be looked at is not there
    return fs::exists(fs::symlink_status(outside(path), ignored));
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
    std::vector<std::string> arguments;
    if (cutAtWrite) {
        arguments = {"--cut-power-at-write", std::to_string(*cutAtWrite)};
    }
    inside_->start(arguments);
    waitForBoot(1);
}

void Television::switchOnAlone(unsigned int loopNodes)
{
    // The command runs once all services are usable; it ends with its input, and the set with it.
    inside_->start(
        {"-n", std::to_string(loopNodes), "--clock-rate", "1", "--", "sh", "-c", "echo on; exec cat"});
    waitUntil([&] { return readWhole(inside_->said()).find("on\n") != std::string::npos; }, "the set is on");
}

void Television::switchOff()
{
    if (inside_->power) {
        inside_->power->closeInput();
        inside_->power->signal(SIGTERM);
        inside_->power->waitFor(kPatience);
    }
    inside_->power.reset();
    inside_->daemon.reset();
}

void Television::cutPower()
{
    inside_->power.reset(); // the kernel ends the set with its launcher
    inside_->daemon.reset();
}

bool Television::isOn()
{
    return inside_->power && inside_->power->isRunning();
}

int Television::waitForEnd()
{
    const std::optional<int> status = inside_->power ? inside_->power->waitFor(kPatience) : std::nullopt;
    if (!status) {
        throw TelevisionError("the set does not end\n" + logTail());
    }
    return *status;
}

void Television::reboot()
{
    told([&] { inside_->platform().reboot(0); });
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

// ---- The daemon ----

void Television::startDaemon()
{
    std::vector<std::string> words = {inside_->vset, "exec", inside_->directory, "--"};
    const std::vector<std::string> user = asUpdateUser();
    words.insert(words.end(), user.begin(), user.end());
    words.emplace_back("/usr/bin/tarnwick");
    inside_->daemon = std::make_unique<vset::Process>(words, outside(kDaemonOutput));
}

bool Television::daemonRuns()
{
    if (inside_->daemon) {
        return inside_->daemon->isRunning();
    }
    const vset::SetLife life = inside_->life();
    return isOn() && !life.boots.empty() && life.boots.back().isUp && !life.boots.back().daemonEnded;
}

int Television::waitForDaemon()
{
    if (inside_->daemon) {
        const std::optional<int> status = inside_->daemon->waitFor(kPatience);
        if (!status) {
            throw TelevisionError("the daemon does not end\n" + logTail());
        }
        return *status;
    }
    std::optional<int> status;
    waitUntil(
        [&] {
            const vset::SetLife life = inside_->life();
            status = life.boots.empty() ? std::nullopt : life.boots.back().daemonEnded;
            return status.has_value();
        },
        "the daemon ends");
    return *status;
}

void Television::killDaemon()
{
    if (inside_->daemon) {
        kill(inside_->daemon->child(), SIGKILL);
    } else {
        vset::runOrThrow(
            {inside_->vset, "exec", inside_->directory, "--", "sh", "-c", "kill -9 $(pidof tarnwick)"});
    }
    waitForDaemon();
}

std::string Television::daemonStatus() const
{
    if (!inside_->daemon) {
        throw TelevisionError("startDaemon() has started none");
    }
    return readWhole("/proc/" + std::to_string(inside_->daemon->child()) + "/status");
}

std::string Television::daemonOutput() const
{
    return read(kDaemonOutput);
}

// ---- The log ----

std::vector<Message> Television::messages() const
{
    std::vector<Message> messages;
    std::istringstream log(read(vset::kLogFile));
    for (std::string line; std::getline(log, line);) {
        std::optional<vset::LogRecord> record = vset::parseLogLine(line);
        if (record && common::isOfDaemon(*record)) {
            messages.push_back({record->priority, std::move(record->message), record->process,
                                std::move(record->threadName), microsecondsOf(record->time)});
        }
    }
    return messages;
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
    waitForText(std::to_string(state));
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
    return text + readWhole(inside_->said()) + daemonOutput();
}

// ---- Platform ----

void Television::setPower(int state)
{
    told([&] { inside_->platform().setPowerState(state); });
}

int Television::power()
{
    return told([&] { return inside_->platform().snapshot()["power"]["state"].asInt(); });
}

int Television::setting(const std::string& key)
{
    return told([&] {
        const Json::Value settings = inside_->platform().snapshot()["settings"];
        if (!settings.isMember(key)) {
            throw TelevisionError("there is no settings key \"" + key + "\"");
        }
        return settings[key]["value"].asInt();
    });
}

void Television::setSetting(const std::string& key, int value)
{
    told([&] { inside_->platform().setSetting(key, value); });
}

void Television::setFault(const std::string& call, int result, int count)
{
    told([&] { inside_->platform().setFault(call, result, count); });
}

void Television::resetFaults()
{
    told([&] { inside_->platform().resetFaults(); });
}

void Television::answerUpgradeUi(const std::string& answer, unsigned int afterMilliseconds)
{
    told([&] {
        inside_->platform().callConsole("SetUpgradeUI",
                                        g_variant_new("(su)", answer.c_str(), afterMilliseconds));
    });
}

// ---- Clock ----

void Television::setClockRate(double rate)
{
    vset::runOrThrow({inside_->vset, "clock", inside_->directory, "--rate", std::to_string(rate)});
}

void Television::jump(double seconds)
{
    vset::runOrThrow({inside_->vset, "clock", inside_->directory, "--jump", std::to_string(seconds)});
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
    return vset::run(all);
}

Output Television::command(const std::string& name, const std::vector<std::string>& words) const
{
    std::vector<std::string> all = {inside_->vset, name, inside_->directory};
    all.insert(all.end(), words.begin(), words.end());
    return vset::run(all);
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

void Television::waitUntil(const std::function<bool()>& isSo, const std::string& what)
{
    const LogWatch watch(outside("/var/log"));
    const auto end = std::chrono::steady_clock::now() + kPatience;
    while (!isSo()) {
        if (std::chrono::steady_clock::now() > end) {
            throw TelevisionError("this did not happen: " + what + "\n" + logTail());
        }
        if (inside_->power && !inside_->power->isRunning() && !isSo()) {
            throw TelevisionError("the set has ended before this: " + what + "\n" +
                                  readWhole(inside_->said()));
        }
        watch.wait();
    }
}

} // namespace tarnwick
