// The settings store, and the rules for callbacks of all subscriptions.

#include <atomic>
#include <fstream>
#include <gio/gio.h>
#include <thread>

#include "pralis.h"
#include "tests/vset/platform/platform-test.h"

using testing::ElementsAre;
using testing::Gt;
using testing::Le;
using testing::Lt;

namespace
{

// What a callback has seen.
struct Seen {
    std::vector<int> values;
    std::vector<std::thread::id> threads;
};

void note(keynode* node, void* userData)
{
    auto* const seen = static_cast<Seen*>(userData);
    seen->values.push_back(pralis_keynode_get_int(node));
    seen->threads.push_back(std::this_thread::get_id());
}

void count(keynode*, void* userData)
{
    ++*static_cast<int*>(userData);
}

void ignoreAtFirst(keynode* node, void* userData)
{
    note(node, userData);
    EXPECT_EQ(pralis_ignore_key_changed("memory/once", ignoreAtFirst), 0);
}

class Settings : public PlatformTest
{
protected:
    Seen seen;
};

} // namespace

TEST_F(Settings, AValueIsReadAsItWasWritten)
{
    for (const int written : {0, 1, -1, 2147483647, -2147483647 - 1}) {
        int read = 4711;
        ASSERT_EQ(pralis_set_int("memory/a", written), 0);
        EXPECT_EQ(pralis_get_int("memory/a", &read), 0);
        EXPECT_EQ(read, written);
    }
}

TEST_F(Settings, TheKeysOfTheSetAreZeroAtBoot)
{
    int value = 4711;
    EXPECT_EQ(pralis_get_int("memory/enterprise/swupgrade/working_status", &value), 0);
    EXPECT_EQ(value, 0);
}

TEST_F(Settings, AnUnknownKeyFailsAndLeavesTheValueAlone)
{
    int value = 4711;
    EXPECT_THAT(pralis_get_int("memory/nobody", &value), Lt(0));
    EXPECT_EQ(value, 4711);
}

TEST_F(Settings, WhatIsNoKeyIsRefused)
{
    int value = 0;
    for (const char* key : {static_cast<const char*>(nullptr), "", "memory/\xff\xfe", "memory/line\nend"}) {
        EXPECT_THAT(pralis_set_int(key, 1), Lt(0));
        EXPECT_THAT(pralis_get_int(key, &value), Lt(0));
    }
    EXPECT_THAT(pralis_set_int(std::string(70000, 'k').c_str(), 1), Lt(0));
    EXPECT_THAT(pralis_get_int("memory/a", nullptr), Lt(0));
    EXPECT_THAT(pralis_notify_key_changed("memory/a", nullptr, nullptr), Lt(0));
}

TEST_F(Settings, AKeptKeyIsOnTheDiskAndAVolatileOneIsNot)
{
    ASSERT_EQ(pralis_set_int("db/menu/language", 7), 0);
    ASSERT_EQ(pralis_set_int("memory/a", 8), 0);
    std::ifstream file("/var/lib/platform/settings.json");
    Json::Value kept;
    file >> kept;
    EXPECT_EQ(kept["db/menu/language"].asInt(), 7);
    EXPECT_FALSE(kept.isMember("memory/a"));
}

TEST_F(Settings, ACallbackGetsEveryWriteInOrderAlsoOfTheSameValue)
{
    ASSERT_EQ(pralis_notify_key_changed("memory/a", note, &seen), 0);
    for (const int value : {4, 4, -3}) {
        set.setSetting("memory/a", value);
    }
    set.setSetting("memory/other", 9);
    EXPECT_TRUE(pumpUntil([&] { return seen.values.size() >= 3; }));
    pumpAll();
    EXPECT_THAT(seen.values, ElementsAre(4, 4, -3));
}

TEST_F(Settings, CallbacksRunOnTheMainThreadWhoeverSubscribed)
{
    std::thread([&] { ASSERT_EQ(pralis_notify_key_changed("memory/a", note, &seen), 0); }).join();
    std::thread writer([&] {
        for (int value = 0; value < 500; ++value) {
            ASSERT_EQ(pralis_set_int("memory/a", value), 0);
        }
    });
    EXPECT_TRUE(pumpUntil([&] { return seen.values.size() == 500; }));
    writer.join();
    for (const std::thread::id thread : seen.threads) {
        ASSERT_EQ(thread, std::this_thread::get_id());
    }
}

TEST_F(Settings, AThreadWithAContextOfItsOwnSubscribesForTheMainThreadToo)
{
    std::thread([&] {
        GMainContext* const own = g_main_context_new();
        g_main_context_push_thread_default(own);
        EXPECT_EQ(pralis_notify_key_changed("memory/a", note, &seen), 0);
        g_main_context_pop_thread_default(own);
        g_main_context_unref(own);
    }).join();
    set.setSetting("memory/a", 5);
    EXPECT_TRUE(pumpUntil([&] { return !seen.values.empty(); }));
    EXPECT_THAT(seen.threads, ElementsAre(std::this_thread::get_id()));
}

TEST_F(Settings, NoChangeAfterTheSubscriptionIsLost)
{
    for (int round = 0; round < 100; ++round) {
        const std::string key = "memory/round" + std::to_string(round);
        ASSERT_EQ(pralis_notify_key_changed(key.c_str(), note, &seen), 0);
        set.setSetting(key, round);
    }
    EXPECT_TRUE(pumpUntil([&] { return seen.values.size() == 100; })) << seen.values.size();
}

TEST_F(Settings, NoChangeBeforeTheSubscriptionIsTold)
{
    for (const bool isFirst : {true, false}) {
        int others = 0;
        const std::string key = isFirst ? "memory/first" : "memory/second";
        if (!isFirst) {
            ASSERT_EQ(pralis_notify_key_changed(key.c_str(), count, &others), 0);
        }
        for (int round = 0; round < 200; ++round) {
            set.setSetting(key, round); // as another process does
            ASSERT_EQ(pralis_notify_key_changed(key.c_str(), note, &seen), 0);
            pumpAll();
            ASSERT_THAT(seen.values, testing::IsEmpty()) << key << ", round " << round;
            ASSERT_EQ(pralis_ignore_key_changed(key.c_str(), note), 0);
        }
        EXPECT_EQ(others, isFirst ? 0 : 200);
    }
}

TEST_F(Settings, NoCallbackBeginsAfterTheSubscriptionEnded)
{
    ASSERT_EQ(pralis_notify_key_changed("memory/a", note, &seen), 0);
    for (int value = 0; value < 20; ++value) {
        ASSERT_EQ(pralis_set_int("memory/a", value), 0); // on their way to the main thread now
    }
    std::thread([] { EXPECT_EQ(pralis_ignore_key_changed("memory/a", note), 0); }).join();
    pumpAll();
    EXPECT_TRUE(seen.values.empty());
    EXPECT_THAT(pralis_ignore_key_changed("memory/a", note), Lt(0));
}

TEST_F(Settings, ACallbackMayEndItsOwnSubscription)
{
    ASSERT_EQ(pralis_notify_key_changed("memory/once", ignoreAtFirst, &seen), 0);
    set.setSetting("memory/once", 1);
    set.setSetting("memory/once", 2);
    EXPECT_TRUE(pumpUntil([&] { return !seen.values.empty(); }));
    pumpAll();
    EXPECT_THAT(seen.values, ElementsAre(1));
}

TEST_F(Settings, EightThreadsWithAThousandCallsEachGetTheirOwnValues)
{
    std::atomic<int> wrong{0};
    std::vector<std::thread> threads;
    for (int number = 0; number < 8; ++number) {
        threads.emplace_back([&wrong, number] {
            const std::string key = "memory/thread" + std::to_string(number);
            for (int round = 0; round < 500; ++round) {
                int read = -1;
                const bool isRight = pralis_set_int(key.c_str(), round * 8 + number) == 0 &&
                                     pralis_get_int(key.c_str(), &read) == 0 && read == round * 8 + number;
                wrong += isRight ? 0 : 1;
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(wrong, 0);
}

TEST_F(Settings, AFaultHitsAsOftenAsOrderedAndOnlyItsKey)
{
    const std::string faulty = "memory/enterprise/swupgrade/working_status";
    int value = 0;
    set.setFault("pralis_get_int", -7, 2, faulty);
    EXPECT_EQ(pralis_get_int("memory/ep_firmware_update_app/fw_update_status", &value), 0);
    EXPECT_EQ(pralis_get_int(faulty.c_str(), &value), -7);
    EXPECT_EQ(pralis_get_int(faulty.c_str(), &value), -7);
    EXPECT_EQ(pralis_get_int(faulty.c_str(), &value), 0);
    EXPECT_TRUE(set.snapshot()["faults"].empty());
}

TEST_F(Settings, AFaultWithoutCountLastsUntilItIsReset)
{
    set.setFault("pralis_set_int", -1);
    for (int round = 0; round < 5; ++round) {
        EXPECT_EQ(pralis_set_int("memory/a", 1), -1);
    }
    EXPECT_FALSE(set.snapshot()["settings"].isMember("memory/a"));
    set.resetFaults("pralis_set_int");
    EXPECT_EQ(pralis_set_int("memory/a", 1), 0);
}

TEST_F(Settings, ARefusedSubscriptionBringsNothing)
{
    set.setFault("pralis_notify_key_changed", -1, 1);
    EXPECT_EQ(pralis_notify_key_changed("memory/a", note, &seen), -1);
    set.setSetting("memory/a", 1);
    pumpAll();
    EXPECT_TRUE(seen.values.empty());
    EXPECT_THAT(pralis_ignore_key_changed("memory/a", note), Lt(0));
}

TEST_F(Settings, ADelayedCallIsAnsweredLateAndRightly)
{
    int value = -1;
    set.setDelay("pralis_get_int", 700, 1);
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(pralis_get_int("memory/ep_firmware_update_app/fw_update_status", &value), 0);
    EXPECT_THAT(std::chrono::steady_clock::now() - start, Gt(std::chrono::milliseconds(600)));
    EXPECT_EQ(value, 0);
}

TEST_F(Settings, AFaultOfAnUnknownCallIsRefused)
{
    EXPECT_THROW(set.setFault("pralis_get_double", -1), vset::ControlError);
}
