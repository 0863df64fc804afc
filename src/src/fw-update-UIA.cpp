#include "fw-update-UIA.h"

#include <chrono>
#include <thread>

#include "fw-update-log.h"
#include "fw-update-symbol-manager.h"
#include "fw-update-symbol.h"
#include "fw-update-thread.h"
#include "pwrctl.h"
#include "tarnwick.h"

namespace
{

constexpr const char* kStatusKey = "memory/ep_firmware_update_app/fw_update_status";
constexpr const char* kProgressKey = "memory/ep_firmware_update_app/fw_update_progress";
constexpr const char* kWorkingStatusKey = "memory/enterprise/swupgrade/working_status";

// Values of the status key.
constexpr int kUIAccepted = 1;
constexpr int kUpdateRunning = 2;
constexpr int kUpdateFinished = 3;
constexpr int kUIClosed = 4;

FWUpdateUIA* agentOf(void* data)
{
    return data != nullptr ? static_cast<FWUpdateUIA*>(data) : FWUpdateUIA::getInstance();
}

} // namespace

FWUpdateUIA* FWUpdateUIA::getInstance()
{
    static FWUpdateUIA instance;
    return &instance;
}

// ---- State machine ----

void FWUpdateUIA::FWSVC_set_state(FWSVC newState)
{
    const std::lock_guard<std::mutex> lock(stateMutex);
    state = newState;
}

FWSVC FWUpdateUIA::FWSVC_get_state()
{
    const std::lock_guard<std::mutex> lock(stateMutex);
    return state;
}

bool FWUpdateUIA::getIsReady()
{
    isReady = true;
    return isReady;
}

int FWUpdateUIA::request_empdownload()
{
    FWSVC_set_state(FWSVC_EMP_DOWNLOADING);
    const int result = FWUpdateSymbolManager::getInstance()->downloadEMPAll();
    FWSVC_set_state(FWSVC_EMP_DOWNLOADED);
    return result;
}

int FWUpdateUIA::check_update_module(bool taskRunning)
{
    FWSVC_set_state(FWSVC_CHECKING_MODULES);
    const int result = FWUpdateSymbolManager::getInstance()->writeFirmwareUpdateList(taskRunning);
    if (result == 0) {
        FWLOGI("no update module item!\n");
        service_finalize();
    } else {
        FWLOGI("need update item, wait ui or bg fw update\n");
    }
    FWSVC_set_state(FWSVC_MODULES_CHECKED);
    return result;
}

gboolean state_wrapper_timer_cb(gpointer)
{
    gboolean goesOn = FALSE;
    runToTheEnd([&] { goesOn = FWUpdateUIA::FWSVC_state_handler(FWUpdateUIA::getInstance()); });
    return goesOn;
}

gboolean FWUpdateUIA::FWSVC_state_handler(gpointer data)
{
    FWUpdateUIA* const agent = agentOf(data);
    const int shown = agent->FWSVC_get_state();
    FWLOGE("%d", shown);
    return agent->handleState(agent->FWSVC_get_state());
}

// A tick that falls before a started thread has moved the state repeats the action of 5, 7 and 11; threads
// start within a tick, so this is known and left so. It is also how a thread that could not be started is
// tried again. States that are not listed wait for a thread or for the UI.
gboolean FWUpdateUIA::handleState(FWSVC now)
{
    switch (now) {
    case FWSVC_MODULES_CHECKED:
        return onModulesChecked();
    case FWSVC_PKGMGR_CHECKED:
        return onPackageManagerChecked();
    case FWSVC_UI_LAUNCH_DONE:
        FWSVC_set_state(isUILaunched ? FWSVC_UI_SHOWN : FWSVC_UI_CANCELLED);
        return TRUE;
    case FWSVC_UI_ACCEPTED:
        onAccepted();
        return TRUE;
    case FWSVC_UI_UPDATING:
        updateFWUpdateProgress(false);
        return TRUE;
    case FWSVC_UI_UPDATE_DONE:
        onUpdateDone();
        return TRUE;
    case FWSVC_UI_CLOSED:
        onUIClosed();
        return TRUE;
    case FWSVC_UI_CANCELLED:
        onCancelled();
        return TRUE;
    case FWSVC_FINISH:
        return stopTimer();
    case FWSVC_REBOOT:
        onReboot();
        return TRUE;
    default:
        return TRUE;
    }
}

gboolean FWUpdateUIA::onModulesChecked()
{
    FWUpdateSymbolManager::getInstance()->cntUpdateFirmware(uiModuleCount, backgroundModuleCount,
                                                            isForcedUpdate, expectedTime);
    if (uiModuleCount == 0) {
        return stopTimer();
    }
    startThread([this] { chk_pkgMgrReady(); });
    return TRUE;
}

gboolean FWUpdateUIA::onPackageManagerChecked()
{
    if (!isUILaunchAllowed) {
        return stopTimer();
    }
    startThread([this] { launch_Device_Upgrade_UI(); });
    return TRUE;
}

void FWUpdateUIA::onAccepted()
{
    if (uiModuleCount == 0) {
        return;
    }
    startThread([this, count = uiModuleCount] { runUIUpdate(count); });
}

void FWUpdateUIA::onUpdateDone()
{
    updateFWUpdateProgress(true);
    notiFromSVCToUI(kUpdateFinished);
    FWSVC_set_state(FWSVC_WAIT_UI_CLOSE);
}

void FWUpdateUIA::onUIClosed()
{
    endUISession();
    if (FWUpdateSymbolManager::getInstance()->hasUpgradeExecuted()) {
        FWSVC_set_state(FWSVC_REBOOT);
    }
}

void FWUpdateUIA::onCancelled()
{
    endUISession();
    FWSVC_set_state(FWSVC_FINISH);
}

void FWUpdateUIA::onReboot()
{
    constexpr unsigned int kUpgradeReboot = 0x2000000c;
    pwrctl_unlock_state(0);
    pwrctl_request_reboot(kUpgradeReboot);
    FWSVC_set_state(FWSVC_REBOOTING);
}

// The UI has nothing to do: the service ends, unless modules wait for the unattended update at standby.
gboolean FWUpdateUIA::stopTimer()
{
    if (backgroundModuleCount == 0) {
        service_finalize();
    }
    return FALSE;
}

void FWUpdateUIA::endUISession()
{
    unregister_fwstatus_UI_pralis_cb();
    if (get_EP_WORKING_STATUS_PRALIS() == 1) {
        set_EP_WORKING_STATUS_PRALIS(0);
    }
}

void FWUpdateUIA::runUIUpdate(int count)
{
    notiFromSVCToUI(kUpdateRunning);
    FWSVC_set_state(FWSVC_UI_UPDATING);
    FWUpdateSymbolManager::getInstance()->doUpdateFirmwareUI(count);
    FWSVC_set_state(FWSVC_UI_UPDATE_DONE);
}

// ---- Package manager and launch ----

void FWUpdateUIA::chk_pkgMgrReady()
{
    constexpr const char* kReadyMarker = "/run/.pkgmgr_ready";
    FWSVC_set_state(FWSVC_WAIT_PKGMGR);
    for (int tests = 61; !file_exists(kReadyMarker) && --tests > 0;) {
        std::this_thread::sleep_for(std::chrono::seconds(1)); // resumed when a signal interrupts it
    }
    const bool isAllowed = pwrctl_get_state() == 0 && file_exists(kReadyMarker) &&
                           !Is_Factory_Prodution_Booting() && get_EP_WORKING_STATUS_PRALIS() == 0;
    if (isAllowed) {
        set_EP_WORKING_STATUS_PRALIS(1);
    }
    isUILaunchAllowed = isAllowed;
    FWSVC_set_state(FWSVC_PKGMGR_CHECKED);
}

void FWUpdateUIA::launch_Device_Upgrade_UI()
{
    FWSVC_set_state(FWSVC_UI_LAUNCHING);
    isUILaunched = false;
    applaunch_h request = nullptr;
    applaunch_create(&request);
    applaunch_add_extra_data(request, "updatetype", "general");
    applaunch_add_extra_data(request, "timeinfo", std::to_string(expectedTime / 1000).c_str());
    applaunch_add_extra_data(request, "uitype", isForcedUpdate ? "force" : "select");
    if (applaunch_set_app_id(request, "com.olvessa.tv.firmware.update") != 0) {
        FWLOGE("Failed to set app id for launching popup app");
    } else {
        register_fwstatus_UI_pralis_cb();
        if (sendLaunchRequest(request)) {
            isUILaunched = true; // and stays so when a launch beside this one fails
            std::this_thread::sleep_for(std::chrono::seconds(5)); // the UI needs time to start
        }
    }
    applaunch_destroy(request);

    const std::lock_guard<std::mutex> lock(stateMutex);
    if (state == FWSVC_UI_LAUNCHING) { // else the user was faster
        state = FWSVC_UI_LAUNCH_DONE;
    }
}

bool FWUpdateUIA::sendLaunchRequest(applaunch_h request)
{
    for (int attempt = 1; attempt <= 9; ++attempt) {
        if (applaunch_send_launch_request(request, nullptr, nullptr) == 0) {
            return true;
        }
        FWLOGE("launch failed %d", attempt);
        std::this_thread::sleep_for(std::chrono::milliseconds(500));
    }
    return false;
}

void FWUpdateUIA::pralis_fwstatus_UI_cb(keynode* node, void* user_data)
{
    if (node == nullptr) {
        FWLOGE("pralis node is null");
        return;
    }
    const int answer = pralis_keynode_get_int(node);
    FWLOGE("fwstatus_ui_cb val %d", answer);
    runToTheEnd([&] { agentOf(user_data)->answerFromUI(answer); });
}

// Tests and sets the state in one step, so that the end of the launch cannot fall in between.
void FWUpdateUIA::answerFromUI(int answer)
{
    const std::lock_guard<std::mutex> lock(stateMutex);
    const bool isOffered = state >= FWSVC_PKGMGR_CHECKED && state <= FWSVC_UI_SHOWN;
    if (answer == kUIAccepted && isOffered) {
        state = FWSVC_UI_ACCEPTED;
    } else if (answer == kUIClosed && isOffered) {
        state = FWSVC_UI_CANCELLED;
    } else if (answer == kUIClosed && state == FWSVC_WAIT_UI_CLOSE) {
        state = FWSVC_UI_CLOSED;
    }
}

// ---- Status keys ----

int FWUpdateUIA::get_EP_WORKING_STATUS_PRALIS()
{
    int value = 0;
    if (pralis_get_int(kWorkingStatusKey, &value) != 0) {
        FWLOGE("Failed to read pralis [%d]", value);
        return -1;
    }
    return value;
}

int FWUpdateUIA::set_EP_WORKING_STATUS_PRALIS(int value)
{
    if (pralis_set_int(kWorkingStatusKey, value) != 0) {
        FWLOGE("Failed to save pralis [%d]", value);
        return 0;
    }
    return 1;
}

void FWUpdateUIA::updateFWUpdateProgress(bool done)
{
    const unsigned int current = FWUpdateSymbolManager::getInstance()->getCurrentUpdateProgress();
    int stored = 0;
    if (pralis_get_int(kProgressKey, &stored) != 0) {
        stored = 0;
    }
    const unsigned int wanted = done ? 100 : current;
    const auto progress = static_cast<int>(wanted);
    if (wanted > 100 || progress <= stored) {
        return;
    }
    pralis_set_int(kProgressKey, progress);
    FWLOGE("progress %d", progress);
}

void FWUpdateUIA::notiFromSVCToUI(int status)
{
    if (status == kUpdateRunning || status == kUpdateFinished) {
        pralis_set_int(kStatusKey, status);
    }
}

void FWUpdateUIA::register_fwstatus_UI_pralis_cb()
{
    if (pralis_notify_key_changed(kStatusKey, pralis_fwstatus_UI_cb, this) != 0) {
        FWLOGE("Error, fail in registering for fwstatus_UI_cb ");
    }
}

int FWUpdateUIA::unregister_fwstatus_UI_pralis_cb()
{
    return pralis_ignore_key_changed(kStatusKey, pralis_fwstatus_UI_cb);
}

bool FWUpdateUIA::Is_Factory_Prodution_Booting()
{
    return file_exists("/tmp/FACTORY_PRODCUTION");
}

bool FWUpdateUIA::file_exists(const std::string& path)
{
    return FWUpdateSymbol::file_exists(path);
}
