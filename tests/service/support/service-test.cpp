#include "tests/service/support/service-test.h"

#include <algorithm>
#include <iostream>
#include <unistd.h>

namespace service
{

void ServiceTest::SetUp()
{
    if (geteuid() != 0) {
        GTEST_SKIP() << "needs root: the daemon of a set is a user of its own";
    }
}

void ServiceTest::TearDown()
{
    EXPECT_EQ(tv.daemonOutput(), "");
    if (HasFailure()) {
        std::cerr << tv.logTail();
    }
}

void ServiceTest::installPending(const std::string& name, const Json::Value& script,
                                 const Information& information)
{
    tv.installScripted(name, script);
    tv.deliverFor(name, information);
}

void ServiceTest::startPending()
{
    tv.switchOn();
    tv.startDaemon();
    tv.waitForState(5);
}

void ServiceTest::goToStandby()
{
    tv.jump(600);
    tv.setPower(kStandby);
}

void ServiceTest::expectEnd()
{
    EXPECT_EQ(tv.waitForDaemon(), 0);
    EXPECT_TRUE(tv.said("service finalize"));
    EXPECT_FALSE(tv.exists(kListFile));
}

void ServiceTest::waitForCall(const std::string& beginning)
{
    const auto isIt = [&](const std::string& call) { return call.rfind(beginning, 0) == 0; };
    tv.waitUntil(
        [&] {
            const std::vector<std::string> calls = tv.calls();
            return std::any_of(calls.begin(), calls.end(), isIt);
        },
        "a library is asked " + beginning + "...)");
}

bool ServiceTest::wasAsked(const std::string& call) const
{
    const std::vector<std::string> calls = tv.calls();
    return std::find(calls.begin(), calls.end(), call) != calls.end();
}

bool ServiceTest::wasWritten(const std::string& name) const
{
    return tv.writtenImage(name) == Television::imageOf(name);
}

Json::Value scriptOf(const std::string& key, const Json::Value& value)
{
    Json::Value script;
    script[key] = value;
    return script;
}

} // namespace service
