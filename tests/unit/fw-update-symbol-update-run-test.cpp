// The check of a module's image, the checked update, and the update that is left to the library.
#include <cerrno>
#include <condition_variable>
#include <filesystem>
#include <mutex>
#include <string>
#include <sys/prctl.h>
#include <thread>

#include "common/files/whole-file.h"
#include "src/src/fw-update-symbol.h"
#include "tests/support/set-test.h"
#include "tests/support/tuner-package.h"

namespace fs = std::filesystem;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;

namespace
{

constexpr const char* kImageContent = "\x01"; // its checksum is the polynomial
constexpr const char* kGoodCRC = "28458147";

const std::string kPackageImage = kMountPoint + "/Tuner.bin";
const std::string kSandboxImage = "/opt/usr/share/sbox/Tuner/Tuner.bin";
const std::string kBuiltInImage = "/lib/firmware/ext/Tuner/Tuner.bin";

// ---- Lines that both runs share ----

const LogLine kCheckTry = error("Tuner Firmware isNeedUpdateModules Try(tuner)");
const LogLine kUpdateTry = error("Tuner Firmware Update Try");
const LogLine kUpdateStart = error("========== [ Tuner update start ] ==========");
const LogLine kUpdateSucceeded = error("========== [ Tuner update succeeded ] ==========");
const LogLine kPackageUnmounted = error("EMP UMount Success " + kPackage);

class FWUpdateSymbolRun : public SetTest
{
protected:
    void SetUp() override
    {
        SetTest::SetUp();
        recorder = &installControl("tuner");
        ASSERT_EQ(module.loadSymbol("tuner"), 0);
        recorder->clearCalls();
        platform.clearLog();
    }

    static std::string information(const std::string& version, const std::string& crc = kGoodCRC,
                                   const std::string& uiUse = "select")
    {
        return R"({"version": ")" + version + R"(", "crc": )" + crc +
               R"(, "expected_time": 33, "ui_use": ")" + uiUse + "\"}";
    }
    static void writeImage(const std::string& directory, const std::string& info)
    {
        writeFile(directory + "/Tuner.bin", kImageContent);
        writeFile(directory + "/info.json", info);
    }
    static void writeSandbox(const std::string& info) { writeImage("/opt/usr/share/sbox/Tuner", info); }
    static void writeBuiltIn(const std::string& info) { writeImage("/lib/firmware/ext/Tuner", info); }
    static void writePackage(const std::string& info) { writeImage(makePackage("empTuner").tree, info); }

    // What a failed check must not change.
    void presetResults()
    {
        module.updateType = UPDATE_TYPE_USB;
        module.needUpdate = true;
        module.expectedUpdateTime = 4711;
    }
    void expectResultsUnchanged() const
    {
        EXPECT_EQ(module.getUpdateType(), UPDATE_TYPE_USB);
        EXPECT_TRUE(module.getNeedUpdate());
        EXPECT_EQ(module.getExpectedUpdateTime(), 4711u);
    }

    ControlRecorder* recorder = nullptr;
    FWUpdateSymbol module{"tuner"};
    char empty[1] = "";
    char factory[19] = "FACTORY_AUTOMATION";
};

// ---- The check ----

using FWUpdateSymbolCheck = FWUpdateSymbolRun;

TEST_F(FWUpdateSymbolCheck, OfANewerImageMakesTheModulePending)
{
    writeSandbox(information("1.2"));
    EXPECT_EQ(module.isNeedUpdate(FW_CALLER_SBOX, empty), 1);
    EXPECT_TRUE(module.getNeedUpdate());
    EXPECT_EQ(module.getUpdateType(), UPDATE_TYPE_SBOX);
    EXPECT_EQ(module.getExpectedUpdateTime(), 33u);
    EXPECT_THAT(platform.log(), ElementsAre(kCheckTry));
}

TEST_F(FWUpdateSymbolCheck, GivesTheContextBeforeTheVersion)
{
    writeSandbox(information("1.2"));
    module.isNeedUpdate(FW_CALLER_SBOX, factory);
    EXPECT_THAT(recorder->calls(),
                ElementsAre(R"(setContext("tuner", 5, "FACTORY_AUTOMATION"))", R"(checkVersion("1.2"))"));
}

TEST_F(FWUpdateSymbolCheck, DoesNotLookAtTheResultOfTheContext)
{
    writeSandbox(information("1.2"));
    recorder->answers.results["setContext"] = -1;
    EXPECT_EQ(module.isNeedUpdate(FW_CALLER_SBOX, nullptr), 1);
}

TEST_F(FWUpdateSymbolCheck, OfAPackageMountsItAndLeavesItMounted)
{
    writePackage(information("1.2"));
    EXPECT_EQ(module.isNeedUpdate(FW_CALLER_EMP, empty), 1);
    EXPECT_EQ(module.getUpdateType(), UPDATE_TYPE_EMP);
    EXPECT_THAT(platform.mountedDirectories(), ElementsAre(kMountPoint));
    EXPECT_THAT(platform.log(), ElementsAre(kCheckTry, kNoMountPoint, kMountCommand));
}

// The thread sanitizer judges this one: a check may still run when the next run asks what is pending.
TEST_F(FWUpdateSymbolCheck, MayRunWhileItsResultsAreAsked)
{
    writeBuiltIn(information("2.0"));
    std::thread check([&] { EXPECT_EQ(module.isNeedUpdate(FW_CALLER_BUILTIN, empty), 1); });
    while (!module.getNeedUpdate() || module.getExpectedUpdateTime() != 33 ||
           module.getUpdateType() != UPDATE_TYPE_BUILTIN) {
        std::this_thread::yield();
    }
    check.join();
}

TEST_F(FWUpdateSymbolCheck, OfAPackageThatIsMissingAsksTheLibraryNothing)
{
    presetResults();
    EXPECT_EQ(module.isNeedUpdate(FW_CALLER_EMP, empty), -1);
    EXPECT_THAT(platform.log(), ElementsAre(kCheckTry, error("Error: file no exist (" + kPackage + ")")));
    EXPECT_THAT(recorder->calls(), IsEmpty());
    expectResultsUnchanged();
}

TEST_F(FWUpdateSymbolCheck, OfAnotherSourceMountsNothing)
{
    writeSandbox(information("1.2"));
    module.isNeedUpdate(FW_CALLER_SBOX, empty);
    EXPECT_THAT(platform.mountRequests(), IsEmpty());
}

TEST_F(FWUpdateSymbolCheck, OfAnExternalModuleIsRefused)
{
    installControl("EXT-hdmi");
    FWUpdateSymbol external("EXT-hdmi");
    external.loadSymbol("EXT-hdmi");
    platform.clearLog();
    EXPECT_EQ(external.isNeedUpdate(FW_CALLER_EMP, empty), -1);
    EXPECT_THAT(platform.log(), ElementsAre(error("Error: m_fwName (ret empId)  empty.(EXT-hdmi)")));
}

TEST_F(FWUpdateSymbolCheck, OfAMissingImageFailsAfterTheContextWasGiven)
{
    presetResults();
    fs::create_directories("/opt/usr/share/sbox/Tuner");
    EXPECT_EQ(module.isNeedUpdate(FW_CALLER_SBOX, empty), -1);
    EXPECT_THAT(platform.log(), ElementsAre(kCheckTry, error("Error: Firmware binary file no exist (" +
                                                             kSandboxImage + ")")));
    EXPECT_THAT(recorder->calls(), ElementsAre(R"(setContext("tuner", 5, ""))"));
    expectResultsUnchanged();
}

TEST_F(FWUpdateSymbolCheck, LooksForTheImageBeforeItsInformation)
{
    module.isNeedUpdate(FW_CALLER_SBOX, empty);
    EXPECT_EQ(platform.log().at(1), error("Error: Firmware binary file no exist (" + kSandboxImage + ")"));
}

TEST_F(FWUpdateSymbolCheck, WithoutAUsbStickNamesNoPath)
{
    EXPECT_EQ(module.isNeedUpdate(FW_CALLER_USB, empty), -1);
    EXPECT_THAT(platform.log(), ElementsAre(kCheckTry, error("Error: Usb mount path Not found."),
                                            error("Error: Firmware binary file no exist ()")));
}

TEST_F(FWUpdateSymbolCheck, OfAUsbStickByContextReadsTheStick)
{
    writeImage("/opt/media/USBDriveA/Tuner", information("1.2"));
    char usb[] = "USB";
    EXPECT_EQ(module.isNeedUpdate(FW_CALLER_CONTEXT, usb), 1);
    EXPECT_EQ(module.getUpdateType(), UPDATE_TYPE_USB);
}

TEST_F(FWUpdateSymbolCheck, OfMissingInformationFails)
{
    presetResults();
    writeFile(kSandboxImage, kImageContent);
    EXPECT_EQ(module.isNeedUpdate(FW_CALLER_SBOX, empty), -1);
    EXPECT_THAT(
        platform.log(),
        ElementsAre(kCheckTry,
                    error("Error: Firmware json file no exist (/opt/usr/share/sbox/Tuner/info.json)")));
    expectResultsUnchanged();
}

TEST_F(FWUpdateSymbolCheck, OfBrokenInformationFails)
{
    presetResults();
    writeSandbox("no json");
    EXPECT_EQ(module.isNeedUpdate(FW_CALLER_SBOX, empty), -1);
    EXPECT_THAT(platform.log(),
                ElementsAre(kCheckTry,
                            error("Error: json loadInformation fail.(/opt/usr/share/sbox/Tuner/info.json)\n"),
                            error("Error: json information load fail")));
    expectResultsUnchanged();
}

TEST_F(FWUpdateSymbolCheck, OfAWrongChecksumFailsBeforeTheLibraryIsAskedForItsVerdict)
{
    presetResults();
    writeSandbox(information("1.2", "1"));
    EXPECT_EQ(module.isNeedUpdate(FW_CALLER_SBOX, empty), -1);
    EXPECT_THAT(platform.log(), ElementsAre(kCheckTry, error("Error: Tuner Firmware CRC32 different")));
    EXPECT_THAT(recorder->calls(), ElementsAre(R"(setContext("tuner", 5, ""))"));
    expectResultsUnchanged();
}

TEST_F(FWUpdateSymbolCheck, KeepsTheNewInformationAlsoWhenItFails)
{
    writeSandbox(information("1.2", "1"));
    module.isNeedUpdate(FW_CALLER_SBOX, empty);
    EXPECT_EQ(module.information.version, "1.2");
    EXPECT_EQ(module.information.crc, 1u);
}

// 0 is the checksum of what cannot be read as well as of nothing.
TEST_F(FWUpdateSymbolCheck, OfAnImageThatCannotBeReadPassesTheChecksumZero)
{
    fs::create_directories(kSandboxImage);
    writeFile("/opt/usr/share/sbox/Tuner/info.json", information("1.2", "0"));
    EXPECT_EQ(module.isNeedUpdate(FW_CALLER_SBOX, empty), 1);
}

TEST_F(FWUpdateSymbolCheck, FailsWithTheLibrarysVersionCheck)
{
    presetResults();
    writeSandbox(information("1.2"));
    recorder->answers.results["checkVersion"] = 1;
    EXPECT_EQ(module.isNeedUpdate(FW_CALLER_SBOX, empty), -1);
    EXPECT_THAT(platform.log(), ElementsAre(kCheckTry, error("Error: Tuner Firmware CheckVersion Fail")));
    expectResultsUnchanged();
}

TEST_F(FWUpdateSymbolCheck, FailedLeavesThePackageMounted)
{
    writePackage(information("1.2", "1"));
    EXPECT_EQ(module.isNeedUpdate(FW_CALLER_EMP, empty), -1);
    EXPECT_THAT(platform.mountedDirectories(), ElementsAre(kMountPoint));
    EXPECT_TRUE(exists(kPackage));
}

// ---- The system image must tell how the screen treats it ----

class FWUpdateSymbolCheckOfBuiltIn : public FWUpdateSymbolRun, public testing::WithParamInterface<int>
{
protected:
    FWUpdateCallerTypes caller() const { return static_cast<FWUpdateCallerTypes>(GetParam()); }
};

TEST_P(FWUpdateSymbolCheckOfBuiltIn, WithoutAUseByTheScreenFailsBeforeTheChecksum)
{
    presetResults();
    writeBuiltIn(information("1.2", "1", "none"));
    EXPECT_EQ(module.isNeedUpdate(caller(), empty), -1);
    EXPECT_THAT(platform.log(),
                ElementsAre(kCheckTry, error("Error: Tuner Firmware does not have proper UI information in "
                                             "/lib/firmware/ext/Tuner/info.json")));
    expectResultsUnchanged();
}

TEST_P(FWUpdateSymbolCheckOfBuiltIn, WithoutTheKeyFailsTheSameWay)
{
    writeBuiltIn(R"({"version": "1.2", "crc": 28458147})");
    EXPECT_EQ(module.isNeedUpdate(caller(), empty), -1);
    EXPECT_EQ(platform.log().back(), error("Error: Tuner Firmware does not have proper UI information in "
                                           "/lib/firmware/ext/Tuner/info.json"));
}

TEST_P(FWUpdateSymbolCheckOfBuiltIn, WithAUseByTheScreenPasses)
{
    writeBuiltIn(information("1.2", kGoodCRC, "force"));
    EXPECT_EQ(module.isNeedUpdate(caller(), empty), 1);
    EXPECT_EQ(module.getUpdateType(), UPDATE_TYPE_BUILTIN);
    EXPECT_EQ(recorder->calls().at(0), "setContext(\"tuner\", " + std::to_string(GetParam()) + ", \"\")");
}

INSTANTIATE_TEST_SUITE_P(EachCaller, FWUpdateSymbolCheckOfBuiltIn, testing::Values(4, 6, 7));

TEST_F(FWUpdateSymbolCheck, OfTheSandboxNeedsNoUseByTheScreen)
{
    writeSandbox(information("1.2", kGoodCRC, "none"));
    EXPECT_EQ(module.isNeedUpdate(FW_CALLER_SBOX, empty), 1);
}

TEST_F(FWUpdateSymbolCheck, OfAPackageNeedsNoUseByTheScreen)
{
    writePackage(information("1.2", kGoodCRC, "none"));
    EXPECT_EQ(module.isNeedUpdate(FW_CALLER_EMP, empty), 1);
}

// ---- Verdicts ----

TEST_F(FWUpdateSymbolCheck, OfAVerdictOf2ReturnsItAndMakesNothingPending)
{
    module.needUpdate = true;
    writeSandbox(information("1.2"));
    recorder->answers.verdict = 2;
    EXPECT_EQ(module.isNeedUpdate(FW_CALLER_SBOX, empty), 2);
    EXPECT_FALSE(module.getNeedUpdate());
    EXPECT_EQ(module.getUpdateType(), UPDATE_TYPE_SBOX);
    EXPECT_THAT(platform.log(), ElementsAre(kCheckTry));
}

TEST_F(FWUpdateSymbolCheck, StartsFromTheVerdict0)
{
    writeSandbox(information("1.2"));
    recorder->answers.verdict = std::nullopt;
    EXPECT_EQ(module.isNeedUpdate(FW_CALLER_SBOX, empty), 0);
}

struct VerdictCase {
    int verdict;
    const char* context;
    int result;
};

void PrintTo(const VerdictCase& one, std::ostream* out)
{
    *out << "verdict " << one.verdict << ", context " << (one.context != nullptr ? one.context : "null");
}

class FWUpdateSymbolCheckNotNeeded : public FWUpdateSymbolRun, public testing::WithParamInterface<VerdictCase>
{
protected:
    int check(FWUpdateCallerTypes caller)
    {
        recorder->answers.verdict = GetParam().verdict;
        recorder->answers.activeVersion = "9.9";
        std::string context = GetParam().context != nullptr ? GetParam().context : "";
        return module.isNeedUpdate(caller, GetParam().context != nullptr ? context.data() : nullptr);
    }
};

TEST_P(FWUpdateSymbolCheckNotNeeded, ReturnsTheVerdictOr0InTheFactory)
{
    writeSandbox(information("1.2"));
    EXPECT_EQ(check(FW_CALLER_SBOX), GetParam().result);
}

TEST_P(FWUpdateSymbolCheckNotNeeded, TellsTheVersionThatIsThere)
{
    writeSandbox(information("1.2"));
    check(FW_CALLER_SBOX);
    EXPECT_THAT(platform.log(), ElementsAre(kCheckTry, error("Error: " + kSandboxImage +
                                                             " not need update, version is 9.9")));
}

TEST_P(FWUpdateSymbolCheckNotNeeded, TakesThePendingMarkAway)
{
    presetResults();
    writeSandbox(information("1.2"));
    check(FW_CALLER_SBOX);
    EXPECT_FALSE(module.getNeedUpdate());
    EXPECT_EQ(module.getUpdateType(), UPDATE_TYPE_SBOX);
    EXPECT_EQ(module.getExpectedUpdateTime(), 33u);
}

INSTANTIATE_TEST_SUITE_P(
    Verdicts, FWUpdateSymbolCheckNotNeeded,
    testing::Values(VerdictCase{0, "", 0}, VerdictCase{-1, "", -1}, VerdictCase{-1, nullptr, -1},
                    VerdictCase{-7, "USB", -7}, VerdictCase{-1, "FACTORY_AUTOMATION", 0},
                    VerdictCase{-7, "FACTORY_AUTOMATION", 0}, VerdictCase{0, "FACTORY_AUTOMATION", 0},
                    VerdictCase{-1, "FACTORY_AUTOMATION ", -1}, VerdictCase{-1, "factory_automation", -1},
                    VerdictCase{-1, "FACTORY", -1}));

TEST_F(FWUpdateSymbolCheck, ThatIsNotNeededAsksForTheVersionWithTheContextOfAPackage)
{
    writeSandbox(information("1.2"));
    recorder->answers.verdict = 0;
    recorder->answers.results["getActiveVersion"] = -1;
    module.isNeedUpdate(FW_CALLER_SBOX, factory);
    EXPECT_THAT(recorder->calls(),
                ElementsAre(R"(setContext("tuner", 5, "FACTORY_AUTOMATION"))", R"(checkVersion("1.2"))",
                            R"(setContext("tuner", 2, ""))", "getActiveVersion()"));
}

TEST_F(FWUpdateSymbolCheck, OfAPackageThatIsNotNeededNamesThePackageFile)
{
    writePackage(information("1.2"));
    recorder->answers.verdict = 0;
    EXPECT_EQ(module.isNeedUpdate(FW_CALLER_EMP, empty), 0);
    EXPECT_EQ(platform.log().back(), error("Error: " + kPackage + " not need update, version is 1.0"));
    EXPECT_THAT(platform.mountedDirectories(), ElementsAre(kMountPoint));
}

TEST_F(FWUpdateSymbolCheck, TakesAVersionOf128BytesWithoutATerminator)
{
    writeSandbox(information("1.2"));
    recorder->answers.verdict = 0;
    recorder->answers.activeVersion = std::string(128, '9');
    module.isNeedUpdate(FW_CALLER_SBOX, empty);
    EXPECT_EQ(platform.log().back(),
              error("Error: " + kSandboxImage + " not need update, version is " + std::string(128, '9')));
}

TEST_F(FWUpdateSymbolCheck, KeepsThePendingMarkOfAnEarlierOneWhenItFails)
{
    writeSandbox(information("1.2"));
    ASSERT_EQ(module.isNeedUpdate(FW_CALLER_SBOX, empty), 1);
    fs::remove(kSandboxImage);
    EXPECT_EQ(module.isNeedUpdate(FW_CALLER_SBOX, empty), -1);
    EXPECT_TRUE(module.getNeedUpdate());
}

TEST_F(FWUpdateSymbolCheck, ByContextWithoutAContextThrows)
{
    EXPECT_THROW(module.isNeedUpdate(FW_CALLER_CONTEXT, nullptr), std::logic_error);
}

// ---- The checked update ----

using FWUpdateSymbolUpdate = FWUpdateSymbolRun;

TEST_F(FWUpdateSymbolUpdate, WritesTheImageWithItsChecksum)
{
    writeSandbox(information("1.2"));
    EXPECT_EQ(module.updateFirmware(FW_CALLER_SBOX, factory), 0);
    EXPECT_THAT(recorder->calls(),
                ElementsAre(R"(setContext("tuner", 5, "FACTORY_AUTOMATION"))", R"(checkVersion("1.2"))",
                            "doUpdate(\"" + kSandboxImage + "\", 28458147)"));
    EXPECT_THAT(platform.log(), ElementsAre(kUpdateTry, kUpdateStart, kUpdateSucceeded));
}

TEST_F(FWUpdateSymbolUpdate, OfAnotherSourceKeepsTheImageAndMountsNothing)
{
    writeSandbox(information("1.2"));
    module.updateFirmware(FW_CALLER_SBOX, empty);
    EXPECT_TRUE(exists(kSandboxImage));
    EXPECT_THAT(platform.mountRequests(), IsEmpty());
}

TEST_F(FWUpdateSymbolUpdate, OfAPackageMountsWritesDeletesAndUnmounts)
{
    writePackage(information("1.2"));
    EXPECT_EQ(module.updateFirmware(FW_CALLER_EMP, empty), 0);
    EXPECT_EQ(recorder->calls().back(), "doUpdate(\"" + kPackageImage + "\", 28458147)");
    EXPECT_FALSE(exists(kPackage));
    EXPECT_THAT(platform.mountedDirectories(), IsEmpty());
    EXPECT_THAT(platform.log(), ElementsAre(kUpdateTry, kNoMountPoint, kMountCommand, kUpdateStart,
                                            kUpdateSucceeded, kUnmounted, kPackageUnmounted));
}

TEST_F(FWUpdateSymbolUpdate, DeletesThePackageWhileItIsStillMounted)
{
    writePackage(information("1.2"));
    bool isMountedWithoutFile = false;
    platform.onCall("PS_Umount", [&] {
        isMountedWithoutFile = !exists(kPackage) && !platform.mountedDirectories().empty();
    });
    module.updateFirmware(FW_CALLER_EMP, empty);
    EXPECT_TRUE(isMountedWithoutFile);
}

TEST_F(FWUpdateSymbolUpdate, HasTheImageMountedWhileTheLibraryWrites)
{
    writePackage(information("1.2"));
    std::string content;
    recorder->answers.onCall = [&](const std::string& function) {
        content = function == "doUpdate" ? common::readWhole(kPackageImage) : content;
    };
    module.updateFirmware(FW_CALLER_EMP, empty);
    EXPECT_EQ(content, kImageContent);
}

TEST_F(FWUpdateSymbolUpdate, AfterACheckMountsThePackageAgain)
{
    writePackage(information("1.2"));
    ASSERT_EQ(module.isNeedUpdate(FW_CALLER_EMP, empty), 1);
    platform.clearLog();
    EXPECT_EQ(module.updateFirmware(FW_CALLER_EMP, empty), 0);
    EXPECT_THAT(platform.log(), ElementsAre(kUpdateTry, kUnmounted, kMountCommand, kUpdateStart,
                                            kUpdateSucceeded, kUnmounted, kPackageUnmounted));
}

TEST_F(FWUpdateSymbolUpdate, SucceedsThoughThePackageCannotBeUnmounted)
{
    writePackage(information("1.2"));
    fs::create_directory(kMountPoint);
    platform.alwaysAnswerMount(MountOperation::kUmount, {-1, 16});
    EXPECT_EQ(module.updateFirmware(FW_CALLER_EMP, empty), 0);
    EXPECT_EQ(platform.log().back(), error("Error: Firmware EMP UMount Fail.(empTuner)"));
    EXPECT_FALSE(exists(kPackage));
}

TEST_F(FWUpdateSymbolUpdate, DoesNotChangeThePendingMark)
{
    presetResults();
    writeSandbox(information("1.2"));
    module.updateFirmware(FW_CALLER_SBOX, empty);
    expectResultsUnchanged();
}

TEST_F(FWUpdateSymbolUpdate, OfAnExternalModuleIsSilentlyRefused)
{
    installControl("EXT-hdmi");
    FWUpdateSymbol external("EXT-hdmi");
    external.loadSymbol("EXT-hdmi");
    platform.clearLog();
    EXPECT_EQ(external.updateFirmware(FW_CALLER_EMP, empty), -1);
    EXPECT_THAT(platform.log(), IsEmpty());
}

TEST_F(FWUpdateSymbolUpdate, OfAPackageThatIsMissingFails)
{
    EXPECT_EQ(module.updateFirmware(FW_CALLER_EMP, empty), -1);
    EXPECT_THAT(platform.log(), ElementsAre(kUpdateTry, error("Error: file no exist (" + kPackage + ")")));
    EXPECT_THAT(recorder->calls(), IsEmpty());
}

TEST_F(FWUpdateSymbolUpdate, LooksForTheInformationBeforeTheImage)
{
    EXPECT_EQ(module.updateFirmware(FW_CALLER_SBOX, empty), -1);
    EXPECT_THAT(
        platform.log(),
        ElementsAre(kUpdateTry,
                    error("Error: Firmware json file no exist (/opt/usr/share/sbox/Tuner/info.json)")));
    EXPECT_THAT(recorder->calls(), IsEmpty());
}

TEST_F(FWUpdateSymbolUpdate, ReadsTheInformationBeforeItLooksForTheImage)
{
    writeFile("/opt/usr/share/sbox/Tuner/info.json", "no json");
    EXPECT_EQ(module.updateFirmware(FW_CALLER_SBOX, empty), -1);
    EXPECT_THAT(platform.log(),
                ElementsAre(kUpdateTry,
                            error("Error: json loadInformation fail.(/opt/usr/share/sbox/Tuner/info.json)\n"),
                            error("Error: json information load fail")));
}

TEST_F(FWUpdateSymbolUpdate, OfAMissingImageFails)
{
    writeFile("/opt/usr/share/sbox/Tuner/info.json", information("1.2"));
    EXPECT_EQ(module.updateFirmware(FW_CALLER_SBOX, empty), -1);
    EXPECT_THAT(platform.log(), ElementsAre(kUpdateTry, error("Error: Firmware binary file no exist (" +
                                                              kSandboxImage + ")")));
    EXPECT_THAT(recorder->calls(), IsEmpty());
}

TEST_F(FWUpdateSymbolUpdate, WithoutAUsbStickNamesNoPath)
{
    EXPECT_EQ(module.updateFirmware(FW_CALLER_USB, empty), -1);
    EXPECT_THAT(platform.log(), ElementsAre(kUpdateTry, error("Error: Usb mount path Not found."),
                                            error("Error: Firmware json file no exist ()")));
}

TEST_F(FWUpdateSymbolUpdate, SilentlyFailsWithTheLibrarysContext)
{
    writeSandbox(information("1.2"));
    recorder->answers.results["setContext"] = 3;
    EXPECT_EQ(module.updateFirmware(FW_CALLER_SBOX, empty), -1);
    EXPECT_THAT(platform.log(), ElementsAre(kUpdateTry));
    EXPECT_THAT(recorder->calls(), ElementsAre(R"(setContext("tuner", 5, ""))"));
}

TEST_F(FWUpdateSymbolUpdate, FailsWithTheLibrarysVersionCheck)
{
    writePackage(information("1.2"));
    recorder->answers.results["checkVersion"] = 3;
    EXPECT_EQ(module.updateFirmware(FW_CALLER_EMP, empty), -1);
    EXPECT_EQ(platform.log().back(), error("Error: Tuner Firmware CheckVersion Fail"));
    EXPECT_THAT(platform.mountedDirectories(), ElementsAre(kMountPoint));
}

class FWUpdateSymbolUpdateNotNeeded : public FWUpdateSymbolRun,
                                      public testing::WithParamInterface<std::optional<int>>
{
};

TEST_P(FWUpdateSymbolUpdateNotNeeded, SucceedsAndUnmountsThePackage)
{
    writePackage(information("1.2"));
    recorder->answers.verdict = GetParam();
    EXPECT_EQ(module.updateFirmware(FW_CALLER_EMP, empty), 0);
    EXPECT_THAT(platform.mountedDirectories(), IsEmpty());
    EXPECT_TRUE(exists(kPackage));
    EXPECT_THAT(platform.log(),
                ElementsAre(kUpdateTry, kNoMountPoint, kMountCommand,
                            error("Error: Tuner Firmware not need update"), kUnmounted, kPackageUnmounted));
    EXPECT_THAT(recorder->calls(), Not(Contains(testing::StartsWith("doUpdate"))));
}

TEST_P(FWUpdateSymbolUpdateNotNeeded, UnmountsNothingOfAnotherSource)
{
    writeSandbox(information("1.2"));
    recorder->answers.verdict = GetParam();
    EXPECT_EQ(module.updateFirmware(FW_CALLER_SBOX, factory), 0);
    EXPECT_THAT(platform.mountRequests(), IsEmpty());
}

// A library that leaves the verdict alone has not asked for the update either.
INSTANTIATE_TEST_SUITE_P(Verdicts, FWUpdateSymbolUpdateNotNeeded,
                         testing::Values(std::optional<int>(0), std::optional<int>(-1),
                                         std::optional<int>(-9), std::optional<int>()));

TEST_F(FWUpdateSymbolUpdate, IsWrittenWithAVerdictAbove1)
{
    writeSandbox(information("1.2"));
    recorder->answers.verdict = 2;
    EXPECT_EQ(module.updateFirmware(FW_CALLER_SBOX, empty), 0);
    EXPECT_EQ(recorder->calls().back(), "doUpdate(\"" + kSandboxImage + "\", 28458147)");
}

TEST_F(FWUpdateSymbolUpdate, OfAWrongChecksumFailsAfterTheLibraryWasAskedForItsVerdict)
{
    writePackage(information("1.2", "1"));
    EXPECT_EQ(module.updateFirmware(FW_CALLER_EMP, empty), -1);
    EXPECT_THAT(recorder->calls(), ElementsAre(R"(setContext("tuner", 2, ""))", R"(checkVersion("1.2"))"));
    EXPECT_EQ(platform.log().back(), error("Error: Tuner Firmware crc32 different"));
    EXPECT_THAT(platform.mountedDirectories(), ElementsAre(kMountPoint));
    EXPECT_TRUE(exists(kPackage));
}

TEST_F(FWUpdateSymbolUpdate, OfAWrongChecksumIsNoFailureWhenItIsNotNeeded)
{
    writeSandbox(information("1.2", "1"));
    recorder->answers.verdict = 0;
    EXPECT_EQ(module.updateFirmware(FW_CALLER_SBOX, empty), 0);
}

TEST_F(FWUpdateSymbolUpdate, OfTheSystemImageNeedsNoUseByTheScreen)
{
    writeBuiltIn(information("1.2", kGoodCRC, "none"));
    EXPECT_EQ(module.updateFirmware(FW_CALLER_BUILTIN, empty), 0);
    EXPECT_EQ(recorder->calls().back(), "doUpdate(\"" + kBuiltInImage + "\", 28458147)");
}

TEST_F(FWUpdateSymbolUpdate, ThatTheLibraryFailsReturnsItsResultAndKeepsThePackage)
{
    writePackage(information("1.2"));
    recorder->answers.results["doUpdate"] = 42;
    recorder->answers.error = ENOSPC;
    EXPECT_EQ(module.updateFirmware(FW_CALLER_EMP, empty), 42);
    EXPECT_EQ(platform.log().back(),
              error("Error: Tuner Firmware doUpdate Fail 42 (28:No space left on device)"));
    EXPECT_TRUE(exists(kPackage));
    EXPECT_THAT(platform.mountedDirectories(), ElementsAre(kMountPoint));
}

TEST_F(FWUpdateSymbolUpdate, ThatTheLibraryFailsMayReturnANegativeResult)
{
    writeSandbox(information("1.2"));
    recorder->answers.results["doUpdate"] = -5;
    recorder->answers.error = EIO;
    EXPECT_EQ(module.updateFirmware(FW_CALLER_SBOX, empty), -5);
    EXPECT_THAT(platform.log(),
                ElementsAre(kUpdateTry, kUpdateStart,
                            error("Error: Tuner Firmware doUpdate Fail -5 (5:Input/output error)")));
}

TEST_F(FWUpdateSymbolUpdate, AnnouncesTheWriteBeforeItBegins)
{
    writeSandbox(information("1.2"));
    std::vector<LogLine> before;
    recorder->answers.onCall = [&](const std::string& function) {
        before = function == "doUpdate" ? platform.log() : before;
    };
    module.updateFirmware(FW_CALLER_SBOX, empty);
    EXPECT_THAT(before, ElementsAre(kUpdateTry, kUpdateStart));
}

TEST_F(FWUpdateSymbolUpdate, ReleasesItsMutexWhenTheLibraryThrows)
{
    writeSandbox(information("1.2"));
    recorder->answers.onCall = [](const std::string& function) {
        if (function == "doUpdate") {
            throw std::runtime_error("library");
        }
    };
    EXPECT_THROW(module.updateFirmware(FW_CALLER_SBOX, empty), std::runtime_error);
    recorder->answers.onCall = nullptr;
    EXPECT_EQ(module.updateFirmware(FW_CALLER_SBOX, empty), 0);
}

TEST_F(FWUpdateSymbolUpdate, ByContextWithoutAContextThrows)
{
    EXPECT_THROW(module.updateFirmware(FW_CALLER_CONTEXT, nullptr), std::logic_error);
}

// ---- The update that is left to the library ----

using FWUpdateSymbolProcess = FWUpdateSymbolRun;

TEST_F(FWUpdateSymbolProcess, GivesTheLibraryItsOwnNameAndNoChecksum)
{
    EXPECT_EQ(module.runProcess(FW_CALLER_CONTEXT, factory), 0);
    EXPECT_THAT(recorder->calls(),
                ElementsAre(R"(setContext("tuner", 1, "FACTORY_AUTOMATION"))", R"(doUpdate("tuner", 0))"));
    EXPECT_THAT(platform.log(), ElementsAre(error("Tuner Firmware runProcess Try")));
}

TEST_F(FWUpdateSymbolProcess, WorksForAnExternalModuleWithoutAFirmwareName)
{
    const ControlRecorder& external = installControl("EXT-hdmi");
    FWUpdateSymbol hdmi("EXT-hdmi");
    hdmi.loadSymbol("EXT-hdmi");
    platform.clearLog();
    EXPECT_EQ(hdmi.runProcess(FW_CALLER_EMP, nullptr), 0);
    EXPECT_THAT(platform.log(), ElementsAre(error(" Firmware runProcess Try")));
    EXPECT_EQ(external.calls().back(), R"(doUpdate("EXT-hdmi", 0))");
}

TEST_F(FWUpdateSymbolProcess, ReportsAFailureAsMinus1)
{
    recorder->answers.results["doUpdate"] = 42;
    recorder->answers.error = EACCES;
    EXPECT_EQ(module.runProcess(FW_CALLER_EMP, empty), -1);
    EXPECT_THAT(platform.log(), ElementsAre(error("Tuner Firmware runProcess Try"),
                                            error("Error: tuner runProcess Fail (13:Permission denied)")));
}

TEST_F(FWUpdateSymbolProcess, SilentlyFailsWithTheLibrarysContext)
{
    recorder->answers.results["setContext"] = 1;
    EXPECT_EQ(module.runProcess(FW_CALLER_EMP, empty), -1);
    EXPECT_THAT(platform.log(), ElementsAre(error("Tuner Firmware runProcess Try")));
    EXPECT_THAT(recorder->calls(), ElementsAre(R"(setContext("tuner", 2, ""))"));
}

TEST_F(FWUpdateSymbolProcess, NamesItsThreadAfterTheFirmware)
{
    module.firmwareName = "ALongFirmwareName";
    char name[16] = {};
    std::thread worker([&] {
        module.runProcess(FW_CALLER_EMP, empty);
        prctl(PR_GET_NAME, name);
    });
    worker.join();
    EXPECT_STREQ(name, "ALongFirmwareNa");
}

TEST_F(FWUpdateSymbolProcess, ChecksNothingOfTheImage)
{
    EXPECT_EQ(module.runProcess(FW_CALLER_USB, nullptr), 0);
    EXPECT_THAT(platform.mountRequests(), IsEmpty());
}

// ---- One at a time ----

// Stops a library in doUpdate until it is let go.
class Gate
{
public:
    void hold()
    {
        std::unique_lock<std::mutex> lock(mutex);
        arrived = true;
        changed.notify_all();
        changed.wait(lock, [&] { return open; });
    }
    void waitForArrival()
    {
        std::unique_lock<std::mutex> lock(mutex);
        changed.wait(lock, [&] { return arrived; });
    }
    void letGo()
    {
        const std::lock_guard<std::mutex> lock(mutex);
        open = true;
        changed.notify_all();
    }

private:
    std::mutex mutex;
    std::condition_variable changed;
    bool arrived = false;
    bool open = false;
};

class FWUpdateSymbolOverlap : public FWUpdateSymbolRun
{
protected:
    void SetUp() override
    {
        FWUpdateSymbolRun::SetUp();
        otherRecorder = &installControl("panel");
        otherRecorder->answers.empId = "empPanel";
        ASSERT_EQ(other.loadSymbol("panel"), 0);
        otherRecorder->clearCalls();
        writeSandbox(information("1.2"));
        writeFile("/opt/usr/share/sbox/Panel/Panel.bin", kImageContent);
        writeFile("/opt/usr/share/sbox/Panel/info.json", information("1.2"));
        recorder->answers.onCall = [this](const std::string& function) {
            if (function == "doUpdate") {
                gate.hold();
            }
        };
        // Set when the second run stands before the mutex that it shares with the first.
        platform.onLog([this](const std::string& text) {
            if (text.rfind("Panel", 0) == 0) {
                secondStarted.letGo();
            }
        });
    }

    ControlRecorder* otherRecorder = nullptr;
    FWUpdateSymbol other{"panel"};
    Gate gate;
    Gate secondStarted;
};

// Whether the second has got past the mutex is seen when it ends: its library is asked after the first's.
TEST_F(FWUpdateSymbolOverlap, TwoCheckedUpdatesFollowOneAnother)
{
    bool isFirstDone = false;
    bool wasFirstDone = false;
    otherRecorder->answers.onCall = [&](const std::string& function) {
        wasFirstDone = function == "setContext" ? isFirstDone : wasFirstDone;
    };
    std::thread first([&] { module.updateFirmware(FW_CALLER_SBOX, empty); });
    gate.waitForArrival();
    std::thread second([&] { other.updateFirmware(FW_CALLER_SBOX, empty); });
    secondStarted.hold();
    std::this_thread::sleep_for(std::chrono::milliseconds(50)); // time to overtake, if it could
    isFirstDone = true;
    gate.letGo();
    first.join();
    second.join();
    EXPECT_TRUE(wasFirstDone);
}

TEST_F(FWUpdateSymbolOverlap, TwoDirectUpdatesFollowOneAnother)
{
    bool isFirstDone = false;
    bool wasFirstDone = false;
    otherRecorder->answers.onCall = [&](const std::string& function) {
        wasFirstDone = function == "setContext" ? isFirstDone : wasFirstDone;
    };
    std::thread first([&] { module.runProcess(FW_CALLER_SBOX, empty); });
    gate.waitForArrival();
    std::thread second([&] { other.runProcess(FW_CALLER_SBOX, empty); });
    secondStarted.hold();
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    isFirstDone = true;
    gate.letGo();
    first.join();
    second.join();
    EXPECT_TRUE(wasFirstDone);
}

// These two would wait for ever if they shared a mutex.
TEST_F(FWUpdateSymbolOverlap, ADirectUpdateMayRunBesideACheckedOne)
{
    std::thread first([&] { module.updateFirmware(FW_CALLER_SBOX, empty); });
    gate.waitForArrival();
    EXPECT_EQ(other.runProcess(FW_CALLER_SBOX, empty), 0);
    gate.letGo();
    first.join();
}

TEST_F(FWUpdateSymbolOverlap, ACheckMayRunBesideACheckedUpdate)
{
    std::thread first([&] { module.updateFirmware(FW_CALLER_SBOX, empty); });
    gate.waitForArrival();
    EXPECT_EQ(other.isNeedUpdate(FW_CALLER_SBOX, empty), 1);
    gate.letGo();
    first.join();
}

// The files are looked at before the mutex is taken.
TEST_F(FWUpdateSymbolOverlap, AnUpdateWithoutAnImageFailsWithoutWaiting)
{
    fs::remove("/opt/usr/share/sbox/Panel/Panel.bin");
    std::thread first([&] { module.updateFirmware(FW_CALLER_SBOX, empty); });
    gate.waitForArrival();
    EXPECT_EQ(other.updateFirmware(FW_CALLER_SBOX, empty), -1);
    gate.letGo();
    first.join();
}

} // namespace
