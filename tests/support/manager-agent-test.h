// Fixture of the UI agent's tests: the one agent and the one manager of the process, as at a boot.
#ifndef TESTS_SUPPORT_MANAGER_AGENT_TEST_H
#define TESTS_SUPPORT_MANAGER_AGENT_TEST_H

#include <string>
#include <utility>
#include <vector>

#include "src/src/fw-update-UIA.h"
#include "tests/support/manager-test.h"

constexpr const char* kStatusKey = "memory/ep_firmware_update_app/fw_update_status";
constexpr const char* kProgressKey = "memory/ep_firmware_update_app/fw_update_progress";
constexpr const char* kWorkingKey = "memory/enterprise/swupgrade/working_status";
constexpr const char* kReadyMarker = "/run/.pkgmgr_ready";
constexpr const char* kFactoryMarker = "/tmp/FACTORY_PRODCUTION";

class AgentTest : public ManagerTest
{
protected:
    AgentTest() : ManagerTest(*FWUpdateSymbolManager::getInstance()) {}

    void SetUp() override
    {
        ManagerTest::SetUp();
        manager.firmwareItems.clear();
        manager.totalUpdateTimeMs = 0;
        manager.doneUpdateTime = 0;
        manager.currentUpdateName.clear();
        agent.FWSVC_set_state(FWSVC_INIT);
        platform.setSetting(kWorkingKey, 0);
        writeFile(kReadyMarker, "");
        remove(kFactoryMarker);
    }

    // One second of the service; whether the timer goes on.
    bool tick() { return state_wrapper_timer_cb(nullptr) == TRUE; }
    bool tickIn(FWSVC state)
    {
        agent.FWSVC_set_state(state);
        return tick();
    }
    FWSVC state() { return agent.FWSVC_get_state(); }
    bool reaches(FWSVC expected)
    {
        return eventually([&] { return state() == expected; });
    }

    // Has the agent count the pending modules; with one for the UI it then looks for the package manager.
    void countModules()
    {
        tickIn(FWSVC_MODULES_CHECKED);
        if (manager.totalUpdateTimeMs != 0) {
            EXPECT_TRUE(reaches(FWSVC_PKGMGR_CHECKED));
        }
    }

    FWUpdateUIA& agent = *FWUpdateUIA::getInstance();
};

#endif
