// The sentences that are made of the daemon's messages.
#include <gtest/gtest.h>

#include "common/daemon/daemon-events.h"
#include "vset/story/narrator.h"

namespace
{

std::string told(vset::Narrator& narrator, const std::string& message)
{
    return narrator.tell(common::readDaemonMessage(message));
}

TEST(Narrator, TellsWhatCarriesTheStory)
{
    vset::Narrator narrator;
    EXPECT_EQ(told(narrator, "Tuner update time 8 sec"),
              "  Tuner: takes the update semaphore, and has 8 s and 2 s of margin");
    EXPECT_EQ(told(narrator, "Tuner update timeout"), "  Tuner: time is up; the write goes on, unattended.");
    EXPECT_EQ(told(narrator, "fwstatus_ui_cb val 1"), "The user accepts.");
    EXPECT_EQ(told(narrator, "fwstatus_ui_cb val 2"), "");
    EXPECT_EQ(told(narrator, "pwrctl_lock_state done"), "");
    EXPECT_EQ(told(narrator, "Error: dlsym libfile: $2 error: no such file\n"),
              "  $2 cannot be loaded: no such file");
}

TEST(Narrator, TellsAStateOnce)
{
    vset::Narrator narrator;
    EXPECT_EQ(told(narrator, "5"), "State 5: modules checked.");
    EXPECT_EQ(told(narrator, "5"), "");
    EXPECT_EQ(told(narrator, "7"), "State 7: package manager checked.");
    EXPECT_EQ(told(narrator, "22"), "");
}

} // namespace
