// What the registry is asked: lists of items, a module by its name, the progress of an update.
#include <cstring>
#include <functional>
#include <list>
#include <string>
#include <tuple>
#include <vector>

#include "tests/support/manager-test.h"

using testing::ElementsAre;
using testing::FieldsAre;
using testing::IsEmpty;

namespace
{

// ---- Item lists ----

class FWUpdateSymbolManagerItems : public ManagerTest
{
protected:
    // Name, version and firmware name of every item.
    std::vector<std::tuple<std::string, std::string, std::string>> texts() const
    {
        std::vector<std::tuple<std::string, std::string, std::string>> all;
        for (const FWUpdateItem& item : items) {
            all.emplace_back(item.name, item.version, item.firmwareName);
        }
        return all;
    }

    std::list<FWUpdateItem> items;
};

TEST_F(FWUpdateSymbolManagerItems, AreNoneInAnEmptyRegistry)
{
    EXPECT_EQ(manager.getFwItems(items), 0);
    EXPECT_EQ(manager.getUpdateFwItems(items, FW_CALLER_EMP, noContext), 0);
    EXPECT_THAT(texts(), IsEmpty());
}

TEST_F(FWUpdateSymbolManagerItems, HoldEveryModulePendingOrNot)
{
    addPending("tuner", "empTuner", 3).library.answers.activeVersion = "1.0";
    addModule("EXT-hdmi", "").library.answers.activeVersion = "7";
    EXPECT_EQ(manager.getFwItems(items), 0);
    EXPECT_THAT(texts(), ElementsAre(FieldsAre("tuner", "1.0", "Tuner"), FieldsAre("EXT-hdmi", "7", "")));
}

TEST_F(FWUpdateSymbolManagerItems, AreAppended)
{
    addModule("tuner", "empTuner");
    items.emplace_back("first", "", "");
    manager.getFwItems(items);
    EXPECT_THAT(texts(), ElementsAre(FieldsAre("first", "", ""), FieldsAre("tuner", "1.0", "Tuner")));
}

TEST_F(FWUpdateSymbolManagerItems, CutTextsAtTheirFields)
{
    TestModule tuner = addModule("tuner", "empTuner");
    tuner.module.libName = std::string(200, 'l');
    tuner.module.firmwareName = std::string(200, 'f');
    tuner.library.answers.activeVersion = std::string(128, 'v'); // not terminated
    manager.getFwItems(items);
    EXPECT_THAT(texts(),
                ElementsAre(FieldsAre(std::string(127, 'l'), std::string(127, 'v'), std::string(127, 'f'))));
}

TEST_F(FWUpdateSymbolManagerItems, HoldAModuleWhoseLibraryCannotTellItsVersion)
{
    TestModule tuner = addModule("tuner", "empTuner");
    tuner.library.answers.results["getActiveVersion"] = -1;
    tuner.library.answers.activeVersion = "";
    EXPECT_EQ(manager.getFwItems(items), 0);
    EXPECT_THAT(texts(), ElementsAre(FieldsAre("tuner", "", "Tuner")));
}

TEST_F(FWUpdateSymbolManagerItems, CannotBeMadeOfAModuleThatIsNotLoaded)
{
    manager.firmwareItems.emplace_back("absent");
    EXPECT_THROW(manager.getFwItems(items), std::bad_function_call);
}

TEST_F(FWUpdateSymbolManagerItems, ForAnUpdateHoldTheModulesWithAVerdictOfOneAlone)
{
    addPending("tuner", "empTuner", 3).library.answers.verdict = 1;
    addPending("panel", "empPanel", 3).library.answers.verdict = 2;
    addPending("remote", "empRemote", 3).library.answers.verdict = 0;
    addModule("EXT-hdmi", "");
    EXPECT_EQ(manager.getUpdateFwItems(items, FW_CALLER_EMP, noContext), 0);
    EXPECT_THAT(texts(), ElementsAre(FieldsAre("tuner", "1.0", "Tuner")));
}

TEST_F(FWUpdateSymbolManagerItems, ForAnUpdateComeOutOfACheckForTheCaller)
{
    TestModule tuner = addModule("tuner", "empTuner");
    fillBuiltIn("Tuner", 60, "select");
    char context[] = "FACTORY";
    manager.getUpdateFwItems(items, FW_CALLER_BUILTIN_FACTORY, context);
    EXPECT_THAT(tuner.library.calls().front(), R"(setContext("tuner", 7, "FACTORY"))");
    EXPECT_TRUE(tuner.module.getNeedUpdate());
    EXPECT_EQ(tuner.module.getExpectedUpdateTime(), 60U);
    EXPECT_EQ(tuner.module.getUpdateType(), UPDATE_TYPE_BUILTIN);
}

// ---- One module by its name ----

class FWUpdateSymbolManagerNamedQueries : public ManagerTest
{
protected:
    char version[129] = {};
    char firmwareName[129] = {};
    unsigned int progress = 5;
};

TEST_F(FWUpdateSymbolManagerNamedQueries, FailSilentlyForAnUnknownName)
{
    addModule("tuner", "empTuner");
    EXPECT_EQ(manager.getFirmwareVersion("Tuner", version, firmwareName), -1);
    EXPECT_EQ(manager.getFirmwareUpdateProgress("Tuner", &progress), -1);
    EXPECT_STREQ(version, "");
    EXPECT_STREQ(firmwareName, "");
    EXPECT_EQ(progress, 5U);
    EXPECT_THAT(platform.log(), IsEmpty());
}

TEST_F(FWUpdateSymbolManagerNamedQueries, TellTheVersionAndTheFirmwareName)
{
    addModule("panel", "empPanel");
    addModule("tuner", "empTuner").library.answers.activeVersion = "3.1";
    EXPECT_EQ(manager.getFirmwareVersion("tuner", version, firmwareName), 0);
    EXPECT_STREQ(version, "3.1");
    EXPECT_STREQ(firmwareName, "Tuner");
}

TEST_F(FWUpdateSymbolManagerNamedQueries, TellTheFirmwareNameAlsoWhenTheVersionIsUnknown)
{
    addModule("tuner", "empTuner").library.answers.results["getActiveVersion"] = 6;
    EXPECT_EQ(manager.getFirmwareVersion("tuner", version, firmwareName), 6);
    EXPECT_STREQ(firmwareName, "Tuner");
}

TEST_F(FWUpdateSymbolManagerNamedQueries, CutTheFirmwareNameToTheCallersBuffer)
{
    addModule("tuner", "empTuner").module.firmwareName = std::string(200, 'f');
    memset(firmwareName, '#', sizeof firmwareName - 1);
    manager.getFirmwareVersion("tuner", version, firmwareName);
    EXPECT_EQ(std::string(firmwareName), std::string(127, 'f'));
    EXPECT_EQ(firmwareName[128], '\0');
}

TEST_F(FWUpdateSymbolManagerNamedQueries, AskTheFirstOfTwoModulesOfThatName)
{
    addModule("tuner", "empTuner").library.answers.progress = 11;
    TestModule second = addModule("panel", "empPanel");
    second.module.libName = "tuner";
    EXPECT_EQ(manager.getFirmwareUpdateProgress("tuner", &progress), 0);
    EXPECT_EQ(progress, 11U);
    EXPECT_THAT(second.library.calls(), IsEmpty());
}

TEST_F(FWUpdateSymbolManagerNamedQueries, PassTheLibrarysResultOn)
{
    addModule("tuner", "empTuner").library.answers.results["getUpdateProgress"] = 4;
    EXPECT_EQ(manager.getFirmwareUpdateProgress("tuner", &progress), 4);
    EXPECT_EQ(progress, 42U);
}

TEST_F(FWUpdateSymbolManagerNamedQueries, FailForALibraryThatTellsNoProgress)
{
    addModule("mute", "empMute", "missing-getUpdateProgress");
    EXPECT_EQ(manager.getFirmwareUpdateProgress("mute", &progress), -1);
}

TEST_F(FWUpdateSymbolManagerNamedQueries, CannotReadTheVersionOfAModuleThatIsNotLoaded)
{
    manager.firmwareItems.emplace_back("absent");
    EXPECT_THROW(manager.getFirmwareVersion("absent", version, firmwareName), std::bad_function_call);
    EXPECT_EQ(manager.getFirmwareUpdateProgress("absent", &progress), -1);
}

// ---- Progress of the running update ----

class FWUpdateSymbolManagerProgress : public ManagerTest
{
protected:
    unsigned int of(uint32_t totalMs, uint32_t done, const std::string& current = "")
    {
        manager.totalUpdateTimeMs = totalMs;
        manager.doneUpdateTime = done;
        manager.currentUpdateName = current;
        return manager.getCurrentUpdateProgress();
    }
};

TEST_F(FWUpdateSymbolManagerProgress, IsAThousandthOfThePercentage)
{
    EXPECT_EQ(of(60000, 30), 0U);
    EXPECT_EQ(of(60000, 600), 1U);
    EXPECT_EQ(of(3000, 30), 1U);
}

TEST_F(FWUpdateSymbolManagerProgress, IsTruncated)
{
    EXPECT_EQ(of(100, 40), 40U);
    EXPECT_EQ(of(101, 40), 39U);
}

TEST_F(FWUpdateSymbolManagerProgress, IsZeroWhenNothingIsExpected)
{
    addModule("tuner", "empTuner").module.expectedUpdateTime = 10;
    EXPECT_EQ(of(0, 0), 0U);
    EXPECT_EQ(of(0, 30, "tuner"), 0U);
}

struct Partial {
    unsigned int percent;
    uint32_t expected;
    unsigned int progress;
};

TEST_F(FWUpdateSymbolManagerProgress, CountsTheWholeSecondsThatTheCurrentModuleHasDone)
{
    TestModule tuner = addModule("tuner", "empTuner");
    for (const Partial& part : {Partial{50, 60, 40}, {0, 60, 10}, {99, 1, 10}, {100, 1, 11}, {33, 10, 13}}) {
        tuner.library.answers.progress = part.percent;
        tuner.module.expectedUpdateTime = part.expected;
        EXPECT_EQ(of(100, 10, "tuner"), part.progress) << part.percent << " % of " << part.expected;
    }
}

TEST_F(FWUpdateSymbolManagerProgress, WrapsAtThirtyTwoBits)
{
    TestModule tuner = addModule("tuner", "empTuner");
    tuner.module.expectedUpdateTime = 100000000;
    tuner.library.answers.progress = 50; // 5000000000 - 4294967296 = 705032704, a hundredth: 7050327
    EXPECT_EQ(of(100, 0, "tuner"), 7050327U);
    EXPECT_EQ(of(1000, 42949673), 0U); // 4294967300 - 4294967296 = 4
}

TEST_F(FWUpdateSymbolManagerProgress, LeavesAModuleOutThatCannotTell)
{
    TestModule tuner = addModule("tuner", "empTuner");
    tuner.module.expectedUpdateTime = 60;
    tuner.library.answers.results["getUpdateProgress"] = -1;
    EXPECT_EQ(of(100, 10, "tuner"), 10U);
}

TEST_F(FWUpdateSymbolManagerProgress, TakesEveryOtherResultOfTheLibrary)
{
    TestModule tuner = addModule("tuner", "empTuner");
    tuner.module.expectedUpdateTime = 50;
    tuner.library.answers.progress = 40;
    tuner.library.answers.results["getUpdateProgress"] = -2;
    EXPECT_EQ(of(100, 10, "tuner"), 30U);
}

TEST_F(FWUpdateSymbolManagerProgress, AsksTheCurrentModuleAlone)
{
    TestModule tuner = addModule("tuner", "empTuner");
    TestModule panel = addModule("panel", "empPanel");
    of(100, 10, "panel");
    EXPECT_THAT(tuner.library.calls(), IsEmpty());
    EXPECT_THAT(panel.library.calls(), ElementsAre("getUpdateProgress()"));
}

TEST_F(FWUpdateSymbolManagerProgress, CanBeReadWhileAModuleIsUpdated)
{
    TestModule tuner = addPending("tuner", "empTuner", 10, "select");
    Gate gate;
    holdUpdates(tuner.library, gate);
    manager.totalUpdateTimeMs = 100;
    std::thread run([&] { manager.doUpdateFirmwareUI(1); });
    EXPECT_TRUE(eventually([&] { return gate.isReached(); }));
    tuner.library.answers.progress = 50;
    EXPECT_EQ(manager.getCurrentUpdateProgress(), 5U);
    gate.open();
    run.join();
    EXPECT_EQ(manager.getCurrentUpdateProgress(), 10U);
}

} // namespace
