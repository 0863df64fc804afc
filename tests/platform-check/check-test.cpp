// How tarnwick-platform-check is called, what it says, and what it leaves behind: on the platform of a
// virtual set, and on the same with one fault. What it finds of the platforms of the corpus is in
// tests/platform/.
#include <csignal>
#include <fstream>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <json/json.h>
#include <sstream>
#include <sys/stat.h>

#include "common/files/whole-file.h"
#include "tests/support/run-program.h"
#include "tests/support/temporary-directory.h"

namespace
{

using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;

class PlatformCheck : public testing::Test
{
protected:
    Outcome check(const std::vector<std::string>& arguments)
    {
        std::vector<std::string> line = {
            VSET, "run", "--temporary", "-b", BUILD, "-b", directory.path(), "--", PLATFORM_CHECK};
        line.insert(line.end(), arguments.begin(), arguments.end());
        return runProgram(line, directory.path());
    }
    // The numbers that are found with the fault, and what was seen of the first.
    std::vector<std::string> found(const std::string& fault, const std::vector<std::string>& trials)
    {
        std::vector<std::string> arguments = {"--json", "--preload", FAULTS + fault + ".so"};
        for (const std::string& trial : trials) {
            arguments.insert(arguments.end(), {"--trial", trial});
        }
        const Outcome outcome = check(arguments);
        EXPECT_EQ(outcome.status, 1) << outcome.err << outcome.out;
        Json::Value root;
        std::istringstream(outcome.out) >> root;
        std::vector<std::string> numbers;
        for (const Json::Value& finding : root["findings"]) {
            numbers.push_back(finding["id"].asString());
        }
        detail = root["findings"].empty() ? "" : root["findings"][0]["detail"].asString();
        return numbers;
    }

    TemporaryDirectory directory;
    std::string detail;
};

TEST_F(PlatformCheck, ThePlatformOfAVirtualSetIsSound)
{
    const Outcome outcome = check({"--junit", directory / "report.xml"});
    EXPECT_EQ(outcome.status, 0) << outcome.out << outcome.err;
    EXPECT_THAT(outcome.out, AllOf(HasSubstr("libtarnwick-platform.so.1\n"),
                                   HasSubstr("the platform: sound, nothing was found.\n")));
    const std::string report = common::readWhole(directory / "report.xml");
    EXPECT_THAT(report,
                AllOf(HasSubstr("<testsuite name=\"tarnwick-platform-check\""), HasSubstr(" failures=\"0\""),
                      HasSubstr("name=\"Mounts\""), HasSubstr("name=\"Changes of settings\"")));
}

struct Fault {
    const char* name;
    const char* trial;
    std::vector<std::string> numbers;
    const char* seen;
};

TEST_F(PlatformCheck, EachFaultIsFoundForItsOwnReason)
{
    const Fault faults[] = {
        {"crash", "power-state", {"P103"}, "pwrctl_get_state: SIGABRT"},
        {"hang", "flags-shared", {"P105"}, "FlagpostIsDone"},
        {"exit", "property", {"P104"}, "sysprop_get_value_string: status 0"},
        {"throw", "power-locks", {"P120", "P306"}, "pwrctl_lock_state: no connection"},
        {"shared-key",
         "settings",
         {"P204"},
         "11 was written to memory/ep_firmware_update_app/fw_update_status, 13 was read"},
        {"inside", "notifications", {"P210"}, ""},
        {"leak", "again-flags", {"P109"}, "Flags, again and again: "},
        {"descriptors", "again-power", {"P107"}, "Power state and locks, again and again: "},
        {"short-log", "platform-log", {"P603"}, "the end of a record of 6000 characters"},
        {"wrong-errno", "platform-log", {"P604"}, "a record with \"%m\" and errno EXDEV"},
    };
    for (const Fault& fault : faults) {
        const std::vector<std::string> numbers = found(fault.name, {fault.trial});
        EXPECT_THAT(numbers, testing::IsSupersetOf(fault.numbers)) << fault.name;
        EXPECT_THAT(detail, HasSubstr(fault.seen)) << fault.name;
    }
}

TEST_F(PlatformCheck, WrongUseIsToldFromFailure)
{
    const std::pair<std::vector<std::string>, const char*> cases[] = {
        {{"--trial", "everything"}, "there is no trial \"everything\": load, bus, "},
        {{"--image", "/nowhere.img"}, "/nowhere.img is no file that can be read"},
        {{"--image", "/etc/passwd"}, "/etc/passwd is no squashfs image"},
        {{"--directory", "/nowhere"}, "/nowhere is no directory"},
        {{"--preload", "/nowhere.so"}, "/nowhere.so is no file that can be read"},
        {{"--preload", "/etc/passwd", "--trial", "flags"},
         "/etc/passwd cannot be preloaded: invalid ELF header"},
        {{"--preload", directory / "a b.so"}, "takes no blank nor colon in a path"},
        {{"--with-standby", "0"}, "--with-standby"},
    };
    std::ofstream(directory / "a b.so") << "x";
    for (const auto& [arguments, text] : cases) {
        const Outcome outcome = check(arguments);
        std::istringstream err(outcome.err);
        for (std::string line; std::getline(err, line);) {
            EXPECT_LT(line.size(), 120U) << line;
            EXPECT_THAT(line, Not(testing::EndsWith(" ")));
        }
        EXPECT_EQ(outcome.status, 2) << arguments[1];
        EXPECT_THAT(outcome.err, AllOf(testing::StartsWith("tarnwick-platform-check: "), HasSubstr(text)));
        EXPECT_EQ(outcome.out, "");
    }
}

TEST_F(PlatformCheck, AReportThatCannotBeWrittenIsToldBeforeTheWorkOrBesideWhatWasFound)
{
    const Outcome before = check({"--junit", "/nowhere/report.xml"});
    EXPECT_EQ(before.status, 1);
    EXPECT_THAT(before.err, HasSubstr("/nowhere/report.xml cannot be written (No such file or directory)"));
    EXPECT_EQ(before.out, "");
    ASSERT_EQ(mkfifo((directory / "pipe").c_str(), 0600), 0);
    const Outcome after = check({"--trial", "load", "--junit", directory / "pipe"});
    EXPECT_EQ(after.status, 1);
    EXPECT_THAT(after.err, HasSubstr("/pipe cannot be written (nobody reads it)"));
    EXPECT_THAT(after.out, HasSubstr("the platform: sound"));
}

TEST_F(PlatformCheck, ADirectoryThatIsNotThereIsNamed)
{
    const Outcome outcome =
        runProgram({"env", "TMPDIR=/nowhere", PLATFORM_CHECK, "--trial", "load"}, directory.path());
    EXPECT_EQ(outcome.status, 1);
    EXPECT_THAT(outcome.err, HasSubstr("in /nowhere: No such file or directory (set TMPDIR to one that"));
}

// Memory that is shared through a file of a full disk ends by SIGBUS whoever writes to it.
TEST_F(PlatformCheck, AFullDiskIsNamedAndNothingIsLeftThere)
{
    const std::string script = "mkdir full; mount -t tmpfs -o size=64k full full; "
                               "dd if=/dev/zero of=full/fill bs=1k 2>/dev/null; "
                               "TMPDIR=full " PLATFORM_CHECK " --trial load; echo ended $?; ls full";
    const Outcome outcome =
        runProgram({"unshare", "--map-root-user", "--mount", "sh", "-c", script}, directory.path());
    EXPECT_EQ(outcome.out, "ended 1\nfill\n") << outcome.err;
    EXPECT_THAT(outcome.err, HasSubstr("nothing can be written in full: No space left on device"));
}

// It is the daemon's own keys that a trial writes, and the daemon's directory where the image is.
TEST_F(PlatformCheck, AnInterruptedCheckPutsBackWhatItHasChanged)
{
    for (const std::string signal : {"INT", "TERM", "HUP"}) {
        const std::string script =
            "keys() { gdbus call --system --dest org.pellor.platform --object-path /org/pellor/platform "
            "--method org.pellor.platform.Control.Snapshot | grep -o '\"value\":[0-9-]*' | grep -v ':0$'; }; "
            "values() { keys; ls /opt/usr/apps/appbinarymanager; }; values >/var/before; keys >/var/keys; "
            "env --default-signal " PLATFORM_CHECK " --trial settings-shared & "
            "while kill -0 $! 2>/dev/null && keys | cmp -s - /var/keys; do :; done; "
            "kill -" +
            signal + " $!; wait $!; echo ended $?; values | diff /var/before - && echo as before";
        const Outcome outcome =
            runProgram({VSET, "run", "--temporary", "-b", BUILD, "--", "sh", "-c", script}, directory.path());
        const int number = signal == "INT" ? SIGINT : signal == "TERM" ? SIGTERM : SIGHUP;
        EXPECT_EQ(outcome.out, "ended " + std::to_string(128 + number) + "\nas before\n") << outcome.err;
        EXPECT_THAT(outcome.err, HasSubstr("tarnwick-platform-check: interrupted"));
    }
}

// What follows from it alone is no fault of its own.
TEST_F(PlatformCheck, WithoutABusNothingElseIsBlamed)
{
    const Outcome outcome =
        runProgram({"env", "DBUS_SYSTEM_BUS_ADDRESS=unix:path=/nowhere", PLATFORM_CHECK}, directory.path());
    EXPECT_EQ(outcome.status, 1) << outcome.err;
    EXPECT_THAT(outcome.out, AllOf(testing::StartsWith("P701 error: there is no system bus\n"),
                                   HasSubstr("Note: nothing else was tried, as the daemon does not run "
                                             "without the bus"),
                                   HasSubstr("the platform: 1 error, 0 warnings.\n")));
}

TEST_F(PlatformCheck, WhatFailsAloneIsNotBlamedOnOtherCalls)
{
    EXPECT_THAT(found("no-lock", {"power-locks", "power-together"}),
                AllOf(testing::Contains("P306"), Not(testing::Contains("P119"))));
}

TEST_F(PlatformCheck, DocumentIsTheListOfFindings)
{
    const Outcome outcome = runProgram({PLATFORM_CHECK, "--list-findings"}, directory.path());
    EXPECT_EQ(outcome.status, 0);
    EXPECT_TRUE(outcome.out == common::readWhole(FINDINGS_DOCUMENT))
        << "write it anew: tarnwick-platform-check --list-findings > docs/platform-findings.md";
}

} // namespace
