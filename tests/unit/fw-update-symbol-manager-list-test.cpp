// The list of pending modules: its file, its lines, and the checks that it is made of.
#include <dlfcn.h>
#include <fcntl.h>
#include <filesystem>
#include <functional>
#include <string>
#include <sys/stat.h>
#include <tuple>
#include <unistd.h>
#include <utility>

#include "common/files/whole-file.h"
#include "tests/support/manager-test.h"

namespace fs = std::filesystem;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;

namespace
{

std::function<void()> afterNextLook; // at a path, by this program

} // namespace

// The moment between the look at the list's place and its opening belongs to the test.
extern "C" int lstat(const char* path, struct stat* status) noexcept
{
    using Look = int(const char*, struct stat*);
    static auto* const look = reinterpret_cast<Look*>(dlsym(RTLD_NEXT, "lstat"));
    const int result = look(path, status);
    const int reason = errno;
    if (const auto action = std::exchange(afterNextLook, nullptr)) {
        action();
    }
    errno = reason;
    return result;
}

namespace
{

class FWUpdateSymbolManagerList : public ManagerTest
{
protected:
    int write()
    {
        bool isRunning = true;
        return manager.writeFirmwareUpdateList(isRunning);
    }

    // How often this process has the file open, and how often a program that it starts would have.
    static std::pair<int, int> descriptorsOf(const std::string& path)
    {
        int open = 0;
        int inherited = 0;
        for (const auto& entry : fs::directory_iterator("/proc/self/fd")) {
            std::error_code closedMeanwhile;
            if (fs::read_symlink(entry.path(), closedMeanwhile) == path) {
                const int flags = fcntl(std::stoi(entry.path().filename()), F_GETFD);
                ++open;
                inherited += (flags & FD_CLOEXEC) == 0 ? 1 : 0;
            }
        }
        return {open, inherited};
    }

    // A module with an image in both sources and a verdict on each.
    TestModule addModuleWithVerdicts(const std::string& name, const std::string& identifier, int builtIn,
                                     int package)
    {
        const TestModule added = addModule(name, identifier);
        fillBuiltIn(added.module.firmwareName, 100, "select");
        fillSource(makePackage(identifier).tree, added.module.firmwareName, 7, "none");
        ControlRecorder* const library = &added.library;
        library->answers.onCall = [=](const std::string& function) {
            if (function == "setContext") { // the verdict is asked for next
                const bool isBuiltIn = library->calls().back().find(", 6, ") != std::string::npos;
                library->answers.verdict = isBuiltIn ? builtIn : package;
            }
        };
        return added;
    }
};

// ---- Safety of the file ----

TEST_F(FWUpdateSymbolManagerList, RefusesALinkAndLeavesItsTargetAlone)
{
    writeFile("/tmp/target", "precious");
    fs::create_symlink("/tmp/target", kListPath);
    addModuleWithVerdicts("tuner", "empTuner", 1, 1);
    EXPECT_EQ(write(), -1);
    EXPECT_TRUE(fs::is_symlink(kListPath));
    EXPECT_EQ(common::readWhole("/tmp/target"), "precious");
    EXPECT_THAT(platform.log(),
                ElementsAre(error("symbolic link is detected\n"), error("fail check_race_condition\n")));
}

TEST_F(FWUpdateSymbolManagerList, ChecksNoModuleWhenTheFileIsALink)
{
    fs::create_symlink("/tmp/target", kListPath);
    TestModule tuner = addModuleWithVerdicts("tuner", "empTuner", 1, 1);
    EXPECT_EQ(write(), -1);
    EXPECT_THAT(tuner.library.calls(), IsEmpty());
}

TEST_F(FWUpdateSymbolManagerList, RefusesADanglingLinkWithoutMakingItsTarget)
{
    fs::remove("/tmp/target");
    fs::create_symlink("/tmp/target", kListPath);
    EXPECT_EQ(write(), -1);
    EXPECT_FALSE(exists("/tmp/target"));
    EXPECT_THAT(platform.log(),
                ElementsAre(error("symbolic link is detected\n"), error("fail check_race_condition\n")));
}

TEST_F(FWUpdateSymbolManagerList, TakesAPathThatCannotBeLookedAtForUnsafe)
{
    writeFile("/tmp/file", "");
    EXPECT_FALSE(check_race_condition("/tmp/file/list"));
    EXPECT_THAT(platform.log(), ElementsAre(error("lstat error\n")));
}

TEST_F(FWUpdateSymbolManagerList, TakesWhatIsMissingOrNoLinkForSafe)
{
    writeFile("/tmp/file", "");
    EXPECT_TRUE(check_race_condition("/tmp/missing"));
    EXPECT_TRUE(check_race_condition("/tmp/missing/deeper"));
    EXPECT_TRUE(check_race_condition("/tmp/file"));
    EXPECT_TRUE(check_race_condition("/tmp"));
    EXPECT_THAT(platform.log(), IsEmpty());
}

TEST_F(FWUpdateSymbolManagerList, CountsSilentlyWhenTheFileCannotBeWritten)
{
    fs::create_directory(kListPath);
    addModuleWithVerdicts("tuner", "empTuner", 1, 1);
    EXPECT_EQ(write(), 2);
    EXPECT_TRUE(fs::is_directory(kListPath));
    EXPECT_THAT(managerLines(), ElementsAre(error("Need Update [tuner][empTuner]")));
    fs::remove(kListPath);
}

TEST_F(FWUpdateSymbolManagerList, LeavesTheTargetOfALinkAloneThatIsPlacedAfterTheLook)
{
    writeFile("/tmp/target", "precious");
    addModuleWithVerdicts("tuner", "empTuner", 1, 1);
    afterNextLook = [] { fs::create_symlink("/tmp/target", kListPath); };
    EXPECT_EQ(write(), 2);
    EXPECT_EQ(common::readWhole("/tmp/target"), "precious");
    EXPECT_THAT(managerLines(), ElementsAre(error("Need Update [tuner][empTuner]")));
}

TEST_F(FWUpdateSymbolManagerList, MakesNoFileThroughALinkThatIsPlacedAfterTheLook)
{
    fs::remove("/tmp/target");
    afterNextLook = [] { fs::create_symlink("/tmp/target", kListPath); };
    EXPECT_EQ(write(), 0);
    EXPECT_FALSE(exists("/tmp/target"));
}

TEST_F(FWUpdateSymbolManagerList, DoesNotWaitForTheReaderOfAFifoInItsPlace)
{
    ASSERT_EQ(mkfifo(kListPath, 0600), 0);
    addModuleWithVerdicts("tuner", "empTuner", 1, 1);
    EXPECT_EQ(write(), 2);
    EXPECT_TRUE(fs::is_fifo(kListPath));
}

TEST_F(FWUpdateSymbolManagerList, GivesTheReaderOfAFifoInItsPlaceNothing)
{
    ASSERT_EQ(mkfifo(kListPath, 0600), 0);
    const int reader = open(kListPath, O_RDONLY | O_NONBLOCK);
    addModuleWithVerdicts("tuner", "empTuner", 1, 1);
    EXPECT_EQ(write(), 2);
    char byte = 0;
    EXPECT_EQ(read(reader, &byte, 1), 0);
    close(reader);
}

TEST_F(FWUpdateSymbolManagerList, IsClosedInAProgramThatALibraryStarts)
{
    TestModule tuner = addModuleWithVerdicts("tuner", "empTuner", 1, 1);
    int inherited = -1;
    int open = 0;
    tuner.library.answers.onCall = [&](const std::string&) {
        std::tie(open, inherited) = descriptorsOf(kListPath);
    };
    write();
    EXPECT_EQ(open, 1);
    EXPECT_EQ(inherited, 0);
}

// ---- Content and count ----

TEST_F(FWUpdateSymbolManagerList, IsEmptyForAnEmptyRegistry)
{
    EXPECT_EQ(write(), 0);
    EXPECT_TRUE(fs::is_regular_file(kListPath));
    EXPECT_EQ(common::readWhole(kListPath), "");
    EXPECT_THAT(platform.log(), IsEmpty());
}

TEST_F(FWUpdateSymbolManagerList, IsRewrittenFromEmpty)
{
    writeFile(kListPath, "what an earlier check has found\n");
    EXPECT_EQ(write(), 0);
    EXPECT_EQ(common::readWhole(kListPath), "");
}

struct Verdicts {
    int builtIn;
    int package;
    int count;
};

TEST_F(FWUpdateSymbolManagerList, CountsEverySourceAndNamesTheModuleOnce)
{
    for (const Verdicts& verdicts :
         {Verdicts{1, 1, 2}, {1, 0, 1}, {0, 1, 1}, {0, 0, 0}, {2, 2, 0}, {-1, -1, 0}, {1, 2, 1}}) {
        addModuleWithVerdicts("tuner", "empTuner", verdicts.builtIn, verdicts.package);
        EXPECT_EQ(write(), verdicts.count) << verdicts.builtIn << " " << verdicts.package;
        EXPECT_EQ(common::readWhole(kListPath), verdicts.count > 0 ? "tuner empTuner\n" : "")
            << verdicts.builtIn << " " << verdicts.package;
        manager.firmwareItems.clear();
    }
}

TEST_F(FWUpdateSymbolManagerList, NamesThePendingModulesInTheRegistrysOrder)
{
    addModuleWithVerdicts("tuner", "empTuner", 1, 1);
    addModuleWithVerdicts("idle", "empIdle", 0, 0);
    addModuleWithVerdicts("aaa", "empAaa", 0, 1);
    EXPECT_EQ(write(), 3);
    EXPECT_EQ(common::readWhole(kListPath), "tuner empTuner\naaa empAaa\n");
    EXPECT_THAT(managerLines(),
                ElementsAre(error("Need Update [tuner][empTuner]"), error("Need Update [aaa][empAaa]")));
}

TEST_F(FWUpdateSymbolManagerList, EndsTheLineInABlankForAModuleWithoutAPackageIdentifier)
{
    TestModule tuner = addModuleWithVerdicts("tuner", "empTuner", 1, 0);
    tuner.module.EMPName.clear();
    EXPECT_EQ(write(), 1);
    EXPECT_EQ(common::readWhole(kListPath), "tuner \n");
    EXPECT_THAT(managerLines(), ElementsAre(error("Need Update [tuner][]")));
}

TEST_F(FWUpdateSymbolManagerList, LeavesExternalModulesOut)
{
    addModule("EXT-hdmi", "");
    EXPECT_EQ(write(), 0);
    EXPECT_EQ(common::readWhole(kListPath), "");
    EXPECT_THAT(platform.log(), ElementsAre(error("Error: m_fwName (ret empId)  empty.(EXT-hdmi)"),
                                            error("Error: m_fwName (ret empId)  empty.(EXT-hdmi)")));
}

TEST_F(FWUpdateSymbolManagerList, LeavesModulesOutThatAreNotLoaded)
{
    manager.firmwareItems.emplace_back("absent");
    addModuleWithVerdicts("tuner", "empTuner", 1, 1);
    EXPECT_EQ(write(), 2);
    EXPECT_EQ(common::readWhole(kListPath), "tuner empTuner\n");
}

// ---- Checks ----

TEST_F(FWUpdateSymbolManagerList, ChecksTheSystemImageFirstAndThePackageInAnyCase)
{
    for (const int builtIn : {0, 1}) {
        TestModule tuner = addModuleWithVerdicts("tuner", "empTuner", builtIn, 1);
        write();
        std::vector<std::string> asked;
        for (const std::string& call : tuner.library.calls()) {
            if (call.rfind("checkVersion", 0) == 0 || call.find(", 6, ") != std::string::npos) {
                asked.push_back(call);
            }
        }
        EXPECT_THAT(asked, ElementsAre(R"(setContext("tuner", 6, ""))", R"(checkVersion("2.0"))",
                                       R"(checkVersion("2.0"))"));
        EXPECT_THAT(tuner.library.calls(), Contains(R"(setContext("tuner", 2, ""))"));
        manager.firmwareItems.clear();
    }
}

TEST_F(FWUpdateSymbolManagerList, LeavesAModuleAsItsPackageCheckHasFoundIt)
{
    TestModule tuner = addModuleWithVerdicts("tuner", "empTuner", 1, 1);
    write();
    EXPECT_EQ(tuner.module.getUpdateType(), UPDATE_TYPE_EMP);
    EXPECT_EQ(tuner.module.getExpectedUpdateTime(), 7U);
    EXPECT_FALSE(tuner.module.isUISupportUpdate());
    EXPECT_TRUE(tuner.module.getNeedUpdate());
}

TEST_F(FWUpdateSymbolManagerList, ListsAModuleThatItsPackageCheckLeavesWithoutNeed)
{
    TestModule tuner = addModuleWithVerdicts("tuner", "empTuner", 1, 0);
    EXPECT_EQ(write(), 1);
    EXPECT_FALSE(tuner.module.getNeedUpdate());
}

TEST_F(FWUpdateSymbolManagerList, LeavesAModuleWithoutAPackageAsItsSystemImageCheckHasFoundIt)
{
    TestModule tuner = addModuleWithVerdicts("tuner", "empTuner", 1, 1);
    fs::remove(tuner.module.empImagePath);
    EXPECT_EQ(write(), 1);
    EXPECT_EQ(tuner.module.getUpdateType(), UPDATE_TYPE_BUILTIN);
    EXPECT_EQ(tuner.module.getExpectedUpdateTime(), 100U);
    EXPECT_TRUE(tuner.module.isUISupportUpdate());
    EXPECT_TRUE(tuner.module.getNeedUpdate());
}

// ---- Stop ----

TEST_F(FWUpdateSymbolManagerList, StopsBeforeTheFirstModuleWithAnEmptyFile)
{
    writeFile(kListPath, "what an earlier check has found\n");
    TestModule tuner = addModuleWithVerdicts("tuner", "empTuner", 1, 1);
    bool isRunning = false;
    EXPECT_EQ(manager.writeFirmwareUpdateList(isRunning), -1);
    EXPECT_EQ(common::readWhole(kListPath), "");
    EXPECT_THAT(tuner.library.calls(), IsEmpty());
    EXPECT_THAT(platform.log(), ElementsAre(error("Task is not running, writeFirmwareUpdateList stop")));
}

TEST_F(FWUpdateSymbolManagerList, StopsBetweenTwoModulesAndKeepsTheLinesSoFar)
{
    addModuleWithVerdicts("tuner", "empTuner", 1, 1);
    TestModule panel = addModuleWithVerdicts("panel", "empPanel", 1, 1);
    bool isRunning = true;
    platform.onLog([&](const std::string& text) {
        if (text == "Tuner Firmware isNeedUpdateModules Try(tuner)") {
            isRunning = false; // the check that has begun is finished
        }
    });
    EXPECT_EQ(manager.writeFirmwareUpdateList(isRunning), -1);
    EXPECT_EQ(common::readWhole(kListPath), "tuner empTuner\n");
    EXPECT_THAT(panel.library.calls(), IsEmpty());
    EXPECT_THAT(managerLines(), ElementsAre(error("Need Update [tuner][empTuner]"),
                                            error("Task is not running, writeFirmwareUpdateList stop")));
}

TEST_F(FWUpdateSymbolManagerList, HasNothingToStopInAnEmptyRegistry)
{
    bool isRunning = false;
    EXPECT_EQ(manager.writeFirmwareUpdateList(isRunning), 0);
    EXPECT_THAT(platform.log(), Not(Contains(error("Task is not running, writeFirmwareUpdateList stop"))));
}

} // namespace
