// The registry: which libraries it takes, when it is ready, the set's model, and what was executed.
#include <algorithm>
#include <filesystem>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/manager-test.h"

namespace fs = std::filesystem;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::StartsWith;
using testing::UnorderedElementsAre;

namespace
{

class FWUpdateSymbolManagerRegistry : public ManagerTest
{
protected:
    void SetUp() override
    {
        ManagerTest::SetUp();
        platform.setSystemText(128, "MODEL-1");
    }
    void TearDown() override
    {
        fs::remove_all(set::kControls); // a test may have put something else there
        fs::create_directories(set::kControls);
        ManagerTest::TearDown();
    }

    static void put(const char* directory, const std::string& name)
    {
        writeFile(std::string(directory) + "/" + name, "no library");
    }

    // Name and flag of every module, in the registry's order.
    std::vector<std::pair<std::string, bool>> modules() const
    {
        std::vector<std::pair<std::string, bool>> all;
        for (const FWUpdateSymbol& module : manager.firmwareItems) {
            all.emplace_back(module.getLibName(), module.usrControl);
        }
        return all;
    }
    std::vector<std::string> names() const
    {
        std::vector<std::string> all;
        for (const auto& [name, isSystem] : modules()) {
            all.push_back(name);
        }
        return all;
    }
};

TEST_F(FWUpdateSymbolManagerRegistry, IsOneForTheWholeProcess)
{
    EXPECT_EQ(FWUpdateSymbolManager::getInstance(), FWUpdateSymbolManager::getInstance());
}

TEST_F(FWUpdateSymbolManagerRegistry, IsEmptyBeforeItIsBuilt)
{
    EXPECT_FALSE(manager.isReady);
    EXPECT_TRUE(manager.firmwareItems.empty());
    EXPECT_EQ(manager.currentUpdateName, "");
    EXPECT_EQ(manager.swModel, "");
    EXPECT_EQ(manager.totalUpdateTimeMs, 0U);
    EXPECT_EQ(manager.doneUpdateTime, 0U);
}

// ---- Scan ----

TEST_F(FWUpdateSymbolManagerRegistry, TakesEveryLibraryAndNothingElse)
{
    for (const char* name : {"a.so", "b.txt", "EXT-c.so", "so", "d.so.1"}) {
        put(set::kControls, name);
    }
    ASSERT_TRUE(manager.getIsReady(false));
    EXPECT_THAT(modules(), UnorderedElementsAre(std::pair("a", false), std::pair("EXT-c", false)));
}

TEST_F(FWUpdateSymbolManagerRegistry, SaysNothingOfOtherFiles)
{
    put(set::kControls, "b.txt");
    put(set::kControls, "EXT-c.txt");
    EXPECT_FALSE(manager.getIsReady(false));
    EXPECT_THAT(platform.log(), ElementsAre(error("firmwareItems empty")));
}

TEST_F(FWUpdateSymbolManagerRegistry, SkipsExternalModulesOnRequest)
{
    put(set::kControls, "a.so");
    put(set::kControls, "EXT-c.so");
    ASSERT_TRUE(manager.getIsReady(true));
    EXPECT_THAT(names(), ElementsAre("a"));
    EXPECT_THAT(platform.log(), Contains(error("En/Decryption Service EXT skip [EXT-c]")).Times(1));
}

TEST_F(FWUpdateSymbolManagerRegistry, SkipsAnExternalNameInAnyCaseAndPlace)
{
    put(set::kControls, "a.so");
    put(set::kSystemControls, "xext-y.so");
    ASSERT_TRUE(manager.getIsReady(true));
    EXPECT_THAT(names(), ElementsAre("a"));
    EXPECT_THAT(platform.log(), Contains(error("En/Decryption Service EXT skip [xext-y]")).Times(1));
}

TEST_F(FWUpdateSymbolManagerRegistry, TellsOfASkippedExternalNameWhateverItsExtension)
{
    put(set::kControls, "a.so");
    put(set::kControls, "EXT-c.txt");
    ASSERT_TRUE(manager.getIsReady(true));
    EXPECT_THAT(platform.log(), Contains(error("En/Decryption Service EXT skip [EXT-c]")).Times(1));
}

TEST_F(FWUpdateSymbolManagerRegistry, TakesAModuleOfBothDirectoriesTwiceTheProductsFirst)
{
    put(set::kSystemControls, "x.so");
    put(set::kControls, "x.so");
    ASSERT_TRUE(manager.getIsReady(false));
    EXPECT_THAT(modules(), ElementsAre(std::pair("x", false), std::pair("x", true)));
}

TEST_F(FWUpdateSymbolManagerRegistry, TakesTheSystemsModulesWhenTheProductsDirectoryIsMissing)
{
    fs::remove_all(set::kControls);
    put(set::kSystemControls, "x.so");
    ASSERT_TRUE(manager.getIsReady(false));
    EXPECT_THAT(modules(), ElementsAre(std::pair("x", true)));
}

TEST_F(FWUpdateSymbolManagerRegistry, TellsOnceOfAMissingDirectory)
{
    fs::remove_all(set::kControls);
    put(set::kSystemControls, "x.so");
    manager.getIsReady(false);
    const std::vector<LogLine> lines = platform.log();
    EXPECT_EQ(std::count_if(lines.begin(), lines.end(),
                            [](const LogLine& line) {
                                return line == error(line.text) &&
                                       line.text.rfind("File System Exception: ", 0) == 0 &&
                                       line.text.back() == ' ' &&
                                       line.text.find("No such file or directory") != std::string::npos;
                            }),
              1);
}

TEST_F(FWUpdateSymbolManagerRegistry, TreatsAFileInPlaceOfADirectoryLikeAMissingOne)
{
    fs::remove_all(set::kControls);
    writeFile(set::kControls, "");
    put(set::kSystemControls, "x.so");
    ASSERT_TRUE(manager.getIsReady(false));
    EXPECT_THAT(platform.log().front().text, StartsWith("File System Exception: "));
}

TEST_F(FWUpdateSymbolManagerRegistry, LooksAtTheExtensionCaseSensitively)
{
    put(set::kControls, "a.SO");
    put(set::kControls, "b.so");
    ASSERT_TRUE(manager.getIsReady(false));
    EXPECT_THAT(names(), ElementsAre("b"));
}

TEST_F(FWUpdateSymbolManagerRegistry, TakesADirectoryThatIsNamedLikeALibrary)
{
    fs::create_directory(std::string(set::kControls) + "/d.so");
    ASSERT_TRUE(manager.getIsReady(false));
    EXPECT_THAT(names(), ElementsAre("d"));
}

TEST_F(FWUpdateSymbolManagerRegistry, TakesADanglingLinkAndLoadsNothing)
{
    fs::create_symlink("/nowhere", std::string(set::kControls) + "/e.so");
    ASSERT_TRUE(manager.getIsReady(false));
    EXPECT_THAT(names(), ElementsAre("e"));
    EXPECT_EQ(manager.firmwareItems.front().handle, nullptr);
}

TEST_F(FWUpdateSymbolManagerRegistry, NamesAModuleUpToItsLastDot)
{
    put(set::kControls, "a.b.so");
    ASSERT_TRUE(manager.getIsReady(false));
    EXPECT_THAT(names(), ElementsAre("a.b"));
}

TEST_F(FWUpdateSymbolManagerRegistry, TakesAFileThatIsNothingButTheExtensionAsAModuleWithoutAName)
{
    put(set::kControls, ".so");
    ASSERT_TRUE(manager.getIsReady(false));
    EXPECT_THAT(names(), ElementsAre(""));
}

// ---- Readiness ----

TEST_F(FWUpdateSymbolManagerRegistry, IsNotReadyWithoutAnyModule)
{
    EXPECT_FALSE(manager.getIsReady(false));
    EXPECT_FALSE(manager.isReady);
    EXPECT_THAT(platform.log(), ElementsAre(error("firmwareItems empty")));
}

TEST_F(FWUpdateSymbolManagerRegistry, AsksNothingOfThePlatformWithoutAnyModule)
{
    manager.getIsReady(false);
    EXPECT_THAT(platform.calls(), IsEmpty());
}

TEST_F(FWUpdateSymbolManagerRegistry, ScansAgainAfterAFailure)
{
    ASSERT_FALSE(manager.getIsReady(false));
    put(set::kControls, "a.so");
    EXPECT_TRUE(manager.getIsReady(false));
    EXPECT_THAT(names(), ElementsAre("a"));
}

TEST_F(FWUpdateSymbolManagerRegistry, IsFixedOnceItIsReady)
{
    put(set::kControls, "a.so");
    ASSERT_TRUE(manager.getIsReady(false));
    put(set::kControls, "b.so");
    EXPECT_TRUE(manager.getIsReady(true));
    EXPECT_THAT(names(), ElementsAre("a"));
}

TEST_F(FWUpdateSymbolManagerRegistry, StaysReadyAndEmptyOnceDestroyed)
{
    put(set::kControls, "a.so");
    ASSERT_TRUE(manager.getIsReady(false));
    EXPECT_TRUE(manager.onDestroy());
    EXPECT_TRUE(manager.getIsReady(false));
    EXPECT_TRUE(manager.firmwareItems.empty());
}

// ---- Binding ----

TEST_F(FWUpdateSymbolManagerRegistry, LoadsEachLibraryOnce)
{
    ControlRecorder& product = installControl("tuner");
    ControlRecorder& system = installControl("EXT-hdmi", set::kSystemControls);
    ASSERT_TRUE(manager.getIsReady(false));
    EXPECT_THAT(product.calls(), ElementsAre(R"(setContext("tuner", 2, ""))", "getEMPID()"));
    EXPECT_THAT(system.calls(), ElementsAre(R"(setContext("EXT-hdmi", 2, ""))"));
}

TEST_F(FWUpdateSymbolManagerRegistry, KeepsAModuleWhoseLibraryCannotBeBound)
{
    copyControl("broken", set::kControls, "missing-doUpdate");
    ControlRecorder& other = installControl("tuner", set::kSystemControls);
    ASSERT_TRUE(manager.getIsReady(false));
    EXPECT_THAT(names(), ElementsAre("broken", "tuner"));
    EXPECT_THAT(other.calls(), ElementsAre(R"(setContext("tuner", 2, ""))", "getEMPID()"));
}

// ---- Software version ----

struct Version {
    const char* text;
    const char* model;
};

TEST_F(FWUpdateSymbolManagerRegistry, TakesTheModelUpToTheLastDash)
{
    for (const Version& version :
         {Version{"MODEL-1", "MODEL"}, {"ABC-DEF-GHI", "ABC-DEF"}, {"ABC-", "ABC"}, {"-1", ""}, {"-", ""}}) {
        platform.setSystemText(128, version.text);
        EXPECT_EQ(manager.getSWVersionString(), 0) << version.text;
        EXPECT_EQ(manager.swModel, version.model) << version.text;
    }
}

TEST_F(FWUpdateSymbolManagerRegistry, TellsTheModelToThePlatformLogAlone)
{
    manager.getSWVersionString();
    EXPECT_THAT(platform.log(), ElementsAre(platformInfo("SWModel : MODEL")));
}

TEST_F(FWUpdateSymbolManagerRegistry, KeepsTheModelWhenTheVersionHasNoDash)
{
    manager.swModel = "OLD";
    platform.setSystemText(128, "ABC");
    EXPECT_EQ(manager.getSWVersionString(), -1);
    EXPECT_EQ(manager.swModel, "OLD");
    EXPECT_THAT(platform.log(),
                ElementsAre(error("getSWVersionString: Wrong string format - lack of dash: ABC")));
}

TEST_F(FWUpdateSymbolManagerRegistry, FailsToReadTheModelOfASetThatDoesNotTellIt)
{
    platform.answer("sysprop_get_value_string", -3);
    EXPECT_EQ(manager.getSWVersionString(), -1);
    EXPECT_THAT(platform.log(), ElementsAre(error("Unable to read SW version from sysprop")));
}

TEST_F(FWUpdateSymbolManagerRegistry, IsReadyWithoutAVersionThatHasADash)
{
    platform.setSystemText(128, "ABC");
    fs::create_symlink("/nowhere", std::string(set::kControls) + "/e.so");
    EXPECT_TRUE(manager.getIsReady(false));
    EXPECT_EQ(manager.swModel, "");
    EXPECT_THAT(platform.log(),
                ElementsAre(error("getSWVersionString: Wrong string format - lack of dash: ABC"),
                            error("Error: getSwVersion fail")));
}

TEST_F(FWUpdateSymbolManagerRegistry, IsReadyWithoutAnyVersion)
{
    platform.answer("sysprop_get_value_string", -1);
    fs::create_symlink("/nowhere", std::string(set::kControls) + "/e.so");
    EXPECT_TRUE(manager.getIsReady(false));
    EXPECT_THAT(platform.log(), ElementsAre(error("Unable to read SW version from sysprop"),
                                            error("Error: getSwVersion fail")));
}

TEST_F(FWUpdateSymbolManagerRegistry, AsksForTheVersionAfterTheLibrariesAreLoaded)
{
    ControlRecorder& library = installControl("tuner");
    size_t callsBefore = 0;
    platform.onCall("sysprop_get_value_string", [&] { callsBefore = library.calls().size(); });
    ASSERT_TRUE(manager.getIsReady(false));
    EXPECT_EQ(callsBefore, 2U);
    EXPECT_THAT(platform.calls(), ElementsAre("sysprop_get_value_string(128)"));
}

// ---- Executed upgrade ----

TEST_F(FWUpdateSymbolManagerRegistry, HasExecutedAnUpgradeWhenBothCountersAreSet)
{
    struct Counters {
        uint32_t total;
        uint32_t done;
        bool isExecuted;
    };
    for (const Counters& counters :
         {Counters{0, 0, false}, {1000, 0, false}, {0, 1, false}, {1000, 1, true}}) {
        manager.totalUpdateTimeMs = counters.total;
        manager.doneUpdateTime = counters.done;
        EXPECT_EQ(manager.hasUpgradeExecuted(), counters.isExecuted)
            << counters.total << "/" << counters.done;
    }
}

} // namespace
