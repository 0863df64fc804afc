// Packages of a module: request, mount and unmount.
#include <filesystem>
#include <string>

#include "common/files/whole-file.h"
#include "src/src/fw-update-symbol.h"
#include "tests/support/set-test.h"
#include "tests/support/tuner-package.h"

namespace fs = std::filesystem;
using testing::ElementsAre;
using testing::IsEmpty;

namespace
{

const LogLine kNoFile = error("Error: file no exist (" + kPackage + ")");

class FWUpdateSymbolPackage : public SetTest
{
protected:
    void SetUp() override
    {
        SetTest::SetUp();
        installControl("tuner");
        ASSERT_EQ(module.loadSymbol("tuner"), 0);
        installControl("EXT-hdmi");
        ASSERT_EQ(external.loadSymbol("EXT-hdmi"), 0);
        platform.clearLog();
    }

    FWUpdateSymbol module{"tuner"};
    FWUpdateSymbol external{"EXT-hdmi"};
};

// ---- Request ----

TEST_F(FWUpdateSymbolPackage, IsRequestedByItsIdentifier)
{
    EXPECT_TRUE(module.downloadEMP());
    EXPECT_THAT(platform.calls(), ElementsAre(R"(ABM_DownloadAppBinary(null, null, "empTuner"))"));
    EXPECT_THAT(platform.log(), ElementsAre(info("Request (empTuner) emp download")));
}

TEST_F(FWUpdateSymbolPackage, ThatTheServiceRefusesIsLogged)
{
    platform.answer("ABM_DownloadAppBinary", 0);
    EXPECT_FALSE(module.downloadEMP());
    EXPECT_THAT(platform.log(), ElementsAre(error("Error: EMP ABM_DownloadAppBinary fail.(empTuner)")));
}

TEST_F(FWUpdateSymbolPackage, OfAnExternalModuleIsNotRequested)
{
    EXPECT_FALSE(external.downloadEMP());
    EXPECT_THAT(platform.calls(), IsEmpty());
    EXPECT_THAT(platform.log(), IsEmpty());
}

// ---- Mount ----

TEST_F(FWUpdateSymbolPackage, IsMountedUnderItsIdentifier)
{
    writeFile(makePackage("empTuner").tree + "/Tuner.bin", "firmware");
    EXPECT_TRUE(module.mountEMPImage());
    EXPECT_EQ(common::readWhole(kMountPoint + "/Tuner.bin"), "firmware");
    EXPECT_THAT(platform.log(), ElementsAre(kNoMountPoint, kMountCommand));
}

TEST_F(FWUpdateSymbolPackage, IsUnmountedBeforeItIsMountedAgain)
{
    makePackage("empTuner");
    ASSERT_TRUE(module.mountEMPImage());
    platform.clearLog();
    EXPECT_TRUE(module.mountEMPImage());
    EXPECT_THAT(platform.log(), ElementsAre(kUnmounted, kMountCommand));
    EXPECT_THAT(platform.mountedDirectories(), ElementsAre(kMountPoint));
}

TEST_F(FWUpdateSymbolPackage, IsMountedOnTopOfAnEarlierMountThatIsBusy)
{
    makePackage("empTuner");
    ASSERT_TRUE(module.mountEMPImage());
    platform.answerMount(MountOperation::kUmount, {{-1, 16}});
    EXPECT_TRUE(module.mountEMPImage());
    EXPECT_THAT(platform.mountedDirectories(), ElementsAre(kMountPoint, kMountPoint));
    EXPECT_TRUE(module.unmountEMPImage());
    EXPECT_THAT(platform.mountedDirectories(), ElementsAre(kMountPoint));
}

TEST_F(FWUpdateSymbolPackage, ThatIsMissingIsNotMounted)
{
    EXPECT_FALSE(module.mountEMPImage());
    EXPECT_THAT(platform.log(), ElementsAre(kNoFile));
    EXPECT_THAT(platform.mountRequests(), IsEmpty());
}

TEST_F(FWUpdateSymbolPackage, OfAnExternalModuleIsNotMountedInTheSameWords)
{
    EXPECT_FALSE(external.mountEMPImage());
    EXPECT_THAT(platform.log(), ElementsAre(error("Error: file no exist ()")));
}

TEST_F(FWUpdateSymbolPackage, OfAModuleThatIsNoneIsNotMountedThoughTheFileExists)
{
    makePackage("empTuner");
    module.isEMP = false;
    EXPECT_FALSE(module.mountEMPImage());
    EXPECT_THAT(platform.log(), ElementsAre(kNoFile));
    EXPECT_THAT(platform.mountRequests(), IsEmpty());
}

TEST_F(FWUpdateSymbolPackage, ThatTheServiceDoesNotMountIsLogged)
{
    fs::create_directory(kPackage); // no regular file, which the mount manager tells
    EXPECT_FALSE(module.mountEMPImage());
    EXPECT_THAT(platform.log(), ElementsAre(kNoMountPoint, error("srcFile[" + kPackage + "] is not exist."),
                                            error("Error: Firmware EMP Mount Fail.(empTuner)")));
}

TEST_F(FWUpdateSymbolPackage, HasNoMountPointWithoutTheDirectoryOfAllMountPoints)
{
    makePackage("empTuner");
    fs::remove(set::kMounts);
    EXPECT_FALSE(module.mountEMPImage());
    EXPECT_THAT(platform.log(),
                ElementsAre(kNoMountPoint,
                            error("Dest Path [" + kMountPoint +
                                  "] failed to create! return:[-1], errno:[2, No such file or directory, ]"),
                            error("Error: Firmware EMP Mount Fail.(empTuner)")));
}

// ---- Unmount ----

TEST_F(FWUpdateSymbolPackage, IsUnmountedWithTheNameOfItsFile)
{
    makePackage("empTuner");
    ASSERT_TRUE(module.mountEMPImage());
    platform.clearLog();
    EXPECT_TRUE(module.unmountEMPImage());
    EXPECT_THAT(platform.log(), ElementsAre(kUnmounted, error("EMP UMount Success " + kPackage)));
    EXPECT_THAT(platform.mountedDirectories(), IsEmpty());
}

TEST_F(FWUpdateSymbolPackage, LeavesItsMountPointBehind)
{
    makePackage("empTuner");
    ASSERT_TRUE(module.mountEMPImage());
    ASSERT_TRUE(module.unmountEMPImage());
    EXPECT_TRUE(exists(kMountPoint));
}

TEST_F(FWUpdateSymbolPackage, ThatIsNotMountedIsLeftToTheService)
{
    fs::create_directory(kMountPoint);
    EXPECT_FALSE(module.unmountEMPImage());
    EXPECT_THAT(platform.log(),
                ElementsAre(error("Error(iRet1=-1, iRet2=22) while unmounitng [" + kMountPoint + "]"),
                            error("Error: Firmware EMP UMount Fail.(empTuner)")));
}

TEST_F(FWUpdateSymbolPackage, WithoutAMountPointIsNotUnmounted)
{
    EXPECT_FALSE(module.unmountEMPImage());
    EXPECT_THAT(platform.log(),
                ElementsAre(kNoMountPoint, error("Error: Firmware EMP UMount Fail.(empTuner)")));
    EXPECT_THAT(platform.mountRequests(), IsEmpty());
}

// There is no question what the module is: the directory of all mount points is tried.
TEST_F(FWUpdateSymbolPackage, OfAnExternalModuleIsUnmountedFromTheDirectoryOfAllMountPoints)
{
    EXPECT_FALSE(external.unmountEMPImage());
    EXPECT_THAT(platform.log(), ElementsAre(error("Error(iRet1=-1, iRet2=22) while unmounitng "
                                                  "[/opt/usr/apps/appbinarymanager/emps/]"),
                                            error("Error: Firmware EMP UMount Fail.()")));
}

TEST_F(FWUpdateSymbolPackage, OfAnExternalModuleWithoutThatDirectoryIsInvalid)
{
    fs::remove(set::kMounts);
    EXPECT_FALSE(external.unmountEMPImage());
    EXPECT_THAT(platform.log(),
                ElementsAre(error("Umount dir[/opt/usr/apps/appbinarymanager/emps/] is invalid."),
                            error("Error: Firmware EMP UMount Fail.()")));
}

} // namespace
