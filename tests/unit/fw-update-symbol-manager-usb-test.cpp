// Pending images of a stick over all modules: the time that they take, and their installation.
#include <array>
#include <filesystem>
#include <memory>
#include <openssl/evp.h>
#include <string>

#include "tests/support/manager-test.h"

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;

namespace
{

constexpr const char* kStick = "/tmp/stick/";

class FWUpdateSymbolManagerUsb : public ManagerTest
{
protected:
    void SetUp() override
    {
        ManagerTest::SetUp();
        std::filesystem::remove_all(kStick);
    }

    // A module with an image on the stick; without a signature library every image counts as signed.
    TestModule addImage(const std::string& name, const std::string& identifier, int need, int time)
    {
        const TestModule added = addModule(name, identifier);
        added.library.answers.verdict = need;
        added.library.answers.expectedTime = time;
        writeImage(added.module.firmwareName);
        return added;
    }
    // The same, found pending by an earlier probe.
    TestModule addPendingImage(const std::string& name, const std::string& identifier)
    {
        const TestModule added = addImage(name, identifier, 1, 10);
        added.module.needUpdate = true;
        return added;
    }

    void writeImage(const std::string& firmwareName) const
    {
        const std::string plain = std::string(64, 'v') + "payload of " + firmwareName;
        const std::unique_ptr<EVP_CIPHER_CTX, decltype(&EVP_CIPHER_CTX_free)> cipher{EVP_CIPHER_CTX_new(),
                                                                                     &EVP_CIPHER_CTX_free};
        const std::string iv(16, 'i');
        const auto bytes = [](const std::string& text) {
            return reinterpret_cast<const unsigned char*>(text.data());
        };
        std::string encrypted(plain.size() + 16, '\0');
        auto* const out = reinterpret_cast<unsigned char*>(encrypted.data());
        int length = 0;
        int last = 0;
        ASSERT_EQ(EVP_EncryptInit_ex(cipher.get(), EVP_aes_256_cbc(), nullptr, key.data(), bytes(iv)), 1);
        ASSERT_EQ(EVP_EncryptUpdate(cipher.get(), out, &length, bytes(plain), static_cast<int>(plain.size())),
                  1);
        ASSERT_EQ(EVP_EncryptFinal_ex(cipher.get(), out + length, &last), 1);
        encrypted.resize(static_cast<size_t>(length + last));
        writeFile(kStick + firmwareName + ".bin", iv + encrypted + std::string(534, 's'));
    }

    std::array<unsigned char, 32> key{'k', 'e', 'y'};
    int seconds = 70;
};

// ---- Time of what is pending ----

TEST_F(FWUpdateSymbolManagerUsb, TakesNoTimeWhenThereIsNoModule)
{
    EXPECT_EQ(manager.getFirmwareUpdateTime(key.data(), kStick, seconds), -1);
    EXPECT_EQ(seconds, 0);
}

TEST_F(FWUpdateSymbolManagerUsb, TakesNoTimeWhenNothingIsPending)
{
    addImage("tuner", "empTuner", 0, 10);
    EXPECT_EQ(manager.getFirmwareUpdateTime(key.data(), kStick, seconds), -1);
    EXPECT_EQ(seconds, 0);
    EXPECT_THAT(managerLines(), IsEmpty());
}

TEST_F(FWUpdateSymbolManagerUsb, TakesTheTimeOfAllModulesThatArePending)
{
    addImage("tuner", "empTuner", 1, 10);
    addImage("panel", "empPanel", 0, 500);
    addImage("remote", "empRemote", 1, 32);
    EXPECT_EQ(manager.getFirmwareUpdateTime(key.data(), kStick, seconds), 0);
    EXPECT_EQ(seconds, 42);
    EXPECT_THAT(managerLines(),
                ElementsAre(error("Need Update [Tuner] [10]"), error("Need Update [Remote] [32]")));
}

TEST_F(FWUpdateSymbolManagerUsb, LeavesOtherVerdictsOutOfTheTimeButPending)
{
    for (const int need : {2, -2, -1}) {
        TestModule tuner = addImage("tuner", "empTuner", need, 10);
        EXPECT_EQ(manager.getFirmwareUpdateTime(key.data(), kStick, seconds), -1) << need;
        EXPECT_EQ(seconds, 0) << need;
        EXPECT_TRUE(tuner.module.getNeedUpdate()) << need;
        manager.firmwareItems.clear();
    }
}

TEST_F(FWUpdateSymbolManagerUsb, LeavesModulesWithoutAnImageOutOfTheTime)
{
    addImage("tuner", "empTuner", 1, 10);
    addModule("panel", "empPanel");
    addModule("EXT-hdmi", "");
    EXPECT_EQ(manager.getFirmwareUpdateTime(key.data(), kStick, seconds), 0);
    EXPECT_EQ(seconds, 10);
}

TEST_F(FWUpdateSymbolManagerUsb, SucceedsForAPendingModuleThatTakesNoTime)
{
    addImage("tuner", "empTuner", 1, 0);
    EXPECT_EQ(manager.getFirmwareUpdateTime(key.data(), kStick, seconds), 0);
    EXPECT_EQ(seconds, 0);
}

TEST_F(FWUpdateSymbolManagerUsb, NeedsAKeyAndADirectoryToTellTheTime)
{
    addImage("tuner", "empTuner", 1, 10);
    EXPECT_EQ(manager.getFirmwareUpdateTime(nullptr, kStick, seconds), -1);
    EXPECT_EQ(manager.getFirmwareUpdateTime(key.data(), nullptr, seconds), -1);
}

// ---- Update ----

TEST_F(FWUpdateSymbolManagerUsb, FailsToUpdateWhenNothingIsPending)
{
    TestModule tuner = addImage("tuner", "empTuner", 1, 10);
    EXPECT_EQ(manager.doUpdateUSB(key.data(), kStick), -1);
    EXPECT_THAT(tuner.library.calls(), IsEmpty());
    EXPECT_THAT(platform.log(), IsEmpty());
}

TEST_F(FWUpdateSymbolManagerUsb, InstallsTheImageOfEachPendingModule)
{
    TestModule tuner = addPendingImage("tuner", "empTuner");
    TestModule idle = addImage("idle", "empIdle", 1, 10);
    TestModule panel = addPendingImage("panel", "empPanel");
    EXPECT_EQ(manager.doUpdateUSB(key.data(), kStick), 0);
    EXPECT_THAT(tuner.library.decryptedPayloads(), ElementsAre("payload of Tuner"));
    EXPECT_THAT(idle.library.calls(), IsEmpty());
    EXPECT_THAT(panel.library.decryptedPayloads(), ElementsAre("payload of Panel"));
}

TEST_F(FWUpdateSymbolManagerUsb, StopsAtTheFirstFailure)
{
    addPendingImage("tuner", "empTuner").library.answers.verdict = 0;
    TestModule panel = addPendingImage("panel", "empPanel");
    EXPECT_EQ(manager.doUpdateUSB(key.data(), kStick), -1);
    EXPECT_THAT(panel.library.calls(), IsEmpty());
    EXPECT_THAT(managerLines(), ElementsAre(error("update fail [Tuner]")));
}

TEST_F(FWUpdateSymbolManagerUsb, StopsAtALibraryThatReturnsTheFailureItself)
{
    addPendingImage("tuner", "empTuner").library.answers.results["doUpdate_decryption"] = -1;
    TestModule panel = addPendingImage("panel", "empPanel");
    EXPECT_EQ(manager.doUpdateUSB(key.data(), kStick), -1);
    EXPECT_THAT(panel.library.calls(), IsEmpty());
}

TEST_F(FWUpdateSymbolManagerUsb, GoesOnAfterEveryOtherResultAndReturnsTheLast)
{
    addPendingImage("tuner", "empTuner").library.answers.results["doUpdate_decryption"] = 3;
    TestModule panel = addPendingImage("panel", "empPanel");
    panel.library.answers.results["doUpdate_decryption"] = -2;
    EXPECT_EQ(manager.doUpdateUSB(key.data(), kStick), -2);
    EXPECT_THAT(panel.library.decryptedPayloads(), ElementsAre("payload of Panel"));
    EXPECT_THAT(managerLines(), IsEmpty());
}

TEST_F(FWUpdateSymbolManagerUsb, UpdatesWhatTheProbeHasFoundPending)
{
    TestModule tuner = addImage("tuner", "empTuner", 1, 10);
    TestModule panel = addImage("panel", "empPanel", 0, 10);
    ASSERT_EQ(manager.getFirmwareUpdateTime(key.data(), kStick, seconds), 0);
    EXPECT_EQ(manager.doUpdateUSB(key.data(), kStick), 0);
    EXPECT_THAT(tuner.library.decryptedPayloads(), ElementsAre("payload of Tuner"));
    EXPECT_THAT(panel.library.calls(), Not(Contains(StartsWith("doUpdate_decryption"))));
}

} // namespace
