#include "tests/proof/model/model.h"

#include <algorithm>
#include <map>
#include <optional>
#include <utility>

#include "tests/proof/model/modules.h"
#include "tests/proof/model/stage.h"

namespace proof
{

namespace
{

const std::string kStatus = "memory/ep_firmware_update_app/fw_update_status";
const std::string kProgress = "memory/ep_firmware_update_app/fw_update_progress";
const std::string kWorking = "memory/enterprise/swupgrade/working_status";
const std::string kMirroring = "memory/menu/network/screenmirroring/smsrc_status";
const std::string kDownloaded = "\"/tmp/.fw_download_ready\"";
const std::string kIgnoreResume = "\"/tmp/.ignore_resume\"";

} // namespace

class Model::Service : public Stage
{
public:
    explicit Service(const Television& set)
        : isManagerReady(set.isManagerReady), isFactoryMarked(set.isFactory), wereAsked(set.wereAsked)
    {
        failures.insert(set.failures.begin(), set.failures.end());
        threads = set.isEager ? "eager" : "lazy";
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
        hearsPower = subscribe("pwrctl_subscribe_state_changed_event", "", "");
        hearsPowerOff = subscribe("pwrctl_subscribe_poweroff_event", "", "");
        hearsMirroring = subscribe("pralis_notify_key_changed", kMirroring, "SMSRC_STATUS");
        settle();
    }

    void apply(const std::string& event)
    {
        const std::string kind = event.substr(0, event.find(':'));
        const std::string rest = event.substr(std::min(kind.size() + 1, event.size()));
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
            {"update", [&] { modules.updateMode = rest; }},
            {"progress", [&] { libraryProgress = static_cast<uint32_t>(value); }},
            {"free", [&] { modules.freeHanging(); }},
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
        return text + held() + modules.status() + ", list " + list.value_or("-");
    }

private:
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
        modules.load();
        call("sysprop_get_value_string", "128");
        if (failsOnce("sysprop_get_value_string")) {
            error("Unable to read SW version from sysprop");
            error("Error: getSwVersion fail");
        } else {
            info("SWModel : MODEL-A");
        }
        if (!openSemaphore()) {
            return false;
        }
        call("hangwatch_register_watchdog_service", "60");
        if (failsOnce("hangwatch_register_watchdog_service")) {
            error("Error: [fwupdate-daemon] hangwatch_register_watchdog_service fail!\n");
            return false;
        }
        addTimer(5 * kSecond, [this] {
            call("hangwatch_watchdog_notify");
            return true;
        });
        addTimer(kSecond, [this] { return tick(); });
        state = 1;
        return true;
    }

    void bootWorker()
    {
        call("FlagpostIsDone", kDownloaded);
        if (!wereAsked) {
            state = 2;
            modules.request();
            state = 3;
            call("FlagpostIsDone", kDownloaded);
            call("FlagpostEventDone", kDownloaded);
        }
        state = 4;
        list = "";
        if (modules.checkAll(*list) == 0) {
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
        if (openSemaphore()) {
            call("sem_close");
        }
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
        if (!hearsPower) {
            return;
        }
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
            const bool isStarted = spawn([this] { updateAll([this] { finalize(); }); });
            isUpdateRunning = isStarted;
            mayStandbyUpdate = !isStarted;
        }
    }

    void onPowerOff()
    {
        if (hearsPowerOff) {
            allUpdatesDone();
            finalize();
        }
    }

    void onMirroring(const std::string& text, int value)
    {
        if (hearsMirroring && text == "null") {
            error("pralis node is null");
        } else if (hearsMirroring) {
            mirroring = value;
            error("[" + kMirroring + "] pralis get value : [" + number(value) + "]");
        }
    }

    void allUpdatesDone()
    {
        error("Try allDoUpdateDone");
        modules.tellAll();
        error("allDoUpdateDone Done");
    }

    // ---- Runs over all modules ----

    struct Wait {
        std::optional<Sleeper> sleeper; // none: nobody waits
        bool isStarted = true;
    };

    void supervise(Image& module, int caller, const Step& then)
    {
        error(module.firmware + " update time " + number(module.expected) + " sec");
        if (openSemaphore()) {
            pass(semaphore, [=, &module] { superviseAlone(module, caller, then); });
        } else {
            then();
        }
    }

    // An update on a thread of its own, with a limit after which it is left alone.
    void superviseAlone(Image& module, int caller, const Step& then)
    {
        const auto wait = std::make_shared<Wait>();
        const int64_t deadline = now + (int64_t{module.expected} + 2) * kSecond;
        const auto end = [=](const std::string& failure) {
            wait->sleeper.reset();
            call("sem_post");
            leave(semaphore);
            if (now >= deadline) { // by the clock, whether or not the update is over
                error(failure);
            }
            if (now >= deadline || !wait->isStarted) {
                error("Error : " + failure);
            }
            then();
        };
        call("sem_wait");
        wait->isStarted = spawn([=, &module] {
            modules.update(module, caller, [=] {
                if (wait->sleeper && now < deadline) { // a signal that nobody waits for yet is lost
                    wake(*wait->sleeper);
                }
            });
        });
        if (wait->isStarted) {
            wait->sleeper = sleepUntil(deadline, [=, &module] { end(module.firmware + " update timeout"); });
        } else {
            end("Resource temporarily unavailable");
        }
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
        modules.tellAll();
        if (!isUIRun) {
            error("pwrctl_unlock_state");
            unlockPower(2);
            error("pwrctl_unlock_state done");
        }
        list.reset();
        then();
    }

    void startRun(bool isUIRun, uint32_t pending, const Step& then)
    {
        const int kind = isUIRun ? 0 : 2;
        error("about total update time is " + number(totalMs) +
              " ms, Lock the power during about that time.");
        lockPower(kind, pending * 5000 + totalMs);
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
        const Step end = [this] { state = 13; };
        isSwitchedOn() ? startRun(true, count, end) : end();
    }

    uint32_t progress()
    {
        uint32_t partial = 0;
        for (const Image& image : images) {
            if (image.made.name == updating) {
                modules.ask(image, "getUpdateProgress");
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
    bool restFor(uint32_t others)
    {
        if (others == 0) {
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

    int readWorking()
    {
        const int working = readKey(kWorking, -1);
        if (working == -1) {
            error("Failed to read pralis [0]");
        }
        return working;
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
        isLaunchAllowed = isSwitchedOn() && isManagerReady && !isFactoryMarked && readWorking() == 0;
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

    Modules modules{*this};
    std::deque<Image>& images = modules.all;
    std::string lastStatus;

    bool failsLaunch = false;
    uint32_t libraryProgress = 42;
    std::optional<std::string> list;
    bool isManagerReady;
    bool isFactoryMarked;
    bool wereAsked;

    int state = 0;
    bool isRunning = false;
    bool isUpdateRunning = false;
    bool isFactory = false;
    bool hearsPower = false;
    bool hearsPowerOff = false;
    bool hearsMirroring = false;
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
