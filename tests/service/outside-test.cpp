// What a set leaves of the machine it runs on: everything as it was, while it is on and afterwards.
#include <chrono>
#include <functional>
#include <set>
#include <sstream>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

#include "common/files/whole-file.h"
#include "tests/service/support/service-test.h"

namespace service
{
namespace
{

// Inherited by all that a set starts, so that its processes are known from outside, however they got away.
constexpr const char* kTagName = "VSET_OUTSIDE_TEST";

// ---- The machine ----

std::string describe(const fs::path& path)
{
    struct stat status{};
    if (lstat(path.c_str(), &status) != 0) {
        return "";
    }
    std::ostringstream text;
    text << path.string() << " mode " << std::oct << status.st_mode << std::dec << " owner " << status.st_uid
         << ":" << status.st_gid << " device " << status.st_rdev;
    return text.str();
}

// Not what other sets and programs on this machine come and go with: loop devices and terminals.
std::set<std::string> devices()
{
    std::set<std::string> lines;
    std::error_code error;
    auto walk = fs::recursive_directory_iterator("/dev", error);
    for (; walk != fs::recursive_directory_iterator(); walk.increment(error)) {
        const std::string name = walk->path().lexically_relative("/dev").string();
        if (name == "pts" || name == "shm" || name == "mqueue") {
            walk.disable_recursion_pending();
        }
        if (name.rfind("loop", 0) != 0 || name == "loop-control") {
            lines.insert(describe(walk->path()));
        }
    }
    return lines;
}

std::set<std::string> linesOf(const std::string& text)
{
    std::set<std::string> lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) {
        lines.insert(line);
    }
    return lines;
}

// Of the kernel's files, those that a set could have in common with the machine.
std::set<std::string> kernelFiles()
{
    std::set<std::string> lines;
    for (const char* path : {"/proc/sys/kernel/hostname", "/proc/sys/kernel/core_pattern",
                             "/proc/sys/vm/overcommit_memory", "/proc/sys/kernel/sysrq"}) {
        lines.insert(std::string(path) + " " + common::readWhole(path));
    }
    for (const char* path :
         {"/proc/sysrq-trigger", "/proc/irq", "/proc/sys/kernel", "/sys/block", "/sys/power"}) {
        lines.insert(describe(path));
    }
    return lines;
}

// Names and keys that programs of the machine find each other by.
std::set<std::string> semaphores()
{
    std::set<std::string> names;
    for (const char* directory : {"/dev/shm", "/dev/mqueue"}) {
        std::error_code error;
        for (const fs::directory_entry& entry : fs::directory_iterator(directory, error)) {
            names.insert(entry.path().string());
        }
    }
    for (const char* table : {"sem", "shm", "msg"}) {
        std::istringstream rows(common::readWhole(fs::path("/proc/sysvipc") / table));
        for (std::string key, number, rest; rows >> key >> number; std::getline(rows, rest)) {
            names.insert(std::string(table) + " " + key + " " + number);
        }
    }
    return names;
}

struct Machine {
    std::set<std::string> mounts = linesOf(common::readWhole("/proc/self/mountinfo"));
    std::set<std::string> nodes = devices();
    std::set<std::string> kernel = kernelFiles();
    std::set<std::string> names = semaphores();

    bool operator==(const Machine& other) const
    {
        return mounts == other.mounts && nodes == other.nodes && kernel == other.kernel &&
               names == other.names;
    }
};

// ---- The set, seen from the machine ----

std::vector<std::string> taggedProcesses()
{
    const std::string tag = std::string(kTagName) + "=" + std::to_string(getpid());
    std::vector<std::string> processes;
    std::error_code error;
    for (const fs::directory_entry& entry : fs::directory_iterator("/proc", error)) {
        if (common::readWhole(entry.path() / "environ").find(tag) != std::string::npos) {
            processes.push_back(entry.path());
        }
    }
    return processes;
}

// Whether a loop device of this machine has that file, which is told as the set sees it: its name is unique.
bool isLoopImage(const std::string& file)
{
    std::error_code error;
    for (const fs::directory_entry& entry : fs::directory_iterator("/sys/block", error)) {
        if (common::readWhole(entry.path() / "loop/backing_file").find(file) != std::string::npos) {
            return true;
        }
    }
    return false;
}

class Outside : public ServiceTest
{
protected:
    void SetUp() override
    {
        ServiceTest::SetUp();
        setenv(kTagName, std::to_string(getpid()).c_str(), 1);
    }
    void TearDown() override
    {
        unsetenv(kTagName);
        ServiceTest::TearDown();
    }

    static bool becomes(const std::function<bool()>& isSo)
    {
        const auto end = std::chrono::steady_clock::now() + kPatience;
        while (!isSo()) {
            if (std::chrono::steady_clock::now() > end) {
                return false;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        }
        return true;
    }

    // Other programs of the machine may do something meanwhile that is over before long.
    void expectUnchanged(const std::string& when)
    {
        if (becomes([&] { return Machine() == before_; })) {
            return;
        }
        const Machine now;
        EXPECT_EQ(now.mounts, before_.mounts) << when;
        EXPECT_EQ(now.nodes, before_.nodes) << when;
        EXPECT_EQ(now.kernel, before_.kernel) << when;
        EXPECT_EQ(now.names, before_.names) << when;
    }

    // Nothing of the set is left.
    void expectGone()
    {
        EXPECT_TRUE(becomes([] { return taggedProcesses().empty(); }))
            << testing::PrintToString(taggedProcesses());
        expectUnchanged("after the set");
    }

    Machine before_;
};

TEST_F(Outside, NothingChangesOverAWholeStory)
{
    const std::string module = "outside" + std::to_string(getpid());
    const std::string image = "/emp" + module + ".img";
    installPending(module);
    tv.installExample("tuner");
    tv.deliverFile("empTuner", Television::examplePackage("empTuner", "1.1"));
    tv.switchOnWhole();
    tv.waitForState(5);
    const std::vector<std::string> processes = taggedProcesses();
    EXPECT_GE(processes.size(), 6U); // leader, PID 1, bus, two services, daemon: else nothing is proven
    for (const std::string& process : processes) {
        EXPECT_EQ(common::readWhole(process + "/cgroup"), common::readWhole("/proc/self/cgroup")) << process;
    }
    EXPECT_TRUE(isLoopImage(image));
    expectUnchanged("with mounted packages");

    goToStandby();
    tv.waitForText("service finalize");
    EXPECT_TRUE(wasWritten(module));
    EXPECT_EQ(tv.activeVersion("tuner"), "1.1");
    tv.platform().reboot(0);
    tv.waitForText("service initialize", 2);
    tv.waitForText("service finalize", 2);
    expectUnchanged("after a reboot");
    tv.reconnect();
    tv.platform().powerOff(0);
    EXPECT_EQ(tv.waitForEnd(), 0);
    EXPECT_FALSE(isLoopImage(image));
    expectGone();
}

// What an update script may get wrong in the set must not be the machine's trouble.
TEST_F(Outside, TheSetsRootChangesNoDeviceOfTheMachine)
{
    tv.switchOn();
    const Output changed =
        tv.execute({"sh", "-c",
                    "for name in full zero random urandom tty fuse; do"
                    " test -e /dev/$name || continue;"
                    " chmod 0640 /dev/$name && chown 900 /dev/$name && touch -d 2001-01-01 /dev/$name;"
                    " done; stat -c '%a %u' /dev/full; rm /dev/zero; mkfifo /dev/zero"});
    EXPECT_EQ(changed.text, "640 900\n");
    expectUnchanged("after changes of the set's nodes");
    const Output used = tv.execute(
        {"sh", "-c", "echo text >/dev/null && head -c 3 /dev/urandom | wc -c && ! echo >/dev/full"});
    EXPECT_EQ(used.status, 0) << used.text;
    tv.switchOff();
    expectGone();
}

TEST_F(Outside, TheSetsRootReachesNoSwitchOfTheMachine)
{
    tv.switchOn();
    for (const char* path :
         {"/proc/sysrq-trigger", "/proc/diskstats", "/proc/driver", "/proc/sys/kernel/hostname",
          "/proc/sys/vm/overcommit_memory", "/sys/kernel/mm/transparent_hugepage/enabled"}) {
        if (!fs::exists(path)) {
            continue;
        }
        EXPECT_NE(tv.execute({"chmod", "0600", path}).status, 0) << path;
        EXPECT_NE(tv.execute({"sh", "-c", "exec 3>" + std::string(path)}).status, 0)
            << path; // nothing is written
    }
    tv.switchOff();
    expectGone();
}

} // namespace
} // namespace service
