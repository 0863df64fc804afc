#include "tests/proof/process/daemon.h"

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <gio/gio.h>
#include <set>
#include <unistd.h>
#include <utility>

#include "platform/fake/fake-platform.h"
#include "platform/include/norlog.h"
#include "platform/include/ps_mount.h"
#include "platform/include/trace_logger.h"
#include "src/src/fw-update-UIA.h"
#include "tests/proof/process/control-answers.h"
#include "tests/proof/process/control-calls.h"
#include "tests/proof/process/failing.h"
#include "tests/proof/process/machine.h"
#include "tests/proof/process/places.h"

int tarnwick_main(); // the daemon's main, renamed as it was compiled

namespace proof::daemon
{

namespace
{

constexpr const char* kStatus = "memory/ep_firmware_update_app/fw_update_status";
constexpr const char* kProgress = "memory/ep_firmware_update_app/fw_update_progress";
constexpr const char* kWorking = "memory/enterprise/swupgrade/working_status";
constexpr const char* kMirroring = "memory/menu/network/screenmirroring/smsrc_status";
constexpr int kErrorOfUpdate = EIO;
constexpr int kSecondsOfAnImage = 5;

struct Daemon {
    const Television* television;
    std::function<void()> next;
    std::vector<std::string> trace;
    size_t callsSeen = 0;
    bool hasEnded = false;
    std::string updateMode = "ok";
    unsigned int progress = 42;
    std::set<std::string> failures; // of the mount service and of the control libraries
};

Daemon* self = nullptr;

} // namespace

void note(const std::string& line)
{
    std::vector<std::string> calls = fakePlatform().callsSince(self->callsSeen);
    self->callsSeen += calls.size();
    std::move(calls.begin(), calls.end(), std::back_inserter(self->trace));
    if (!line.empty()) {
        self->trace.push_back(line);
    }
}

namespace
{

void end(const std::string& how)
{
    note(how);
    self->hasEnded = true;
    self->next();
    _exit(0);
}

void applyKey(const char* key, const std::string& value)
{
    if (value == "null") {
        fakePlatform().fireNullNode(key);
    } else {
        fakePlatform().changeSetting(key, atoi(value.c_str()));
    }
}

void failOnce(const std::string& function)
{
    if (function == "thread") {
        machine::failThread();
    } else if (function == "sem_open") {
        machine::failSemaphore();
    } else if (function == "PS_Mount" || function == "setContext" || function == "checkVersion") {
        self->failures.insert(function);
    } else {
        fakePlatform().answerInTurn(function, {function == "ABM_DownloadAppBinary" ? 0 : -1});
    }
}

bool fails(const std::string& function)
{
    return self->failures.erase(function) != 0;
}

std::string idOf(const std::string& name)
{
    for (const Module& module : self->television->modules) {
        if (module.name == name) {
            return module.id;
        }
    }
    return "";
}

int doUpdate(const std::string mode) // a copy: the next updates may go otherwise meanwhile
{
    if (mode == "hang" || mode == "late") {
        machine::hang();
    } else if (mode != "quick" && mode != "at-once") {
        machine::sleep((mode == "slow" ? 5000 : 100) * machine::kMillisecond);
    }
    errno = kErrorOfUpdate;
    return mode == "fail" ? 7 : 0;
}

} // namespace

void run(const Television& television, const std::string& root, std::function<void()> next)
{
    failing::setDepth(1);
    // GLib shifts the timers of whole seconds by a part of one that it makes of these, so that not all
    // programs of all machines wake up at once.
    unsetenv("HOSTNAME");
    unsetenv("DBUS_SESSION_BUS_ADDRESS");
    self = new Daemon{&television, std::move(next), {}, 0, false, "ok", 42, {}};
    places = new Places(root);
    places->setMarker("/tmp/FACTORY_PRODCUTION", television.isFactory);
    places->setMarker("/run/.pkgmgr_ready", television.isManagerReady);
    FakePlatform& platform = fakePlatform();
    platform.setSystemText(128, "MODEL-A-1");
    platform.setSetting(kWorking, television.working);
    platform.setFlag("/tmp/.fw_download_ready", television.wereAsked);
    machine::start(self->next, note);
    for (const std::string& function : television.failures) {
        failOnce(function);
    }
    machine::setThreads(television.isEager ? machine::Threads::kEager : machine::Threads::kLazy);
    machine::runMain([] {
        failing::setDepth(0);
        tarnwick_main();
        end("main returned");
    });
}

void apply(const std::string& event)
{
    FakePlatform& platform = fakePlatform();
    const size_t colon = event.find(':');
    const std::string kind = event.substr(0, colon);
    const std::string rest = colon == std::string::npos ? "" : event.substr(colon + 1);
    const int value = atoi(rest.c_str());
    const std::pair<const char*, std::function<void()>> actions[] = {
        {"tick", [] { machine::advance(1000 * machine::kMillisecond); }},
        {"wait", [&] { machine::advance(value * machine::kMillisecond); }},
        {"jump", [&] { machine::jumpToSecond(value); }},
        {"power",
         [&] {
             const int current = atoi(rest.c_str() + rest.find('>') + 1);
             platform.setPowerState(current);
             platform.changePowerState(value, current);
         }},
        {"level", [&] { platform.setPowerState(value); }},
        {"poweroff", [&] { platform.powerOff(0); }},
        {"key", [&] { applyKey(kStatus, rest); }},
        {"mirror", [&] { applyKey(kMirroring, rest); }},
        {"working", [&] { platform.setSetting(kWorking, value); }},
        {"manager", [&] { places->setMarker("/run/.pkgmgr_ready", value == 1); }},
        {"spoil", [&] { places->spoil(rest); }},
        {"factory", [&] { places->setMarker("/tmp/FACTORY_PRODCUTION", value == 1); }},
        {"launch", [&] { platform.answer("applaunch_send_launch_request", rest == "fail" ? -1 : 0); }},
        {"fail", [&] { failOnce(rest); }},
        {"update", [&] { self->updateMode = rest; }},
        {"progress", [&] { self->progress = static_cast<unsigned int>(value); }},
        {"free", [] { machine::freeHanging(); }},
        {"lazy", [] { machine::setThreads(machine::Threads::kLazy); }},
        {"eager", [] { machine::setThreads(machine::Threads::kEager); }},
        {"stall", [] { machine::setThreads(machine::Threads::kStalled); }},
    };
    for (const auto& [name, action] : actions) {
        if (kind == name) {
            action();
        }
    }
}

std::vector<std::string> takeTrace()
{
    note("");
    return std::exchange(self->trace, {});
}

std::string status()
{
    const FakePlatform& platform = fakePlatform();
    std::string text = "state " + std::to_string(FWUpdateUIA::getInstance()->FWSVC_get_state());
    for (const std::string key : {kStatus, kProgress, kWorking}) {
        const std::optional<int> value = platform.setting(key);
        text += ", " + key.substr(key.rfind('/') + 1) + " " + (value ? std::to_string(*value) : "-");
    }
    text += ", semaphore " + std::to_string(machine::semaphoreValue()) + ", locks";
    for (const PowerLock& lock : platform.heldPowerLocks()) {
        text += " " + std::to_string(lock.kind);
    }
    for (const Module& module : self->television->modules) {
        const bool isThere = module.package.content != Source::kAbsent && places->isPackageThere(module.id);
        text += ", " + module.name + (isThere ? " package" : "") + " mounts " +
                std::to_string(places->mountsOf(module.id));
    }
    return text + ", list " + places->list();
}

bool hasEnded()
{
    return self->hasEnded;
}

// ---- What the process asks ----

namespace
{

// A message as the platform's log gets it: "FILE: FUNCTION(LINE) > TEXT".
void noteLog(int priority, const std::string& line)
{
    note("log " + std::to_string(priority) + " " + line.substr(line.find("> ") + 2));
}

// The last part of a mount point.
std::string idIn(const std::string& text)
{
    return text.substr(text.rfind('/') + 1);
}

} // namespace

} // namespace proof::daemon

using namespace proof; // NOLINT: what follows is what the daemon calls
using proof::daemon::self;

extern "C" int proofControlCalled(const char* module, const char* function, const char* arguments, void* out)
{
    const failing::Result* const refusal = control::ask(function, module);
    const failing::Aside aside;
    const std::string asked = function;
    daemon::note(std::string(module) + " " + asked + "(" + arguments + ")");
    if (refusal != nullptr && asked == "doUpdate" && refusal->value == 0) {
        return daemon::doUpdate(refusal->name);
    }
    if (refusal != nullptr) {
        return control::answer(function, *refusal, out);
    }
    if (asked == "getEMPID") {
        strcpy(static_cast<char*>(out), daemon::idOf(module).c_str());
    } else if (asked == "getActiveVersion") {
        strcpy(static_cast<char*>(out), "1.0");
    } else if (asked == "getUpdateProgress") {
        *static_cast<unsigned int*>(out) = self->progress;
    } else if (asked == "getExpectedTime") {
        *static_cast<int*>(out) = daemon::kSecondsOfAnImage;
    } else if (asked == "doUpdate") {
        return daemon::doUpdate(self->updateMode);
    }
    return daemon::fails(asked) ? -1 : 0;
}

// The content is told by its length and a sum, which is that of its bytes.
extern "C" int proofImageWritten(const char* module, const unsigned char* data, int length)
{
    uint64_t sum = 0;
    for (int at = 0; at < length; ++at) {
        sum += data[at];
    }
    char text[100];
    snprintf(text, sizeof text, "%d, %llu", length, static_cast<unsigned long long>(sum));
    return proofControlCalled(module, "doUpdate_decryption", text, nullptr);
}

int PS_Mount(const char* command, int, int, int* result)
{
    daemon::note(std::string("PS_Mount(\"") + command + "\")");
    *result = 0;
    if (daemon::fails("PS_Mount")) {
        return -1;
    }
    places->mount(daemon::idIn(command));
    return 0;
}

int PS_Umount(const char* directory, int length, int, int* result)
{
    const std::string text(directory, static_cast<size_t>(length));
    daemon::note("PS_Umount(\"" + text + "\")");
    *result = places->unmount(daemon::idIn(text)) ? 0 : EINVAL;
    return *result == 0 ? 0 : -1;
}

int __norlog_print(int, int priority, const char*, const char* format, ...)
{
    static constexpr failing::Result results[] = {{"-1", -1, 0}};
    const failing::Result* const refusal = failing::ask("__norlog_print", results, format);
    if (refusal != nullptr) {
        return -1;
    }
    const failing::Aside aside;
    char line[4096];
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(line, sizeof line, format, arguments);
    va_end(arguments);
    daemon::noteLog(priority, line);
    return 0;
}

void TraceLogger::record(int, const char*, const char*, int, const char*, ...) {}

extern "C" guint g_bus_own_name(GBusType, const gchar* name, GBusNameOwnerFlags, GBusAcquiredCallback,
                                GBusNameAcquiredCallback, GBusNameLostCallback, gpointer, GDestroyNotify)
{
    const failing::Aside aside;
    daemon::note(std::string("g_bus_own_name(\"") + name + "\")");
    return 1;
}

extern "C" void quick_exit(int status) noexcept
{
    failing::setDepth(1);
    daemon::end("quick_exit(" + std::to_string(status) + ")");
    abort();
}
