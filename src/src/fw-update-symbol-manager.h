// The registry of all modules of the set, the update runs over them, and the questions about them.
//
// Built once, on the thread that starts the service, before any other thread uses it; from then on the
// sequence of modules is fixed for the life of the process. Every operation visits the modules in its order.
#ifndef FW_UPDATE_SYMBOL_MANAGER_H
#define FW_UPDATE_SYMBOL_MANAGER_H

#include <cstdint>
#include <list>
#include <mutex>
#include <string>

#include "fw-update-common.h"
#include "fw-update-symbol.h"

class FWUpdateSymbolManager
{
public:
    static FWUpdateSymbolManager* getInstance();
    FWUpdateSymbolManager() = default;
    FWUpdateSymbolManager(const FWUpdateSymbolManager&) = delete;
    FWUpdateSymbolManager& operator=(const FWUpdateSymbolManager&) = delete;

    // ---- Registry ----

    // Builds the registry unless it is built already; `skipExt` leaves external modules out.
    bool getIsReady(bool skipExt);
    // Scans both control directories and binds every library. False when there is no module at all.
    bool onCreate(bool skipExt);
    // Empties the registry for good: it is not scanned again.
    bool onDestroy();
    // Whether a run with a known duration has handled at least one module, successfully or not.
    bool hasUpgradeExecuted();
    int getSWVersionString();

    // ---- Update runs ----

    // The unattended run over every pending module, under power lock 2. `caller` is not looked at: the images
    // come from packages. Always 0.
    int doUpdateFirmwareAll(FWUpdateCallerTypes caller);
    // The run that the user accepted, over every pending module that the UI offers, under power lock 0.
    // `count` modules are expected; it serves the lock's duration only. Always 0.
    int doUpdateFirmwareUI(int count);
    // Counts the pending modules. `totalTimeMs` grows with every call until a run resets it. Always 0.
    int cntUpdateFirmware(int& uiCount, int& otherCount, bool& force, int& totalTimeMs);
    // Checks and updates the module of that name: -1 when there is none, 1 after a time-out, else the
    // result of its check or update.
    int doUpdateFirmware(const std::string& libName, FWUpdateCallerTypes caller, char* context);
    // The update itself, with nothing around it.
    int update_module(FWUpdateSymbol& module, FWUpdateCallerTypes caller, char* context);
    // The update on a thread of its own, under the update semaphore. Waits `seconds` + 2 for it; then throws
    // std::runtime_error and leaves the thread to finish alone. -1 when there is no semaphore.
    int update_timeout_wrapper(FWUpdateSymbol& module, unsigned int seconds, FWUpdateCallerTypes caller,
                               char* context);
    int allDoUpdateDone();
    int downloadEMPAll();

    // ---- Update list and queries ----

    // Checks every module against the system image and its package and writes the list of those with a newer
    // image. Returns the number of positive checks; -1 when the list file is a link or `taskRunning` is
    // false.
    int writeFirmwareUpdateList(bool& taskRunning);
    int getFwItems(std::list<FWUpdateItem>& out);
    int getUpdateFwItems(std::list<FWUpdateItem>& out, FWUpdateCallerTypes caller, char* context);
    // Both buffers hold at least 128 bytes.
    int getFirmwareVersion(const std::string& libName, char* activeVersion, char* firmwareName);
    int getFirmwareUpdateProgress(const std::string& libName, unsigned int* progress);
    // Seconds done over milliseconds expected, in percent: a thousandth of the run's percentage. 0 when
    // nothing is expected. Any thread.
    unsigned int getCurrentUpdateProgress();
    // Sums the expected seconds of the modules with a newer encrypted image in `path`. -1 when there is none.
    int getFirmwareUpdateTime(const unsigned char* key, const char* path, int& totalSeconds);
    // Installs the encrypted images of the pending modules; stops at the first that fails.
    int doUpdateUSB(const unsigned char* key, const char* path);

    bool isReady = false;
    std::list<FWUpdateSymbol> firmwareItems;
    std::string currentUpdateName;
    std::string swModel;            // the software version up to its last "-"
    uint32_t totalUpdateTimeMs = 0; // milliseconds expected of the current run
    uint32_t doneUpdateTime = 0;    // seconds expected of its modules that were handled

private:
    void scanDirectory(const char* directory, bool isUsr, bool skipExt);
    void resetTotalUpdateTime();
    void startRun();
    void expectUpdate(const FWUpdateSymbol& module);
    uint32_t getTotalUpdateTime();
    void lockPower(int kind, unsigned int count);
    void runOne(FWUpdateSymbol& module, FWUpdateCallerTypes caller, bool keepName);
    void notifyAllUpdateDone();
    FWUpdateSymbol* findModule(const std::string& libName);

    // A run writes the name and the counters while the main loop reads them for the progress.
    std::mutex progressMutex;
};

// False when `path` is a symbolic link, or when that cannot be found out: a list written through it could
// overwrite any file.
bool check_race_condition(const std::string& path);

#endif
