// Fixtures of the update manager's and the UI agent's tests: modules that a test makes one by one, in an
// order of its own, with packages and system images that are newer than what is installed.
//
// Header only. A module's library ends its update when the manager waits for that, unless the test says
// otherwise: one that ends before counts as timed out.
#ifndef TESTS_SUPPORT_MANAGER_TEST_H
#define TESTS_SUPPORT_MANAGER_TEST_H

#include <atomic>
#include <chrono>
#include <fcntl.h>
#include <filesystem>
#include <future>
#include <semaphore.h>
#include <set>
#include <string>
#include <thread>
#include <unistd.h>
#include <utility>
#include <vector>

#include "common/process/process-stat.h"
#include "src/src/fw-update-symbol-manager.h"
#include "tests/support/service-finalize.h"
#include "tests/support/set-test.h"

constexpr const char* kListPath = "/tmp/fwupdate-off-list.txt";
constexpr const char* kSemaphoreName = "/SEM_UPDATE_CONTROL";

// Waits for what another thread does, with a margin for a busy machine. False when it never came.
template <typename Condition>
bool eventually(Condition condition, std::chrono::seconds limit = std::chrono::seconds(30))
{
    const auto end = std::chrono::steady_clock::now() + limit;
    while (!condition()) {
        if (std::chrono::steady_clock::now() >= end) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return true;
}

// In a library's call: until every other thread of this process sleeps at two looks in a row, as the one does
// then that waits for the update.
inline void untilOthersSleep()
{
    int looks = 0;
    eventually([&] {
        for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
            const auto stat = common::readProcessStat(task.path());
            const bool isOurs = task.path().filename() == std::to_string(gettid());
            looks = isOurs || !stat || stat->isAsleep() ? looks : -1;
        }
        return ++looks >= 2;
    });
}

// A door that a test opens: whoever calls pass() waits for it.
class Gate
{
public:
    void pass()
    {
        arrived = true;
        isOpen.wait();
    }
    void open() { opening.set_value(); } // once
    bool isReached() const { return arrived; }

private:
    std::atomic<bool> arrived{false};
    std::promise<void> opening;
    std::shared_future<void> isOpen{opening.get_future()};
};

// One module, with what its library was asked.
struct TestModule {
    FWUpdateSymbol& module;
    ControlRecorder& library;
};

class ManagerTest : public SetTest
{
protected:
    explicit ManagerTest(FWUpdateSymbolManager& tested = freshManager()) : manager(tested) {}

    void SetUp() override
    {
        SetTest::SetUp();
        remove(kListPath);
        sem_unlink(kSemaphoreName);
        resetServiceFinalizeCount();
    }

    // A manager that is never destroyed: a late update may still be in one of its modules.
    static FWUpdateSymbolManager& freshManager()
    {
        static auto* const all = new std::vector<FWUpdateSymbolManager*>;
        all->push_back(new FWUpdateSymbolManager);
        return *all->back();
    }

    // Loads a library and appends its module. The log and the calls start anew.
    TestModule addModule(const std::string& name, const std::string& identifier,
                         const std::string& variant = "complete")
    {
        ControlRecorder& library = installControl(name, set::kControls, variant);
        library.answers.empId = identifier;
        library.answers.onCall = [](const std::string& function) {
            if (function == "doUpdate") {
                untilOthersSleep();
            }
        };
        manager.firmwareItems.emplace_back(name);
        FWUpdateSymbol& module = manager.firmwareItems.back();
        EXPECT_EQ(module.loadSymbol(name), 0);
        library.clearCalls();
        platform.clearLog();
        return {module, library};
    }

    // A module that an earlier check has found pending, with a package to update it from.
    TestModule addPending(const std::string& name, const std::string& identifier, uint32_t expectedTime,
                          const std::string& uiUse = "none")
    {
        const TestModule added = addModule(name, identifier);
        fillSource(makePackage(identifier).tree, added.module.firmwareName, expectedTime, uiUse);
        added.module.needUpdate = true;
        added.module.expectedUpdateTime = expectedTime;
        added.module.information.ui_use = uiUse;
        return added;
    }

    // An empty image, whose checksum is 0, and its information file.
    static void fillSource(const std::string& directory, const std::string& firmwareName,
                           uint32_t expectedTime, const std::string& uiUse)
    {
        writeFile(directory + "/" + firmwareName + ".bin", "");
        writeFile(directory + "/info.json", R"({"version": "2.0", "expected_time": )" +
                                                std::to_string(expectedTime) + R"(, "ui_use": ")" + uiUse +
                                                "\"}");
    }
    static void fillBuiltIn(const std::string& firmwareName, uint32_t expectedTime, const std::string& uiUse)
    {
        fillSource(std::string(set::kBuiltIn) + "/" + firmwareName, firmwareName, expectedTime, uiUse);
    }

    // The lines that one source file has logged, in order.
    std::vector<LogLine> linesOf(const std::string& file) const
    {
        std::set<std::string> texts;
        for (const LogRecord& record : platform.logRecords()) {
            if (record.file == file) {
                texts.insert(record.text);
            }
        }
        std::vector<LogLine> lines;
        for (LogLine& line : platform.log()) {
            if (texts.count(line.text) != 0) {
                lines.push_back(std::move(line));
            }
        }
        return lines;
    }
    std::vector<LogLine> managerLines() const { return linesOf("fw-update-symbol-manager.cpp"); }

    bool isLogged(const std::string& text) const
    {
        for (const LogRecord& record : platform.logRecords()) {
            if (record.text == text) {
                return true;
            }
        }
        return false;
    }

    // Lets the module's updates wait in the library until the gate is opened.
    static void holdUpdates(ControlRecorder& library, Gate& gate)
    {
        library.answers.onCall = [&gate](const std::string& function) {
            if (function == "doUpdate") {
                gate.pass();
            }
        };
    }

    // Waits until a late update has left the module: its last step is to unmount the package.
    void awaitEndOfUpdate(const TestModule& late) const
    {
        EXPECT_TRUE(eventually([&] { return isLogged("EMP UMount Success " + late.module.empImagePath); }));
    }

    static int semaphoreValue()
    {
        sem_t* const semaphore = sem_open(kSemaphoreName, O_CREAT, 0600, 1);
        int value = -1;
        sem_getvalue(semaphore, &value);
        sem_close(semaphore);
        return value;
    }

    FWUpdateSymbolManager& manager;
    char noContext[1] = "";
};

#endif
