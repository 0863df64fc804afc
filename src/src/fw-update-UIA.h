// The UI agent: keeper of the service state, and everything that is told to or heard from the upgrade UI.
//
// A one-second timer on the main loop calls the state handler, which decides; each slow step runs on a
// detached thread of its own, which moves the state on when it is done. docs/states.md draws the states.
// Only the state is behind a mutex. Counts are written on the main loop before a thread that reads them
// starts.
#ifndef FW_UPDATE_UIA_H
#define FW_UPDATE_UIA_H

#include <atomic>
#include <cstdint>
#include <glib.h>
#include <mutex>
#include <string>

#include "applaunch.h"
#include "fw-update-common.h"
#include "pralis.h"

class FWUpdateUIA
{
public:
    static FWUpdateUIA* getInstance();
    FWUpdateUIA(const FWUpdateUIA&) = delete;
    FWUpdateUIA& operator=(const FWUpdateUIA&) = delete;

    // ---- State machine ----

    void FWSVC_set_state(FWSVC state);
    FWSVC FWSVC_get_state();
    bool getIsReady(); // always true

    // Has every module request its package. Returns what the download returned.
    int request_empdownload();
    // Writes the update list; ends the service when nothing needs an update. Returns the list's count.
    int check_update_module(bool taskRunning);

    // Acts on the state, once. `data` is the agent, null the one instance. FALSE ends the timer.
    static gboolean FWSVC_state_handler(gpointer data);
    // The upgrade UI has written its status key. `user_data` is the agent, null the one instance.
    static void pralis_fwstatus_UI_cb(keynode* node, void* user_data);

    // Bodies of the detached threads. Both block: up to 60 seconds, and up to 9.
    void chk_pkgMgrReady();
    void launch_Device_Upgrade_UI();

    // ---- Status keys ----

    int get_EP_WORKING_STATUS_PRALIS();          // the value, -1 when it cannot be read
    int set_EP_WORKING_STATUS_PRALIS(int value); // 1 on success, 0 on failure
    // Publishes the progress of the run, or 100 when it is done. The key never falls.
    void updateFWUpdateProgress(bool done);
    // Tells the UI that the update runs (2) or is finished (3); no other value is the daemon's to write.
    void notiFromSVCToUI(int status);
    void register_fwstatus_UI_pralis_cb();
    int unregister_fwstatus_UI_pralis_cb();
    bool Is_Factory_Prodution_Booting(); // the platform's spelling, as that of its marker file
    bool file_exists(const std::string& path);

private:
    FWUpdateUIA() = default;

    gboolean handleState(FWSVC state);
    gboolean onModulesChecked();
    gboolean onPackageManagerChecked();
    void onAccepted();
    void onUpdateDone();
    void onUIClosed();
    void onCancelled();
    void onReboot();
    gboolean stopTimer();
    void endUISession();
    void runUIUpdate(int count);
    bool sendLaunchRequest(applaunch_h request);
    void answerFromUI(int answer);

    std::mutex stateMutex;
    bool isReady = false;
    std::atomic<bool> isUILaunchAllowed{false};
    int32_t uiModuleCount = 0;
    int32_t backgroundModuleCount = 0;
    bool isForcedUpdate = false;
    int32_t expectedTime = 0; // milliseconds
    FWSVC state = FWSVC_INIT;
    std::atomic<bool> isUILaunched{false};
};

// The timer function: runs the state handler of the one instance.
gboolean state_wrapper_timer_cb(gpointer data);

#endif
