#include "tests/proof/model/model.h"

#include <algorithm>
#include <deque>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <utility>

namespace proof
{

namespace
{

const std::string kPackages = "/opt/usr/apps/appbinarymanager/";
const std::string kStatus = "memory/ep_firmware_update_app/fw_update_status";
const std::string kProgress = "memory/ep_firmware_update_app/fw_update_progress";
const std::string kWorking = "memory/enterprise/swupgrade/working_status";
const std::string kMirroring = "memory/menu/network/screenmirroring/smsrc_status";
const std::string kDownloaded = "\"/tmp/.fw_download_ready\"";
const std::string kIgnoreResume = "\"/tmp/.ignore_resume\"";
const std::string kSemaphore = "/SEM_UPDATE_CONTROL, 0600, 1";

constexpr int64_t kSecond = 1000;
constexpr int kFromPackage = 2; // who asks for an update
constexpr int kFromSystem = 6;

using Step = std::function<void()>;

std::string number(int64_t value)
{
    return std::to_string(value);
}

std::string quoted(const std::string& text)
{
    return "\"" + text + "\"";
}

// A module, and what the last check or update has left of it.
struct Image {
    Module made;
    std::string firmware;
    std::string uiUse;
    bool isNeeded = false;
    bool isBuiltIn = false;
    uint32_t expected = 0;
    bool hasPackage = false;
    bool hasMountPoint = false;
    int mounts = 0;

    explicit Image(const Module& module)
        : made(module), firmware(module.id.empty() ? "" : module.id.substr(3)),
          hasPackage(module.package.content != Source::kAbsent)
    {
    }
    bool isOffered() const { return isNeeded && (uiUse == "select" || uiUse == "force"); }
    std::string file() const { return kPackages + made.id + ".img"; }
    std::string mountPoint() const { return kPackages + "emps/" + made.id; }
    const Source& source(int caller) const { return caller == kFromSystem ? made.builtIn : made.package; }
    std::string directory(int caller) const
    {
        return (caller == kFromSystem ? "/lib/firmware/ext/" + firmware : mountPoint()) + "/";
    }
};

} // namespace

class Model::Service
{
public:
    explicit Service(const Television& set)
        : threads(set.isEager ? "eager" : "lazy"), isManagerReady(set.isManagerReady),
          isFactoryMarked(set.isFactory), wereAsked(set.wereAsked)
    {
        keys[kWorking] = set.working;
        for (const Module& module : set.modules) {
            images.emplace_back(module);
        }
    }

    void boot()
    {
        if (!initialize()) {
            error("Error: service_initialize fail!\n");
        }
        spawn([this] { bootWorker(); });
        info("g_main loop running in main thread!\n");
        call("pwrctl_subscribe_state_changed_event");
        call("pwrctl_subscribe_poweroff_event");
        call("pralis_notify_key_changed", quoted(kMirroring));
        settle();
    }

    void apply(const std::string& event)
    {
        const size_t colon = std::min(event.find(':'), event.size() - 1);
        const std::string kind = event.substr(0, event.find(':'));
        const std::string rest = event.substr(colon + 1);
        const int value = atoi(rest.c_str());
        const std::map<std::string, Step> actions = {
            {"tick", [&] { advance(kSecond); }},
            {"wait", [&] { advance(value); }},
            {"jump", [&] { setNow((now / kSecond + value) * kSecond); }}, // to a whole second
            {"power", [&] { onPower(value, atoi(rest.c_str() + rest.find('>') + 1)); }},
            {"level", [&] { powerLevel = value; }},
            {"poweroff", [&] { onPowerOff(); }},
            {"key", [&] { onKey(rest, value); }},
            {"mirror", [&] { onMirroring(rest, value); }},
            {"working", [&] { keys[kWorking] = value; }},
            {"manager", [&] { isManagerReady = value == 1; }},
            {"factory", [&] { isFactoryMarked = value == 1; }},
            {"launch", [&] { failsLaunch = rest == "fail"; }},
            {"fail", [&] { failures.insert(rest); }},
            {"update", [&] { updateMode = rest; }},
            {"progress", [&] { libraryProgress = static_cast<uint32_t>(value); }},
            {"free",
             [&] { std::move(hanging.begin(), hanging.end(), std::back_inserter(ready)), hanging.clear(); }},
            {"lazy", [&] { threads = kind; }},
            {"eager", [&] { threads = kind; }},
            {"stall", [&] { threads = kind; }},
        };
        if (!ended) {
            actions.at(kind)();
            settle();
        }
    }

    std::string status() const
    {
        if (ended) {
            return lastStatus;
        }
        std::string text = "state " + number(state);
        for (const std::string& key : {kStatus, kProgress, kWorking}) {
            text +=
                ", " + key.substr(key.rfind('/') + 1) + " " + (keys.count(key) ? number(keys.at(key)) : "-");
        }
        text += ", semaphore " + number(semaphore) + ", locks";
        for (const int kind : locks) {
            text += " " + number(kind);
        }
        for (const Image& image : images) {
            text += ", " + image.made.name + (image.hasPackage ? " package" : "") + " mounts " +
                    number(image.mounts);
        }
        return text + ", list " + list.value_or("-");
    }

    std::vector<std::string> trace;
    bool ended = false;

private:
    // ---- Clock and threads ----

    void spawn(const Step& body)
    {
        if (threads == "eager") {
            body();
        } else {
            ready.push_back(body);
        }
    }

    void sleep(int64_t duration, const Step& then) { sleepers.emplace(now + duration, then); }

    void setNow(int64_t time)
    {
        for (now = time; !sleepers.empty() && sleepers.begin()->first <= now;
             sleepers.erase(sleepers.begin())) {
            ready.push_back(sleepers.begin()->second);
        }
    }

    // The main loop's timers that are due, each once.
    bool runTimers()
    {
        const bool beats = nextBeat && *nextBeat <= now;
        const bool ticks = nextTick && *nextTick <= now;
        if (beats) {
            call("hangwatch_watchdog_notify");
            nextBeat = now + 5 * kSecond;
        }
        if (ticks) {
            nextTick = tick() ? std::optional<int64_t>(now + kSecond) : std::nullopt;
        }
        return beats || ticks;
    }

    void settle()
    {
        do {
            while (threads != "stall" && !ready.empty() && !ended) {
                const Step step = ready.front();
                ready.pop_front();
                step();
            }
        } while (!ended && runTimers());
    }

    void advance(int64_t duration)
    {
        const int64_t end = now + duration;
        for (int64_t next = now; !ended && next <= end;) {
            setNow(next);
            settle();
            next = sleepers.empty() ? end + 1 : sleepers.begin()->first;
            next = std::min({next, nextBeat.value_or(end + 1), nextTick.value_or(end + 1)});
        }
        now = end;
    }

    void takeSemaphore(const Step& then)
    {
        if (semaphore == 0) {
            semaphoreQueue.push_back([this, then] { takeSemaphore(then); });
            return;
        }
        --semaphore;
        call("sem_wait");
        then();
    }

    // One update writes at a time, supervised or not.
    void lockUpdates(const Step& then)
    {
        if (areUpdatesLocked) {
            updateQueue.push_back([this, then] { lockUpdates(then); });
            return;
        }
        areUpdatesLocked = true;
        then();
    }

    void wakeFirst(std::deque<Step>& queue)
    {
        if (!queue.empty()) {
            ready.push_back(queue.front());
            queue.pop_front();
        }
    }

    // ---- What is noted ----

    void note(const std::string& line)
    {
        if (!ended) {
            trace.push_back(line);
        }
    }

    void error(const std::string& text) { note("log 6 " + text); }
    void info(const std::string& text) { note("log 4 " + text); }
    void call(const std::string& name, const std::string& arguments = "")
    {
        note(name + "(" + arguments + ")");
    }

    void ask(const Image& module, const std::string& function, const std::string& arguments = "")
    {
        call(module.made.name + " " + function, arguments);
    }

    void setContext(const Image& module, int caller)
    {
        ask(module, "setContext", quoted(module.made.name) + ", " + number(caller) + ", \"\"");
    }

    bool failsOnce(const std::string& function) { return failures.erase(function) != 0; }

    int readKey(const std::string& key, int fallback)
    {
        call("pralis_get_int", quoted(key));
        return failsOnce("pralis_get_int:" + key) || keys.count(key) == 0 ? fallback : keys[key];
    }

    void writeKey(const std::string& key, int value)
    {
        call("pralis_set_int", quoted(key) + ", " + number(value));
        if (failsOnce("pralis_set_int:" + key)) {
            error("Failed to save pralis [" + number(value) + "]");
        } else {
            keys[key] = value;
        }
    }

    int readWorking()
    {
        const int working = readKey(kWorking, -1);
        if (working == -1) {
            error("Failed to read pralis [0]");
        }
        return working;
    }

    void unlockPower(int kind)
    {
        call("pwrctl_unlock_state", number(kind));
        locks.erase(std::remove(locks.begin(), locks.end(), kind), locks.end());
    }

    // ---- Life of the service ----

    bool initialize()
    {
        isFactory = isFactoryMarked;
        isRunning = true;
        note("log 3 start work (org.pellor.tv.tarnwick)!!");
        call("g_bus_own_name", quoted("org.pellor.tv.tarnwick"));
        error("service initialize");
        started = now;
        if (images.empty()) {
            error("firmwareItems empty");
            error("Error: SymbolManager load fail!\n");
            return false;
        }
        for (const Image& image : images) {
            setContext(image, 2);
            if (image.made.id.empty()) {
                error("Not Update Symbol [" + image.made.name + "]");
            } else {
                ask(image, "getEMPID");
            }
        }
        call("sysprop_get_value_string", "128");
        info("SWModel : MODEL-A");
        call("sem_open", kSemaphore);
        call("hangwatch_register_watchdog_service", "60");
        nextBeat = now + 5 * kSecond;
        nextTick = now + kSecond;
        state = 1;
        return true;
    }

    void bootWorker()
    {
        call("FlagpostIsDone", kDownloaded);
        if (!wereAsked) {
            state = 2;
            for (const Image& image : images) {
                if (!image.made.id.empty()) {
                    call("ABM_DownloadAppBinary", "null, null, " + quoted(image.made.id));
                    info("Request (" + image.made.id + ") emp download");
                }
            }
            state = 3;
            call("FlagpostIsDone", kDownloaded);
            call("FlagpostEventDone", kDownloaded);
        }
        state = 4;
        if (writeList() == 0) {
            info("no update module item!\n");
            finalize();
        } else {
            info("need update item, wait ui or bg fw update\n");
        }
        state = 5;
    }

    void finalize()
    {
        if (!isRunning) {
            return;
        }
        error("service finalize");
        call("FlagpostResetEvent", kIgnoreResume);
        isRunning = false;
        call("sem_open", kSemaphore);
        call("sem_close");
        call("pwrctl_unsubscribe_state_changed_event");
        call("pwrctl_unsubscribe_poweroff_event");
        unlockPower(2);
        call("hangwatch_unregister_watchdog_service");
        list.reset();
        state = 21;
        call("quick_exit", "0");
        lastStatus = status();
        ended = true;
    }

    void onPower(int previous, int current)
    {
        powerLevel = current;
        if (mirroring == 1 || isFactory) {
            error("Mirrovex or ProductMode, not try update");
            return;
        }
        const int64_t elapsed = (now - started) / kSecond;
        const std::string states = "prev_state [" + number(previous) + "] cur_state[" + number(current) + "]";
        if (elapsed < 600) {
            error(number(elapsed) +
                  " seconds since the service started, try to update from 10 minutes later");
            if (current >= 2 && current <= 4) {
                error("call allupdatedone only when power is off cur_power_state[" + number(current) + "]");
                allUpdatesDone();
            }
            finalize();
        } else if ((previous == 2 || previous == 4) && current == 0) {
            if (isUpdateRunning) {
                error(states + " try reboot");
                call("pwrctl_request_reboot", number(0x20000020));
                finalize();
            }
        } else if (previous == 0 && current == 2 && mayStandbyUpdate) {
            error(states + " try fw update");
            isUpdateRunning = true;
            spawn([this] { updateAll([this] { finalize(); }); });
            mayStandbyUpdate = false;
        }
    }

    void onPowerOff()
    {
        allUpdatesDone();
        finalize();
    }

    void onMirroring(const std::string& text, int value)
    {
        if (text == "null") {
            error("pralis node is null");
            return;
        }
        mirroring = value;
        error("[" + kMirroring + "] pralis get value : [" + number(value) + "]");
    }

    void allUpdatesDone()
    {
        error("Try allDoUpdateDone");
        tellAll();
        error("allDoUpdateDone Done");
    }

    void tellAll()
    {
        for (const Image& image : images) {
            ask(image, "allUpdateDone");
        }
    }

    // ---- One module ----

    bool unmount(Image& module)
    {
        const std::string directory = module.mountPoint();
        if (!module.hasMountPoint) {
            error("Umount dir[" + directory + "] is invalid.");
            return false;
        }
        call("PS_Umount", quoted(directory));
        if (module.mounts == 0) {
            error("Error(iRet1=-1, iRet2=22) while unmounitng [" + directory + "]");
            return false;
        }
        --module.mounts;
        info("Umount dir[" + directory + "] successfully.");
        return true;
    }

    bool mount(Image& module)
    {
        if (!module.hasPackage) {
            error("Error: file no exist (" + module.file() + ")");
            return false;
        }
        unmount(module);
        module.hasMountPoint = true;
        const std::string command = "-o ro,loop,nodev,nosuid " + module.file() + " " + module.mountPoint();
        info("PsMntCmd:[" + command + "]");
        call("PS_Mount", quoted(command));
        if (failsOnce("PS_Mount")) {
            info("Fail PS_Mount: file:[" + module.file() + "], dest:[" + module.mountPoint() +
                 "], retVal:[-1], result:[0]");
            info("loop count is 1, mount count is 0"); // a node is free: another one would not help
            error("Error: Firmware EMP Mount Fail.(" + module.made.id + ")");
            return false;
        }
        ++module.mounts;
        return true;
    }

    void unmountPackage(Image& module)
    {
        error(unmount(module) ? "EMP UMount Success " + module.file()
                              : "Error: Firmware EMP UMount Fail.(" + module.made.id + ")");
    }

    int check(Image& module, int caller)
    {
        if (module.firmware.empty()) {
            error("Error: m_fwName (ret empId)  empty.(" + module.made.name + ")");
            return -1;
        }
        error(module.firmware + " Firmware isNeedUpdateModules Try(" + module.made.name + ")");
        if (caller == kFromPackage && !mount(module)) {
            return -1;
        }
        setContext(module, caller);
        const Source& source = module.source(caller);
        const std::string image = module.directory(caller) + module.firmware + ".bin";
        if (source.content == Source::kAbsent) {
            error("Error: Firmware binary file no exist (" + image + ")");
            return -1;
        }
        module.uiUse = source.uiUse;
        const std::string failed = "Error: " + module.firmware + " Firmware ";
        if (caller == kFromSystem && source.uiUse == "none") {
            error(failed + "does not have proper UI information in " + module.directory(caller) +
                  "info.json");
            return -1;
        }
        if (source.content == Source::kBroken) {
            error(failed + "CRC32 different");
            return -1;
        }
        ask(module, "checkVersion", quoted(number(source.verdict)));
        if (source.verdict < 1) {
            setContext(module, 2);
            ask(module, "getActiveVersion");
            error("Error: " + (caller == kFromPackage ? module.file() : image) +
                  " not need update, version is 1.0");
        }
        module.isBuiltIn = caller == kFromSystem;
        module.isNeeded = source.verdict == 1;
        module.expected = source.expected;
        return source.verdict;
    }

    void update(Image& module, int caller, const Step& done)
    {
        error(module.firmware + " Firmware Update Try");
        if (caller == kFromPackage && !mount(module)) {
            done();
            return;
        }
        const Source& source = module.source(caller);
        module.uiUse = source.uiUse;
        lockUpdates([=, &module, &source] {
            setContext(module, caller);
            ask(module, "checkVersion", quoted(number(source.verdict)));
            if (source.verdict >= 1 && source.content == Source::kSound) {
                write(module, caller, done);
                return;
            }
            const bool isNeeded = source.verdict >= 1;
            error("Error: " + module.firmware + " Firmware " +
                  (isNeeded ? "crc32 different" : "not need update"));
            if (!isNeeded && caller == kFromPackage) {
                unmountPackage(module);
            }
            unlockUpdates(done);
        });
    }

    void write(Image& module, int caller, const Step& done)
    {
        error("========== [ " + module.firmware + " update start ] ==========");
        ask(module, "doUpdate", quoted(module.directory(caller) + module.firmware + ".bin") + ", 0");
        const int result = updateMode == "fail" ? 7 : 0;
        const Step finish = [=, &module] {
            written(module, caller, result);
            unlockUpdates(done);
        };
        if (updateMode == "hang") {
            hanging.push_back(finish);
        } else if (updateMode == "quick") {
            finish();
        } else {
            sleep(updateMode == "slow" ? 5 * kSecond : 100, finish);
        }
    }

    void written(Image& module, int caller, int result)
    {
        if (result != 0) {
            error("Error: " + module.firmware + " Firmware doUpdate Fail 7 (5:Input/output error)");
            return;
        }
        error("========== [ " + module.firmware + " update succeeded ] ==========");
        if (caller == kFromPackage) {
            module.hasPackage = false;
            unmountPackage(module);
        }
    }

    void unlockUpdates(const Step& done)
    {
        areUpdatesLocked = false;
        wakeFirst(updateQueue);
        done();
    }

    // ---- Runs over all modules ----

    int writeList()
    {
        int positive = 0;
        list = "";
        for (Image& image : images) {
            const int found =
                (check(image, kFromSystem) == 1 ? 1 : 0) + (check(image, kFromPackage) == 1 ? 1 : 0);
            if (found > 0) {
                positive += found;
                *list += image.made.name + " " + image.made.id + "\n";
                error("Need Update [" + image.made.name + "][" + image.made.id + "]");
            }
        }
        return positive;
    }

    struct Wait {
        std::optional<std::multimap<int64_t, Step>::iterator> sleeper; // none: nobody waits
        Step goOn;
    };

    // An update on a thread of its own, with a limit after which it is left alone.
    void supervise(Image& module, int caller, const Step& then)
    {
        error(module.firmware + " update time " + number(module.expected) + " sec");
        call("sem_open", kSemaphore);
        takeSemaphore([=, &module] {
            const auto wait = std::make_shared<Wait>();
            const int64_t deadline = now + (int64_t{module.expected} + 2) * kSecond;
            wait->goOn = [=, &module] {
                wait->sleeper.reset();
                ++semaphore;
                call("sem_post");
                wakeFirst(semaphoreQueue);
                if (now >= deadline) { // by the clock, whether or not the update is over
                    error(module.firmware + " update timeout");
                    error("Error : " + module.firmware + " update timeout");
                }
                then();
            };
            spawn([=, &module] {
                update(module, caller, [=] {
                    if (wait->sleeper && now < deadline) { // a signal that nobody waits for yet is lost
                        sleepers.erase(*wait->sleeper);
                        ready.push_back(wait->goOn);
                    }
                });
            });
            wait->sleeper = sleepers.emplace(deadline, wait->goOn);
        });
    }

    void updateFrom(size_t first, bool isUIRun, const Step& then)
    {
        for (size_t at = first; at < images.size(); ++at) {
            Image& image = images[at];
            if (isUIRun ? image.isOffered() : image.isNeeded) {
                updating = image.made.name;
                supervise(image, isUIRun && image.isBuiltIn ? kFromSystem : kFromPackage, [=, &image] {
                    doneSeconds += image.expected;
                    updating = isUIRun ? "" : updating;
                    updateFrom(at + 1, isUIRun, then);
                });
                return;
            }
        }
        tellAll();
        if (!isUIRun) {
            error("pwrctl_unlock_state");
            unlockPower(2);
            error("pwrctl_unlock_state done");
        }
        list.reset();
        then();
    }

    void startRun(bool isUIRun, uint32_t modules, const Step& then)
    {
        const int kind = isUIRun ? 0 : 2;
        error("about total update time is " + number(totalMs) +
              " ms, Lock the power during about that time.");
        call("pwrctl_lock_state", number(kind) + ", " + number(modules * 5000 + totalMs));
        locks.push_back(kind);
        error("pwrctl_lock_state done");
        updateFrom(0, isUIRun, then);
    }

    void updateAll(const Step& then)
    {
        totalMs = doneSeconds = 0;
        error("Try doUpdateFirmwareAll");
        call("FlagpostEventDone", kIgnoreResume);
        uint32_t pending = 0;
        for (const Image& image : images) {
            totalMs += image.isNeeded ? image.expected * 1000 : 0;
            pending += image.isNeeded ? 1 : 0;
            error(image.made.name + " Firmware Expected Time Check Done");
        }
        if (pending == 0) {
            error("There is no update item");
            then();
            return;
        }
        startRun(false, pending, then);
    }

    void updateUI(uint32_t count)
    {
        writeKey(kStatus, 2);
        state = 12;
        doneSeconds = 0;
        error("Try doUpdateFirmwareUI");
        call("FlagpostEventDone", kIgnoreResume);
        call("pwrctl_get_state");
        if (powerLevel == 0) {
            startRun(true, count, [this] { state = 13; });
        } else {
            state = 13;
        }
    }

    uint32_t progress()
    {
        uint32_t partial = 0;
        for (const Image& image : images) {
            if (image.made.name == updating) {
                ask(image, "getUpdateProgress");
                partial = libraryProgress * image.expected / 100;
            }
        }
        return totalMs == 0 ? 0 : (partial + doneSeconds) * 100 / totalMs;
    }

    // ---- States ----

    // Whether the timer goes on.
    bool tick()
    {
        error(number(state));
        if (state == 5) {
            countModules();
            return uiCount > 0 ? after([this] { checkManager(61); }, 6) : restFor(otherCount);
        }
        if (state == 7) {
            return isLaunchAllowed ? after([this] { launch(); }, 8) : restFor(otherCount);
        }
        if (state == 9) {
            state = isLaunched ? 10 : 16;
        } else if (state == 11 && uiCount > 0) {
            spawn([this] { updateUI(uiCount); });
        } else if (state == 12 || state == 13) {
            publish(state == 13);
        } else if (state == 15 || state == 16) {
            endSession();
        } else if (state == 17) {
            return restFor(otherCount);
        } else if (state == 18) {
            unlockPower(0);
            call("pwrctl_request_reboot", number(0x2000000c));
            state = 19;
        }
        return true;
    }

    bool after(const Step& body, int newState)
    {
        spawn([this, body, newState] {
            state = newState;
            body();
        });
        return true;
    }

    // Modules for the background keep the service alive, without its timer.
    bool restFor(uint32_t modules)
    {
        if (modules == 0) {
            finalize();
        }
        return false;
    }

    void countModules()
    {
        uiCount = otherCount = 0;
        isForced = false;
        for (const Image& image : images) {
            totalMs += image.isOffered() ? image.expected * 1000 : 0;
            uiCount += image.isOffered() ? 1 : 0;
            isForced = isForced || (image.isOffered() && image.uiUse == "force");
            otherCount += image.isNeeded && !image.isOffered() ? 1 : 0;
            error(image.made.name + " Firmware Expected Time Check Done");
        }
        expectedMs = totalMs;
    }

    void endSession()
    {
        call("pralis_ignore_key_changed", quoted(kStatus));
        keyListeners -= keyListeners > 0 ? 1 : 0;
        if (readWorking() == 1) {
            writeKey(kWorking, 0);
        }
        if (state == 16) {
            state = 17;
        } else if (totalMs != 0 && doneSeconds != 0) {
            state = 18;
        }
    }

    void publish(bool isDone)
    {
        const int current = static_cast<int>(progress());
        const int stored = readKey(kProgress, 0);
        const int next = isDone ? 100 : current;
        if (next > stored && next <= 100) {
            writeKey(kProgress, next);
            error("progress " + number(next));
        }
        if (isDone) {
            writeKey(kStatus, 3);
            state = 14;
        }
    }

    void checkManager(int testsLeft)
    {
        if (!isManagerReady && testsLeft > 1) {
            sleep(kSecond, [=] { checkManager(testsLeft - 1); });
            return;
        }
        call("pwrctl_get_state");
        isLaunchAllowed = powerLevel == 0 && isManagerReady && !isFactoryMarked && readWorking() == 0;
        if (isLaunchAllowed) {
            writeKey(kWorking, 1);
        }
        state = 7;
    }

    void launch()
    {
        isLaunched = false;
        call("applaunch_create");
        const bool isCreated = !failsOnce("applaunch_create");
        call("applaunch_add_extra_data", "\"updatetype\", \"general\"");
        call("applaunch_add_extra_data", "\"timeinfo\", " + quoted(number(expectedMs / 1000)));
        call("applaunch_add_extra_data",
             std::string("\"uitype\", ") + (isForced ? "\"force\"" : "\"select\""));
        call("applaunch_set_app_id", "\"com.olvessa.tv.firmware.update\"");
        const bool isRefused = failsOnce("applaunch_set_app_id");
        if (isRefused || !isCreated) {
            error("Failed to set app id for launching popup app");
            launchEnds();
            return;
        }
        call("pralis_notify_key_changed", quoted(kStatus));
        if (failsOnce("pralis_notify_key_changed:" + kStatus)) {
            error("Error, fail in registering for fwstatus_UI_cb ");
        } else {
            ++keyListeners;
        }
        sendLaunch(1);
    }

    void sendLaunch(int attempt)
    {
        if (attempt > 9) {
            launchEnds();
            return;
        }
        call("applaunch_send_launch_request");
        isLaunched = !failsLaunch;
        if (isLaunched) {
            sleep(5 * kSecond, [this] { launchEnds(); });
        } else {
            error("launch failed " + number(attempt));
            sleep(500, [=] { sendLaunch(attempt + 1); });
        }
    }

    void launchEnds()
    {
        call("applaunch_destroy");
        state = state == 8 ? 9 : state;
    }

    // Whoever subscribed more than once hears it more than once.
    void onKey(const std::string& text, int value)
    {
        for (int listener = 0; listener < keyListeners; ++listener) {
            error(text == "null" ? "pralis node is null" : "fwstatus_ui_cb val " + number(value));
            if (state >= 7 && state <= 10 && (value == 1 || value == 4)) {
                state = value == 1 ? 11 : 16;
            } else if (state == 14 && value == 4) {
                state = 15;
            }
        }
        if (text != "null") {
            keys[kStatus] = value;
        }
    }

    std::deque<Image> images;
    std::string lastStatus;

    int64_t now = 1000000;
    std::string threads;
    std::deque<Step> ready;
    std::multimap<int64_t, Step> sleepers;
    int semaphore = 1;
    std::deque<Step> semaphoreQueue;
    bool areUpdatesLocked = false;
    std::deque<Step> updateQueue;
    std::deque<Step> hanging;
    std::optional<int64_t> nextBeat;
    std::optional<int64_t> nextTick;

    std::map<std::string, int> keys;
    std::set<std::string> failures;
    int powerLevel = 0;
    bool failsLaunch = false;
    std::string updateMode = "ok";
    uint32_t libraryProgress = 42;
    std::optional<std::string> list;
    std::vector<int> locks;
    bool isManagerReady;
    bool isFactoryMarked;
    bool wereAsked;

    int state = 0;
    bool isRunning = false;
    bool isUpdateRunning = false;
    bool isFactory = false;
    int mirroring = 0;
    bool mayStandbyUpdate = true;
    int64_t started = 0;
    int keyListeners = 0;
    std::string updating;
    uint32_t totalMs = 0;
    uint32_t doneSeconds = 0;
    uint32_t expectedMs = 0;
    uint32_t uiCount = 0;
    uint32_t otherCount = 0;
    bool isForced = false;
    bool isLaunchAllowed = false;
    bool isLaunched = false;
};

Model::Model(const Television& television) : service(std::make_unique<Service>(television)) {}
Model::~Model() = default;
void Model::boot()
{
    service->boot();
}
void Model::apply(const std::string& event)
{
    service->apply(event);
}
std::vector<std::string> Model::takeTrace()
{
    return std::exchange(service->trace, {});
}
std::string Model::status() const
{
    return service->status();
}
bool Model::hasEnded() const
{
    return service->ended;
}

} // namespace proof
