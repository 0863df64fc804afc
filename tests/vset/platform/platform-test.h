// What the tests of the platform library share. They run inside a set: the library under test speaks to the
// set's own services, a ControlClient looks at what has arrived there.
#ifndef TESTS_VSET_PLATFORM_PLATFORM_TEST_H
#define TESTS_VSET_PLATFORM_PLATFORM_TEST_H

#include <chrono>
#include <functional>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <json/json.h>
#include <string>
#include <sys/types.h>
#include <vector>

#include "vset/client/control-client.h"

constexpr std::chrono::seconds kPatience{20}; // far more than anything here takes, on a busy machine too

class PlatformTest : public testing::Test
{
protected:
    // Runs the default main loop until `condition` holds. False when it still does not after `limit`.
    static bool pumpUntil(const std::function<bool()>& condition,
                          std::chrono::milliseconds limit = kPatience);
    // Delivers what is on its way: a round trip to the service, and the loop until it is idle.
    static void pumpAll();

    Json::Value waitFor(const std::function<bool(const Json::Value&)>& condition) const
    {
        return set.waitUntil(condition, kPatience);
    }

    const vset::ControlClient set = vset::ControlClient::inside();
};

// This program once more, in another part: a process of its own that can be killed.
class Child
{
public:
    // `part` is one of the parts of platform-test.cpp; `environment` as "NAME=value".
    explicit Child(const std::string& part, const std::vector<std::string>& environment = {});
    ~Child();
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;

    // The next line that it writes; empty at its end.
    std::string readLine();
    void kill(int signal) const;
    // Exit status, or 128 + signal.
    int wait();
    pid_t process() const { return process_; }

private:
    pid_t process_ = -1;
    FILE* output_ = nullptr;
};

#endif
