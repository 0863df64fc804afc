// The example libraries, loaded and called as the daemon does, on hardware in a private /var/lib/hardware.
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <linux/magic.h>
#include <sys/vfs.h>
#include <sys/wait.h>
#include <tarnwick/control.h>
#include <thread>
#include <unistd.h>

#include "common/files/whole-file.h"
#include "tests/support/temporary-directory.h"

namespace fs = std::filesystem;

namespace
{
const fs::path kExamples = EXAMPLES;
const fs::path kHardware = "/var/lib/hardware";

fs::path imageOf(const std::string& version, const std::string& name)
{
    return kExamples / "images" / version / name / (name + ".bin");
}

// The checksum that the information file of the image has.
unsigned long checksumOf(const std::string& version, const std::string& name)
{
    const std::string text = common::readWhole(kExamples / "images" / version / name / "info.json");
    return std::stoul(text.substr(text.find(':', text.find("\"crc\"")) + 1));
}

class Library
{
public:
    explicit Library(const std::string& name)
        : handle_(dlopen((kExamples / (name + ".so")).c_str(), RTLD_NOW))
    {
    }
    ~Library() { dlclose(handle_); }
    Library(const Library&) = delete;
    Library& operator=(const Library&) = delete;

    template <typename Function>
    Function* get(const char* name) const
    {
        return reinterpret_cast<Function*>(dlsym(handle_, name));
    }
    std::string version() const
    {
        char out[TARNWICK_CONTROL_TEXT_SIZE] = "";
        return get<tarnwick_getActiveVersion_fn>("getActiveVersion")(out) == 0 ? out : "none";
    }
    int verdict(const char* offered) const
    {
        int result = 99;
        return get<tarnwick_checkVersion_fn>("checkVersion")(offered, &result) == 0 ? result : -99;
    }
    int update(const std::string& name, unsigned long value) const
    {
        return get<tarnwick_doUpdate_fn>("doUpdate")(name.c_str(), value);
    }
    int updateFromMemory(const std::string& data, int length) const
    {
        return get<tarnwick_doUpdate_decryption_fn>("doUpdate_decryption")(
            reinterpret_cast<const unsigned char*>(data.data()), length);
    }
    unsigned int progress() const
    {
        unsigned int out = 999;
        return get<tarnwick_getUpdateProgress_fn>("getUpdateProgress")(&out) == 0 ? out : 999;
    }

private:
    void* handle_;
};

class Modules : public testing::Test
{
protected:
    void SetUp() override
    {
        for (const char* chip : {"tuner", "panel", "soundbar"}) {
            fs::copy_file(kExamples / "images/1.0/hardware" / chip, kHardware / chip,
                          fs::copy_options::overwrite_existing);
        }
    }
};

TEST_F(Modules, TellTheirIdentifiers)
{
    const std::pair<const char*, const char*> modules[] = {{"tuner", "empTuner"}, {"panel", "empPanel"}};
    for (const auto& [name, identifier] : modules) {
        const Library library(name);
        char out[TARNWICK_CONTROL_TEXT_SIZE] = "";
        library.get<tarnwick_getEMPID_fn>("getEMPID")(out);
        EXPECT_STREQ(out, identifier);
    }
}

TEST_F(Modules, ReadTheVersionFromTheHardware)
{
    const Library tuner("tuner");
    EXPECT_EQ(tuner.version(), "1.0");
    EXPECT_EQ(tuner.verdict("1.1"), TARNWICK_CONTROL_VERDICT_NEWER);
    EXPECT_EQ(tuner.verdict("1.0"), TARNWICK_CONTROL_VERDICT_SAME);
    EXPECT_EQ(tuner.verdict("0.9"), TARNWICK_CONTROL_VERDICT_OLDER);
    EXPECT_EQ(tuner.verdict("one"), -99);
    fs::copy_file(kExamples / "images/1.1/hardware/tuner", kHardware / "tuner",
                  fs::copy_options::overwrite_existing);
    EXPECT_EQ(tuner.version(), "1.1");
    fs::remove(kHardware / "tuner");
    EXPECT_EQ(tuner.version(), "none");
    EXPECT_EQ(tuner.verdict("1.1"), -99);
}

TEST_F(Modules, UpdateFromAPackageReportsRisingProgressAndBecomesActive)
{
    const Library tuner("tuner");
    EXPECT_EQ(tuner.progress(), 0U);
    std::atomic<int> result{99};
    std::thread worker([&] { result = tuner.update(imageOf("1.1", "Tuner"), checksumOf("1.1", "Tuner")); });
    unsigned int last = 0;
    int steps = 0;
    while (result == 99) {
        const unsigned int now = tuner.progress();
        EXPECT_GE(now, last);
        EXPECT_LE(now, 100U);
        steps += now != last ? 1 : 0;
        last = now;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    worker.join();
    EXPECT_EQ(result, 0);
    EXPECT_GT(steps, 5);
    EXPECT_EQ(tuner.progress(), 100U);
    EXPECT_EQ(tuner.version(), "1.1");
}

TEST_F(Modules, WrongChecksumForeignImageAndMissingFileLeaveTheHardwareAlone)
{
    const Library tuner("tuner");
    const std::string before = common::readWhole(kHardware / "tuner");
    EXPECT_EQ(tuner.update(imageOf("1.1", "Tuner"), checksumOf("1.1", "Tuner") + 1), -1);
    EXPECT_EQ(errno, EBADMSG);
    EXPECT_EQ(tuner.update(imageOf("1.1", "Panel"), checksumOf("1.1", "Panel")), -1);
    EXPECT_EQ(errno, EBADMSG);
    EXPECT_EQ(tuner.update("/nowhere", 0), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(tuner.update("tuner", 0), -1);
    EXPECT_EQ(errno, ENOTSUP);
    EXPECT_TRUE(common::readWhole(kHardware / "tuner") == before);
}

TEST_F(Modules, ContentOfAnEncryptedImageIsInstalled)
{
    const Library panel("panel");
    const std::string image = common::readWhole(imageOf("1.1", "Panel"));
    EXPECT_EQ(panel.updateFromMemory(image, static_cast<int>(image.size())), 0);
    EXPECT_EQ(panel.version(), "1.1");
    int seconds = 0;
    EXPECT_EQ(panel.get<tarnwick_getExpectedTime_fn>("getExpectedTime")(&seconds), 0);
    EXPECT_GT(seconds, 0);
}

TEST_F(Modules, ContentThatIsTooShortIsRefused)
{
    const Library panel("panel");
    const std::string image = common::readWhole(imageOf("1.1", "Panel"));
    for (const int length : {-64, -1, 0, 1, 30, static_cast<int>(image.size()) - 1}) {
        EXPECT_EQ(panel.updateFromMemory(image, length), -1) << length;
    }
    EXPECT_EQ(panel.version(), "1.0");
}

TEST_F(Modules, KilledUpdateLeavesTheOldVersionAndTheNextOneSucceeds)
{
    const Library panel("panel");
    const std::string before = common::readWhole(kHardware / "panel");
    const pid_t child = fork();
    if (child == 0) {
        _exit(panel.update(imageOf("1.1", "Panel"), checksumOf("1.1", "Panel")));
    }
    while (common::readWhole(kHardware / "panel") == before && waitpid(child, nullptr, WNOHANG) == 0) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    kill(child, SIGKILL);
    int status = 0;
    waitpid(child, &status, 0);
    ASSERT_TRUE(WIFSIGNALED(status)) << "the update was over too soon";
    EXPECT_EQ(panel.version(), "1.0");
    EXPECT_EQ(panel.update(imageOf("1.1", "Panel"), checksumOf("1.1", "Panel")), 0);
    EXPECT_EQ(panel.version(), "1.1");
}

TEST_F(Modules, ExternalModuleLooksForItsImageItself)
{
    const Library soundbar("EXT-soundbar");
    EXPECT_EQ(soundbar.version(), "1.0");
    EXPECT_EQ(soundbar.update("EXT-soundbar", 0), -1); // this machine has no such image
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(soundbar.version(), "1.0");
}
} // namespace

int main(int argc, char** argv)
{
    testing::InitGoogleTest(&argc, argv);
    struct statfs status{};
    if (statfs("/var/lib", &status) != 0 || status.f_type != TMPFS_MAGIC) {
        std::fprintf(
            stderr, "module-test writes to /var/lib/hardware: run it with tests/kit/with-private-hardware\n");
        return 2;
    }
    return RUN_ALL_TESTS();
}
