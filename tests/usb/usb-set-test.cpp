// The whole path on a set: images by fwmod, judged by the set's own signature library (or by none), decrypted
// and installed by the daemon's code with the example modules. Each group of tests runs in a set and a
// process of its own, because a process keeps the signature library that it has found.
#include <dlfcn.h>
#include <sys/stat.h>

#include "common/files/whole-file.h"
#include "src/src/fw-update-symbol-manager.h"
#include "tests/support/set-test.h"
#include "tests/support/temporary-directory.h"
#include "tests/usb/programs.h"
#include "tests/usb/usb-test-data.h"

namespace fs = std::filesystem;
using testing::Contains;
using testing::HasSubstr;
using testing::Not;

namespace
{

constexpr const char* kLibrary = "/usr/lib/libkZORUser.so";
constexpr const char* kKeyDirectory = "/var/lib/signature/keys";
constexpr const char* kHardware = "/var/lib/hardware";
const std::string kStick = "/opt/media/USBDriveA/";

class UsbOnSet : public SetTest
{
protected:
    static void SetUpTestSuite()
    {
        keys = new TemporaryDirectory;
        copyTestKeys(keys->path(), {"maker", "stranger"});
        writeBytes(*keys / "content.key", std::string(32, 'k'));
        fs::permissions(*keys / "content.key", fs::perms::owner_read | fs::perms::owner_write);
    }
    static void TearDownTestSuite() { delete keys; }
    void SetUp() override
    {
        SetTest::SetUp();
        fs::remove_all(kHardware);
        fs::create_directories(kHardware);
        fs::create_directories(kStick);
        fs::remove_all(kKeyDirectory);
        fs::create_directories(kKeyDirectory);
        fs::copy(*keys / "maker.pub.pem", fs::path(kKeyDirectory) / "maker.pem");
        for (const char* name : {"tuner", "panel"}) {
            fs::copy(std::string(EXAMPLE_IMAGES) + "/1.0/hardware/" + name, fs::path(kHardware) / name);
            fs::copy(std::string(EXAMPLE_LIBRARIES) + "/" + name + ".so",
                     fs::path(set::kControls) / (std::string(name) + ".so"));
        }
    }

    // NAME.bin on the stick, with the example's own image of that version in it.
    static void putImage(const std::string& name, const std::string& version, const std::string& header,
                         const std::string& signer = "maker")
    {
        const std::string payload =
            std::string(EXAMPLE_IMAGES) + "/" + version + "/" + name + "/" + name + ".bin";
        mustRun(keys->path(), {FWMOD, "usb", "--version-header", header, "--payload", payload, "--key-file",
                               "content.key", "--sign-key", signer + ".pem", "-o", kStick + name + ".bin"});
    }
    static void changeByte(const std::string& name, off_t at)
    {
        std::fstream file(kStick + name, std::ios::in | std::ios::out | std::ios::binary);
        file.seekg(at);
        const int byte = file.get();
        file.seekp(at);
        file.put(static_cast<char>(byte ^ 1));
    }
    FWUpdateSymbolManager& registry()
    {
        EXPECT_TRUE(manager.getIsReady(false));
        EXPECT_EQ(manager.firmwareItems.size(), 2U);
        return manager;
    }
    FWUpdateSymbol& module(const std::string& name)
    {
        for (FWUpdateSymbol& candidate : registry().firmwareItems) {
            if (candidate.libName == name) {
                return candidate;
            }
        }
        throw std::runtime_error("no module " + name);
    }
    std::string installed(const std::string& name)
    {
        char version[129] = {};
        EXPECT_EQ(module(name).getActiveVersion(version), 0);
        return version;
    }
    std::vector<std::string> texts() const
    {
        std::vector<std::string> all;
        for (const LogLine& line : platform.log()) {
            all.push_back(line.text);
        }
        return all;
    }

    static TemporaryDirectory* keys;
    FWUpdateSymbolManager manager;
    const std::string key = std::string(32, 'k');
    const unsigned char* const contentKey = unsignedBytes(key);
};
TemporaryDirectory* UsbOnSet::keys = nullptr;

// ---- With the signature library ----

using UsbOnSetPresent = UsbOnSet;

TEST_F(UsbOnSetPresent, ImagesAreProbedAndInstalled)
{
    ASSERT_TRUE(exists(kLibrary));
    putImage("Tuner", "1.1", "1.1");
    putImage("Panel", "1.1", "1.1");
    int seconds = 0;
    EXPECT_EQ(registry().getFirmwareUpdateTime(contentKey, kStick.c_str(), seconds), 0);
    EXPECT_GT(seconds, 0);
    EXPECT_EQ(installed("tuner"), "1.0");
    EXPECT_EQ(manager.doUpdateUSB(contentKey, kStick.c_str()), 0);
    EXPECT_EQ(installed("tuner"), "1.1");
    EXPECT_EQ(installed("panel"), "1.1");
    EXPECT_THAT(texts(),
                Contains("[zor][UserCaller] the file is signed successfully : " + kStick + "Tuner.bin\n"));
    EXPECT_EQ(registry().getFirmwareUpdateTime(contentKey, kStick.c_str(), seconds), -1); // nothing is newer
    EXPECT_EQ(seconds, 0);
}

TEST_F(UsbOnSetPresent, ChangedImageIsRefusedBeforeTheLibraryHearsOfIt)
{
    putImage("Tuner", "1.1", "1.1");
    for (const off_t at :
         {off_t{0}, off_t{16}, off_t{100000}, static_cast<off_t>(fs::file_size(kStick + "Tuner.bin")) - 1}) {
        changeByte("Tuner.bin", at);
        EXPECT_EQ(module("tuner").getNeedUpdateList(contentKey, kStick.c_str()), -1) << at;
        EXPECT_EQ(module("tuner").updateUSB(contentKey, kStick.c_str()), -1) << at;
        changeByte("Tuner.bin", at);
    }
    EXPECT_EQ(module("tuner").getNeedUpdateList(contentKey, kStick.c_str()), 1);
    EXPECT_THAT(texts(), Contains("Error: " + kStick + "Tuner.bin file is NOT signed "));
    EXPECT_THAT(texts(), Not(Contains(HasSubstr("CheckVersion Fail"))));
}

TEST_F(UsbOnSetPresent, ImageOfAStrangerIsRefused)
{
    putImage("Tuner", "1.1", "1.1", "stranger");
    EXPECT_EQ(module("tuner").updateUSB(contentKey, kStick.c_str()), -1);
    // Trusted from the moment on when its key is there.
    fs::copy(*keys / "stranger.pub.pem", fs::path(kKeyDirectory) / "stranger.pem");
    EXPECT_EQ(module("tuner").updateUSB(contentKey, kStick.c_str()), 0);
    EXPECT_EQ(installed("tuner"), "1.1");
}

TEST_F(UsbOnSetPresent, NoKeyMeansNoTrust)
{
    putImage("Tuner", "1.1", "1.1");
    fs::remove_all(kKeyDirectory);
    EXPECT_EQ(module("tuner").updateUSB(contentKey, kStick.c_str()), -1);
}

TEST_F(UsbOnSetPresent, HeaderThatPromisesANewerVersionInstallsWhatTheImageHolds)
{
    putImage("Tuner", "1.0", "1.1"); // signed by its maker, so the maker's word counts
    EXPECT_EQ(module("tuner").updateUSB(contentKey, kStick.c_str()), 0);
    EXPECT_EQ(installed("tuner"), "1.0");
}

TEST_F(UsbOnSetPresent, OlderImageIsPendingButNotInstalled)
{
    putImage("Tuner", "1.0", "0.9");
    EXPECT_EQ(module("tuner").getNeedUpdateList(contentKey, kStick.c_str()),
              -1); // the verdict, not a failure
    EXPECT_TRUE(module("tuner").getNeedUpdate());
    EXPECT_EQ(module("tuner").updateUSB(contentKey, kStick.c_str()), -1);
    EXPECT_THAT(texts(), Contains("Error: Tuner Firmware not need update"));
}

TEST_F(UsbOnSetPresent, WrongKeyEndsAtTheVersion)
{
    putImage("Tuner", "1.1", "1.1");
    const std::string wrong(32, 'w');
    EXPECT_EQ(module("tuner").updateUSB(unsignedBytes(wrong), kStick.c_str()), -1);
    EXPECT_THAT(texts(), Contains("Error: Tuner Firmware CheckVersion Fail"));
    EXPECT_EQ(installed("tuner"), "1.0");
}

TEST_F(UsbOnSetPresent, FirstFailureLeavesTheSecondModuleAlone)
{
    putImage("Tuner", "1.1", "1.1");
    putImage("Panel", "1.1", "1.1");
    int seconds = 0;
    ASSERT_EQ(registry().getFirmwareUpdateTime(contentKey, kStick.c_str(), seconds), 0);
    FWUpdateSymbol& first = manager.firmwareItems.front();
    FWUpdateSymbol& second = manager.firmwareItems.back();
    changeByte(first.getFirmwareName() + ".bin", 5000); // after it was probed
    EXPECT_EQ(manager.doUpdateUSB(contentKey, kStick.c_str()), -1);
    EXPECT_THAT(texts(), Contains("update fail [" + first.getFirmwareName() + "]"));
    EXPECT_EQ(installed(first.getLibName()), "1.0");
    EXPECT_EQ(installed(second.getLibName()), "1.0");
}

TEST_F(UsbOnSetPresent, PathsThatAreNoImages)
{
    putImage("Tuner", "1.1", "1.1");
    const std::string bare = kStick.substr(0, kStick.size() - 1);
    EXPECT_EQ(module("tuner").updateUSB(contentKey, bare.c_str()), -1);
    EXPECT_THAT(texts(), Contains("Error: " + bare + "Tuner.bin file open"));
    fs::remove(kStick + "Tuner.bin");
    fs::create_directory(kStick + "Tuner.bin");
    EXPECT_EQ(module("tuner").updateUSB(contentKey, kStick.c_str()), -1);
    EXPECT_EQ(module("tuner").getNeedUpdateList(contentKey, kStick.c_str()), -1);
    EXPECT_THAT(texts(), Contains("Error: " + kStick + "Tuner.bin file is NOT signed "));
}

TEST_F(UsbOnSetPresent, EveryShortFileIsUnsigned)
{
    for (const int size : {0, 1, 15, 16, 17, 533, 534, 535, 540, 549, 550, 613, 614}) {
        writeFile(kStick + "Tuner.bin", std::string(static_cast<std::size_t>(size), '\0'));
        EXPECT_EQ(module("tuner").getNeedUpdateList(contentKey, kStick.c_str()), -1) << size;
        EXPECT_EQ(module("tuner").updateUSB(contentKey, kStick.c_str()), -1) << size;
    }
    EXPECT_THAT(texts(), Not(Contains("Error: iv is worng")));
}

TEST_F(UsbOnSetPresent, EntryPointServesManyCalls)
{
    putImage("Tuner", "1.1", "1.1");
    writeFile(kStick + "Panel.bin", std::string(5000, 'x'));
    for (int call = 0; call < 300; ++call) {
        ASSERT_NE(zor_verify((kStick + "Tuner.bin").c_str()), 0) << call;
        ASSERT_EQ(zor_verify((kStick + "Panel.bin").c_str()), 0) << call;
        ASSERT_EQ(zor_verify(kStick.c_str()), 0) << call;
        ASSERT_EQ(zor_verify("/nowhere"), 0) << call;
    }
    EXPECT_NE(dlopen(kLibrary, RTLD_NOW | RTLD_NOLOAD), nullptr); // kept for the entry point
}

TEST_F(UsbOnSetPresent, EntryPointRefusesWhatItDoesNotKnow)
{
    putImage("Tuner", "1.1", "1.1");
    void* const library = dlopen(kLibrary, RTLD_NOW);
    ASSERT_NE(library, nullptr);
    auto* const verify =
        reinterpret_cast<int (*)(int, const char*, const char*)>(dlsym(library, "verifyFile"));
    const std::string path = kStick + "Tuner.bin";
    EXPECT_NE(verify(0, path.c_str(), "UserCaller"), 0);
    EXPECT_NE(verify(0, path.c_str(), nullptr), 0);
    EXPECT_EQ(verify(1, path.c_str(), "UserCaller"), 0);
    EXPECT_EQ(verify(0, nullptr, "UserCaller"), 0);
    ASSERT_EQ(mkfifo((kStick + "pipe").c_str(), 0600), 0);
    EXPECT_EQ(verify(0, (kStick + "pipe").c_str(), "UserCaller"), 0); // and does not wait for a writer
}

// ---- A stick that is pulled out, with a library that looks on ----

class UsbOnSetPulled : public UsbOnSet
{
protected:
    void SetUp() override
    {
        UsbOnSet::SetUp();
        control = &installControl("tuner");
        fs::remove(fs::path(set::kControls) / "panel.so");
        putImage("Tuner", "1.1", "1.1");
        tuner = std::make_unique<FWUpdateSymbol>("tuner");
        ASSERT_EQ(tuner->loadSymbol("tuner"), 0);
    }
    // Installs, and lets something happen between the signature's check and the reading.
    int installWhile(const std::function<void()>& event)
    {
        control->answers.onCall = [event](const std::string& function) {
            if (function == "setContext") {
                event();
            }
        };
        return tuner->updateUSB(contentKey, kStick.c_str());
    }
    std::string payload() const
    {
        const auto payloads = control->decryptedPayloads();
        return payloads.empty() ? "" : payloads.back();
    }

    ControlRecorder* control = nullptr;
    std::unique_ptr<FWUpdateSymbol> tuner;
    const std::string path = kStick + "Tuner.bin";
    const std::string content = common::readWhole(std::string(EXAMPLE_IMAGES) + "/1.1/Tuner/Tuner.bin");
};

TEST_F(UsbOnSetPulled, NothingHappensMeanwhile)
{
    EXPECT_EQ(installWhile([] {}), 0);
    EXPECT_EQ(payload(), content);
}

TEST_F(UsbOnSetPulled, FileLosesItsName)
{
    // Its size can no longer be had, so nothing is decrypted, and the library is asked nothing more.
    EXPECT_EQ(installWhile([&] { unlink(path.c_str()); }), -1);
    EXPECT_TRUE(control->decryptedPayloads().empty());
    EXPECT_THAT(platform.log(), Contains(error("Error: Decryption data is null")));
}

TEST_F(UsbOnSetPulled, FileIsEmptied)
{
    EXPECT_EQ(installWhile([&] { ASSERT_EQ(truncate(path.c_str(), 0), 0); }), -1);
    EXPECT_THAT(texts(), Contains("Error: iv is worng"));
}

TEST_F(UsbOnSetPulled, FileIsCutAnywhere)
{
    const auto whole = static_cast<off_t>(fs::file_size(path));
    for (const off_t size : {off_t{15}, off_t{16}, off_t{17}, off_t{32}, off_t{80}, off_t{550}, off_t{10256},
                             off_t{100000}, whole - 534, whole - 1}) {
        putImage("Tuner", "1.1", "1.1");
        control->clearCalls();
        installWhile([&] { ASSERT_EQ(truncate(path.c_str(), size), 0); });
        EXPECT_EQ(content.compare(0, payload().size(), payload()), 0) << size; // never anything else
    }
}

TEST_F(UsbOnSetPulled, DirectoryTakesThePlaceOfTheFile)
{
    installWhile([&] {
        fs::remove(path);
        fs::create_directory(path);
    });
    EXPECT_EQ(content.compare(0, payload().size(), payload()), 0);
}

TEST_F(UsbOnSetPulled, InstallationTakesOneCopyOfTheImage)
{
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "a sanitizer has memory of its own";
#endif
    constexpr std::int64_t kSize = 300LL << 20;
    writeBytes("/tmp/payload", "");
    ASSERT_EQ(truncate("/tmp/payload", kSize), 0);
    mustRun(keys->path(), {FWMOD, "usb", "--version-header", "1.1", "--payload", "/tmp/payload", "--key-file",
                           "content.key", "--sign-key", "maker.pem", "-o", path});
    std::int64_t peak = 0;
    control->answers.verdict = 0; // the library of the tests would copy the payload
    control->answers.onCall = [&](const std::string& function) {
        if (function == "checkVersion") {
            peak = peakMemory();
        }
    };
    const std::int64_t before = resetPeakMemory();
    EXPECT_EQ(tuner->updateUSB(contentKey, kStick.c_str()), -1);
    std::printf("image %lld bytes, memory %lld bytes\n", static_cast<long long>(kSize),
                static_cast<long long>(peak - before));
    EXPECT_GT(peak - before, kSize - (8LL << 20));
    EXPECT_LT(peak - before, kSize + (16LL << 20));
}

// ---- With no signature library, or another ----

using UsbOnSetAbsent = UsbOnSet;

TEST_F(UsbOnSetAbsent, EveryImageCountsAsSigned)
{
    ASSERT_FALSE(exists(kLibrary));
    putImage("Tuner", "1.1", "1.1", "stranger");
    EXPECT_EQ(module("tuner").updateUSB(contentKey, kStick.c_str()), 0);
    EXPECT_EQ(installed("tuner"), "1.1");
    EXPECT_THAT(texts(), Contains(HasSubstr("[zor][UserCaller] pHandle Error: ")));
    EXPECT_THAT(texts(), Not(Contains(HasSubstr("signed successfully"))));
}

TEST_F(UsbOnSetAbsent, ShortFilesComeToNothing)
{
    for (const int size : {0, 1, 15, 16, 17, 533, 534, 535, 540, 549, 550, 613, 614}) {
        writeFile(kStick + "Tuner.bin", std::string(static_cast<std::size_t>(size), '\0'));
        EXPECT_EQ(module("tuner").getNeedUpdateList(contentKey, kStick.c_str()), -1) << size;
        EXPECT_EQ(module("tuner").updateUSB(contentKey, kStick.c_str()), -1) << size;
    }
    EXPECT_EQ(installed("tuner"), "1.0");
}

using UsbOnSetWithoutEntryPoint = UsbOnSet;

TEST_F(UsbOnSetWithoutEntryPoint, EveryImageCountsAsSignedAtEveryCall)
{
    ASSERT_TRUE(exists(kLibrary));
    putImage("Tuner", "1.1", "1.1", "stranger");
    for (int call = 0; call < 3; ++call) {
        platform.clearLog();
        EXPECT_EQ(zor_verify((kStick + "Tuner.bin").c_str()), 1);
        EXPECT_THAT(texts(), Contains(HasSubstr("[zor][UserCaller] dlsym Error: ")));
    }
    EXPECT_EQ(module("tuner").updateUSB(contentKey, kStick.c_str()), 0);
    EXPECT_EQ(installed("tuner"), "1.1");
}

using UsbOnSetDamaged = UsbOnSet;

TEST_F(UsbOnSetDamaged, LibraryThatCannotBeLoadedCountsAsAbsent)
{
    ASSERT_TRUE(exists(kLibrary));
    putImage("Tuner", "1.1", "1.1", "stranger");
    EXPECT_EQ(module("tuner").updateUSB(contentKey, kStick.c_str()), 0);
    EXPECT_THAT(texts(), Contains(HasSubstr("[zor][UserCaller] pHandle Error: ")));
}

} // namespace
