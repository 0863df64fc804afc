// Each platform of the corpus, looked at in a process of its own: this program again, with the platform
// preloaded.
//
//   proof-test [--gtest_...]    in a virtual set, as its root
//   proof-test NAME             the proof of that platform, on whatever platform this process has
#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <gtest/gtest.h>
#include <set>

#include "flagpost.h"
#include "norlog.h"
#include "pralis.h"
#include "ps_mount.h"
#include "pwrctl.h"
#include "tests/platform/proof.h"
#include "tests/support/run-program.h"

namespace proof
{

static void PrintTo(const Proof& what, std::ostream* stream)
{
    *stream << what.platform;
}

} // namespace proof

namespace
{

using proof::Proof;

std::vector<Proof> allProofs()
{
    std::vector<Proof> all;
    for (const auto* room : {&proof::settingsProofs(), &proof::powerProofs(), &proof::mountProofs(),
                             &proof::logProofs(), &proof::serviceProofs(), &proof::processProofs()}) {
        all.insert(all.end(), room->begin(), room->end());
    }
    return all;
}

// `platform` empty: the sound one.
Outcome prove(const Proof& what, const std::string& platform)
{
    const std::string limit = what.broken == proof::kHangs && !platform.empty() ? "3" : "15";
    std::vector<std::string> command = {"timeout", "-s", "KILL", limit, "env"};
    if (!platform.empty()) {
        command.push_back("LD_PRELOAD=" PLATFORMS "/" + platform + ".so");
    }
    command.insert(command.end(), {std::filesystem::read_symlink("/proc/self/exe"), what.platform});
    return runProgram(command);
}

std::string nameOf(const std::string& platform)
{
    std::string name = platform;
    std::replace(name.begin(), name.end(), '-', '_');
    return name;
}

// ---- Broken ----

class Broken : public testing::TestWithParam<Proof>
{
};

TEST_P(Broken, BreaksItsRuleWhichTheSoundOneKeeps)
{
    const Outcome sound = prove(GetParam(), "");
    EXPECT_EQ(sound.status, proof::kKept) << sound.out << sound.err;
    const Outcome broken = prove(GetParam(), GetParam().platform);
    EXPECT_EQ(broken.status, GetParam().broken) << broken.out << broken.err;
}

INSTANTIATE_TEST_SUITE_P(, Broken, testing::ValuesIn(allProofs()),
                         [](const auto& tried) { return nameOf(tried.param.platform); });

// ---- Unusual ----

struct Right {
    const char* platform;
    const char* rules; // the beginning of the names of those that it may have something to do with
};

class Unusual : public testing::TestWithParam<Right>
{
};

TEST_P(Unusual, KeepsItsRules)
{
    int kept = 0;
    for (const Proof& what : allProofs()) {
        if (std::string(what.platform).rfind(GetParam().rules, 0) == 0) {
            const Outcome outcome = prove(what, GetParam().platform);
            EXPECT_EQ(outcome.status, proof::kKept) << what.platform << ": " << outcome.out << outcome.err;
            ++kept;
        }
    }
    EXPECT_GT(kept, 0);
}

constexpr Right kUnusual[] = {
    {"settings-slow", "settings-n"},
    {"settings-told-later", "settings"},
    {"settings-unknown-is-zero", "settings-f"},
    {"property-cached", "property"},
    {"property-empty", "property"},
    {"threads-once", "settings-d"},
    {"descriptors-pooled", "settings-d"},
    {"flags-counted", "flags"},
    {"flags-need-directory", "flags"},
    {"failures-of-its-own", "m"},
    {"errno-used", "log"},
    {"launch-numbers", "launch"},
    {"mount-slow", "mount-with"},
    {"mount-by-helper", "process-c"},
    {"ends-forgiven", "power-un"},
    {"package-in-turn", "package"},
    {"package-unknown-refused", "package"},
    {"package-slow", "package-n"},
    {"bus-when-loaded", "process-d"},
    {"trace-ring", "trace"},
    {"trace-small-ring", "trace"},
    {"trace-in-blocks", "trace"},
    {"log-in-pieces", "log-errno"},
    {"log-by-ring", "log-errno"},
};

INSTANTIATE_TEST_SUITE_P(, Unusual, testing::ValuesIn(kUnusual),
                         [](const auto& tried) { return nameOf(tried.param.platform); });

// ---- All of them ----

std::set<std::string> filesOf(const char* directory)
{
    std::set<std::string> names;
    for (const auto& file : std::filesystem::directory_iterator(std::string(SOURCES "/") + directory)) {
        names.insert(file.path().stem());
    }
    return names;
}

TEST(Names, EveryPlatformHasItsProof)
{
    std::set<std::string> proven;
    for (const Proof& what : allProofs()) {
        proven.insert(what.platform);
    }
    EXPECT_EQ(proven, filesOf("broken"));
    std::set<std::string> right;
    for (const Right& what : kUnusual) {
        right.insert(what.platform);
    }
    EXPECT_EQ(right, filesOf("unusual"));
}

// ---- In the process with the platform ----

int look(const std::string& name)
{
    for (const Proof& what : allProofs()) {
        if (what.platform == name) {
            const std::string seen = what.look();
            puts(seen.c_str());
            return seen.empty() ? proof::kKept : proof::kBroken;
        }
    }
    return 2;
}

} // namespace

int main(int argc, char** argv)
{
    proof::isPipeSignalIgnored =
        signal(SIGPIPE, SIG_DFL) == SIG_IGN; // which no process inherits from this one
    if (argc == 3 && std::string(argv[1]) == "--raise") {
        return FlagpostEventDone(argv[2]) == 0 ? 0 : 1;
    }
    if (argc == 3 && std::string(argv[1]) == "--write") {
        return pralis_set_int(argv[2], getppid()) == 0 ? 0 : 1;
    }
    if (argc == 3 && (std::string(argv[1]) == "--log" || std::string(argv[1]) == "--warn")) {
        __norlog_print(2, std::string(argv[1]) == "--log" ? 6 : 5, "PROOF", "%s", argv[2]);
        quick_exit(0);
    }
    if (argc == 3 && std::string(argv[1]) == "--reboot") {
        pwrctl_request_reboot(0x2000000c);
        quick_exit(0);
    }
    if (argc == 3 && std::string(argv[1]) == "--mount") {
        int result = 0;
        const auto length = static_cast<int>(std::string(argv[2]).size() + 1);
        return PS_Mount(argv[2], length, 0, &result) == 0 && result == 0 ? 0 : 1;
    }
    if (argc == 2 && argv[1][0] != '-') {
        const int status = look(argv[1]);
        fflush(stdout);
        _exit(status); // nothing of the platform's is asked for any more
    }
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
