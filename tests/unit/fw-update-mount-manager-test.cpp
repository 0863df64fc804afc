// Mounts, the loop nodes that are made for them, unmounts, and the probes of paths.
#include <boost/filesystem.hpp>
#include <cerrno>
#include <fcntl.h>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include "src/src/fw-update-mount-manager.h"
#include "tests/support/set-test.h"

namespace fs = std::filesystem;
using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

namespace
{

constexpr const char* kImage = "/tmp/image.img";
constexpr const char* kDestination = "/tmp/destination";
constexpr const char* kCommand = "-o ro,loop,nodev,nosuid /tmp/image.img /tmp/destination";
const LogLine kMountOfImage = platformInfo(std::string("PsMntCmd:[") + kCommand + "]");

class FWMountManagerTest : public SetTest
{
protected:
    void SetUp() override
    {
        SetTest::SetUp();
        fs::remove_all(kImage);
        fs::remove_all(std::string(kImage) + ".tree");
        fs::remove_all(kDestination);
        writeFile(kImage, "image");
        fs::create_directory(std::string(kImage) + ".tree");
    }

    FWMountManager& manager = FWMountManager::getInstance();
};

// ---- Mount ----

TEST_F(FWMountManagerTest, IsOneForTheProcess)
{
    EXPECT_EQ(&FWMountManager::getInstance(), &manager);
}

TEST_F(FWMountManagerTest, MountsAnImageReadOnlyThroughALoopDevice)
{
    fs::create_directory(kDestination);
    EXPECT_EQ(manager.Mount(kImage, kDestination), 0);
    EXPECT_THAT(platform.calls(), ElementsAre("PS_Mount(\"" + std::string(kCommand) + "\")"));
    EXPECT_THAT(platform.log(), ElementsAre(kMountOfImage));
}

TEST_F(FWMountManagerTest, HandsOverTheWholeZeroFilledCommandBuffer)
{
    manager.Mount(kImage, kDestination);
    const MountRequest request = platform.mountRequests().at(0);
    EXPECT_EQ(request.length, 1024);
    EXPECT_EQ(request.flags, 0);
    EXPECT_EQ(request.resultBefore, 0);
    EXPECT_EQ(request.buffer, kCommand + std::string(1024 - request.text.size(), '\0'));
}

TEST_F(FWMountManagerTest, CutsACommandAt1023Characters)
{
    const std::string options(2000, 'o');
    platform.answerMount(MountOperation::kMount, {{0, 0}});
    EXPECT_TRUE(loop_mount(kImage, kDestination, options.c_str()));
    const MountRequest request = platform.mountRequests().at(0);
    EXPECT_EQ(request.buffer, "-o " + std::string(1020, 'o') + std::string(1, '\0'));
    EXPECT_THAT(platform.log(), ElementsAre(platformInfo("PsMntCmd:[-o " + std::string(1020, 'o') + "]")));
}

TEST_F(FWMountManagerTest, DoesNotQuoteABlankInAPath)
{
    writeFile("/tmp/my image.img", "");
    platform.answerMount(MountOperation::kMount, {{0, 0}});
    EXPECT_EQ(manager.Mount("/tmp/my image.img", kDestination), 0);
    EXPECT_EQ(platform.mountRequests().at(0).text,
              "-o ro,loop,nodev,nosuid /tmp/my image.img /tmp/destination");
}

TEST_F(FWMountManagerTest, MakesTheDestination)
{
    const mode_t mask = umask(0);
    EXPECT_EQ(manager.Mount(kImage, kDestination), 0);
    umask(mask);
    struct stat status = {};
    ASSERT_EQ(stat(kDestination, &status), 0);
    EXPECT_EQ(status.st_mode, static_cast<mode_t>(S_IFDIR | 0775));
}

TEST_F(FWMountManagerTest, MakesTheDestinationUnderTheProcesssMask)
{
    const mode_t mask = umask(027);
    manager.Mount(kImage, kDestination);
    umask(mask);
    struct stat status = {};
    ASSERT_EQ(stat(kDestination, &status), 0);
    EXPECT_EQ(status.st_mode, static_cast<mode_t>(S_IFDIR | 0750));
}

TEST_F(FWMountManagerTest, MakesOneLevelOfTheDestinationOnly)
{
    EXPECT_EQ(manager.Mount(kImage, "/tmp/destination/below"), -1);
    EXPECT_THAT(platform.log(), ElementsAre(error("Dest Path [/tmp/destination/below] failed to create! "
                                                  "return:[-1], errno:[2, No such file or directory, ]")));
    EXPECT_THAT(platform.calls(), IsEmpty());
}

TEST_F(FWMountManagerTest, TellsWhyTheDestinationCannotBeMade)
{
    fs::create_symlink("/tmp/nothing", kDestination);
    EXPECT_EQ(manager.Mount(kImage, kDestination), -1);
    EXPECT_THAT(platform.log(), ElementsAre(error("Dest Path [/tmp/destination] failed to create! "
                                                  "return:[-1], errno:[17, File exists, ]")));
}

TEST_F(FWMountManagerTest, TakesADestinationThatIsNoDirectory)
{
    writeFile(kDestination, "");
    platform.answerMount(MountOperation::kMount, {{0, 0}});
    EXPECT_EQ(manager.Mount(kImage, kDestination), 0);
}

TEST_F(FWMountManagerTest, LeavesTheDestinationBehindWhenTheMountFails)
{
    platform.alwaysAnswerMount(MountOperation::kMount, {-1, 5});
    platform.alwaysAnswerMount(MountOperation::kMknod, {-1, 5});
    EXPECT_EQ(manager.Mount(kImage, kDestination), -1);
    EXPECT_TRUE(exists(kDestination));
}

TEST_F(FWMountManagerTest, RefusesAnEmptySource)
{
    EXPECT_EQ(manager.Mount("", kDestination), -1);
    EXPECT_THAT(platform.log(), ElementsAre(error("Source file or dest dir is empty.")));
    EXPECT_FALSE(exists(kDestination));
}

TEST_F(FWMountManagerTest, RefusesAnEmptyDestination)
{
    EXPECT_EQ(manager.Mount(kImage, ""), -1);
    EXPECT_THAT(platform.log(), ElementsAre(error("Source file or dest dir is empty.")));
}

TEST_F(FWMountManagerTest, RefusesASourceThatIsMissing)
{
    EXPECT_EQ(manager.Mount("/tmp/missing.img", kDestination), -1);
    EXPECT_THAT(platform.log(), ElementsAre(error("srcFile[/tmp/missing.img] is not exist.")));
    EXPECT_FALSE(exists(kDestination));
}

TEST_F(FWMountManagerTest, RefusesASourceThatIsADirectory)
{
    EXPECT_EQ(manager.Mount("/tmp", kDestination), -1);
    EXPECT_THAT(platform.log(), ElementsAre(error("srcFile[/tmp] is not exist.")));
    EXPECT_THAT(platform.calls(), IsEmpty());
}

TEST_F(FWMountManagerTest, TakesASourceThatIsALinkToAFile)
{
    fs::remove("/tmp/link.img");
    fs::create_symlink(kImage, "/tmp/link.img");
    platform.answerMount(MountOperation::kMount, {{0, 0}});
    EXPECT_EQ(manager.Mount("/tmp/link.img", kDestination), 0);
}

// ---- Loop nodes ----

// A set's devices and mounts as the test wants them: "/dev" of the process is a directory of its own, and
// mounts come from the sources "/dev/loopN".
class FWMountManagerLoop : public FWMountManagerTest
{
protected:
    void SetUp() override
    {
        FWMountManagerTest::SetUp();
        fs::create_directories("/tmp/dev");
        ASSERT_EQ(mount("tmpfs", "/tmp/dev", "tmpfs", 0, nullptr), 0);
        ASSERT_EQ(mount("/tmp/dev", "/dev", nullptr, MS_BIND, nullptr), 0);
        platform.alwaysAnswerMount(MountOperation::kMount, {-1, 2});
        EXPECT_EQ(countMountedLoopDevices(), 0);
    }
    void TearDown() override
    {
        for (; loopMounts > 0; --loopMounts) {
            umount2("/tmp/loop-mount", MNT_DETACH);
        }
        umount2("/dev", MNT_DETACH);
        umount2("/tmp/dev", MNT_DETACH);
        FWMountManagerTest::TearDown();
    }

    static void makeNodes(int count)
    {
        for (int number = 0; number < count; ++number) {
            writeFile("/dev/loop" + std::to_string(number), "");
        }
    }
    // The kernel shows the source of a tmpfs as it was given.
    void makeMounts(int count)
    {
        fs::create_directories("/tmp/loop-mount");
        for (int number = 0; number < count; ++number) {
            const std::string source = "/dev/loop" + std::to_string(number);
            ASSERT_EQ(mount(source.c_str(), "/tmp/loop-mount", "tmpfs", 0, "size=4k"), 0);
            ++loopMounts;
        }
    }
    bool mountImage() { return loop_mount(kImage, kDestination, "ro,loop,nodev,nosuid"); }

    static LogLine firstFailure(int retVal, int result) { return platformInfo(failureText(retVal, result)); }
    static LogLine furtherFailure(int retVal, int result) { return error(failureText(retVal, result)); }
    static std::string failureText(int retVal, int result)
    {
        return "Fail PS_Mount: file:[/tmp/image.img], dest:[/tmp/destination], retVal:[" +
               std::to_string(retVal) + "], result:[" + std::to_string(result) + "]";
    }
    static LogLine counts(int present, int mounted)
    {
        return platformInfo("loop count is " + std::to_string(present) + ", mount count is " +
                            std::to_string(mounted));
    }
    static std::string nodeCommand(int number)
    {
        return "-m 0660 -Z * /dev/loop" + std::to_string(number) + "  b 7 " + std::to_string(number);
    }

    int loopMounts = 0;
};

TEST_F(FWMountManagerLoop, AreNotCountedWhenTheFirstMountSucceeds)
{
    platform.answerMount(MountOperation::kMount, {{0, 0}});
    EXPECT_TRUE(mountImage());
    EXPECT_THAT(platform.log(), ElementsAre(kMountOfImage));
    EXPECT_THAT(platform.mountRequests(), SizeIs(1));
}

TEST_F(FWMountManagerLoop, AreNotMadeWhileOneIsFree)
{
    makeNodes(8);
    makeMounts(7);
    EXPECT_FALSE(mountImage());
    EXPECT_THAT(platform.log(), ElementsAre(kMountOfImage, firstFailure(-1, 2), counts(8, 7)));
    EXPECT_THAT(platform.mountRequests(MountOperation::kMknod), IsEmpty());
}

TEST_F(FWMountManagerLoop, AreNotMadeWhenThereAreMoreMountsThanNodes)
{
    makeNodes(2);
    makeMounts(3);
    EXPECT_FALSE(mountImage());
    EXPECT_THAT(platform.log(), ElementsAre(kMountOfImage, firstFailure(-1, 2), counts(2, 3)));
}

TEST_F(FWMountManagerLoop, ThatAreAllInUseAreJoinedByTheNextNumber)
{
    makeNodes(8);
    makeMounts(8);
    platform.answerMount(MountOperation::kMount, {{-1, 2}, {0, 0}});
    EXPECT_TRUE(mountImage());
    EXPECT_THAT(platform.log(), ElementsAre(kMountOfImage, firstFailure(-1, 2), counts(8, 8)));
    EXPECT_THAT(platform.calls(), ElementsAre("PS_Mount(\"" + std::string(kCommand) + "\")",
                                              R"(PS_Mknod("-m 0660 -Z * /dev/loop8  b 7 8"))",
                                              "PS_Mount(\"" + std::string(kCommand) + "\")"));
}

TEST_F(FWMountManagerLoop, AreAskedForInAWholeZeroFilledBuffer)
{
    platform.answerMount(MountOperation::kMount, {{-1, 2}, {0, 0}});
    EXPECT_TRUE(mountImage());
    const MountRequest request = platform.mountRequests(MountOperation::kMknod).at(0);
    EXPECT_EQ(request.length, 1024);
    EXPECT_EQ(request.flags, 0);
    EXPECT_EQ(request.resultBefore, 0);
    EXPECT_EQ(request.buffer, nodeCommand(0) + std::string(1024 - nodeCommand(0).size(), '\0'));
}

TEST_F(FWMountManagerLoop, GiveTheSameMountCommandAnotherTry)
{
    platform.answerMount(MountOperation::kMount, {{-1, 2}, {0, 0}});
    mountImage();
    const std::vector<MountRequest> mounts = platform.mountRequests(MountOperation::kMount);
    ASSERT_THAT(mounts, SizeIs(2));
    EXPECT_EQ(mounts[0].buffer, mounts[1].buffer);
    EXPECT_EQ(mounts[1].length, 1024);
    EXPECT_EQ(mounts[1].resultBefore, 0);
}

TEST_F(FWMountManagerLoop, ThatCannotBeMadeAreSkippedWithoutAMount)
{
    makeNodes(1);
    makeMounts(1);
    platform.answerMount(MountOperation::kMknod, {{0, 17}, {-1, 0}});
    platform.answerMount(MountOperation::kMount, {{-1, 2}, {0, 0}});
    EXPECT_TRUE(mountImage());
    EXPECT_THAT(platform.log(), ElementsAre(kMountOfImage, firstFailure(-1, 2), counts(1, 1),
                                            error("PS_Mknod error, retVal: [0], result: [17]"),
                                            error("PS_Mknod error, retVal: [-1], result: [0]")));
    EXPECT_THAT(platform.mountRequests(MountOperation::kMount), SizeIs(2));
    EXPECT_EQ(platform.mountRequests(MountOperation::kMknod).back().text, nodeCommand(3));
}

TEST_F(FWMountManagerLoop, ThatDoNotHelpAreFollowedByTheNext)
{
    platform.answerMount(MountOperation::kMount, {{-1, 2}, {-3, 4}, {0, 5}, {0, 0}});
    EXPECT_TRUE(mountImage());
    EXPECT_THAT(platform.log(), ElementsAre(kMountOfImage, firstFailure(-1, 2), counts(0, 0),
                                            furtherFailure(-3, 4), furtherFailure(0, 5)));
    EXPECT_EQ(platform.mountRequests(MountOperation::kMknod).back().text, nodeCommand(2));
}

TEST_F(FWMountManagerLoop, OfAFirstMountWithAResultAloneAreCountedToo)
{
    platform.answerMount(MountOperation::kMount, {{0, 6}, {0, 0}});
    EXPECT_TRUE(mountImage());
    EXPECT_THAT(platform.log(), ElementsAre(kMountOfImage, firstFailure(0, 6), counts(0, 0)));
}

TEST_F(FWMountManagerLoop, EndAtTheNumber249)
{
    makeNodes(247);
    makeMounts(247);
    platform.alwaysAnswerMount(MountOperation::kMknod, {-1, 1});
    EXPECT_FALSE(mountImage());
    const LogLine failure = error("PS_Mknod error, retVal: [-1], result: [1]");
    EXPECT_THAT(platform.log(),
                ElementsAre(kMountOfImage, firstFailure(-1, 2), counts(247, 247), failure, failure, failure));
    EXPECT_EQ(platform.mountRequests(MountOperation::kMknod).back().text, nodeCommand(249));
}

TEST_F(FWMountManagerLoop, AreMadeUpToTheLastWhenNoneHelps)
{
    makeNodes(248);
    makeMounts(248);
    EXPECT_FALSE(mountImage());
    EXPECT_THAT(platform.log(), ElementsAre(kMountOfImage, firstFailure(-1, 2), counts(248, 248),
                                            furtherFailure(-1, 2), furtherFailure(-1, 2)));
}

TEST_F(FWMountManagerLoop, AreEachRefusedOnceFromTheFirstToTheLast)
{
    platform.alwaysAnswerMount(MountOperation::kMknod, {-1, 1});
    EXPECT_FALSE(mountImage());
    const std::vector<MountRequest> nodes = platform.mountRequests(MountOperation::kMknod);
    ASSERT_THAT(nodes, SizeIs(250));
    for (int number = 0; number < 250; ++number) {
        EXPECT_EQ(nodes[static_cast<size_t>(number)].text, nodeCommand(number));
    }
    EXPECT_THAT(platform.mountRequests(MountOperation::kMount), SizeIs(1));
}

TEST_F(FWMountManagerLoop, AreNotMadeWhenAll250AreInUse)
{
    makeNodes(250);
    makeMounts(250);
    EXPECT_FALSE(mountImage());
    EXPECT_THAT(platform.log(), ElementsAre(kMountOfImage, firstFailure(-1, 2), counts(250, 250)));
    EXPECT_THAT(platform.mountRequests(MountOperation::kMknod), IsEmpty());
}

TEST_F(FWMountManagerLoop, AreNotMadeWhenMoreThan250AreInUse)
{
    makeNodes(251);
    makeMounts(251);
    EXPECT_FALSE(mountImage());
    EXPECT_THAT(platform.mountRequests(MountOperation::kMknod), IsEmpty());
}

TEST_F(FWMountManagerLoop, FailTheMountOfThePublicOperation)
{
    makeNodes(1);
    EXPECT_EQ(manager.Mount(kImage, kDestination), -1);
}

// ---- Counting ----

TEST_F(FWMountManagerLoop, CountAsPresentByTheBeginningOfTheirName)
{
    for (const char* name : {"loop0", "loop12", "loopback", "loop", "xloop1", "Loop1", "lo", "sda1"}) {
        writeFile(std::string("/dev/") + name, "");
    }
    EXPECT_EQ(countPresentLoopDevices(), 4);
}

TEST_F(FWMountManagerLoop, CountAsPresentWhateverTheyAre)
{
    fs::create_directory("/dev/loop1");
    fs::create_symlink("nothing", "/dev/loop2");
    EXPECT_EQ(countPresentLoopDevices(), 2);
}

TEST_F(FWMountManagerLoop, CountAsPresentWithoutTheControlNode)
{
    writeFile("/dev/loop-control", "");
    writeFile("/dev/loop-control2", "");
    writeFile("/dev/loop-contro", "");
    EXPECT_EQ(countPresentLoopDevices(), 1);
}

TEST_F(FWMountManagerLoop, CountAsPresentOnOneLevelOnly)
{
    writeFile("/dev/block/loop1", "");
    EXPECT_EQ(countPresentLoopDevices(), 0);
}

TEST_F(FWMountManagerLoop, CountAsMountedOncePerMount)
{
    makeMounts(2);
    fs::create_directories("/tmp/second");
    ASSERT_EQ(mount("/dev/loop0", "/tmp/second", "tmpfs", 0, "size=4k"), 0);
    EXPECT_EQ(countMountedLoopDevices(), 3);
    umount2("/tmp/second", MNT_DETACH);
}

TEST_F(FWMountManagerLoop, CountAsMountedAtTheBeginningOfTheLineOnly)
{
    fs::create_directories("/tmp/dev/loop0");
    ASSERT_EQ(mount("tmpfs", "/dev/loop0", "tmpfs", 0, "size=4k"), 0);
    EXPECT_EQ(countMountedLoopDevices(), 0);
    umount2("/dev/loop0", MNT_DETACH);
}

// The root of this process is an empty directory while `look` runs: no "/dev", no "/proc".
template <typename Look>
void inEmptyRoot(Look look)
{
    fs::create_directories("/tmp/empty");
    const int root = open("/", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    ASSERT_GE(root, 0);
    ASSERT_EQ(chroot("/tmp/empty"), 0);
    look();
    ASSERT_EQ(fchdir(root), 0);
    ASSERT_EQ(chroot("."), 0);
    close(root);
}

TEST_F(FWMountManagerTest, ThrowsWhenTheDevicesCannotBeListed)
{
    inEmptyRoot([] { EXPECT_THROW(countPresentLoopDevices(), boost::filesystem::filesystem_error); });
}

TEST_F(FWMountManagerTest, LetsThatThroughAfterAFailedMount)
{
    platform.alwaysAnswerMount(MountOperation::kMount, {-1, 2});
    inEmptyRoot(
        [] { EXPECT_THROW(loop_mount(kImage, kDestination, "ro"), boost::filesystem::filesystem_error); });
}

TEST_F(FWMountManagerTest, CountsNoMountsWithoutTheirTable)
{
    inEmptyRoot([] { EXPECT_EQ(countMountedLoopDevices(), 0); });
}

// ---- Unmount ----

TEST_F(FWMountManagerTest, UnmountsADirectory)
{
    ASSERT_EQ(manager.Mount(kImage, kDestination), 0);
    platform.clearLog();
    EXPECT_EQ(manager.UMount(kDestination), 0);
    EXPECT_THAT(platform.mountedDirectories(), IsEmpty());
    EXPECT_THAT(platform.log(), ElementsAre(platformInfo("Umount dir[/tmp/destination] successfully.")));
}

TEST_F(FWMountManagerTest, HandsOverTheDirectoryWithItsLength)
{
    fs::create_directory(kDestination);
    platform.answerMount(MountOperation::kUmount, {{0, 0}});
    manager.UMount(kDestination);
    const MountRequest request = platform.mountRequests().at(0);
    EXPECT_EQ(request.text, kDestination);
    EXPECT_EQ(request.length, 16);
    EXPECT_EQ(request.flags, 0);
    EXPECT_EQ(request.resultBefore, 0);
}

TEST_F(FWMountManagerTest, DoesNotAskWhetherAnythingIsMounted)
{
    fs::create_directory(kDestination);
    platform.answerMount(MountOperation::kUmount, {{0, 0}});
    EXPECT_EQ(manager.UMount(kDestination), 0);
}

TEST_F(FWMountManagerTest, RefusesToUnmountAnEmptyPath)
{
    EXPECT_EQ(manager.UMount(""), -1);
    EXPECT_THAT(platform.log(), ElementsAre(error("Input umount dir is empty.")));
}

TEST_F(FWMountManagerTest, RefusesToUnmountAMissingPath)
{
    EXPECT_EQ(manager.UMount("/tmp/missing"), -1);
    EXPECT_THAT(platform.log(), ElementsAre(error("Umount dir[/tmp/missing] is invalid.")));
    EXPECT_THAT(platform.calls(), IsEmpty());
}

TEST_F(FWMountManagerTest, RefusesToUnmountAFile)
{
    EXPECT_EQ(manager.UMount(kImage), -1);
    EXPECT_THAT(platform.log(), ElementsAre(error("Umount dir[/tmp/image.img] is invalid.")));
    EXPECT_THAT(platform.calls(), IsEmpty());
}

class FWMountManagerUnmountFailure : public FWMountManagerTest,
                                     public testing::WithParamInterface<MountAnswer>
{
};

TEST_P(FWMountManagerUnmountFailure, IsToldWithBothNumbers)
{
    fs::create_directory(kDestination);
    platform.answerMount(MountOperation::kUmount, {GetParam()});
    EXPECT_EQ(manager.UMount(kDestination), -1);
    EXPECT_THAT(platform.log(), ElementsAre(error("Error(iRet1=" + std::to_string(GetParam().retVal) +
                                                  ", iRet2=" + std::to_string(GetParam().result) +
                                                  ") while unmounitng [/tmp/destination]")));
}

INSTANTIATE_TEST_SUITE_P(Answers, FWMountManagerUnmountFailure,
                         testing::Values(MountAnswer{0, 16}, MountAnswer{-1, 0}, MountAnswer{-1, 16},
                                         MountAnswer{1, 0}));

TEST_F(FWMountManagerTest, CatchesAnExceptionOfTheUnmount)
{
    fs::create_directory(kDestination);
    platform.onCall("PS_Umount", [] { throw std::runtime_error("service is gone"); });
    EXPECT_EQ(manager.UMount(kDestination), -1);
    EXPECT_THAT(platform.log(),
                ElementsAre(error("Failed to umount[/tmp/destination], error[service is gone].")));
}

// ---- Probes ----

TEST_F(FWMountManagerTest, ADirectoryIsOneAlsoThroughALink)
{
    fs::create_symlink("/tmp", kDestination);
    EXPECT_TRUE(IsDir("/tmp"));
    EXPECT_TRUE(IsDir(kDestination));
    EXPECT_FALSE(IsDir(kImage));
    EXPECT_FALSE(IsDir("/tmp/missing"));
    EXPECT_FALSE(IsDir("/dev/null"));
}

TEST_F(FWMountManagerTest, AFileIsOneAlsoThroughALink)
{
    fs::create_symlink(kImage, kDestination);
    EXPECT_TRUE(IsFile(kImage));
    EXPECT_TRUE(IsFile(kDestination));
    EXPECT_FALSE(IsFile("/tmp"));
    EXPECT_FALSE(IsFile("/tmp/missing"));
    EXPECT_FALSE(IsFile("/dev/null"));
}

} // namespace
