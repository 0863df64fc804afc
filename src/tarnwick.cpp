// The process: entry, start-up, boot worker, reaction to power and mirroring events, and the single exit.

#include "tarnwick.h"

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <gio/gio.h>
#include <unistd.h>

#include "flagpost.h"
#include "fw-update-UIA.h"
#include "fw-update-common.h"
#include "fw-update-log.h"
#include "fw-update-symbol-manager.h"
#include "fw-update-symbol.h"
#include "fw-update-thread.h"
#include "hangwatch.h"
#include "pralis.h"
#include "pwrctl.h"

namespace
{

constexpr const char* kBusName = "org.pellor.tv.tarnwick";
constexpr const char* kMirroringKey = "memory/menu/network/screenmirroring/smsrc_status";
constexpr uint64_t kNanosecondsPerSecond = 1'000'000'000;

GMainLoop* g_main_loop;             // the only one
std::atomic<bool> isTaskRunning;    // the service is alive
std::atomic<bool> isFinalizing;     // set once, with the first finalisation
std::atomic<bool> isUpdateRunning;  // a standby update was started
int32_t isFactoryProductionBooting; // 0 or 1
std::atomic<int32_t> isMirrovex;    // the mirroring key's last value; 1 = mirroring
uint64_t initialize_time;           // monotonic nanoseconds
guint id_watchdog;
guint id_state;

FWUpdateSymbolManager& manager()
{
    return *FWUpdateSymbolManager::getInstance();
}

FWUpdateUIA& agent()
{
    return *FWUpdateUIA::getInstance();
}

// Monotonic nanoseconds, 0 on failure.
uint64_t get_current_time()
{
    timespec now = {};
    if (clock_gettime(CLOCK_MONOTONIC, &now) != 0) {
        FWLOGE("Failed get_current_time");
        return 0;
    }
    return static_cast<uint64_t>(now.tv_sec) * kNanosecondsPerSecond + static_cast<uint64_t>(now.tv_nsec);
}

// ---- Power and mirroring events, on the main loop's thread ----

// Whether the numbered power state is one in which the picture is off.
bool isPowerOff(int32_t state)
{
    return state == 2 || state == 3 || state == 4;
}

// False when there is no thread for it: the next standby tries again.
bool startStandbyUpdate()
{
    isUpdateRunning = true;
    const bool isStarted = startThread([] {
        manager().doUpdateFirmwareAll(FW_CALLER_EMP);
        service_finalize();
    });
    if (!isStarted) {
        isUpdateRunning = false;
    }
    return isStarted;
}

// Right after the boot every change of power ends the service: what is pending is left to its next start.
void endInGracePeriod(uint64_t elapsed, int32_t current)
{
    FWLOGE("%llu seconds since the service started, try to update from 10 minutes later",
           static_cast<unsigned long long>(elapsed / kNanosecondsPerSecond));
    if (isPowerOff(current)) {
        FWLOGE("call allupdatedone only when power is off cur_power_state[%d]", current);
        manager().allDoUpdateDone();
    }
    service_finalize();
}

int pwrctl_state_changed_cb(pwrctl_state_info* info, void*)
{
    constexpr uint64_t kGracePeriod = 600 * kNanosecondsPerSecond;
    constexpr unsigned int kInterruptedUpdateReboot = 0x20000020;
    static int32_t isStanbyUpdate = 1; // one standby update per process

    const int32_t previous = info->prev_state;
    const int32_t current = info->cur_state;
    const uint64_t elapsed = get_current_time() - initialize_time;
    if (isMirrovex == 1 || isFactoryProductionBooting == 1) {
        FWLOGE("Mirrovex or ProductMode, not try update");
        return 0;
    }
    if (elapsed < kGracePeriod) {
        endInGracePeriod(elapsed, current);
        return 0;
    }
    const bool isSwitchedOn = (previous == 2 || previous == 4) && current == 0;
    if (isSwitchedOn && isUpdateRunning) {
        FWLOGE("prev_state [%d] cur_state[%d] try reboot", previous, current);
        pwrctl_request_reboot(kInterruptedUpdateReboot);
        service_finalize();
        return 0;
    }
    if (previous == 0 && current == 2 && isStanbyUpdate == 1) {
        FWLOGE("prev_state [%d] cur_state[%d] try fw update", previous, current);
        isStanbyUpdate = startStandbyUpdate() ? 0 : 1;
    }
    return 0;
}

int pwrctl_subscribe_poweroff_event_cb(pwrctl_poweroff_info*, void*)
{
    manager().allDoUpdateDone();
    service_finalize();
    return 0;
}

// Stands between the platform, which is C, and a callback of ours that may throw.
template <auto callback, typename Event>
int guarded(Event* event, void* data)
{
    int result = 0;
    runToTheEnd([&] { result = callback(event, data); });
    return result;
}

constexpr pwrctl_state_cb kOnStateChanged = guarded<pwrctl_state_changed_cb, pwrctl_state_info>;
constexpr pwrctl_poweroff_cb kOnPowerOff = guarded<pwrctl_subscribe_poweroff_event_cb, pwrctl_poweroff_info>;

void pralis_notify_key_changed_cb(keynode* node, void*)
{
    if (node == nullptr) {
        FWLOGE("pralis node is null");
        return;
    }
    isMirrovex = pralis_keynode_get_int(node);
    FWLOGE("[%s] pralis get value : [%d]", kMirroringKey, isMirrovex.load());
}

// ---- Start ----

gboolean notify_callback(gpointer)
{
    hangwatch_watchdog_notify();
    return TRUE;
}

// GLib would end the process by a signal together with the bus, in the middle of a write and past the one
// exit; the service goes on without its name instead.
void outliveBus(GDBusConnection* bus, const gchar*, gpointer)
{
    g_dbus_connection_set_exit_on_close(bus, FALSE);
}

int service_initialize()
{
    constexpr int kWatchdogPeriod = 60;
    constexpr guint kHeartbeatMilliseconds = 5000;

    agent().FWSVC_set_state(FWSVC_INIT);
    g_main_loop = g_main_loop_new(nullptr, FALSE);
    isFactoryProductionBooting = agent().Is_Factory_Prodution_Booting() ? 1 : 0;
    isTaskRunning = true;
    FWLOGD("start work (%s)!!", kBusName);
    g_bus_own_name(G_BUS_TYPE_SYSTEM, kBusName, G_BUS_NAME_OWNER_FLAGS_NONE, outliveBus, nullptr, nullptr,
                   nullptr, nullptr);
    FWLOGE("service initialize");
    initialize_time = get_current_time();
    if (!manager().getIsReady(false)) {
        FWLOGE("Error: SymbolManager load fail!\n");
        return -1;
    }
    if (FWUpdateCommon::getInstance()->create_semaphore() == nullptr) {
        return -1;
    }
    if (hangwatch_register_watchdog_service(kWatchdogPeriod) != 0) {
        FWLOGE("Error: [fwupdate-daemon] hangwatch_register_watchdog_service fail!\n");
        return -1;
    }
    id_watchdog = g_timeout_add(kHeartbeatMilliseconds, notify_callback, nullptr);
    id_state = g_timeout_add_seconds(1, state_wrapper_timer_cb, nullptr);
    agent().FWSVC_set_state(FWSVC_INITIALIZED);
    return 0;
}

// Fetches the packages once per boot, and releases whoever waits for that; then finds out what is pending.
void runBootWorker()
{
    constexpr const char* kDownloadFlag = "/tmp/.fw_download_ready";
    if (FlagpostIsDone(kDownloadFlag) < 1) {
        agent().request_empdownload();
        if (FlagpostIsDone(kDownloadFlag) < 1) {
            FlagpostEventDone(kDownloadFlag);
        }
    }
    agent().check_update_module(isTaskRunning);
}

// FALSE when it runs: a set that is short of threads may have one a moment later.
gboolean startBootWorker(gpointer)
{
    return startThread(runBootWorker) ? FALSE : TRUE;
}

void register_callback()
{
    if (pwrctl_subscribe_state_changed_event(kOnStateChanged, nullptr) != 0) {
        FWLOGE("Error: pwrctl_subscribe_state_changed_event() failed");
    }
    if (pwrctl_subscribe_poweroff_event(kOnPowerOff, nullptr) != 0) {
        FWLOGE("Error: pwrctl_subscribe_poweroff_event() failed");
    }
    if (pralis_notify_key_changed(kMirroringKey, pralis_notify_key_changed_cb, nullptr) != 0) {
        FWLOGE("Error: pralis_notify_key_changed(SMSRC_STATUS) failed");
    }
}

// ---- End ----

// A timer that was never armed, or that has ended itself, is not there to be removed.
void removeTimer(guint id)
{
    if (id != 0 && g_main_context_find_source_by_id(nullptr, id) != nullptr) {
        g_source_remove(id);
    }
}

} // namespace

void service_finalize()
{
    if (!isTaskRunning || isFinalizing.exchange(true)) {
        return;
    }
    FWLOGE("service finalize");
    agent().FWSVC_set_state(FWSVC_FINALIZING);
    FlagpostResetEvent("/tmp/.ignore_resume");
    isUpdateRunning = false;
    isTaskRunning = false;
    FWUpdateCommon::getInstance()->destroy_semaphore();
    if (g_main_loop_is_running(g_main_loop)) {
        g_main_loop_quit(g_main_loop);
    }
    pwrctl_unsubscribe_state_changed_event(kOnStateChanged);
    pwrctl_unsubscribe_poweroff_event(kOnPowerOff);
    pwrctl_unlock_state(2);
    hangwatch_unregister_watchdog_service();
    removeTimer(id_watchdog);
    removeTimer(id_state);
    remove("/tmp/fwupdate-off-list.txt");
    agent().FWSVC_set_state(FWSVC_FINALIZED);
    quick_exit(0);
}

int main()
{
    int initialized = -1;
    if (!runToTheEnd([&] { initialized = service_initialize(); }) && !isFinalizing) {
        isTaskRunning = true; // it threw before the service was one: that has an end as well
        service_finalize();
    }
    if (initialized != 0) {
        FWLOGE("Error: service_initialize fail!\n"); // and on: the worker ends the service in its own way
    }
    if (startBootWorker(nullptr) == TRUE) {
        g_timeout_add_seconds(1, startBootWorker, nullptr);
    }
    FWLOGI("g_main loop running in main thread!\n");
    register_callback();
    g_main_loop_run(g_main_loop);
    g_main_loop_unref(g_main_loop);
    g_main_loop = nullptr;
    service_finalize();
    while (isFinalizing) { // on another thread, which ends the process: nothing may be torn down beside it
        pause();
    }
    return 0;
}
