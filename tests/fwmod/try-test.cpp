// fwmod try as a maker types it: example modules and faulty ones, each on a virtual set of its own.
#include <chrono>
#include <csignal>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <json/json.h>
#include <sstream>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "common/files/whole-file.h"
#include "tests/support/run-program.h"
#include "tests/support/temporary-directory.h"

namespace fs = std::filesystem;

namespace
{
using testing::AllOf;
using testing::ContainsRegex;
using testing::HasSubstr;
using testing::Not;

const fs::path kExamples = EXAMPLES;
const fs::path kNew = kExamples / "images/1.1";
const fs::path kOld = kExamples / "images/1.0";
const fs::path kFaulty = FAULTY;

class Try : public testing::Test
{
protected:
    void SetUp() override
    {
        if (geteuid() != 0 && access("/dev/fuse", R_OK | W_OK) != 0) {
            GTEST_SKIP() << "needs root, or a usable /dev/fuse";
        }
        fs::create_directory(temporary());
    }
    void TearDown() override
    {
        const bool isClean = !fs::exists(temporary()) || fs::is_empty(temporary());
        EXPECT_TRUE(isClean || isKept_) << "something was left behind";
    }

    fs::path temporary() const { return directory_ / "temporary"; }

    std::vector<std::string> words(std::vector<std::string> arguments) const
    {
        arguments.insert(arguments.begin(), {"env", "TMPDIR=" + temporary().string(), FWMOD, "try"});
        return arguments;
    }
    Outcome runTry(const std::vector<std::string>& arguments) { return runProgram(words(arguments)); }

    // The old version's chip, alone in a directory.
    std::string hardware(const std::string& chip) const
    {
        const fs::path place = directory_ / ("hardware-" + chip);
        fs::create_directories(place);
        fs::copy_file(kOld / "hardware" / chip, place / chip, fs::copy_options::overwrite_existing);
        return place;
    }
    std::vector<std::string> tuner(std::vector<std::string> more = {}) const
    {
        more.insert(more.begin(), {kExamples / "tuner.so", "--package", kNew / "empTuner.img", "--hardware",
                                   hardware("tuner")});
        return more;
    }
    std::vector<std::string> panel(std::vector<std::string> more = {}) const
    {
        more.insert(more.begin(),
                    {kExamples / "panel.so", "--firmware", kNew / "Panel", "--hardware", hardware("panel")});
        return more;
    }
    std::vector<std::string> soundbar(std::vector<std::string> more = {}) const
    {
        more.insert(more.begin(), {kExamples / "EXT-soundbar.so", "--firmware", kNew / "Soundbar",
                                   "--hardware", hardware("soundbar")});
        return more;
    }
    // A faulty library with a package that is expected to take a second.
    std::vector<std::string> faulty(const std::string& fault) const
    {
        const std::string image = kNew / "Tuner/Tuner.bin";
        const std::string information = directory_ / "info.json";
        const std::string package = directory_ / "empTuner.img";
        runProgram(
            {FWMOD, "info", "--version", "1.1", "--image", image, "--expected-time", "1", "-o", information});
        runProgram(
            {FWMOD, "package", "--image", image, "--info", information, "--id", "empTuner", "-o", package});
        return {kFaulty / fault / "tuner.so", "--package", package};
    }

    TemporaryDirectory directory_;
    bool isKept_ = false;
};

// ---- Updates ----

TEST_F(Try, APackageIsWrittenAtStandby)
{
    const Outcome tried = runTry(tuner());
    EXPECT_EQ(tried.status, 0) << tried.out << tried.err;
    EXPECT_THAT(tried.out, HasSubstr("version 1.0 before, 1.1 offered, 1.1 after"));
    EXPECT_THAT(tried.out, HasSubstr("The set goes to standby: the unattended update begins."));
    EXPECT_THAT(tried.out, ContainsRegex("tuner: [1-9][0-9]* % written, says its control library"));
    EXPECT_THAT(tried.out, ContainsRegex("success after (1\\.[4-9]|[2-7]\\.[0-9]) s of the expected 8 s"));
    EXPECT_THAT(tried.out, Not(HasSubstr("NO ")));
}

TEST_F(Try, AnImageOfTheSystemIsWrittenWhenTheViewerAccepts)
{
    const Outcome tried = runTry(panel({"--accept"}));
    EXPECT_EQ(tried.status, 0) << tried.out << tried.err;
    EXPECT_THAT(tried.out, AllOf(HasSubstr("The user accepts."), HasSubstr("State 19: reboot requested."),
                                 HasSubstr("version 1.0 before, 1.1 offered, 1.1 after")));
}

TEST_F(Try, AnExternalModuleIsUpdatedByFwctl)
{
    const Outcome tried = runTry(soundbar());
    EXPECT_EQ(tried.status, 0) << tried.out << tried.err;
    EXPECT_THAT(tried.out, AllOf(HasSubstr("The daemon leaves external modules out: \"fwctl update"),
                                 HasSubstr("version 1.0 before"), HasSubstr("1.1 after")));
}

TEST_F(Try, APackageThatIsOfferedOnTheScreenGoesBothWays)
{
    std::vector<std::string> arguments = {kExamples / "panel.so", "--package", kNew / "empPanel.img",
                                          "--hardware", hardware("panel")};
    const Outcome ignored = runTry(arguments);
    EXPECT_EQ(ignored.status, 0) << ignored.out << ignored.err;
    EXPECT_THAT(ignored.out, HasSubstr("The viewer does not answer the offer."));
    arguments.emplace_back("--accept");
    const Outcome accepted = runTry(arguments);
    EXPECT_EQ(accepted.status, 0) << accepted.out << accepted.err;
}

TEST_F(Try, NoRootIsNeeded)
{
    const Outcome tried = runTry(tuner({"-u"}));
    EXPECT_EQ(tried.status, 0) << tried.out << tried.err;
}

TEST_F(Try, TheResultIsThereForPrograms)
{
    const Outcome tried = runTry(soundbar({"--json", "--keep"}));
    isKept_ = true;
    Json::Value result;
    std::istringstream(tried.out) >> result;
    EXPECT_TRUE(result["updated"].asBool()) << tried.err;
    EXPECT_EQ(result["module"], "EXT-soundbar");
    EXPECT_EQ(result["version_after"], "1.1");
    EXPECT_EQ(result["verdict"], "success");
    EXPECT_GT(result["seconds"].asDouble(), 0.5);
    EXPECT_FALSE(result["facts"].empty());
    EXPECT_THAT(tried.err, HasSubstr("The set is switched on"));
    const fs::path set = result["set"].asString();
    EXPECT_TRUE(fs::exists(set / "root/var/lib/hardware/soundbar")) << "--keep keeps nothing";
    fs::remove_all(set);
}

// ---- Power cuts ----

class TryPowerCut : public Try, public testing::WithParamInterface<int>
{
};

TEST_P(TryPowerCut, IsSurvivedByTheTuner)
{
    const Outcome tried = runTry(tuner({"--power-cut", std::to_string(GetParam())}));
    EXPECT_EQ(tried.status, 0) << tried.out << tried.err;
    EXPECT_THAT(tried.out, HasSubstr("the power was cut at write " + std::to_string(GetParam()) + " ("));
    EXPECT_THAT(tried.out, HasSubstr("The hardware says version 1.0."));
    EXPECT_THAT(tried.out, HasSubstr("yes  after the power cut the module was pending again"));
    EXPECT_THAT(tried.out, HasSubstr("1.1 after"));
}
INSTANTIATE_TEST_SUITE_P(AtWrite, TryPowerCut, testing::Values(1, 131));

TEST_F(Try, APowerCutAtTheLastWriteFindsTheNewFirmware)
{
    const Outcome uncut = runTry(tuner({"--power-cut", "100000"}));
    EXPECT_EQ(uncut.status, 1) << uncut.out;
    const std::string told = "the update made only ";
    ASSERT_THAT(uncut.err, HasSubstr(told));
    const std::string count = std::to_string(std::stoi(uncut.err.substr(uncut.err.find(told) + told.size())));

    const Outcome tried = runTry(tuner({"--power-cut", count}));
    EXPECT_EQ(tried.status, 0) << tried.out << tried.err;
    EXPECT_THAT(tried.out, HasSubstr("the power was cut at write " + count + " (fdatasync to"));
    EXPECT_THAT(tried.out, HasSubstr("yes  after the power cut the new firmware was complete"));
}

TEST_F(Try, APowerCutOnTheScreensWay)
{
    const Outcome tried = runTry(panel({"--accept", "--power-cut", "50"}));
    EXPECT_EQ(tried.status, 0) << tried.out << tried.err;
    EXPECT_THAT(tried.out, HasSubstr("yes  after the power cut the module was pending again"));
}

TEST_F(Try, APowerCutOfAnExternalModule)
{
    const Outcome tried = runTry(soundbar({"--power-cut", "20"}));
    EXPECT_EQ(tried.status, 0) << tried.out << tried.err;
    EXPECT_THAT(tried.out,
                AllOf(HasSubstr("the power was cut at write 20 (pwrite64 to /var/lib/hardware/soundbar)"),
                      HasSubstr("1.1 after")));
    const Outcome uncut = runTry(soundbar({"--power-cut", "5000"}));
    EXPECT_EQ(uncut.status, 1);
    EXPECT_THAT(uncut.err, ContainsRegex("made only [1-9][0-9]+ writes"));
}

// ---- Libraries that get it wrong ----

TEST_F(Try, ALibraryThatDoesNothingIsFoundOut)
{
    const Outcome tried = runTry(faulty("idle"));
    EXPECT_EQ(tried.status, 1);
    EXPECT_THAT(tried.out, AllOf(HasSubstr("yes  the daemon's verdict is success"),
                                 HasSubstr("NO   the hardware has another version than before"),
                                 HasSubstr("NO   nothing is pending any more"), HasSubstr("Not good.")));
}

TEST_F(Try, AFailureIsToldInTheDaemonsWords)
{
    const Outcome tried = runTry(faulty("failing"));
    EXPECT_EQ(tried.status, 1);
    EXPECT_THAT(tried.out,
                AllOf(HasSubstr("failure after"), HasSubstr("doUpdate Fail -1 (5:Input/output error)"),
                      HasSubstr("NO   the daemon's verdict is success")));
}

TEST_F(Try, ATimeOutIsToldWithTheExpectedTime)
{
    const Outcome tried = runTry(faulty("slow"));
    EXPECT_EQ(tried.status, 1);
    EXPECT_THAT(tried.out, ContainsRegex("time-out after [23]\\.[0-9] s of the expected 1 s"));
}

TEST_F(Try, ACrashOfTheDaemonIsTold)
{
    const Outcome tried = runTry(faulty("crashing"));
    EXPECT_EQ(tried.status, 1);
    EXPECT_THAT(tried.out, AllOf(HasSubstr("unfinished"), HasSubstr("tarnwick was ended by signal 6")));
}

TEST_F(Try, ALibraryThatLeavesProcessesBehindHoldsNobody)
{
    const Outcome tried = runTry(faulty("forking"));
    EXPECT_EQ(tried.status, 1);
    EXPECT_THAT(tried.out, AllOf(HasSubstr("yes  the daemon's verdict is success"), HasSubstr("Not good.")));
}

// ---- Nothing to update, or not in this way ----

TEST_F(Try, AnOldPackageIsExplained)
{
    const Outcome tried =
        runTry({kExamples / "tuner.so", "--package", kOld / "empTuner.img", "--hardware", hardware("tuner")});
    EXPECT_EQ(tried.status, 1);
    EXPECT_THAT(tried.err, HasSubstr("the library calls 1.0 not newer"));
    EXPECT_THAT(tried.err, AllOf(ContainsRegex("says:\n."), Not(HasSubstr("\\n"))));
}

TEST_F(Try, APackageWithAnotherNameIsNotAskedFor)
{
    fs::copy_file(kNew / "empTuner.img", directory_ / "Tuner-1.1.img");
    const Outcome tried = runTry({kExamples / "tuner.so", "--package", directory_ / "Tuner-1.1.img"});
    EXPECT_EQ(tried.status, 1);
    EXPECT_THAT(tried.err, HasSubstr("the daemon asks for empTuner.img"));
}

TEST_F(Try, TheWayMustFitTheInformationFile)
{
    EXPECT_THAT(runTry(tuner({"--accept"})).err, HasSubstr("leave --accept away, or write \"select\""));
    EXPECT_THAT(runTry(panel()).err, HasSubstr("add --accept"));
    fs::copy(kNew / "Panel", directory_ / "firmware");
    const Outcome misnamed =
        runTry({kExamples / "panel.so", "--firmware", directory_ / "firmware", "--accept"});
    EXPECT_THAT(misnamed.err, HasSubstr("the daemon looks for Panel/Panel.bin"));
    EXPECT_EQ(misnamed.status, 1);
}

TEST_F(Try, WrongUseIsRefusedBeforeASetIsMade)
{
    const std::string library = kExamples / "EXT-soundbar.so";
    const std::string package = kNew / "empTuner.img";
    const std::vector<std::vector<std::string>> wrong = {
        {},
        {kExamples / "tuner.so"},
        {library, "--package", package},
        {library, "--accept"},
        {kExamples / "tuner.so", "--package", package, "--power-cut", "0"},
    };
    for (const std::vector<std::string>& arguments : wrong) {
        const Outcome refused = runTry(arguments);
        EXPECT_EQ(refused.status, 2) << refused.out;
        EXPECT_NE(refused.err, "");
        EXPECT_EQ(refused.out, "");
    }
    const Outcome noLibrary = runTry({package, "--package", package});
    EXPECT_EQ(noLibrary.status, 1);
    EXPECT_THAT(noLibrary.err, HasSubstr("the daemon opens NAME.so only"));
}

TEST_F(Try, AReaderThatGoesAwayLeavesNoSet)
{
    std::vector<std::string> script = {"bash", "-c", "\"$@\" | head -1; exit ${PIPESTATUS[0]}", "bash"};
    const std::vector<std::string> command = words(tuner());
    script.insert(script.end(), command.begin(), command.end());
    const Outcome tried = runProgram(script);
    EXPECT_EQ(tried.status, 128 + SIGPIPE); // as of every program
    EXPECT_THAT(tried.err, HasSubstr("its reader has gone"));
}

// ---- Starts that fail ----

// TearDown() sees what is left.
TEST_F(Try, AStartThatFailsLeavesNothing)
{
    // The set's own files are larger than any file may be: `vset new` is ended by the system.
    std::vector<std::string> script = {"bash", "-c", "ulimit -f 8; \"$@\"", "bash"};
    const std::vector<std::string> command = words(tuner());
    script.insert(script.end(), command.begin(), command.end());
    const Outcome unmade = runProgram(script);
    EXPECT_EQ(unmade.status, 1) << unmade.out;
    EXPECT_THAT(unmade.err, HasSubstr("vset new"));

    const fs::path firmware = directory_ / "Panel";
    fs::create_directory(firmware);
    ASSERT_EQ(mkfifo((firmware / "Panel.bin").c_str(), 0600), 0);
    const Outcome unfilled = runTry({kExamples / "panel.so", "--firmware", firmware, "--accept"});
    EXPECT_EQ(unfilled.status, 1);
    EXPECT_THAT(unfilled.err, HasSubstr("Panel.bin is not a file but a pipe: take it away"));
}

TEST_F(Try, ASetThatEndsInTheMiddleIsToldInLines)
{
    const std::string killing =
        "story=$0; \"$@\" >\"$story\" & try=$!; "
        "until grep -q 'writes the image' \"$story\" || ! kill -0 $try; do sleep 0.05; done; "
        "kill $(pgrep -P $try -f ' run '); wait $try";
    std::vector<std::string> script = {"bash", "-c", killing, directory_ / "story"};
    const std::vector<std::string> command = words(tuner());
    script.insert(script.end(), command.begin(), command.end());
    const Outcome tried = runProgram(script);
    EXPECT_EQ(tried.status, 1);
    EXPECT_THAT(tried.err,
                AllOf(ContainsRegex("fwmod: the set has ended before this: .*\n"), Not(HasSubstr("\\n"))));
}

TEST_F(Try, ASetThatWasKilledIsToldSo)
{
    const std::string killing =
        "story=$0; \"$@\" >\"$story\" & try=$!; "
        "until grep -q 'writes the image' \"$story\" || ! kill -0 $try; do sleep 0.05; done; "
        "kill -KILL $(pgrep -P $try -f ' run '); wait $try";
    std::vector<std::string> script = {"bash", "-c", killing, directory_ / "story"};
    const std::vector<std::string> command = words(tuner());
    script.insert(script.end(), command.begin(), command.end());
    const Outcome tried = runProgram(script);
    EXPECT_EQ(tried.status, 1);
    EXPECT_THAT(tried.err, HasSubstr("\nvset was ended by signal 9\n"));
}

// ---- Interruption ----

bool isUsed(const fs::path& directory)
{
    for (const fs::directory_entry& process : fs::directory_iterator("/proc")) {
        if (common::readWhole(process.path() / "cmdline").find(directory) != std::string::npos) {
            return true;
        }
    }
    return false;
}

// When what removes its directory is there, when the set is made, and when it is filled.
TEST_F(Try, AKillLeavesNothing)
{
    for (const std::string moment :
         {"pgrep -P $try fwmod-remover >/dev/null", "ls $TMPDIR/*/* >/dev/null 2>&1",
          "grep -q 'A virtual set for' $story"}) {
        const std::string killing = "TMPDIR=" + temporary().string() +
                                    "; story=" + (directory_ / "story").string() +
                                    "; \"$@\" >$story & try=$!; until " + moment +
                                    " || ! kill -0 $try; do :; done; kill -KILL $try; wait $try";
        std::vector<std::string> script = {"bash", "-c", killing, "bash"};
        const std::vector<std::string> command = words(tuner());
        script.insert(script.end(), command.begin(), command.end());
        const Outcome killed = runProgram(script);
        EXPECT_EQ(killed.status, 128 + SIGKILL) << killed.err;
        for (int tries = 0; tries < 1200 && !fs::is_empty(temporary()); ++tries) {
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        }
        EXPECT_TRUE(fs::is_empty(temporary())) << moment;
    }
    std::this_thread::sleep_for(std::chrono::seconds(1)); // a set that was being made has not made it anew
    EXPECT_TRUE(fs::is_empty(temporary()));
}

TEST_F(Try, AnInterruptionLeavesNoSetAndNoProcess)
{
    std::vector<std::string> arguments = words(tuner());
    const std::string story = directory_ / "story";
    const pid_t process = fork();
    if (process == 0) {
        std::signal(SIGINT, SIG_DFL); // whatever this test was started with
        const std::vector<char*> pointers = common::argumentsOf(arguments);
        if (std::freopen(story.c_str(), "w", stdout) != nullptr) {
            execvp(pointers[0], pointers.data());
        }
        _exit(127);
    }
    for (int tries = 0;
         tries < 1800 && common::readWhole(story).find("writes the image") == std::string::npos; ++tries) {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    EXPECT_TRUE(isUsed(temporary())) << "nothing runs that could be left";
    kill(process, SIGINT);
    int status = 0;
    waitpid(process, &status, 0);
    EXPECT_EQ(shellStatus(status), 128 + SIGINT) << common::readWhole(story);
    // vset's last process, which gives the kernel's loop devices back, may stay for a moment.
    for (int tries = 0; tries < 1200 && isUsed(temporary()); ++tries) {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    EXPECT_FALSE(isUsed(temporary()));
}
} // namespace
