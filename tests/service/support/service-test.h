// The fixture of every service test: a television of its own.
#ifndef TESTS_SERVICE_SUPPORT_SERVICE_TEST_H
#define TESTS_SERVICE_SUPPORT_SERVICE_TEST_H

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/service/support/television.h"

namespace service
{

class ServiceTest : public testing::Test
{
protected:
    // Skips the test without root: the daemon runs as another user, and images are mounted over loop devices.
    void SetUp() override;
    // Neither the daemon nor GLib in it may have complained. Shows the log of a test that has failed.
    void TearDown() override;

    // A module without upgrade UI, whose package is there and newer.
    void installPending(const std::string& name, const Json::Value& script = Json::objectValue,
                        const Information& information = {});
    // Switches on with what was installed, and starts the daemon, which finds updates to wait with.
    void startPending();
    // Ten minutes later the set goes to standby.
    void goToStandby();
    // The daemon ends with status 0, as it always does, and says so once.
    void expectEnd();
    // Waits until a scripted library was asked so; it has read its script by then. `beginning` of the line.
    void waitForCall(const std::string& beginning);
    bool wasAsked(const std::string& call) const;   // a scripted library, see Television::calls
    bool wasWritten(const std::string& name) const; // a scripted module has its new firmware, byte for byte

    Television tv;
};

Json::Value scriptOf(const std::string& key, const Json::Value& value);

} // namespace service

#endif
