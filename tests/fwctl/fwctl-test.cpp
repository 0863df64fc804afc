// fwctl as a technician types it, on a virtual set.
#include <cstdlib>
#include <future>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <iostream>
#include <json/json.h>
#include <openssl/evp.h>
#include <regex>
#include <sstream>
#include <sys/stat.h>
#include <vector>

#include "common/files/whole-file.h"
#include "tests/fwctl/virtual-set.h"
#include "tests/support/temporary-directory.h"

namespace fs = std::filesystem;

namespace
{
using testing::AllOf;
using testing::ContainsRegex;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;

constexpr const char* kPackage = "/opt/usr/apps/appbinarymanager/empTuner.img";

Json::Value parse(const std::string& text)
{
    std::istringstream in(text);
    Json::Value value;
    std::string errors;
    EXPECT_TRUE(Json::parseFromStream(Json::CharReaderBuilder(), in, &value, &errors)) << errors << text;
    return value;
}

Json::Value findModule(const Json::Value& modules, const std::string& name)
{
    for (const Json::Value& module : modules) {
        if (module["module"] == name) {
            return module;
        }
    }
    ADD_FAILURE() << "no module " << name;
    return {};
}

class Fwctl : public testing::Test
{
protected:
    Json::Value list() { return parse(set.run("fwctl list --json").out); }

    VirtualSet set;
};

// ---- list ----

TEST_F(Fwctl, ListShowsInstalledAndOfferedVersions)
{
    const Json::Value modules = list();
    ASSERT_EQ(modules.size(), 3U);
    const Json::Value tuner = findModule(modules, "tuner");
    EXPECT_EQ(tuner["kind"], "package");
    EXPECT_EQ(tuner["installed"], "1.0");
    EXPECT_EQ(tuner["pending"], true);
    EXPECT_EQ(tuner["pending_source"], "package");
    EXPECT_EQ(tuner["sources"][1]["offered"], "1.1");
    const Json::Value panel = findModule(modules, "panel");
    EXPECT_EQ(panel["pending_source"], "system");
    EXPECT_EQ(panel["ui_use"], "select");
    EXPECT_EQ(findModule(modules, "EXT-soundbar")["kind"], "external");
}

TEST_F(Fwctl, ListIsSortedByName)
{
    std::string names;
    for (const Json::Value& module : list()) {
        names += module["module"].asString() + " ";
    }
    EXPECT_EQ(names, "EXT-soundbar panel tuner ");
}

TEST_F(Fwctl, ListSaysWhereAndHowAsATable)
{
    const Outcome outcome = set.run("fwctl list");
    EXPECT_EQ(outcome.status, 0);
    EXPECT_THAT(outcome.out,
                ContainsRegex("tuner +package +1.0 +1.1 +- +at standby +/opt/usr/apps/.*empTuner.img"));
    EXPECT_THAT(outcome.out,
                ContainsRegex("panel +package +1.0 +- +1.1 +on the screen +/lib/firmware/ext/Panel"));
}

// ---- No side effects ----

// The lines of a system-call trace that change something.
std::vector<std::string> changesIn(const std::string& trace)
{
    const std::regex change(
        "\\b(mount|umount2|unlink|unlinkat|mkdir|mkdirat|rmdir|rename|renameat|renameat2|link|"
        "linkat|symlink|symlinkat|truncate|ftruncate|creat|mknod|mknodat|chmod|fchmod|"
        "fchmodat|chown|fchown|fchownat|utimensat|setxattr)\\(|"
        "open(at)?\\(.*(O_WRONLY|O_RDWR|O_CREAT)");
    std::vector<std::string> found;
    std::istringstream in(trace);
    for (std::string line; std::getline(in, line);) {
        if (std::regex_search(line, change)) {
            found.push_back(line);
        }
    }
    return found;
}

TEST_F(Fwctl, ListAndWhyChangeNothingWhileAnUpdateRuns)
{
    const Outcome outcome =
        set.run(moments("fwctl update tuner & comes writes tuner; holds $!; "
                        "strace -f -qq -e trace=file,desc,%process -o /var/list fwctl list && "
                        "strace -f -qq -e trace=file,desc,%process -o /var/why fwctl why panel; "
                        "echo traced $?; goes_on $!; wait $!"));
    EXPECT_THAT(outcome.out, HasSubstr("traced 0\n")) << outcome.err;
    for (const char* trace : {"/var/list", "/var/why"}) {
        const std::string calls = set.read(trace);
        EXPECT_THAT(calls, HasSubstr("panel.so")) << "the trace must show what was done";
        EXPECT_THAT(changesIn(calls), IsEmpty());
    }
    EXPECT_THAT(outcome.out, HasSubstr("tuner: updated, 1.1 is installed"));
}

TEST_F(Fwctl, ListAndWhyReadAPackageWithoutMountingOrLogging)
{
    const Outcome outcome =
        set.run("fwctl list; fwctl why tuner; cat /var/log/platform.log; grep /dev/loop /proc/mounts");
    EXPECT_THAT(outcome.out, HasSubstr("the library calls 1.1 newer"));
    EXPECT_THAT(outcome.out, Not(HasSubstr("FWUPDATE")));
    EXPECT_THAT(outcome.out, Not(HasSubstr("/dev/loop")));
}

// ---- why ----

TEST_F(Fwctl, WhySaysHowAPendingModuleWillBeUpdated)
{
    const Outcome outcome = set.run("fwctl why tuner");
    EXPECT_EQ(outcome.status, 0);
    EXPECT_THAT(outcome.out, HasSubstr("what will happen: unattended"));
    EXPECT_THAT(outcome.out, HasSubstr("but: the daemon does not run"));
}

TEST_F(Fwctl, WhyNamesTheTestThatStoppedTheUpdate)
{
    const std::string information = "/usr/lib/firmware/ext/Panel/info.json";
    const std::pair<const char*, const char*> kCases[] = {
        {"no JSON", "✗ information: Error: json loadInformation fail"},
        {R"({"version":"1.1","crc":"x"})", "✗ information: Error: json crc read fail"},
        {R"({"version":"1.1","crc":1})", "✗ screen: ui_use is \"none\""},
        {R"({"version":"1.1","crc":1,"ui_use":"force"})", "✗ checksum: the image has "},
    };
    for (const auto& [content, expected] : kCases) {
        set.write(information, content);
        const Outcome outcome = set.run("fwctl why panel");
        EXPECT_EQ(outcome.status, 3);
        EXPECT_THAT(outcome.out, HasSubstr(expected));
    }
}

TEST_F(Fwctl, WhyTellsADamagedPackage)
{
    set.write(kPackage, std::string(5000, 'x'));
    const Outcome outcome = set.run("fwctl why tuner");
    EXPECT_EQ(outcome.status, 3);
    EXPECT_THAT(outcome.out, HasSubstr("is no squashfs image"));
}

TEST_F(Fwctl, WhySurvivesAPackageCutOffAnywhere)
{
    const std::string whole = set.read(kPackage);
    std::string script;
    // The last bytes only fill the image up to a whole block: it can be read without them.
    for (std::size_t size = 0; size + 4096 < whole.size(); size += whole.size() / 7) {
        const std::string name = "/var/cut" + std::to_string(size);
        set.write(name, whole.substr(0, size));
        script += "cp " + name + " " + kPackage + "; fwctl why tuner >/dev/null; echo status $?; ";
    }
    const std::string out = set.run(script).out;
    EXPECT_THAT(out, HasSubstr("status 3"));
    EXPECT_THAT(out, Not(HasSubstr("status 1")));
    EXPECT_THAT(out, Not(HasSubstr("status 0")));
}

// ---- The retold check and the daemon's own ----

// What "list" (retold, without mounting) and "check" (the daemon's own code) say of the same set.
struct TwoAnswers {
    Json::Value retold;
    Json::Value own;
};

TwoAnswers askBoth(VirtualSet& set, const std::string& before)
{
    std::istringstream out(set.run(before + "fwctl list --json; fwctl check --json").out);
    std::string retold;
    std::string own;
    std::getline(out, retold);
    std::getline(out, own);
    return {parse(retold), parse(own)};
}

void expectSame(const TwoAnswers& answers, const std::string& what)
{
    ASSERT_EQ(answers.retold.size(), answers.own.size()) << what;
    for (const Json::Value& retold : answers.retold) {
        const Json::Value own = findModule(answers.own, retold["module"].asString());
        EXPECT_EQ(retold["pending"], own["pending"]) << what << ": " << retold["module"];
        for (const Json::Value& source : retold["sources"]) {
            const Json::Value& checked = own[source["source"].asString()];
            EXPECT_EQ(source["newer"].asBool(), checked["newer"].asBool())
                << what << ": " << source << checked;
            const int verdict = source["verdict"].isNull() ? -1 : source["verdict"].asInt();
            EXPECT_EQ(verdict, checked["verdict"].asInt()) << what << ": " << source;
        }
    }
}

TEST_F(Fwctl, TheRetoldCheckAgreesWithTheDaemonsOwn)
{
    const std::string panel = "/usr/lib/firmware/ext/Panel/";
    const Json::Value good = parse(set.read(panel + "info.json"));
    const auto with = [&](const char* key, const Json::Value& value) {
        Json::Value changed = good;
        changed[key] = value;
        return changed.toStyledString();
    };
    Json::Value withoutCrc = good;
    withoutCrc.removeMember("crc");
    const std::pair<const char*, std::string> kInformation[] = {
        {"as it is", good.toStyledString()},
        {"no JSON", "no JSON"},
        {"nothing", ""},
        {"an array", "[]"},
        {"nested too deep", std::string(2000, '[')},
        {"more than a mebibyte", good.toStyledString() + std::string(1 << 20, ' ')},
        {"another checksum", with("crc", 1)},
        {"no checksum", withoutCrc.toStyledString()},
        {"a checksum in words", with("crc", "x")},
        {"a negative time", with("expected_time", -1)},
        {"an older version", with("version", "0.9")},
        {"the same version", with("version", "1.0")},
        {"a version that is a number", with("version", 1.1)},
        {"an empty version", with("version", "")},
        {"not for the screen", with("ui_use", "none")},
        {"for the screen in capitals", with("ui_use", "Force")},
        {"a screen that is a number", with("ui_use", 1)},
    };
    for (const auto& [what, text] : kInformation) {
        set.write(panel + "info.json", text);
        set.write("/var/package/info.json", text); // and the same as the tuner's package
        set.write("/var/package/Tuner.bin", set.read(panel + "Panel.bin"));
        expectSame(askBoth(set, std::string("mksquashfs /var/package ") + kPackage +
                                    " -noappend -all-root -quiet -no-progress >/dev/null; "),
                   what);
    }
    const std::pair<const char*, const char*> kScenes[] = {
        {"a package without an image", "rm /var/package/Tuner.bin; mksquashfs /var/package PACKAGE -noappend "
                                       "-all-root -quiet -no-progress >/dev/null; "},
        {"no package", "rm -f PACKAGE; "},
        {"no file system", "echo x > PACKAGE; "},
        {"no mount directory to write", "cp /var/kept.img PACKAGE; chown root:root EMPS; chmod 755 EMPS; "},
        {"a file for a mount point", "cp /var/kept.img PACKAGE; touch EMPS/empTuner; "},
        {"a pipe for a package", "rm -f PACKAGE; mkfifo PACKAGE; "},
    };
    set.write("/var/kept.img", common::readWhole(fs::path(EXAMPLES) / "images/1.1/empTuner.img"));
    for (const auto& [what, script] : kScenes) {
        std::string before = std::regex_replace(script, std::regex("PACKAGE"), kPackage);
        before = std::regex_replace(before, std::regex("EMPS"), "/opt/usr/apps/appbinarymanager/emps");
        expectSame(askBoth(set, "rm -rf /opt/usr/apps/appbinarymanager/emps/empTuner; " + before), what);
    }
}

// ---- check and update ----

TEST_F(Fwctl, CheckActsAsTheDaemonDoes)
{
    const Outcome outcome = set.run("fwctl check; status=$?; grep empTuner /proc/mounts; exit $status");
    EXPECT_EQ(outcome.status, 0);
    EXPECT_THAT(outcome.out, HasSubstr("tuner: pending"));
    EXPECT_THAT(outcome.out, HasSubstr("/emps/empTuner squashfs ro")) << "a check leaves the package mounted";
}

TEST_F(Fwctl, UpdateWritesTheHardwareAndShowsProgress)
{
    const Outcome outcome = set.run("fwctl update tuner");
    EXPECT_EQ(outcome.status, 0) << outcome.err;
    EXPECT_EQ(outcome.out, "tuner: updated, 1.1 is installed\n");
    EXPECT_THAT(outcome.err, ContainsRegex("tuner \\[#+\\.+\\] [1-9]0 %"));
    EXPECT_EQ(findModule(list(), "tuner")["installed"], "1.1");
    EXPECT_FALSE(fs::exists(set.outside(kPackage))) << "an installed package is removed";
}

TEST_F(Fwctl, LateUpdateIsWaitedForAndHasAStatusOfItsOwn)
{
    const fs::path tools = EXAMPLES;
    const TemporaryDirectory directory;
    const std::string image = directory / "Tuner.bin";
    const std::string information = directory / "info.json";
    const std::string largest = "2097152"; // takes five seconds, and is expected to take one
    ASSERT_EQ(runProgram({tools / "make-image", "tuner", "1.1", largest, image}).status, 0);
    ASSERT_EQ(runProgram({tools / "make-information", image, "1.1", "1", "none", information}).status, 0);
    set.write("/var/package/info.json", common::readWhole(information));
    set.write("/var/package/Tuner.bin", common::readWhole(image));
    const Outcome outcome = set.run(std::string("mksquashfs /var/package ") + kPackage +
                                    " -noappend -all-root -quiet -no-progress && fwctl update tuner --json");
    EXPECT_EQ(outcome.status, 6) << outcome.err;
    EXPECT_THAT(outcome.err, HasSubstr("takes longer than expected and is still being written"));
    const Json::Value tuner = findModule(parse(outcome.out), "tuner");
    EXPECT_EQ(tuner["result"], "updated");
    EXPECT_EQ(tuner["late"], true);
    EXPECT_EQ(findModule(list(), "tuner")["installed"], "1.1");
}

TEST_F(Fwctl, UpdateWithoutAnImageHasNothingToDo)
{
    fs::remove(set.outside(kPackage));
    const Outcome outcome = set.run("fwctl update tuner");
    EXPECT_EQ(outcome.status, 3);
    EXPECT_THAT(outcome.out, HasSubstr("there is no package"));
}

TEST_F(Fwctl, UpdateSaysWhatIsMissingInWordsOfItsOwn)
{
    set.addModule("misnamed");
    const Outcome stick = set.run("fwctl update tuner --source usb");
    EXPECT_EQ(stick.status, 1);
    EXPECT_THAT(stick.err, HasSubstr("no USB stick is mounted"));
    const Outcome misnamed = set.run("fwctl update misnamed");
    EXPECT_EQ(misnamed.status, 1);
    EXPECT_THAT(misnamed.err, HasSubstr("the identifier \"Misnamed\" of misnamed is refused"));
}

TEST_F(Fwctl, UpdateAllTakesEveryPendingPackageAndLeavesTheRestToTheScreen)
{
    const Outcome outcome = set.run("fwctl update --all --json; echo $?; fwctl update --all; echo $?");
    const Json::Value modules = parse(outcome.out.substr(0, outcome.out.find('\n')));
    EXPECT_EQ(findModule(modules, "tuner")["result"], "updated");
    EXPECT_EQ(findModule(modules, "panel")["result"], "no-image");
    EXPECT_THAT(outcome.out,
                EndsWith("\n0\npanel: has no package; its image in the system image is offered on the "
                         "screen; 1.0 is installed\n3\n"))
        << outcome.err;
}

// The record of the turn is memory that is shared through a file: a page that is not there ends the process.
TEST_F(Fwctl, AFullDiskForTheRecordOfTheTurnIsNamed)
{
    const Outcome outcome = set.run("mount -t tmpfs -o size=8k full /dev/shm; "
                                    "head -c 8192 /dev/zero >/dev/shm/fill; fwctl update tuner; ls /dev/shm");
    EXPECT_EQ(outcome.out, "fill\n");
    EXPECT_THAT(outcome.err, HasSubstr("fwctl.SEM_UPDATE_CONTROL: No space left on device: make room in"));
}

TEST_F(Fwctl, WhyNamesTheValueThatTheDaemonCannotTake)
{
    const Outcome outcome = set.run(
        "mount -t tmpfs none /usr/lib/firmware/ext/Panel; cd /usr/lib/firmware/ext/Panel; : >Panel.bin; "
        "for text in '[]' '{' '{\"version\": [1]}' '{\"crc\": -1}' '{\"expected_time\": 9223372036854775807}'; "
        "do echo \"$text\" >info.json; fwctl why panel | grep -- '->'; done");
    std::vector<std::string> advices;
    std::istringstream out(outcome.out);
    for (std::string line; std::getline(out, line);) {
        if (line.find("information file") != std::string::npos) {
            advices.push_back(line.substr(0, line.find(": correct")));
        }
    }
    EXPECT_THAT(advices, ElementsAre("      -> it is no JSON object", StartsWith("      -> it is no JSON ("),
                                     "      -> \"version\" is no text",
                                     "      -> \"crc\" is no whole number from 0 to 4294967295",
                                     "      -> \"expected_time\" is no whole number from 0 to 4294967295"))
        << outcome.out << outcome.err;
}

TEST_F(Fwctl, ExternalModuleIsUpdatedByItsLibrary)
{
    const Outcome outcome = set.run("fwctl update EXT-soundbar");
    EXPECT_EQ(outcome.status, 0) << outcome.err;
    EXPECT_EQ(outcome.out, "EXT-soundbar: updated, 1.1 is installed\n");
}

TEST_F(Fwctl, SecondUpdateNamesTheProcessThatItWaitsFor)
{
    const Outcome outcome = set.run(moments(
        "fwctl update tuner & tuner=$!; comes writes tuner; holds $tuner; fwctl update panel 2>/var/said & "
        "comes grep -q . /var/said; goes_on $tuner; wait $tuner; wait $!; cat /var/said >&2"));
    EXPECT_EQ(outcome.status, 0);
    EXPECT_THAT(outcome.err, ContainsRegex("waiting for fwctl \\(process [0-9]+\\), which is updating"));
    EXPECT_THAT(outcome.out, AllOf(HasSubstr("tuner: updated"), HasSubstr("panel: updated")));
}

TEST_F(Fwctl, InterruptDoesNotCutAnUpdateOff)
{
    const Outcome outcome = set.run(
        moments("env --default-signal=INT fwctl update tuner & comes writes tuner; kill -INT $!; wait $!"));
    EXPECT_EQ(outcome.status, 0);
    EXPECT_THAT(outcome.err, HasSubstr("it must not be interrupted"));
    EXPECT_THAT(outcome.out, HasSubstr("tuner: updated"));
}

TEST_F(Fwctl, UpdateLeavesNothingThatTheDaemonCouldNotUse)
{
    const Outcome outcome = set.run("fwctl update tuner; stat -c %U /dev/shm/sem.SEM_UPDATE_CONTROL");
    EXPECT_THAT(outcome.out, HasSubstr("\nfwupdate\n"));
}

TEST_F(Fwctl, AnotherUserIsToldWhatItTakes)
{
    const Outcome outcome = set.run(
        "touch /dev/shm/sem.SEM_UPDATE_CONTROL; setpriv --reuid platform --clear-groups fwctl update tuner");
    EXPECT_EQ(outcome.status, 1);
    EXPECT_THAT(outcome.err, HasSubstr("needs root or the daemon's user"));
}

// ---- doctor ----

TEST_F(Fwctl, DoctorMendsWhatAKilledUpdateLeavesBehind)
{
    const Outcome outcome =
        set.run(moments("fwctl update tuner & comes writes tuner; kill -9 $! $(writer $!); wait $! ; "
                        "fwctl doctor; echo found $?; "
                        "fwctl update tuner; echo refused $?; "
                        "fwctl doctor --fix; echo mended $?; "
                        "grep emps /proc/mounts; "
                        "fwctl update tuner; echo updated $?"));
    EXPECT_THAT(outcome.out, HasSubstr("empTuner is mounted, and nothing runs that would use it"));
    EXPECT_THAT(outcome.out, HasSubstr("whoever took it has ended: every update waits for ever"));
    EXPECT_THAT(outcome.out, HasSubstr("found 5"));
    EXPECT_THAT(outcome.out, HasSubstr("refused 1"));
    EXPECT_THAT(outcome.out, HasSubstr("mended 0"));
    EXPECT_THAT(outcome.out, Not(HasSubstr("squashfs ro")));
    EXPECT_THAT(outcome.out, HasSubstr("updated 0"));
    EXPECT_THAT(outcome.err, HasSubstr("fwctl doctor --fix"));
}

// Without root another program reads the packages, and it can end.
TEST(FwctlRootless, DoctorUnmountsWhatCannotBeReadAnyMore)
{
    VirtualSet set(true);
    const Outcome outcome = set.run(
        "fwctl check; kill -9 $(pgrep -x squashfuse); fwctl list; fwctl why tuner; echo why $?; fwctl check; "
        "fwctl doctor; echo found $?; fwctl doctor --fix; echo mended $?; "
        "fwctl check >/tmp/check; cd /opt/usr/apps/appbinarymanager/emps/empTuner; pkill -9 -x squashfuse; "
        "fwctl doctor --fix | grep -cx ' *mended'; grep emps /proc/mounts; cd /; fwctl update tuner; echo updated $?");
    EXPECT_THAT(outcome.out, ContainsRegex("\ntuner +package +1[.]0 +- +- +no "));
    EXPECT_THAT(outcome.out,
                HasSubstr("✗ mount: /opt/usr/apps/appbinarymanager/emps/empTuner/ is mounted, but "
                          "cannot be read any more: Transport endpoint is not connected\n"
                          "      -> \"fwctl doctor --fix\" unmounts it\n"));
    EXPECT_THAT(outcome.out,
                AllOf(HasSubstr("why 3\n"), HasSubstr("\ntuner: not pending\n"), HasSubstr("found 5\n")));
    EXPECT_THAT(outcome.out,
                HasSubstr("✓ /opt/usr/apps/appbinarymanager/emps/empTuner is mounted, but cannot "
                          "be read any more (Transport endpoint is not connected)"));
    EXPECT_THAT(outcome.out, HasSubstr("mended 0\n1\ntuner: updated, 1.1 is installed\nupdated 0\n"))
        << outcome.err;
}

TEST_F(Fwctl, AVerdictThatIsNoneIsNamedAsTheReason)
{
    set.addModule("overdone");
    const Outcome outcome = set.run("fwctl update overdone; echo updated $?; fwctl check");
    EXPECT_THAT(outcome.out, HasSubstr("overdone: cannot be updated: the library answers 2147483647, only 1 "
                                       "makes a module pending\nupdated 1\n"));
    EXPECT_THAT(outcome.out, HasSubstr("\n  package: the library answers 2147483647, only 1 makes a module "
                                       "pending\n"));
}

// ---- What may happen to an update ----

TEST_F(Fwctl, AnUpdateWhoseParentIsKilledIsFinishedAndItsTurnGivenBack)
{
    const Outcome outcome = set.run(moments(
        "fwctl update tuner & comes writes tuner; writer=$(writer $!); kill -STOP $writer; kill -9 $!; "
        "{ fwctl update panel; echo next $?; } 2>/var/said & comes grep -q . /var/said; kill -CONT $writer; "
        "wait $!; cat /var/said >&2; fwctl doctor | grep semaphore"));
    EXPECT_THAT(outcome.err, ContainsRegex("waiting for fwctl \\(process [0-9]+\\), which is updating"));
    EXPECT_THAT(outcome.out, HasSubstr("panel: updated, 1.1 is installed\nnext 0\n"));
    EXPECT_THAT(outcome.out, Not(HasSubstr("semaphore")));
    EXPECT_EQ(findModule(list(), "tuner")["installed"], "1.1") << "what was begun is finished";
}

TEST_F(Fwctl, AnUpdateWhoseChildIsKilledHasFailedAndItsTurnIsGivenBack)
{
    const Outcome outcome = set.run(moments("fwctl update tuner & comes writes tuner; kill -9 $(writer $!); "
                                            "wait $!; echo status $?; fwctl update panel; echo next $?"));
    EXPECT_THAT(outcome.out,
                HasSubstr("tuner: failed, 1.0 is installed: the control library was killed in doUpdate\n"
                          "status 1\n"));
    EXPECT_THAT(outcome.out, HasSubstr("next 0\n"));
}

TEST_F(Fwctl, AnUpdateWhoseWatcherIsKilledIsFinished)
{
    const Outcome outcome = set.run(moments("fwctl update tuner & comes writes tuner; kill -9 $(watcher $!); "
                                            "wait $!; echo status $?; fwctl update panel; echo next $?"));
    EXPECT_THAT(outcome.out, HasSubstr("tuner: updated, 1.1 is installed\nstatus 0\n"));
    EXPECT_THAT(outcome.out, HasSubstr("next 0\n"));
}

TEST_F(Fwctl, AnUpdateTellsItsResultBeforeTheSetRebootsThatWaitedForIt)
{
    set.write("/usr/bin/tarnwick", "#!/bin/sh\nsleep 1000\n", 0755);
    set.switchOn();
    for (const char* const update : {"tuner", "--all"}) {
        std::future<tarnwick::Output> told = std::async(
            std::launch::async, [&] { return set.execute({FWCTL_DIRECTORY "/fwctl", "update", update}); });
        set.waitUntil([&] { return set.progress("tuner").value_or(100) % 100 > 0; }, "the update to begin");
        const int boots = set.boots();
        set.reboot();
        const tarnwick::Output output = told.get();
        EXPECT_THAT(output.text, HasSubstr("tuner: updated, 1.1 is installed")) << output.errors;
        EXPECT_EQ(output.status, 0) << output.text << output.errors;
        set.waitForBoot(boots + 1);
        set.putHardware(EXAMPLES "/images/1.0/hardware");
        set.putPackage(EXAMPLES "/images/1.1/empTuner.img", tarnwick::Television::Package::kDelivered);
    }
}

TEST_F(Fwctl, KilledAtRandomMomentsNeverStaysStuck)
{
    set.addModule("killed");
    set.addSystemImage("Killed");
    const char* const wanted = std::getenv("FWCTL_TEST_KILLS"); // more of them, by hand
    const std::string kills = wanted != nullptr ? wanted : "12";
    const Outcome outcome = set.run("bash " KILL_UPDATES " " + kills);
    EXPECT_EQ(outcome.status, 0) << outcome.out << outcome.err;
    EXPECT_THAT(outcome.out, HasSubstr(kills + " kills: "));
    std::cout << outcome.out;
}

TEST_F(Fwctl, ALibraryThatEndsItsUpdateWithoutAVerdictHasFailed)
{
    set.addSystemImage("Doomed");
    const std::pair<const char*, const char*> kCases[] = {
        {"crashes", "the control library crashes in doUpdate (Aborted)"},
        {"exits", "the control library ends the process in doUpdate (exit status 0)"},
        {"throws", "the control library throws in doUpdate: no chip"},
    };
    for (const auto& [name, reason] : kCases) {
        set.addModule(name);
        const std::string command = "fwctl update " + std::string(name) + " --source system";
        const Outcome outcome =
            set.run(command + "; echo status $?; " + command + " --json; echo again $?; " +
                    "fwctl update tuner; echo other $?; rm /prd/usr/fwupdate/controls/" + name + ".so");
        EXPECT_THAT(outcome.out,
                    HasSubstr(name + std::string(": failed, 1.0 is installed: ") + reason + "\nstatus 1\n"))
            << outcome.err;
        EXPECT_THAT(outcome.out, HasSubstr("\"result\":\"failed\"")) << name;
        EXPECT_THAT(outcome.out, HasSubstr("again 1\n")) << name;
        EXPECT_THAT(outcome.out, Not(HasSubstr("other 1\n"))) << name;
    }
}

// The daemon leaves the package of a failed update mounted for its next try; fwctl has none.
TEST_F(Fwctl, AnUpdateThatComesToNothingLeavesNoMount)
{
    fs::remove(set.outside("/prd/usr/fwupdate/controls/tuner.so"));
    for (const std::string name : {"refusing", "breaking", "choking", "current"}) {
        set.addModule(name);
        const Outcome outcome =
            set.run("for what in " + name +
                    " --all; do fwctl update $what; echo status $?; "
                    "grep emps /proc/mounts; done; fwctl doctor | grep mount; "
                    "fwctl check; fwctl update " +
                    name + "; grep -c emps /proc/mounts; rm /prd/usr/fwupdate/controls/" + name + ".so");
        EXPECT_THAT(outcome.out, Not(HasSubstr("squashfs"))) << name;
        EXPECT_THAT(outcome.out, Not(HasSubstr("nothing runs that would use it"))) << name;
        EXPECT_THAT(outcome.out, HasSubstr(name == "current" ? "status 3" : "status 1")) << name;
        EXPECT_THAT(outcome.out, EndsWith("\n1\n"))
            << name << ": what stood there before stays" << outcome.err;
    }
}

TEST_F(Fwctl, AnUpdateThatFailsWithoutItsParentLeavesNoMount)
{
    fs::remove(set.outside("/prd/usr/fwupdate/controls/tuner.so"));
    set.addModule("waiting");
    const Outcome outcome = set.run(
        moments("fwctl update waiting & comes test -e /tmp/at-work; grep -c emps /proc/mounts; kill -9 $!; "
                "touch /tmp/go-on; comes gone fwctl; grep -c emps /proc/mounts; fwctl doctor | grep turn"));
    EXPECT_EQ(outcome.out, "1\n0\n");
}

TEST_F(Fwctl, ATurnTakenByAnotherProgramThatHasEndedIsFoundAndGivenBack)
{
    const Outcome outcome = set.run(
        "fwctl update panel; python3 -c \"import ctypes; c = ctypes.CDLL(None); c.sem_open.restype = "
        "ctypes.c_void_p; c.sem_wait(ctypes.c_void_p(c.sem_open(b'/SEM_UPDATE_CONTROL', 0)))\"; "
        "fwctl why tuner; fwctl list; fwctl doctor; echo found $?; fwctl doctor --fix; fwctl update tuner");
    EXPECT_THAT(outcome.out, HasSubstr("but: the update semaphore is taken, but whoever took it has ended"));
    EXPECT_THAT(outcome.out, HasSubstr("found 5\n"));
    EXPECT_THAT(outcome.out, HasSubstr("tuner: updated, 1.1 is installed\n"));
}

// ---- Obstacles, in every command alike ----

TEST_F(Fwctl, EveryCommandTellsThatAnotherProcessUpdates)
{
    const Outcome outcome =
        set.run(moments("fwctl update tuner >/dev/null & comes writes tuner; holds $!; "
                        "for command in list 'why panel' check doctor; do "
                        "echo \"== $command\"; fwctl $command; done; goes_on $!; wait $!"));
    for (const char* command : {"list", "why panel", "check", "doctor"}) {
        const std::size_t begin = outcome.out.find("== " + std::string(command));
        const std::string said = outcome.out.substr(begin, outcome.out.find("== ", begin + 3) - begin);
        EXPECT_THAT(said, ContainsRegex("fwctl \\(process [0-9]+\\) is updating just now")) << command;
    }
}

TEST_F(Fwctl, AMountDirectoryThatTheDaemonCannotWriteStopsTheUpdateInEveryCommand)
{
    const Outcome outcome =
        set.run("chown root:root /opt/usr/apps/appbinarymanager/emps; "
                "chmod 755 /opt/usr/apps/appbinarymanager/emps; "
                "fwctl list; fwctl why tuner; echo why $?; fwctl check; fwctl update tuner; echo update $?; "
                "fwctl doctor; echo found $?; fwctl doctor --fix; fwctl update tuner; echo mended $?");
    EXPECT_THAT(outcome.out, ContainsRegex("tuner +package +1.0 +- +- +no "));
    EXPECT_THAT(outcome.out,
                HasSubstr("✗ mount: /opt/usr/apps/appbinarymanager/emps/ cannot be written by the "
                          "daemon's user: Permission denied"));
    EXPECT_THAT(outcome.out, HasSubstr("why 3\n"));
    EXPECT_THAT(outcome.out, HasSubstr("tuner: not pending\n"));
    EXPECT_THAT(outcome.out, HasSubstr("update 1\n"));
    EXPECT_THAT(outcome.out, HasSubstr("found 5\n"));
    EXPECT_THAT(outcome.out, HasSubstr("mended 0\n"));
}

// ---- Hostile files ----

TEST_F(Fwctl, NothingWaitsForAPipeInTheImagesPlace)
{
    for (const char* place :
         {"/opt/usr/apps/appbinarymanager/empTuner.img", "/usr/lib/firmware/ext/Panel/Panel.bin",
          "/usr/lib/firmware/ext/Panel/info.json"}) {
        const fs::path path = set.outside(place);
        fs::remove(path);
        ASSERT_EQ(mkfifo(path.c_str(), 0644), 0);
        const Outcome outcome = set.run("for command in list 'why tuner' 'why panel' check doctor "
                                        "'update tuner' 'update panel' 'update --all'; do "
                                        "timeout 100 fwctl $command; echo \"$command: $?\"; done");
        EXPECT_THAT(outcome.out, Not(HasSubstr(": 124\n"))) << place;
        EXPECT_THAT(outcome.out, HasSubstr("is not a file but a pipe")) << place;
        EXPECT_THAT(outcome.out, HasSubstr("doctor: 5\n")) << place;
    }
}

TEST_F(Fwctl, AnInformationFileWithoutEndIsNotRead)
{
    const fs::path path = set.outside("/usr/lib/firmware/ext/Panel/info.json");
    fs::resize_file(path, std::uintmax_t{1} << 40);
    const Outcome outcome = set.run("timeout 100 fwctl why panel; timeout 100 fwctl doctor");
    EXPECT_EQ(outcome.status, 5) << outcome.err;
    EXPECT_THAT(outcome.out, HasSubstr("-> it is longer than 1048576 bytes: correct the information file"));
}

// Anybody may put something into that directory before the set's own programs do.
TEST_F(Fwctl, DoctorTellsWhatStandsInThePlaceOfTheTurn)
{
    for (const auto& [file, told] : {std::pair{"sem.SEM_UPDATE_CONTROL", " is no semaphore: "},
                                     std::pair{"fwctl.SEM_UPDATE_CONTROL", " is no record of fwctl's: "}}) {
        const std::string path = std::string("/dev/shm/") + file;
        std::string script = "set -e; ";
        for (const char* const make : {"printf x >", "mkdir ", "mkfifo ", "ln -s /dev/zero "}) {
            script += "rm -rf " + path + "; " + make + path +
                      "; timeout 100 fwctl doctor || echo \"doctor $?\"; "
                      "timeout 100 fwctl update tuner 2>&1 || echo \"update $?\"; ";
        }
        const Outcome outcome = set.run(script);
        const auto times = [&](const std::string& text) {
            const std::regex pattern(text);
            return std::distance(std::sregex_iterator(outcome.out.begin(), outcome.out.end(), pattern), {});
        };
        EXPECT_EQ(times("✗ " + path + told), 4) << outcome.out << outcome.err;
        EXPECT_EQ(times("doctor 5\n"), 4) << outcome.out;
        EXPECT_EQ(times("fwctl: " + path + told + ".*remove it, .*find out who made it"), 4) << outcome.out;
        EXPECT_EQ(times("update 1\n"), 4) << outcome.out;
    }
}

// Of its length, and with its rights: one on which the C library ends a program, and one that was given back
// a hundred million times.
TEST_F(Fwctl, DoctorTellsASpoiltTurn)
{
    const std::string path = "/dev/shm/sem.SEM_UPDATE_CONTROL";
    for (const std::string bytes : {R"(\377\376\300\200)", "INJECTED"}) {
        const Outcome outcome = set.run("rm -f " + path + "; for i in 1 2 3 4 5 6 7 8; do printf '" + bytes +
                                        "'; done | head -c 32 >" + path + "; stat -c '%s bytes' " + path +
                                        "; chown fwupdate: " + path + "; chmod 600 " + path +
                                        "; timeout 60 fwctl doctor --fix; echo \"doctor $?\"; "
                                        "timeout 60 fwctl update tuner 2>&1; echo \"update $?\"");
        EXPECT_THAT(outcome.out, HasSubstr("32 bytes\n"));
        EXPECT_THAT(outcome.out, HasSubstr("✗ " + path + " is no semaphore: ")) << outcome.err;
        EXPECT_THAT(outcome.out, HasSubstr("doctor 5\n"));
        EXPECT_THAT(outcome.out, HasSubstr("fwctl: " + path + " is no semaphore: "));
        EXPECT_THAT(outcome.out, HasSubstr("update 1\n"));
    }
}

// Nobody can put a file into a package.
TEST_F(Fwctl, APipeInAPackageIsNotToBeRemovedThere)
{
    const Outcome outcome =
        set.run("mkdir /var/package; mkfifo /var/package/info.json; : >/var/package/Tuner.bin; "
                "mksquashfs /var/package " +
                std::string(kPackage) +
                " -noappend -all-root -quiet -no-progress >/dev/null; fwctl why tuner; fwctl update tuner");
    EXPECT_EQ(outcome.status, 1);
    EXPECT_THAT(outcome.out, HasSubstr("-> have the package made again with a file there: the daemon hangs"));
    EXPECT_THAT(outcome.err, HasSubstr("info.json is not a file but a pipe, a socket or a "
                                       "device: have the package made again with a file there\n"));
    EXPECT_THAT(outcome.out + outcome.err, Not(HasSubstr("remove it")));
}

TEST_F(Fwctl, ALibraryThatHangsWhileLoadingIsNamedWithinTenSeconds)
{
    set.addModule("stuck-at-start");
    for (const char* command : {"check", "update tuner", "update --all", "list"}) {
        const Outcome outcome = set.run("timeout 100 fwctl " + std::string(command));
        EXPECT_NE(outcome.status, 124) << command;
        EXPECT_THAT(outcome.out + outcome.err,
                    ContainsRegex("stuck-at-start.*: the control library hangs in loading"))
            << command;
    }
}

TEST_F(Fwctl, TextsOfLibrariesReachTheTerminalEscaped)
{
    set.addModule("escaping");
    const Outcome outcome =
        set.run("fwctl list; fwctl why escaping; fwctl check; fwctl doctor; fwctl list --json");
    EXPECT_EQ(outcome.out.find('\033'), std::string::npos);
    EXPECT_THAT(outcome.out, HasSubstr("package   1.0\\x1B[2J\\nroot"));
    EXPECT_THAT(outcome.out, HasSubstr("installed: 1.0\\x1B[2J\\nroot\n"));
    EXPECT_THAT(outcome.out, HasSubstr("1.0\\u001b[2J\\nroot")) << "JSON as it is";
}

// ---- What a library starts, signals and prints ----

TEST_F(Fwctl, NobodyWaitsForAProcessThatALibraryLeavesBehind)
{
    set.addModule("leaving");
    set.addSystemImage("Doomed");
    for (const char* command : {"list", "why leaving", "check", "update leaving --source system"}) {
        // A pipe that is held open would keep the shell waiting for the output. What keeps the power on for
        // fwctl ends with it, a moment later; what the library has left goes on for ever.
        const Outcome outcome =
            set.run("said=$(timeout 100 fwctl " + std::string(command) +
                    " 2>&1); echo status $?; echo \"$said\"; test -e /tmp/left-behind && "
                    "timeout 30 sh -c 'while pgrep -x fwctl >/dev/null; do sleep 0.05; done' && "
                    "echo nobody is left; rm -f /tmp/left-behind");
        EXPECT_THAT(outcome.out, Not(HasSubstr("status 124"))) << command;
        EXPECT_THAT(outcome.out, HasSubstr("at work; fwctl has ended what it left")) << command;
        EXPECT_THAT(outcome.out, HasSubstr("nobody is left\n")) << command;
    }
}

TEST_F(Fwctl, DoctorNamesALibraryThatLeavesProcessesBehind)
{
    set.addModule("leaving");
    const Outcome outcome = set.run("fwctl doctor; echo status $?; fwctl list --json");
    EXPECT_THAT(outcome.out, HasSubstr("controls/leaving.so: the control library left 2 processes at work"));
    EXPECT_THAT(outcome.out, HasSubstr("status 5\n"));
    EXPECT_THAT(outcome.out, HasSubstr("\"left_behind\":2"));
}

TEST_F(Fwctl, ASignalOfALibraryReachesItAlone)
{
    const std::pair<const char*, const char*> kCases[] = {
        {"signalling",
         "signalling: the control library was ended in getActiveVersion by a signal (Terminated)"},
        {"patricidal", "patricidal: the control library kills the process that started it"},
    };
    for (const auto& [name, text] : kCases) {
        set.addModule(name);
        // As the user that the library has there: only then may it signal the process that started it.
        const Outcome outcome =
            set.run("as='setpriv --reuid fwupdate --init-groups'; $as fwctl list; "
                    "echo status $?; $as fwctl doctor; echo doctor $?; rm /prd/usr/fwupdate/controls/" +
                    std::string(name) + ".so");
        EXPECT_THAT(outcome.err, HasSubstr(text));
        EXPECT_THAT(outcome.out, ContainsRegex("tuner +package +1.0 +1.1"));
        EXPECT_THAT(outcome.out, AllOf(HasSubstr("status 0\n"), HasSubstr("doctor 5\n")));
    }
}

TEST_F(Fwctl, AnInterruptEndsWhatALibraryIsDoing)
{
    set.addModule("hanging");
    const Outcome outcome =
        set.run(moments("env --default-signal=INT fwctl list & comes loads hanging; kill -INT $!; wait $!; "
                        "echo status $?; comes gone fwctl; echo nobody is left"));
    EXPECT_THAT(outcome.out, HasSubstr("status 130\nnobody is left\n"));
}

TEST_F(Fwctl, WhatALibraryPrintsIsNamedAndEscaped)
{
    set.addModule("talking");
    for (const char* command : {"list", "why talking", "doctor", "check"}) {
        const Outcome outcome = set.run("fwctl " + std::string(command));
        EXPECT_EQ((outcome.out + outcome.err).find('\033'), std::string::npos) << command;
        EXPECT_THAT(outcome.err, HasSubstr("fwctl: talking says: to the screen: \\x1B[2J\n"
                                           "fwctl: talking says: fwctl: done\n"
                                           "fwctl: talking says: and no end of line\n"))
            << command;
    }
    EXPECT_EQ(list().size(), 4U) << "JSON is nothing but JSON";
}

TEST_F(Fwctl, WhatALibraryDoesToItsProcessIsNoBusinessOfTheOthers)
{
    set.addModule("scribbling");
    const Json::Value modules = list();
    ASSERT_EQ(modules.size(), 4U);
    EXPECT_EQ(findModule(modules, "scribbling")["installed"], "1.0");
    EXPECT_EQ(findModule(modules, "tuner")["installed"], "1.0") << "asked after it, in the same process";
    EXPECT_EQ(findModule(modules, "tuner")["pending"], true);
}

TEST_F(Fwctl, AnUpdateThatChangesNothingIsNoUpdate)
{
    set.addModule("lying");
    set.addSystemImage("Doomed");
    const std::string command = "fwctl update lying --source system";
    const Outcome outcome = set.run(command + "; echo status $?; " + command + " --json");
    EXPECT_THAT(outcome.out,
                HasSubstr("lying: failed, 1.0 is installed: the control library reports success, but its "
                          "version is the same as before (1.1 was offered)\nstatus 1\n"));
    EXPECT_THAT(outcome.out, HasSubstr("\"result\":\"failed\""));
}

TEST_F(Fwctl, AnUpdateWhoseVersionCannotBeAskedIsNone)
{
    set.addSystemImage("Doomed");
    const std::pair<const char*, const char*> kCases[] = {
        {"untold", "the control library was ended in getActiveVersion by a signal (Interrupt)"},
        {"slain", "the control library was killed in getActiveVersion"},
        {"threadless", "the control library ends its thread in getActiveVersion"},
    };
    for (const auto& [name, reason] : kCases) {
        set.addModule(name);
        const std::string command =
            "env --default-signal=INT timeout 100 fwctl update " + std::string(name) + " --source system";
        const Outcome outcome =
            set.run(command + "; echo status $?; " + command +
                    " --json; echo again $?; rm /prd/usr/fwupdate/controls/" + name + ".so");
        EXPECT_EQ(outcome.out.substr(0, outcome.out.find("\n[") + 1),
                  name +
                      std::string(": failed, what is installed cannot be told: the control library reports "
                                  "success, but cannot tell its version: ") +
                      reason + "\nstatus 1\n")
            << outcome.err;
        EXPECT_THAT(outcome.out, AllOf(HasSubstr("\"result\":\"failed\""), HasSubstr("again 1\n"))) << name;
        EXPECT_THAT(outcome.err, Not(HasSubstr("were not tried"))) << name;
    }
}

TEST_F(Fwctl, ALibraryThatRemovesTheSemaphoreIsNamedAndNotWaitedFor)
{
    set.addModule("unlinking");
    for (const char* command : {"update unlinking", "update tuner", "update --all"}) {
        const Outcome outcome = set.run("timeout 100 fwctl " + std::string(command));
        EXPECT_EQ(outcome.status, 1) << command;
        EXPECT_THAT(outcome.err, HasSubstr("controls/unlinking.so: the control library removes the update "
                                           "semaphore in loading"))
            << command;
    }
}

TEST_F(Fwctl, DoctorSetsASemaphoreThatWasPostedTooOftenToOne)
{
    set.addModule("posting");
    const Outcome outcome =
        set.run("fwctl update tuner; fwctl doctor; echo found $?; fwctl doctor --fix; echo mended $?; "
                "od -An -tu4 -N4 /dev/shm/sem.SEM_UPDATE_CONTROL");
    EXPECT_THAT(outcome.out, ContainsRegex("the update semaphore stands at [0-9]+ instead of 1"));
    EXPECT_THAT(outcome.out, HasSubstr("found 5\n"));
    EXPECT_THAT(outcome.out, AllOf(HasSubstr("\n    mended\n"), ContainsRegex("mended 0\n +1\n")));
}

TEST_F(Fwctl, ALibraryThatClosesFilesOfOthersIsTold)
{
    set.addModule("closing");
    EXPECT_THAT(set.run("fwctl list").err,
                HasSubstr("closing: a control library closes files of the process that asks it"));
}

TEST_F(Fwctl, WhatGlibSaysIsNoWordOfTheLibrary)
{
    set.addModule("fileless");
    set.addSystemImage("Doomed");
    const Outcome outcome = set.run("fwctl update fileless --source system");
    EXPECT_EQ(outcome.status, 1);
    EXPECT_THAT(outcome.err, Not(HasSubstr("fileless says: (")));
}

TEST_F(Fwctl, APackageIsNotBlamedForMemoryThatALibraryTakesAway)
{
    set.addModule("starving");
    const Outcome outcome = set.run("fwctl why starving");
    EXPECT_THAT(outcome.out, Not(HasSubstr("have the package downloaded again")));
    EXPECT_THAT(outcome.out, HasSubstr("has lowered a limit of its process")) << outcome.err;
}

TEST_F(Fwctl, DoctorTellsAPipeAmongTheLibraries)
{
    const Outcome outcome = set.run("mkfifo /prd/usr/fwupdate/controls/pipe.so; timeout 100 fwctl doctor");
    EXPECT_EQ(outcome.status, 5) << outcome.err;
    EXPECT_THAT(outcome.out, HasSubstr("controls/pipe.so: it is not a file but a pipe\n"
                                       "    -> remove it, and put the library there\n"));
}

TEST_F(Fwctl, AReaderThatGoesAwayEndsItInSilence)
{
    for (const char* command : {"list", "doctor", "--help"}) {
        const Outcome outcome =
            set.run("bash -c 'fwctl " + std::string(command) + " | true; echo ${PIPESTATUS[0]}'");
        EXPECT_EQ(outcome.out, "141\n") << command;
        EXPECT_EQ(outcome.err, "") << command;
    }
}

TEST_F(Fwctl, DoctorTellsADaemonThatHangsInItsStart)
{
    set.addModule("stuck-at-start");
    const Outcome outcome =
        set.run(moments("tarnwick & comes loads stuck-at-start; fwctl doctor; echo found $?; kill -9 $!"));
    EXPECT_THAT(outcome.out,
                ContainsRegex("✗ the daemon \\(process [0-9]+\\) has started, but is not on the bus"));
    EXPECT_THAT(outcome.out, Not(HasSubstr("does not run")));
    EXPECT_THAT(outcome.out, HasSubstr("found 5\n"));
}

TEST_F(Fwctl, ALibraryIsAskedWithTheRightsOfTheDaemonsUser)
{
    set.addModule("removing");
    for (const char* command : {"list", "why removing", "doctor", "check"}) {
        const Outcome outcome = set.run("mkdir -p /var/of-root; touch /var/of-root/file; fwctl " +
                                        std::string(command) + "; ls /var/of-root");
        EXPECT_THAT(outcome.out, HasSubstr("\nfile\n")) << command;
    }
}

// ---- A terminal ----

TEST_F(Fwctl, TheResultStandsOnALineOfItsOwnOnATerminalOfAnyWidth)
{
    for (const std::size_t columns : {40, 80, 200}) {
        const std::string package = "/var/package" + std::to_string(columns);
        const Outcome outcome =
            set.run("cp " + std::string(kPackage) +
                    " /var/kept.img; "
                    "cp -a /var/lib/hardware /var/kept-hardware; "
                    "script -qec 'stty cols " +
                    std::to_string(columns) +
                    "; fwctl update tuner' /dev/null; "
                    "cp /var/kept.img " +
                    kPackage + "; rm -r /var/lib/hardware; mv /var/kept-hardware /var/lib/hardware");
        EXPECT_THAT(outcome.out, HasSubstr("%\033[K\r\ntuner: updated, 1.1 is installed\r\n")) << columns;
        std::istringstream drawn(std::regex_replace(outcome.out, std::regex("\r|\033\\[K"), "\n"));
        for (std::string line; std::getline(drawn, line);) {
            EXPECT_LT(line.size(), columns) << line;
        }
    }
}

TEST_F(Fwctl, LongReadingShowsHowFarItIsAndLeavesNothing)
{
    const std::string panel = "/usr/lib/firmware/ext/Panel";
    const std::string makeLong = "cp " + panel + "/info.json /var; mount -t tmpfs none " + panel +
                                 "; cp /var/info.json " + panel + "; truncate -s 8G " + panel +
                                 "/Panel.bin; ";
    const auto onTerminal = [](const std::string& command) {
        return "script -qec 'timeout --foreground -s INT 4 fwctl " + command + "' /dev/null";
    };
    const std::string bar = "\rLooking at the modules [";
    EXPECT_EQ(set.run(onTerminal("list")).out.find(bar), std::string::npos);
    for (const char* command : {"list", "why panel", "doctor"}) {
        const Outcome outcome = set.run(makeLong + onTerminal(command));
        EXPECT_THAT(outcome.out, AllOf(HasSubstr(bar), testing::EndsWith("\r\033[K\n"))) << command;
        EXPECT_THAT(outcome.out, ContainsRegex("([0-9]+) %.*[0-9]+ %")) << command;
    }
    EXPECT_EQ(set.run(makeLong + "timeout -s INT 3 fwctl list").err, "");
}

TEST_F(Fwctl, DoctorLeavesARunningUpdateAlone)
{
    const Outcome outcome = set.run(
        moments("fwctl update tuner & comes writes tuner; holds $!; fwctl doctor --fix; echo mended $?; "
                "goes_on $!; wait $!"));
    EXPECT_THAT(outcome.out, HasSubstr("mended 0"));
    EXPECT_THAT(outcome.out, Not(HasSubstr("✓")));
    EXPECT_THAT(outcome.out, HasSubstr("tuner: updated"));
}

TEST_F(Fwctl, DoctorRemovesAListWithoutADaemon)
{
    const Outcome outcome = set.run("touch /tmp/fwupdate-off-list.txt; fwctl doctor; echo found $?; "
                                    "fwctl doctor --fix; ls /tmp/fwupdate-off-list.txt");
    EXPECT_THAT(outcome.out, HasSubstr("found 5"));
    EXPECT_THAT(outcome.err, HasSubstr("cannot access '/tmp/fwupdate-off-list.txt'"));
}

TEST_F(Fwctl, DoctorMakesMissingDirectories)
{
    const Outcome outcome =
        set.run("rmdir /opt/usr/apps/appbinarymanager/emps; fwctl doctor; echo found $?; "
                "fwctl doctor --fix; stat -c '%U %G %a' /opt/usr/apps/appbinarymanager/emps");
    EXPECT_THAT(outcome.out, HasSubstr("found 5"));
    EXPECT_THAT(outcome.out, HasSubstr("\nplatform system 2775\n"));
}

// This machine itself, outside of any set.
TEST_F(Fwctl, DoctorMakesNothingOnAPcThatIsNoSet)
{
    if (fs::exists("/prd") || fs::exists("/opt/usr/apps")) {
        GTEST_SKIP() << "this machine has directories of a set";
    }
    const Outcome outcome = runProgram({FWCTL_DIRECTORY "/fwctl", "doctor", "--json"});
    EXPECT_EQ(outcome.status, 5) << outcome.err;
    EXPECT_THAT(outcome.out, HasSubstr("\"id\":\"no-set\""));
    EXPECT_THAT(outcome.out, Not(HasSubstr("\"fixable\":true"))) << "--fix would make it one";
}

TEST_F(Fwctl, TwoLibrariesOfOneFirmwareAreToldApart)
{
    set.addSystemImage("Doomed");
    set.addModule("exits");
    fs::copy(set.outside("/prd/usr/fwupdate/controls/exits.so"),
             set.outside("/prd/usr/fwupdate/controls/alike.so"));
    const Outcome outcome = set.run("fwctl update exits --source system; fwctl doctor");
    EXPECT_THAT(outcome.out, HasSubstr("exits: failed, 1.0 is installed"));
    EXPECT_THAT(outcome.out, Not(HasSubstr("alike: failed")));
    EXPECT_THAT(outcome.out, HasSubstr("2 control libraries have the identifier empDoomed"));
}

TEST_F(Fwctl, DoctorSaysWhyLibrariesCannotBeUsed)
{
    for (const char* module : {"incomplete", "unbound", "misnamed"}) {
        set.addModule(module);
    }
    fs::copy(set.outside("/usr/fwupdate/controls/panel.so"),
             set.outside("/prd/usr/fwupdate/controls/panel.so"));
    set.write("/prd/usr/fwupdate/controls/text.so", "not a library");
    set.write("/opt/usr/apps/appbinarymanager/empNobody.img", "whose?");
    const Outcome outcome = set.run("fwctl doctor");
    EXPECT_EQ(outcome.status, 5);
    EXPECT_THAT(outcome.out, HasSubstr("incomplete.so: it lacks doUpdate\n"));
    EXPECT_THAT(outcome.out, HasSubstr("unbound.so: nothing provides notProvidedByAnybody\n"));
    EXPECT_THAT(outcome.out, HasSubstr("misnamed.so: Error: EMPID is Wrong (Misnamed)\n"));
    EXPECT_THAT(outcome.out, ContainsRegex("text.so: .*file too short|text.so: .*invalid ELF header"));
    EXPECT_THAT(outcome.out, HasSubstr("2 control libraries have the module panel\n"));
    EXPECT_THAT(outcome.out, HasSubstr("empNobody.img belongs to no module\n"));
}

TEST_F(Fwctl, CrashingAndHangingLibrariesAreNamedAndTheOthersShown)
{
    set.addModule("crashing");
    set.addModule("hanging");
    const Outcome outcome =
        set.run("fwctl list; echo listed $?; fwctl why crashing; echo why $?; fwctl doctor");
    EXPECT_EQ(outcome.status, 5);
    EXPECT_THAT(outcome.out, AllOf(HasSubstr("listed 0"), HasSubstr("why 1"), HasSubstr("at standby")));
    EXPECT_THAT(outcome.err,
                HasSubstr("crashing: the control library crashes in getActiveVersion (Aborted)"));
    EXPECT_THAT(outcome.err, HasSubstr("hanging: the control library hangs in getActiveVersion"));
    EXPECT_THAT(outcome.out, HasSubstr("crashing.so: the control library crashes in getActiveVersion"));
}

// ---- Encrypted images ----

const std::string kKeyHex = "000102030405060708090a0b0c0d0e0f101112131415161718191a1b1c1d1e1f";

std::string keyBytes()
{
    std::string bytes;
    for (std::size_t at = 0; at < kKeyHex.size(); at += 2) {
        bytes += static_cast<char>(std::stoi(kKeyHex.substr(at, 2), nullptr, 16));
    }
    return bytes;
}

// IV, ciphertext of version header and image, and a trailer that no library judges here.
std::string encrypt(const std::string& version, const std::string& image)
{
    std::string plain = version;
    plain.resize(64);
    plain += image;
    const std::string iv(16, 'i');
    const std::string key = keyBytes();
    std::string cipher(plain.size() + 16, '\0');
    int size = 0;
    int last = 0;
    EVP_CIPHER_CTX* context = EVP_CIPHER_CTX_new();
    const auto bytes = [](const std::string& text) {
        return reinterpret_cast<const unsigned char*>(text.data());
    };
    auto* const out = reinterpret_cast<unsigned char*>(cipher.data());
    EVP_EncryptInit_ex(context, EVP_aes_256_cbc(), nullptr, bytes(key), bytes(iv));
    EVP_EncryptUpdate(context, out, &size, bytes(plain), static_cast<int>(plain.size()));
    EVP_EncryptFinal_ex(context, out + size, &last);
    EVP_CIPHER_CTX_free(context);
    cipher.resize(static_cast<std::size_t>(size + last));
    return iv + cipher + std::string(534, 't');
}

class FwctlUsb : public Fwctl
{
protected:
    void SetUp() override
    {
        const std::string image = common::readWhole(fs::path(EXAMPLES) / "images/1.1/Tuner/Tuner.bin");
        set.write("/opt/media/USBDriveA/Tuner.bin", encrypt("1.1", image));
        set.write("/root/key", kKeyHex + "\n", 0600);
    }
};

TEST_F(FwctlUsb, AnImageThatMayNotBeLookedAtIsRefusedAndNotAbsent)
{
    const Outcome outcome = set.run("cd /opt/media/USBDriveA; chmod 0 Tuner.bin; "
                                    "fwctl usb check . --key-file /root/key");
    EXPECT_EQ(outcome.status, 1) << outcome.out;
    EXPECT_THAT(outcome.out, ContainsRegex("tuner: .*refused: the file cannot be read"));
    EXPECT_THAT(outcome.out, Not(HasSubstr("tuner: no image on the stick")));
}

TEST_F(FwctlUsb, AStickThatMayNotBeLookedIntoIsNamedAndNotEachOfItsImages)
{
    const Outcome outcome =
        set.run("chmod 700 /opt/media/USBDriveA; for command in check install; do "
                "fwctl usb $command /opt/media/USBDriveA --key-file /root/key; echo $?; done");
    EXPECT_EQ(outcome.out, "1\n1\n");
    const std::string said =
        "fwctl: the daemon's user cannot look into /opt/media/USBDriveA/: Permission denied\n";
    EXPECT_EQ(outcome.err, said + said);
}

TEST_F(FwctlUsb, CheckFindsTheNewerImageAndItsTime)
{
    const Outcome outcome = set.run("fwctl usb check /opt/media/USBDriveA --key-file /root/key");
    EXPECT_EQ(outcome.status, 0) << outcome.err;
    EXPECT_THAT(outcome.out, HasSubstr("tuner: newer, about 8 s\n"));
    EXPECT_THAT(outcome.out, HasSubstr("panel: no image on the stick (/opt/media/USBDriveA/Panel.bin)\n"));
    EXPECT_THAT(outcome.out, HasSubstr("EXT-soundbar: takes no encrypted images\n"));
    EXPECT_THAT(outcome.out, HasSubstr("expected time of all together: 8 s\n"));
    EXPECT_THAT(outcome.err, HasSubstr("no signature library: every image counts as signed"));
}

TEST_F(FwctlUsb, InstallWritesTheHardwareAndFreesTheSemaphore)
{
    set.write("/root/raw", keyBytes(), 0600);
    const Outcome outcome =
        set.run("fwctl usb install /opt/media/USBDriveA/ --key-file /root/raw; echo first $?; "
                "fwctl usb install /opt/media/USBDriveA/ --key-file /root/raw; echo again $?; "
                "fwctl update panel; echo panel $?");
    EXPECT_THAT(outcome.out, HasSubstr("tuner: updated, 1.1 is installed\nfirst 0\n")) << outcome.err;
    EXPECT_THAT(outcome.out, HasSubstr("again 3\n"));
    EXPECT_THAT(outcome.out, HasSubstr("panel 0\n"));
    EXPECT_THAT(outcome.err, HasSubstr("1 to install, about 8 s: leave the stick in"));
}

TEST_F(FwctlUsb, WrongKeyInstallsNothing)
{
    set.write("/root/key", std::string(64, 'f'), 0600);
    const Outcome outcome = set.run("fwctl usb install /opt/media/USBDriveA --key-file /root/key");
    EXPECT_EQ(outcome.status, 1);
    EXPECT_THAT(outcome.out, HasSubstr("tuner: Error: Tuner Firmware CheckVersion Fail"));
    EXPECT_EQ(findModule(list(), "tuner")["installed"], "1.0");
}

TEST_F(FwctlUsb, ARefusedImageIsAFailureWithItsReason)
{
    const std::string whole = set.read("/opt/media/USBDriveA/Tuner.bin");
    std::string altered = whole;
    altered[20] = static_cast<char>(altered[20] ^ 1); // in the version
    const std::pair<std::string, const char*> kCases[] = {
        {"", "is too short for an encrypted image"},
        {whole.substr(0, 10), "is too short for an encrypted image"},
        {whole.substr(0, 300), "CheckVersion Fail"},
        {altered, "CheckVersion Fail"},
    };
    for (const auto& [image, reason] : kCases) {
        set.write("/opt/media/USBDriveA/Tuner.bin", image);
        const Outcome outcome =
            set.run("for command in check install; do fwctl usb $command /opt/media/USBDriveA --key-file "
                    "/root/key; echo $command $?; done");
        EXPECT_THAT(outcome.out, HasSubstr("check 1\n")) << image.size();
        EXPECT_THAT(outcome.out, HasSubstr("install 1\n")) << image.size();
        EXPECT_THAT(outcome.out, HasSubstr(reason)) << image.size();
    }
}

TEST_F(FwctlUsb, APipeAsKeyFileOrImageIsNoneToWaitFor)
{
    const Outcome outcome =
        set.run("mkfifo -m 600 /root/pipe /opt/media/USBDriveA/Panel.bin; "
                "timeout 100 fwctl usb check /opt/media/USBDriveA --key-file /root/pipe; echo key $?; "
                "timeout 100 fwctl usb install /opt/media/USBDriveA --key-file /root/key; echo image $?");
    EXPECT_THAT(outcome.out, AllOf(HasSubstr("key 1\n"), HasSubstr("image 1\n")));
    EXPECT_THAT(outcome.err, HasSubstr("/root/pipe is not a file but a pipe"));
    EXPECT_THAT(outcome.err, HasSubstr("panel: /opt/media/USBDriveA/Panel.bin is not a file but a pipe"));
}

TEST_F(FwctlUsb, KeyIsNowhereToBeSeen)
{
    const Outcome outcome = set.run(
        "(fwctl usb install /opt/media/USBDriveA --key-file /root/key --verbose; cat /var/log/*) & "
        "while kill -0 $! 2>/dev/null; do cat /proc/[0-9]*/cmdline /proc/[0-9]*/environ | tr '\\0' ' '; "
        "sleep 0.3; done; wait $!");
    EXPECT_THAT(outcome.out, HasSubstr("--key-file /root/key"));
    for (const std::string& text : {outcome.out, outcome.err}) {
        EXPECT_EQ(text.find(kKeyHex), std::string::npos);
        EXPECT_EQ(text.find(kKeyHex.substr(0, 20)), std::string::npos);
        EXPECT_EQ(text.find(keyBytes().substr(1)), std::string::npos);
    }
}

TEST_F(FwctlUsb, KeyFilesThatAreNoneAreRefused)
{
    set.write("/root/open", kKeyHex, 0644);
    set.write("/root/short", kKeyHex.substr(2), 0600);
    set.write("/root/long", kKeyHex + "00", 0600);
    set.write("/root/letters", std::string(64, 'g'), 0600);
    set.write("/root/empty", "", 0600);
    const std::pair<const char*, const char*> kCases[] = {
        {"open", "others may read the key file /root/open, and it was not used: have a new key"},
        {"short", "is no content key"},
        {"long", "is no content key"},
        {"letters", "is no content key"},
        {"empty", "is no content key"},
        {"missing", "does not exist"},
        {"", "is not a file"},
    };
    for (const auto& [name, expected] : kCases) {
        const Outcome outcome =
            set.run("fwctl usb check /opt/media/USBDriveA --key-file /root/" + std::string(name));
        EXPECT_EQ(outcome.status, 1) << name;
        EXPECT_THAT(outcome.err, HasSubstr(expected)) << name;
        EXPECT_THAT(outcome.err, Not(HasSubstr(kKeyHex.substr(2, 20)))) << name;
    }
}

// ---- watch ----

TEST_F(Fwctl, AUserWhomTheSetDoesNotKnowIsToldSo)
{
    const Outcome outcome =
        set.run("for command in list doctor watch; do "
                "setpriv --reuid 12345 --clear-groups fwctl $command; echo status $?; done");
    constexpr const char* kText = "the system bus refuses the user number 12345, whom this set does not know";
    EXPECT_THAT(outcome.out, HasSubstr("but panel, tuner: " + std::string(kText)));
    EXPECT_THAT(outcome.out, HasSubstr("✗ " + std::string(kText)));
    EXPECT_THAT(outcome.out, HasSubstr("-> run fwctl as root or as the daemon's user\n"));
    EXPECT_THAT(outcome.err, HasSubstr("fwctl: " + std::string(kText) + ": run fwctl as root"));
    EXPECT_THAT(outcome.out, HasSubstr("status 1\n"));
}

TEST_F(Fwctl, WatchShowsTheUpdateAsItRuns)
{
    const Outcome outcome = set.run(
        moments("env --default-signal=INT fwctl watch > /var/watched & comes grep update_turn /var/watched; "
                "fwctl update tuner & comes writes tuner; holds $!; "
                "comes grep 'update_turn *fwctl' /var/watched; goes_on $!; wait $!; "
                "kill -INT $(pgrep -x fwctl); comes gone fwctl; cat /var/watched"));
    EXPECT_THAT(outcome.out, ContainsRegex("[0-9:]+  update_turn +free"));
    EXPECT_THAT(outcome.out, ContainsRegex("[0-9:]+  update_turn +fwctl \\(process [0-9]+\\)"));
    EXPECT_THAT(outcome.out, ContainsRegex("daemon +does not run"));
    EXPECT_THAT(outcome.out, ContainsRegex("power_locks +kind 0, 13000 ms, .*fwctl"));
}

// ---- Wrong use ----

TEST_F(Fwctl, WrongUseEndsWithStatusTwo)
{
    for (const char* arguments :
         {"", "frob", "why", "update", "update tuner --all", "update tuner --source moon", "list extra",
          "usb", "usb check", "usb check /tmp",
          "usb check /tmp --key "
          "000102",
          "doctor --mend"}) {
        const Outcome outcome = set.run("fwctl " + std::string(arguments));
        EXPECT_EQ(outcome.status, 2) << arguments;
        EXPECT_THAT(outcome.err, Not(IsEmpty())) << arguments;
    }
}

TEST_F(Fwctl, TooSmallALimitIsToldBeforeAnythingIsDone)
{
    const std::pair<const char*, const char*> kCases[] = {
        {"ulimit -n 9", "a process may open only 9 files here: raise the limit (ulimit -n 64)"},
        {"ulimit -v 30000", "a process may have only 30000 KiB of memory here: raise the limit (ulimit -v"},
    };
    for (const auto& [limit, text] : kCases) {
        for (const char* command : {"list", "why tuner", "check", "update tuner", "doctor", "watch"}) {
            const Outcome outcome = set.run(std::string(limit) + "; fwctl " + command + "; echo status $?");
            EXPECT_THAT(outcome.err, HasSubstr(text)) << command;
            EXPECT_EQ(outcome.out, "status 1\n") << command;
        }
    }
    EXPECT_THAT(set.run("ulimit -Sn 9; fwctl update tuner").out, HasSubstr("tuner: updated"));
}

TEST_F(Fwctl, UnknownModuleEndsWithStatusFour)
{
    for (const char* arguments : {"why nobody", "update nobody"}) {
        EXPECT_EQ(set.run("fwctl " + std::string(arguments)).status, 4) << arguments;
    }
}

TEST_F(Fwctl, HelpOfEveryCommandHasAnExample)
{
    for (const char* command :
         {"list", "why", "check", "update", "usb", "usb check", "usb install", "watch", "doctor"}) {
        const Outcome outcome = set.run("fwctl " + std::string(command) + " --help");
        EXPECT_EQ(outcome.status, 0);
        EXPECT_THAT(outcome.out, HasSubstr("  fwctl " + std::string(command))) << command;
    }
}
} // namespace
