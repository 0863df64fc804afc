#include "television.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <iterator>
#include <sstream>
#include <stdexcept>

#include <fcntl.h>
#include <poll.h>
#include <sys/inotify.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include "clock/clock-page.h"
#include "firmware.h"
#include "flash.h"
#include "platform-log.h"
#include "tests/support/whole-file.h"

namespace service
{

using testing_support::readWhole;
using testing_support::replaceFile;
using testing_support::replaceWith;
using testing_support::replaceWithCopy;

namespace
{

constexpr const char* kVset = VSET_PROGRAM;
constexpr const char* kSemaphoreProgram = SEMAPHORE_PROGRAM;
const fs::path kExampleLibraries = EXAMPLE_LIBRARIES;
const fs::path kExampleImages = kExampleLibraries / "images";
const fs::path kScriptedLibraries = SCRIPTED_LIBRARIES;

constexpr const char* kHardware = "/var/lib/hardware";
constexpr const char* kDaemonOutput = "/var/log/tarnwick.out";
constexpr const char* kPlatformLog = "/var/log/platform.log";
constexpr unsigned int kUpdateUser = 901;
constexpr unsigned int kSystemGroup = 900;

const std::vector<std::string> kAsUpdateUser = {
    "setpriv",        "--reuid",       std::to_string(kUpdateUser), "--regid", std::to_string(kSystemGroup),
    "--clear-groups", "--no-new-privs"};

struct Example {
    const char* library;
    const char* chip;
    const char* firmwareName;
    const char* controls;
};
constexpr Example kExamples[] = {
    {"tuner", "tuner", "Tuner", "/prd/usr/fwupdate/controls"},
    {"panel", "panel", "Panel", "/usr/fwupdate/controls"},
    {"EXT-soundbar", "soundbar", "Soundbar", "/prd/usr/fwupdate/controls"},
};

void giveToDaemon(const fs::path& path)
{
    if (chown(path.c_str(), kUpdateUser, kSystemGroup) != 0)
        throw std::runtime_error("cannot give away " + path.string() + ": " + std::strerror(errno));
}

void makePackage(const Files& files, const fs::path& package)
{
    std::string tree = fs::temp_directory_path() / "service-package-XXXXXX";
    if (mkdtemp(tree.data()) == nullptr)
        throw std::runtime_error("no temporary directory");
    for (const auto& [name, content] : files)
        replaceFile(fs::path(tree) / name, content);
    fs::permissions(tree, fs::perms(0755));
    replaceWith(package, [&](const fs::path& unfinished) {
        runOrThrow({"mksquashfs", tree, unfinished, "-noappend", "-all-root", "-quiet", "-no-progress"});
    });
    fs::remove_all(tree);
}

// ---- Log lines ----

// Microseconds since 1970 of "2026-01-31T23:59:59.000001Z".
int64_t timeFrom(const std::string& text)
{
    std::tm parts{};
    const char* rest = strptime(text.c_str(), "%Y-%m-%dT%H:%M:%S", &parts);
    const int64_t seconds = timegm(&parts);
    return seconds * 1'000'000 + (rest != nullptr && *rest == '.' ? std::atoi(rest + 1) : 0);
}

// A record of the daemon in the platform's log.
std::optional<Message> messageFrom(const std::string& line)
{
    constexpr int kSystemBuffer = 2;
    std::optional<vset::LogRecord> record = vset::parseLogLine(line);
    if (!record || record->logId != kSystemBuffer || record->tag != "FWUPDATE")
        return std::nullopt;
    return Message{record->priority, std::move(record->message), record->process,
                   std::move(record->threadName), timeFrom(record->time)};
}

// ---- Waiting ----

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
        while (read(handle_, events, sizeof events) > 0) {
        }
    }

private:
    int handle_;
};

// The set's wall clock now, microseconds since 1970.
int64_t setTime(const fs::path& clockFile)
{
    const int file = open(clockFile.c_str(), O_RDONLY | O_CLOEXEC);
    void* memory = mmap(nullptr, sizeof(vset::ClockPage), PROT_READ, MAP_SHARED, file, 0);
    close(file);
    if (memory == MAP_FAILED)
        throw std::runtime_error("cannot read " + clockFile.string());
    const vset::ClockState state = vset::readClock(*static_cast<const vset::ClockPage*>(memory));
    munmap(memory, sizeof(vset::ClockPage));
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return (state.monotonicAt(now.tv_sec * int64_t{1'000'000'000} + now.tv_nsec) + state.wallOffset) / 1000;
}

} // namespace

unsigned int imageChecksum(const std::string& image)
{
    return systemCrc32(reinterpret_cast<const unsigned char*>(image.data()), image.size());
}

std::string formatInformation(const Information& information, const std::string& image)
{
    Json::Value json;
    json["version"] = information.version;
    json["crc"] = imageChecksum(image);
    json["expected_time"] = information.expectedSeconds;
    json["ui_use"] = information.uiUse;
    return json.toStyledString();
}

Television::Television()
{
    std::string name = fs::temp_directory_path() / "tv-XXXXXX";
    if (mkdtemp(name.data()) == nullptr)
        throw std::runtime_error("no temporary directory");
    fs::permissions(name, fs::perms(0755));
    set_ = name;
    runOrThrow({kVset, "new", set_});
}

Television::~Television()
{
    switchOff();
    std::error_code ignored;
    fs::remove_all(set_, ignored);
}

// ---- Contents ----

fs::path Television::outside(const std::string& path) const
{
    for (const char* live : {"/usr/fwupdate/", "/usr/lib/firmware/ext/", "/lib/firmware/ext/"}) {
        if (path.rfind(live, 0) == 0)
            return set_ / (path.rfind("/lib", 0) == 0 ? "usr" + path : path.substr(1));
    }
    return set_ / "root" / path.substr(1);
}

void Television::write(const std::string& path, const std::string& content)
{
    replaceFile(outside(path), content);
}

std::string Television::read(const std::string& path) const
{
    return readWhole(outside(path));
}

bool Television::exists(const std::string& path) const
{
    return fs::exists(fs::symlink_status(outside(path)));
}

void Television::installExample(const std::string& library)
{
    const auto* example = std::find_if(std::begin(kExamples), std::end(kExamples),
                                       [&](const Example& each) { return each.library == library; });
    if (example == std::end(kExamples))
        throw std::runtime_error("there is no example " + library);
    replaceWithCopy(kExampleLibraries / (library + ".so"),
                    outside(std::string(example->controls) + "/" + library + ".so"));
    const fs::path chip = outside(std::string(kHardware) + "/" + example->chip);
    replaceWithCopy(kExampleImages / "1.0/hardware" / example->chip, chip);
    giveToDaemon(chip);
    installed_[std::string(kHardware) + "/" + example->chip] = fs::last_write_time(chip);
}

bool Television::isChanged(const std::string& path) const
{
    return fs::last_write_time(outside(path)) != installed_.at(path);
}

std::vector<unsigned char> Television::activeFirmware(const std::string& chip) const
{
    const auto firmware =
        SlottedFlash(outside(std::string(kHardware) + "/" + chip), std::chrono::milliseconds(0))
            .activeFirmware();
    if (!firmware)
        throw std::runtime_error("the hardware " + chip + " has no intact firmware: " + std::strerror(errno));
    return *firmware;
}

std::string Television::activeVersion(const std::string& chip) const
{
    return SlottedFlash(outside(std::string(kHardware) + "/" + chip), std::chrono::milliseconds(0))
        .activeVersion()
        .value_or("none");
}

std::vector<unsigned char> Television::exampleFirmware(const std::string& firmwareName,
                                                       const std::string& version)
{
    const std::string file = readWhole(kExampleImages / version / firmwareName / (firmwareName + ".bin"));
    const size_t line = file.find('\n') + 1; // the rest is what the hardware gets
    return {file.begin() + static_cast<std::ptrdiff_t>(line), file.end()};
}

fs::path Television::examplePackage(const std::string& identifier, const std::string& version)
{
    return kExampleImages / version / (identifier + ".img");
}

void Television::installScripted(const std::string& name, const Json::Value& script, Controls where,
                                 const std::string& variant)
{
    const char* controls =
        where == Controls::kSystem ? "/usr/fwupdate/controls/" : "/prd/usr/fwupdate/controls/";
    write(std::string(kHardware) + "/" + name + ".json", script.toStyledString());
    replaceWithCopy(kScriptedLibraries / (variant + ".so"), outside(controls + name + ".so"));
}

std::vector<std::string> Television::calls() const
{
    std::vector<std::string> lines;
    std::istringstream in(read(std::string(kHardware) + "/calls"));
    for (std::string line; std::getline(in, line);)
        lines.push_back(line);
    return lines;
}

std::string Television::packagePath(const std::string& identifier)
{
    return "/opt/usr/apps/appbinarymanager/" + identifier + ".img";
}

std::string Television::mountPoint(const std::string& identifier)
{
    return "/opt/usr/apps/appbinarymanager/emps/" + identifier;
}

std::string Television::imageOf(const std::string& name)
{
    std::string image = "firmware of " + name + "\n";
    for (int block = 0; block < 2000; ++block)
        image += name + std::to_string(block * 7919) + '\0';
    return image;
}

Files Television::packageFiles(const std::string& name, const Information& information)
{
    return {{name + ".bin", imageOf(name)}, {"info.json", formatInformation(information, imageOf(name))}};
}

void Television::deliver(const std::string& identifier, const Files& files)
{
    makePackage(files, outside(packagePath(identifier)));
}

void Television::deliverFile(const std::string& identifier, const fs::path& package)
{
    replaceWithCopy(package, outside(packagePath(identifier)));
}

void Television::deliverFor(const std::string& name, const Information& information)
{
    deliver("emp" + name, packageFiles(name, information));
}

void Television::feed(const std::string& identifier, const Files& files)
{
    makePackage(files, outside("/srv/feed/" + identifier + ".img"));
}

void Television::feedFile(const std::string& identifier, const fs::path& package)
{
    replaceWithCopy(package, outside("/srv/feed/" + identifier + ".img"));
}

// ---- Encrypted images ----

void Television::installSignatureLibrary()
{
    runOrThrow({"cmake", "--install", BUILD_DIRECTORY, "--prefix", set_ / "usr", "--component", "signature"});
    const fs::path keys = outside("/var/lib/signature/keys");
    fs::create_directories(keys);
    replaceWithCopy(fs::path(TEST_KEYS) / "maker.pub.pem", keys / "maker.pem");
}

void Television::insertStick(const std::string& firmwareName, const std::string& version,
                             const std::string& signer)
{
    write(kContentKeyFile, std::string(64, 'c') + "\n");
    fs::permissions(outside(kContentKeyFile), fs::perms(0600));
    const fs::path stick = set_ / "stick"; // on this machine, as a person has it in the hand
    fs::create_directories(stick);
    const std::string file = firmwareName + ".bin";
    runOrThrow({FWMOD_PROGRAM, "usb", "--version-header", version, "--payload",
                kExampleImages / version / firmwareName / file, "--key-file", outside(kContentKeyFile),
                "--sign-key", fs::path(TEST_KEYS) / (signer + ".pem"), "-o", stick / file});
    runOrThrow({kVset, "usb", set_, "insert", stick});
}

void Television::removeStick()
{
    runOrThrow({kVset, "usb", set_, "remove"});
}

// ---- Power of the whole set ----

void Television::start(const std::vector<std::string>& arguments)
{
    std::vector<std::string> command = {kVset, "run", set_};
    command.insert(command.end(), arguments.begin(), arguments.end());
    replaceFile(set_ / "vset.out", ""); // what an earlier time on has said is no sign of this one
    power_ = std::make_unique<Process>(command, set_ / "vset.out");
}

void Television::switchOn(unsigned int loopNodes)
{
    // The command runs once all services are usable; it ends with its input, and the set with it.
    start({"-n", std::to_string(loopNodes), "--clock-rate", "1", "--", "sh", "-c", "echo on; exec cat"});
    waitUntil([&] { return readWhole(set_ / "vset.out").find("on\n") != std::string::npos; },
              "the set is on");
}

void Television::switchOnWhole()
{
    start({});
}

void Television::switchOff()
{
    platform_.reset();
    if (power_) {
        power_->closeInput();
        power_->signal(SIGTERM);
        power_->waitFor(kPatience);
    }
    power_.reset();
    daemon_.reset();
}

int Television::waitForEnd()
{
    const std::optional<int> status = power_->waitFor(kPatience);
    if (!status)
        throw std::runtime_error("the set does not end\n" + logTail());
    return *status;
}

// ---- The daemon ----

void Television::startDaemon()
{
    std::vector<std::string> command = {kVset, "exec", set_, "--"};
    command.insert(command.end(), kAsUpdateUser.begin(), kAsUpdateUser.end());
    command.emplace_back("/usr/bin/tarnwick");
    daemon_ = std::make_unique<Process>(command, outside(kDaemonOutput));
}

bool Television::daemonRuns()
{
    return daemon_ && daemon_->isRunning();
}

int Television::waitForDaemon()
{
    const std::optional<int> status = daemon_->waitFor(kPatience);
    if (!status)
        throw std::runtime_error("the daemon does not end\n" + logTail());
    return *status;
}

void Television::killDaemon()
{
    kill(daemon_->child(), SIGKILL);
    waitForDaemon();
}

std::string Television::daemonStatus() const
{
    return readWhole("/proc/" + std::to_string(daemon_->child()) + "/status");
}

std::string Television::daemonOutput() const
{
    return read(kDaemonOutput);
}

// ---- The log ----

std::vector<Message> Television::messages() const
{
    std::vector<Message> messages;
    std::istringstream log(read(kPlatformLog));
    for (std::string line; std::getline(log, line);) {
        if (std::optional<Message> message = messageFrom(line))
            messages.push_back(std::move(*message));
    }
    return messages;
}

std::vector<std::string> Television::texts() const
{
    std::vector<std::string> texts;
    for (const Message& message : messages())
        texts.push_back(message.text);
    return texts;
}

size_t Television::countOf(const std::string& text) const
{
    const std::vector<std::string> all = texts();
    return static_cast<size_t>(std::count(all.begin(), all.end(), text));
}

void Television::clearLog()
{
    fs::resize_file(outside(kPlatformLog), 0); // in place: whoever has it open writes on
}

void Television::waitForText(const std::string& text, size_t count)
{
    waitUntil([&] { return countOf(text) >= count; }, "the daemon says \"" + text + "\"");
}

void Television::waitUntil(const std::function<bool()>& isSo, const std::string& what)
{
    const LogWatch watch(outside("/var/log"));
    const auto end = std::chrono::steady_clock::now() + kPatience;
    while (!isSo()) {
        if (std::chrono::steady_clock::now() > end)
            throw std::runtime_error("this did not happen: " + what + "\n" + logTail());
        if (power_ && !power_->isRunning() && !isSo())
            throw std::runtime_error("the set has ended before this: " + what + "\n" +
                                     readWhole(set_ / "vset.out"));
        watch.wait();
    }
}

std::string Television::logTail() const
{
    constexpr size_t kShown = 40;
    const std::vector<Message> all = messages();
    std::string text = "the daemon's log ends with:\n";
    for (size_t index = all.size() - std::min(all.size(), kShown); index < all.size(); ++index)
        text += "  " + std::to_string(all[index].priority) + "  " + all[index].text + "\n";
    return text + readWhole(set_ / "vset.out") + daemonOutput();
}

// ---- Platform ----

const vset::ControlClient& Television::platform()
{
    if (!platform_)
        platform_.emplace(vset::ControlClient::ofSet(set_));
    return *platform_;
}

void Television::waitForPlatform(const std::function<bool(const Json::Value&)>& isSo, const std::string& what)
{
    try {
        platform().waitUntil(isSo, kPatience);
    } catch (const vset::ControlError& error) {
        throw std::runtime_error("this did not happen: " + what + " (" + error.what() + ")\n" + logTail());
    }
}

bool Television::ownsBusName(const std::string& name)
{
    return runOrThrow({kVset, "exec", set_, "--", "dbus-send", "--system", "--print-reply",
                       "--dest=org.freedesktop.DBus", "/org/freedesktop/DBus",
                       "org.freedesktop.DBus.NameHasOwner", "string:" + name})
               .find("boolean true") != std::string::npos;
}

void Television::raiseFlag(const std::string& flag)
{
    runOrThrow({kVset, "exec", set_, "--", "dbus-send", "--system", "--print-reply",
                "--dest=org.pellor.platform", "/org/pellor/platform",
                "org.pellor.platform.Services.RaiseFlag", "string:" + flag});
}

// ---- Clock ----

void Television::setClockRate(double rate)
{
    runOrThrow({kVset, "clock", set_, "--rate", std::to_string(rate)});
}

void Television::jump(double seconds)
{
    runOrThrow({kVset, "clock", set_, "--jump", std::to_string(seconds)});
}

int64_t Television::timeOf(const std::string& text) const
{
    for (const Message& message : messages()) {
        if (message.text == text)
            return message.time;
    }
    throw std::runtime_error("the daemon has not said \"" + text + "\"\n" + logTail());
}

void Television::freezeAfterStart(double seconds)
{
    setClockRate(0.01);
    const auto target = timeOf("service initialize") + static_cast<int64_t>(seconds * 1e6);
    jump(static_cast<double>(target - setTime(set_ / ".vset/clock")) / 1e6);
}

// ---- Other programs ----

void Television::killService(const std::string& name)
{
    runOrThrow({kVset, "exec", set_, "--", "sh", "-c", "kill -9 $(pidof " + name + ")"});
}

void Television::crashService(const std::string& name, std::chrono::milliseconds downtime)
{
    platform_.reset();
    runOrThrow({kVset, "fault", set_, "service", name, "crash", "--delay", std::to_string(downtime.count())});
}

void Television::waitForService(const std::string& busName, const std::string& ownerBefore)
{
    const auto isBack = [&] {
        const std::string owner = ownerOf(busName);
        return !owner.empty() && owner != ownerBefore;
    };
    waitUntil(isBack, busName + " is back");
}

std::string Television::ownerOf(const std::string& busName)
{
    const Output answer =
        execute({"dbus-send", "--system", "--print-reply=literal", "--dest=org.freedesktop.DBus",
                 "/org/freedesktop/DBus", "org.freedesktop.DBus.GetNameOwner", "string:" + busName});
    return answer.status == 0 ? answer.text : "";
}

Output Television::command(const std::string& name, const std::vector<std::string>& words) const
{
    std::vector<std::string> all{VSET_PROGRAM, name, set_};
    all.insert(all.end(), words.begin(), words.end());
    return run(all);
}

Output Television::execute(const std::vector<std::string>& command)
{
    std::vector<std::string> whole = {kVset, "exec", set_, "--"};
    whole.insert(whole.end(), command.begin(), command.end());
    return run(whole);
}

Output Television::semaphore(const std::string& verb, bool asRoot)
{
    std::vector<std::string> command;
    if (!asRoot)
        command = kAsUpdateUser;
    command.insert(command.end(), {kSemaphoreProgram, verb});
    return execute(command);
}

std::vector<std::string> Television::loopMounts()
{
    std::vector<std::string> lines;
    std::istringstream table(execute({"cat", "/proc/mounts"}).text);
    for (std::string line; std::getline(table, line);) {
        if (line.rfind("/dev/loop", 0) == 0)
            lines.push_back(line);
    }
    return lines;
}

} // namespace service
