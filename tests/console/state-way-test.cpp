// The way that the console draws: what the log says for certain, what is inferred, and nothing else.
#include <gtest/gtest.h>

#include "vset/console/state-way.h"

namespace
{

using vset::LogBuffer;
using vset::LogRecord;
using vset::StateWay;

LogRecord record(const char* function, const char* message, int second, int process = 9)
{
    LogRecord made;
    made.buffer = LogBuffer::Trace;
    made.function = function;
    made.message = message;
    made.process = process;
    made.time = "2026-01-31T12:00:0" + std::to_string(second) + ".000000Z";
    return made;
}

std::string wayOf(const StateWay& way)
{
    const Json::Value runs = way.toJson();
    std::string text;
    for (const Json::Value& step : runs[0]["steps"]) {
        text += step["state"].asString() + (step["source"] == "logged" ? "! " : " ");
    }
    return text;
}

TEST(StateWay, StatesThatPassBetweenTwoSecondsAreInferredAndANumberConfirmsThem)
{
    StateWay way;
    way.take(record("service_initialize", "service initialize", 0));
    way.take(record("main", "g_main loop running in main thread!\n", 0));
    way.take(record("downloadEMP", "Request (empPanel) emp download", 0));
    way.take(record("isNeedUpdate", "Panel Firmware isNeedUpdateModules Try(panel)", 0));
    way.take(record("check_update_module", "need update item, wait ui or bg fw update\n", 0));
    EXPECT_EQ(wayOf(way), "0 1 2 4 5 ");
    EXPECT_TRUE(way.take(record("FWSVC_state_handler", "5", 1)));
    EXPECT_EQ(wayOf(way), "0 1 2 4 5! ");
    EXPECT_FALSE(way.take(record("FWSVC_state_handler", "5", 2))) << "nothing new";
}

TEST(StateWay, AnAnswerMovesOnlyTheStatesInWhichItCounts)
{
    StateWay way;
    way.take(record("service_initialize", "service initialize", 0));
    way.take(record("FWSVC_state_handler", "12", 1));
    EXPECT_FALSE(way.take(record("pralis_fwstatus_UI_cb", "fwstatus_ui_cb val 4", 2)));
    way.take(record("FWSVC_state_handler", "14", 3));
    EXPECT_TRUE(way.take(record("pralis_fwstatus_UI_cb", "fwstatus_ui_cb val 4", 4)));
    EXPECT_EQ(wayOf(way), "0 12! 14! 15 ");
}

TEST(StateWay, TheLastStateIsReachedOnlyByAFinalisingDaemonThatIsGone)
{
    StateWay way;
    way.take(record("service_initialize", "service initialize", 0));
    way.take(record("service_finalize", "service finalize", 1));
    EXPECT_EQ(way.state(), 20);
    EXPECT_TRUE(way.endRun(9, 2000));
    EXPECT_EQ(way.state(), 21);

    StateWay killed;
    killed.take(record("service_initialize", "service initialize", 0));
    killed.take(record("FWSVC_state_handler", "10", 1));
    EXPECT_TRUE(killed.endRun(9, 2000));
    EXPECT_EQ(killed.state(), 10);
    EXPECT_FALSE(killed.endRun(9, 3000)) << "it ended once";
}

TEST(StateWay, AnEndThatIsSeenBeforeTheLastRecordIsAnEndAllTheSame)
{
    StateWay way;
    way.take(record("service_initialize", "service initialize", 0));
    EXPECT_TRUE(way.endRun(9, 2000));
    EXPECT_TRUE(way.take(record("service_finalize", "service finalize", 1)));
    EXPECT_EQ(way.state(), 21);
}

TEST(StateWay, RecordsOfOthersAndOfTheOtherLogMoveNothing)
{
    StateWay way;
    EXPECT_FALSE(way.take(record("FWSVC_state_handler", "7", 0))) << "no daemon has started";
    way.take(record("service_initialize", "service initialize", 0));
    EXPECT_FALSE(way.take(record("FWSVC_state_handler", "7", 1, 10)));
    LogRecord system = record("FWSVC_state_handler", "7", 1);
    system.buffer = LogBuffer::System;
    EXPECT_FALSE(way.take(system));
    EXPECT_FALSE(way.take(record("FWSVC_state_handler", "7 and more", 1)));
    EXPECT_EQ(way.state(), 0);
}

} // namespace
