#include "fw-update-symbol-manager.h"

#include <atomic>
#include <boost/filesystem.hpp>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <cxxabi.h>
#include <memory>
#include <optional>
#include <semaphore.h>
#include <stdexcept>
#include <sys/stat.h>
#include <thread>

#include "flagpost.h"
#include "fw-update-file.h"
#include "fw-update-log.h"
#include "pwrctl.h"
#include "sysprop.h"

namespace
{

constexpr const char* kUpdateListPath = "/tmp/fwupdate-off-list.txt";

} // namespace

FWUpdateSymbolManager* FWUpdateSymbolManager::getInstance()
{
    static FWUpdateSymbolManager instance;
    return &instance;
}

// ---- Registry ----

bool FWUpdateSymbolManager::getIsReady(bool skipExt)
{
    if (!isReady) {
        isReady = onCreate(skipExt);
    }
    return isReady;
}

bool FWUpdateSymbolManager::onCreate(bool skipExt)
{
    scanDirectory("/prd/usr/fwupdate/controls/", false, skipExt);
    scanDirectory("/usr/fwupdate/controls/", true, skipExt);
    if (firmwareItems.empty()) {
        FWLOGE("firmwareItems empty");
        return false;
    }
    for (FWUpdateSymbol& module : firmwareItems) {
        module.loadSymbol(module.getLibName()); // one that fails stays, and answers for itself
    }
    if (getSWVersionString() != 0) {
        FWLOGE("Error: getSwVersion fail");
    }
    return true;
}

// Any entry whose name ends in ".so" is a module; what it really is shows when it is loaded.
void FWUpdateSymbolManager::scanDirectory(const char* directory, bool isUsr, bool skipExt)
{
    try {
        for (const auto& entry : boost::filesystem::directory_iterator(directory)) {
            const std::string stem = entry.path().stem().string();
            if (skipExt && isExternalName(stem)) {
                FWLOGE("En/Decryption Service EXT skip [%s]", stem.c_str());
                continue;
            }
            if (entry.path().extension().string() == ".so") {
                firmwareItems.emplace_back(stem, isUsr);
            }
        }
    } catch (const boost::filesystem::filesystem_error& error) {
        FWLOGE("File System Exception: %s ", error.what());
    }
}

bool FWUpdateSymbolManager::onDestroy()
{
    firmwareItems.clear();
    return true;
}

bool FWUpdateSymbolManager::hasUpgradeExecuted()
{
    const std::lock_guard<std::mutex> lock(progressMutex);
    return totalUpdateTimeMs != 0 && doneUpdateTime != 0;
}

int FWUpdateSymbolManager::getSWVersionString()
{
    constexpr int kSoftwareVersionKey = 128;
    char* value = nullptr;
    const int result = sysprop_get_value_string(kSoftwareVersionKey, &value);
    const std::unique_ptr<char, decltype(&free)> text{result == 0 ? value : nullptr, &free};
    if (!text) {
        FWLOGE("Unable to read SW version from sysprop");
        return -1;
    }
    const char* const dash = strrchr(text.get(), '-');
    if (dash == nullptr) {
        FWLOGE("getSWVersionString: Wrong string format - lack of dash: %s", text.get());
        return -1;
    }
    swModel = std::string(static_cast<const char*>(text.get()), dash);
    FWLOG_NORLOG(FWLOG_INFO, "SWModel : %s", swModel.c_str());
    return 0;
}

// ---- One update with a time-out ----

namespace
{

// What the waiting caller and the worker share. The worker may outlive the caller, so it owns its part and a
// copy of the caller's context.
struct UpdateJob {
    std::mutex mutex;
    std::condition_variable finished;
    std::atomic<int> result{0};
    std::optional<std::string> context;

    explicit UpdateJob(const char* text)
    {
        if (text != nullptr) {
            context = text;
        }
    }
};

// The update semaphore, taken; given back once, at the latest when the scope is left. One that could not be
// taken is not given back: the update goes on without it.
class UpdateTurn
{
public:
    explicit UpdateTurn(sem_t* turn) : semaphore(isTaken(turn) ? turn : nullptr) {}
    ~UpdateTurn() { giveBack(); }
    UpdateTurn(const UpdateTurn&) = delete;
    UpdateTurn& operator=(const UpdateTurn&) = delete;

    void giveBack()
    {
        if (semaphore != nullptr) {
            sem_post(semaphore);
        }
        semaphore = nullptr;
    }

private:
    static bool isTaken(sem_t* turn)
    {
        while (sem_wait(turn) != 0) {
            if (errno != EINTR) {
                return false;
            }
        }
        return true;
    }

    sem_t* semaphore;
};

} // namespace

int FWUpdateSymbolManager::update_module(FWUpdateSymbol& module, FWUpdateCallerTypes caller, char* context)
{
    return module.updateFirmware(caller, context);
}

int FWUpdateSymbolManager::update_timeout_wrapper(FWUpdateSymbol& module, unsigned int seconds,
                                                  FWUpdateCallerTypes caller, char* context)
{
    using Clock = std::chrono::steady_clock;
    FWLOGE("%s update time %d sec", module.firmwareName.c_str(), static_cast<int>(seconds));
    sem_t* const semaphore = FWUpdateCommon::getInstance()->create_semaphore();
    if (semaphore == nullptr) {
        return -1;
    }
    UpdateTurn turn(semaphore);
    const auto job = std::make_shared<UpdateJob>(context);
    std::thread([job, &module, caller] {
        try {
            job->result = module.updateFirmware(caller, job->context ? job->context->data() : nullptr);
        } catch (const abi::__forced_unwind&) {
            throw; // the library has ended this thread: no exception, and a time-out
        } catch (...) {
            job->result = -1; // nobody is left on this thread who could take it
        }
        job->finished.notify_one();
    }).detach();

    // The clock alone tells the verdict: a wake-up before the deadline is a completion, and an update that
    // ended before the wait began is a time-out. Integrators rely on both; docs/oddities.md shows them.
    std::unique_lock<std::mutex> lock(job->mutex);
    const auto deadline = Clock::now() + std::chrono::seconds(static_cast<int64_t>(seconds) + 2);
    job->finished.wait_until(lock, deadline);
    const bool inTime = Clock::now() < deadline;
    turn.giveBack();
    if (inTime) {
        return job->result;
    }
    const std::string text = module.firmwareName + " update timeout";
    FWLOGE("%s", text.c_str());
    throw std::runtime_error(text);
}

// ---- Update runs ----

int FWUpdateSymbolManager::doUpdateFirmwareAll(FWUpdateCallerTypes)
{
    resetTotalUpdateTime();
    startRun();
    FWLOGE("Try doUpdateFirmwareAll");
    FlagpostEventDone("/tmp/.ignore_resume");
    unsigned int count = 0;
    for (const FWUpdateSymbol& module : firmwareItems) {
        if (module.getNeedUpdate()) {
            expectUpdate(module);
            ++count;
        }
        FWLOGE("%s Firmware Expected Time Check Done", module.libName.c_str());
    }
    if (count == 0) {
        FWLOGE("There is no update item");
        return 0;
    }
    lockPower(2, count);
    for (FWUpdateSymbol& module : firmwareItems) {
        if (module.getNeedUpdate()) {
            runOne(module, FW_CALLER_EMP, true);
        }
    }
    notifyAllUpdateDone();
    FWLOGE("pwrctl_unlock_state");
    pwrctl_unlock_state(2);
    FWLOGE("pwrctl_unlock_state done");
    remove(kUpdateListPath);
    return 0;
}

int FWUpdateSymbolManager::doUpdateFirmwareUI(int count)
{
    startRun();
    FWLOGE("Try doUpdateFirmwareUI");
    FlagpostEventDone("/tmp/.ignore_resume");
    if (pwrctl_get_state() != 0) {
        return 0;
    }
    lockPower(0, static_cast<unsigned int>(count)); // ends by its duration
    for (FWUpdateSymbol& module : firmwareItems) {
        if (module.getNeedUpdate() && module.isUISupportUpdate()) {
            const bool isBuiltin = module.getUpdateType() == UPDATE_TYPE_BUILTIN;
            runOne(module, isBuiltin ? FW_CALLER_BUILTIN : FW_CALLER_EMP, false);
        }
    }
    notifyAllUpdateDone();
    remove(kUpdateListPath);
    return 0;
}

int FWUpdateSymbolManager::cntUpdateFirmware(int& uiCount, int& otherCount, bool& force, int& totalTimeMs)
{
    uiCount = 0;
    otherCount = 0;
    force = false;
    totalTimeMs = 0;
    for (const FWUpdateSymbol& module : firmwareItems) {
        if (module.getNeedUpdate() && module.isUISupportUpdate()) {
            expectUpdate(module);
            ++uiCount;
            force = force || module.hasUISupportForce();
        } else if (module.getNeedUpdate()) {
            ++otherCount;
        }
        FWLOGE("%s Firmware Expected Time Check Done", module.libName.c_str());
    }
    totalTimeMs = static_cast<int>(getTotalUpdateTime());
    return 0;
}

int FWUpdateSymbolManager::doUpdateFirmware(const std::string& libName, FWUpdateCallerTypes caller,
                                            char* context)
{
    constexpr uint32_t kExternal = 1;
    int result = -1;
    for (FWUpdateSymbol& module : firmwareItems) {
        if (module.libName != libName) {
            continue;
        }
        if (module.getSymbolType() == kExternal) {
            result = module.runProcess(caller, context);
            continue;
        }
        result = module.isNeedUpdate(caller, context);
        if (result != 1) {
            continue;
        }
        try {
            result = update_timeout_wrapper(module, module.getExpectedUpdateTime(), caller, context);
        } catch (const std::runtime_error& error) {
            FWLOGE("Error : %s", error.what());
        }
    }
    return result;
}

int FWUpdateSymbolManager::allDoUpdateDone()
{
    FWLOGE("Try allDoUpdateDone");
    notifyAllUpdateDone();
    FWLOGE("allDoUpdateDone Done");
    return 0;
}

int FWUpdateSymbolManager::downloadEMPAll()
{
    for (FWUpdateSymbol& module : firmwareItems) {
        module.downloadEMP();
    }
    return 0;
}

void FWUpdateSymbolManager::resetTotalUpdateTime()
{
    const std::lock_guard<std::mutex> lock(progressMutex);
    totalUpdateTimeMs = 0;
}

void FWUpdateSymbolManager::startRun()
{
    const std::lock_guard<std::mutex> lock(progressMutex);
    doneUpdateTime = 0;
}

void FWUpdateSymbolManager::expectUpdate(const FWUpdateSymbol& module)
{
    const std::lock_guard<std::mutex> lock(progressMutex);
    totalUpdateTimeMs += module.getExpectedUpdateTime() * 1000;
}

uint32_t FWUpdateSymbolManager::getTotalUpdateTime()
{
    const std::lock_guard<std::mutex> lock(progressMutex);
    return totalUpdateTimeMs;
}

// Five seconds of margin per module.
void FWUpdateSymbolManager::lockPower(int kind, unsigned int count)
{
    const uint32_t total = getTotalUpdateTime();
    FWLOGE("about total update time is %d ms, Lock the power during about that time.",
           static_cast<int>(total));
    pwrctl_lock_state(kind, count * 5000 + total);
    FWLOGE("pwrctl_lock_state done");
}

// One module of a run. Whether its update succeeded, failed or timed out, the run goes on.
void FWUpdateSymbolManager::runOne(FWUpdateSymbol& module, FWUpdateCallerTypes caller, bool keepName)
{
    {
        const std::lock_guard<std::mutex> lock(progressMutex);
        currentUpdateName = module.libName;
    }
    try {
        char emptyContext[] = "";
        update_timeout_wrapper(module, module.getExpectedUpdateTime(), caller, emptyContext);
    } catch (const std::runtime_error& error) {
        FWLOGE("Error : %s", error.what());
    }
    const std::lock_guard<std::mutex> lock(progressMutex);
    doneUpdateTime += module.getExpectedUpdateTime();
    if (!keepName) {
        currentUpdateName.clear();
    }
}

void FWUpdateSymbolManager::notifyAllUpdateDone()
{
    for (FWUpdateSymbol& module : firmwareItems) {
        module.allUpdateDone();
    }
}

// ---- Update list and queries ----

bool check_race_condition(const std::string& path)
{
    struct stat status;
    if (lstat(path.c_str(), &status) != 0) {
        if (errno == ENOENT) {
            return true;
        }
        FWLOGE("lstat error\n");
        return false;
    }
    if (S_ISLNK(status.st_mode)) {
        FWLOGE("symbolic link is detected\n");
        return false;
    }
    return true;
}

int FWUpdateSymbolManager::writeFirmwareUpdateList(bool& taskRunning)
{
    if (!check_race_condition(kUpdateListPath)) {
        FWLOGE("fail check_race_condition\n");
        return -1;
    }
    const File list = openToReplace(kUpdateListPath); // one that cannot be written changes no result
    int count = 0;
    for (FWUpdateSymbol& module : firmwareItems) {
        if (!taskRunning) {
            FWLOGE("Task is not running, writeFirmwareUpdateList stop");
            return -1;
        }
        // The package is checked last, whatever the first check said: a run updates from what that leaves.
        char emptyContext[] = "";
        const bool newerBuiltin = module.isNeedUpdate(FW_CALLER_BUILTIN, emptyContext) == 1;
        const bool newerPackage = module.isNeedUpdate(FW_CALLER_EMP, emptyContext) == 1;
        if (!newerBuiltin && !newerPackage) {
            continue;
        }
        count += (newerBuiltin ? 1 : 0) + (newerPackage ? 1 : 0);
        if (list) {
            fprintf(list.get(), "%s %s\n", module.libName.c_str(), module.EMPName.c_str());
        }
        FWLOGE("Need Update [%s][%s]", module.libName.c_str(), module.EMPName.c_str());
    }
    return count;
}

namespace
{

FWUpdateItem makeItem(FWUpdateSymbol& module)
{
    FWUpdateSymbol::TextBuffer version = {};
    module.getActiveVersion(version);
    return FWUpdateItem(module.libName.c_str(), version, module.firmwareName.c_str());
}

} // namespace

int FWUpdateSymbolManager::getFwItems(std::list<FWUpdateItem>& out)
{
    for (FWUpdateSymbol& module : firmwareItems) {
        out.push_back(makeItem(module));
    }
    return 0;
}

int FWUpdateSymbolManager::getUpdateFwItems(std::list<FWUpdateItem>& out, FWUpdateCallerTypes caller,
                                            char* context)
{
    for (FWUpdateSymbol& module : firmwareItems) {
        if (module.isNeedUpdate(caller, context) == 1) {
            out.push_back(makeItem(module));
        }
    }
    return 0;
}

int FWUpdateSymbolManager::getFirmwareVersion(const std::string& libName, char* activeVersion,
                                              char* firmwareName)
{
    FWUpdateSymbol* const module = findModule(libName);
    if (module == nullptr) {
        return -1;
    }
    const int result = module->getActiveVersion(activeVersion);
    snprintf(firmwareName, FWUpdateItem::kFieldSize, "%s", module->firmwareName.c_str());
    return result;
}

int FWUpdateSymbolManager::getFirmwareUpdateProgress(const std::string& libName, unsigned int* progress)
{
    FWUpdateSymbol* const module = findModule(libName);
    return module != nullptr ? module->getUpdateProgress(progress) : -1;
}

unsigned int FWUpdateSymbolManager::getCurrentUpdateProgress()
{
    std::string name;
    {
        const std::lock_guard<std::mutex> lock(progressMutex);
        name = currentUpdateName;
    }
    unsigned int percent = 0;
    unsigned int partial = 0;
    FWUpdateSymbol* const module = findModule(name);
    if (module != nullptr && module->getUpdateProgress(&percent) != -1) {
        partial = percent * module->getExpectedUpdateTime() / 100;
    }
    const std::lock_guard<std::mutex> lock(progressMutex);
    if (totalUpdateTimeMs == 0) {
        return 0; // a module with an expected time of 0 seconds is being written
    }
    // Seconds over milliseconds: the progress key is known to get nothing but the final 100 out of this.
    return (partial + doneUpdateTime) * 100 / totalUpdateTimeMs;
}

int FWUpdateSymbolManager::getFirmwareUpdateTime(const unsigned char* key, const char* path,
                                                 int& totalSeconds)
{
    uint32_t seconds = 0;
    int result = -1;
    for (FWUpdateSymbol& module : firmwareItems) {
        if (module.getNeedUpdateList(key, path) != 1) {
            continue;
        }
        FWLOGE("Need Update [%s] [%d]", module.firmwareName.c_str(),
               static_cast<int>(module.getExpectedUpdateTime()));
        seconds += module.getExpectedUpdateTime();
        result = 0;
    }
    totalSeconds = static_cast<int>(seconds);
    return result;
}

int FWUpdateSymbolManager::doUpdateUSB(const unsigned char* key, const char* path)
{
    int result = -1;
    for (FWUpdateSymbol& module : firmwareItems) {
        if (!module.getNeedUpdate()) {
            continue;
        }
        result = module.updateUSB(key, path);
        if (result == -1) {
            FWLOGE("update fail [%s]", module.firmwareName.c_str());
            return -1;
        }
    }
    return result;
}

FWUpdateSymbol* FWUpdateSymbolManager::findModule(const std::string& libName)
{
    for (FWUpdateSymbol& module : firmwareItems) {
        if (module.libName == libName) {
            return &module;
        }
    }
    return nullptr;
}
