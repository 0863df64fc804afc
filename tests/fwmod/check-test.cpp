// "fwmod check" as a maker types it. What it finds is tested with the libraries of sdk/corpus; here are its
// options, its output, and the examples, which must be sound.
#include <csignal>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <json/json.h>
#include <sys/stat.h>

#include "common/files/whole-file.h"
#include "tests/support/names-in.h"
#include "tests/support/run-program.h"
#include "tests/support/temporary-directory.h"

namespace fs = std::filesystem;

namespace
{
using testing::HasSubstr;
using testing::IsEmpty;

const fs::path kExamples = EXAMPLES;
const std::string kHardware = kExamples / "images/1.0/hardware";

class Check : public testing::Test
{
protected:
    Outcome check(std::vector<std::string> arguments)
    {
        arguments.insert(arguments.begin(), {"env", "TMPDIR=" + directory.path().string(), FWMOD, "check"});
        return runProgram(arguments, directory.path());
    }
    Json::Value checkJson(std::vector<std::string> arguments, int status)
    {
        arguments.emplace_back("--json");
        const Outcome outcome = check(arguments);
        EXPECT_EQ(outcome.status, status) << outcome.err << outcome.out;
        Json::Value root;
        std::istringstream(outcome.out) >> root;
        return root;
    }
    void expectSound(const std::vector<std::string>& arguments)
    {
        const Json::Value report = checkJson(arguments, 0);
        EXPECT_EQ(report["verdict"], "sound") << report;
        EXPECT_EQ(report["findings"].size(), 0U);
        const Json::Value& measured = report["measured"];
        EXPECT_EQ(measured["version_before"], "1.0");
        EXPECT_EQ(measured["version_after"], "1.1");
        EXPECT_GT(measured["duration"].asDouble(), 0.5);
        EXPECT_GT(measured["writes"].asUInt(), 32U);
        EXPECT_GT(measured["power_cuts"].asUInt(), 32U);
        EXPECT_THAT(namesIn(directory.path()), IsEmpty()) << "the set was not removed";
    }

    TemporaryDirectory directory;
};

// Somebody has named the whole disk.
TEST_F(Check, DirectoryOfMoreThanASetCanBeGivenIsNotCopied)
{
    fs::create_directory(directory / "hardware");
    for (int number = 0; number <= 10000; ++number) {
        writeBytes(directory / "hardware" / std::to_string(number), "");
    }
    fs::create_directory(directory / "temporary");
    const Outcome outcome = runProgram({"env", "TMPDIR=" + (directory / "temporary").string(), FWMOD, "check",
                                        kExamples / "tuner.so", "--hardware", "hardware"},
                                       directory.path());
    EXPECT_EQ(outcome.status, 1);
    EXPECT_EQ(outcome.err,
              "fwmod: hardware holds more than 10000 files, too much to copy into a set: name the "
              "module's own directory\n");
    EXPECT_THAT(namesIn(directory / "temporary"), IsEmpty());
}

// It would be read after each of hundreds of trials, holes and all.
TEST_F(Check, HardwareOfAGreatLengthIsRefusedAtOnce)
{
    fs::create_directory(directory / "hardware");
    writeBytes(directory / "hardware/tuner", "");
    fs::resize_file(directory / "hardware/tuner", std::uintmax_t{10} << 30);
    const Outcome outcome = check({kExamples / "tuner.so", "--hardware", "hardware"});
    EXPECT_EQ(outcome.status, 1);
    EXPECT_EQ(outcome.err,
              "fwmod: hardware/tuner is 10240 MiB long, and is read again and again: 1024 MiB are the "
              "most; give a shorter one, with what the module uses of it\n");
}

// What another program says stands below, without empty lines around it.
TEST_F(Check, ProgramThatTheSetNeedsIsToldWhenItIsMissing)
{
    const Outcome outcome =
        runProgram({"env", "PATH=/nowhere", FWMOD, "check", kExamples / "tuner.so"}, directory.path());
    EXPECT_EQ(outcome.status, 1);
    EXPECT_THAT(outcome.err, AllOf(testing::StartsWith("fwmod: the library could not be examined:\nvset: "),
                                   HasSubstr("dbus-daemon"), Not(HasSubstr("\n\n"))));
}

TEST_F(Check, JUnitReportHasACaseForEachError)
{
    writeBytes(directory / "tuner.so", "no library");
    EXPECT_EQ(check({"tuner.so", "--junit", "report.xml"}).status, 1);
    const std::string report = common::readWhole(directory / "report.xml");
    EXPECT_THAT(report, testing::StartsWith("<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<testsuites>\n"));
    EXPECT_THAT(report,
                AllOf(HasSubstr("<testsuite name=\"fwmod check tuner.so\""), HasSubstr(" failures=\"1\""),
                      HasSubstr("<failure type=\"F101\" message=\"F101: not a shared library"),
                      HasSubstr("name=\"not F201: a question is answered with a failure\"")));
    const Outcome outcome = check({"tuner.so", "--junit", "nowhere/report.xml"});
    EXPECT_EQ(outcome.status, 1);
    EXPECT_EQ(outcome.err,
              "fwmod: nowhere/report.xml cannot be written (No such file or directory): give another file\n");
    EXPECT_EQ(outcome.out, "") << "it is told before the work";
}

TEST_F(Check, ReportIsWrittenOverNothingThatIsRead)
{
    const fs::path images = kExamples / "images/1.1";
    fs::copy_file(kExamples / "tuner.so", directory / "tuner.so");
    fs::copy_file(images / "empTuner.img", directory / "empTuner.img");
    fs::copy(kHardware, directory / "hardware", fs::copy_options::recursive);
    const std::map<std::string, std::string> refused = {
        {"tuner.so", " would overwrite an input; choose another name\n"},
        {"empTuner.img", " would overwrite an input; choose another name\n"},
        {"hardware/tuner", " lies in hardware, whose files are read; choose another place\n"},
        {"hardware/report.xml", " lies in hardware, whose files are read; choose another place\n"}};
    for (const auto& [file, problem] : refused) {
        const std::string before = common::readWhole(directory / file);
        const Outcome outcome =
            check({"tuner.so", "--package", "empTuner.img", "--hardware", "hardware", "--junit", file});
        EXPECT_EQ(outcome.status, 2);
        EXPECT_THAT(outcome.err, testing::StartsWith("fwmod: --junit " + file + problem));
        EXPECT_EQ(common::readWhole(directory / file), before) << file;
    }
    EXPECT_FALSE(fs::exists(directory / "hardware/report.xml"));
}

// A hole takes no room in a package, and minutes to be unpacked.
TEST_F(Check, APackageWithALongInformationFileIsRefusedBeforeItIsUnpacked)
{
    fs::create_directory(directory / "content");
    writeBytes(directory / "content/Tuner.bin", "image");
    writeBytes(directory / "content/info.json", "{}");
    fs::resize_file(directory / "content/info.json", (std::uintmax_t{1} << 20) + 1);
    const Outcome made =
        runProgram({"mksquashfs", "content", "empTuner.img", "-quiet", "-no-progress"}, directory.path());
    ASSERT_EQ(made.status, 0) << made.err;
    const Outcome outcome = check({kExamples / "tuner.so", "--package", "empTuner.img"});
    EXPECT_EQ(outcome.status, 1);
    EXPECT_EQ(outcome.err, "fwmod: the daemon would refuse the image:\n"
                           "info.json in empTuner.img is longer than 1048576 bytes\n");
}

TEST_F(Check, NamesOfFilesCannotBeginALine)
{
    const std::string name = "x\nINJECTED\x1b[31m";
    fs::copy_file(kExamples / "images/1.1/empTuner.img", directory / (name + ".img"));
    fs::create_directory(directory / ("P" + name));
    for (const std::vector<std::string>& arguments :
         {std::vector<std::string>{kExamples / "tuner.so", "--package", name + ".img"},
          {kExamples / "panel.so", "--firmware", "P" + name},
          {name},
          {kExamples / "tuner.so", "--junit", name + "/report.xml"}}) {
        const Outcome outcome = check(arguments);
        EXPECT_NE(outcome.status, 0);
        EXPECT_THAT(outcome.err + outcome.out,
                    AllOf(HasSubstr("x\\nINJECTED"), Not(HasSubstr("\nINJECTED"))));
    }
}

TEST_F(Check, DocumentIsTheListOfFindings)
{
    const Outcome outcome = check({"--list-findings"});
    EXPECT_EQ(outcome.status, 0);
    EXPECT_TRUE(outcome.out == common::readWhole(FINDINGS_DOCUMENT))
        << "write it anew: fwmod check --list-findings > docs/findings.md";
}

TEST_F(Check, WrongUseIsToldFromFailure)
{
    const std::string tuner = kExamples / "tuner.so";
    const std::string soundbar = kExamples / "EXT-soundbar.so";
    const std::string package = kExamples / "images/1.1/empTuner.img";
    const std::string firmware = kExamples / "images/1.1/Tuner";
    writeBytes(directory / "Tuner.img", common::readWhole(package));
    const std::pair<std::vector<std::string>, int> cases[] = {
        {{}, 2},
        {{tuner, "--what"}, 2},
        {{"--list-findings", "--json"}, 2},
        {{tuner, "--package", package, "--firmware", firmware}, 2},
        {{soundbar, "--package", package}, 2},
        {{tuner, "--package", "Tuner.img"}, 2}, // a name that the daemon would not look for
        {{tuner, "--other", package}, 2},       // beside no first one
        {{"nowhere.so"}, 1},
        {{tuner, "--package", "nowhere.img"}, 1},
        {{tuner, "--package", tuner}, 2},
        {{tuner, "--hardware", "nowhere"}, 1},
        {{tuner, "--firmware", kExamples / "images"}, 1},
        {{tuner, "--package", package, "--other", "nowhere.img"}, 1},
        {{tuner, "--package", package, "--other", kExamples / "images"}, 1},
    };
    for (const auto& [arguments, status] : cases) {
        const Outcome outcome = check(arguments);
        EXPECT_EQ(outcome.status, status) << testing::PrintToString(arguments);
        EXPECT_FALSE(outcome.err.empty());
        EXPECT_THAT(outcome.out, IsEmpty());
    }
    EXPECT_EQ(namesIn(directory.path()), std::vector<std::string>{"Tuner.img"});
}

TEST_F(Check, FindingIsToldWithCauseAndCure)
{
    writeBytes(directory / "tuner.so", "no library");
    const Outcome outcome = check({"tuner.so"});
    EXPECT_EQ(outcome.status, 1);
    EXPECT_THAT(outcome.out, HasSubstr("F101 error: not a shared library for this machine\n"
                                       "    seen   it is no ELF file\n"
                                       "    cause  The file is no ELF shared object"));
    EXPECT_THAT(outcome.out, HasSubstr("    cure   Link with -shared"));
    EXPECT_THAT(outcome.out, HasSubstr("tuner.so: 1 error, 0 warnings.\n"));
    EXPECT_THAT(outcome.out, testing::Not(HasSubstr("\033"))) << "no terminal, no colours";
    const Json::Value report = checkJson({"tuner.so"}, 1);
    EXPECT_EQ(report["library"], "tuner.so");
    EXPECT_EQ(report["verdict"], "faulty");
    ASSERT_EQ(report["findings"].size(), 1U);
    for (const char* member : {"title", "cause", "cure"}) {
        EXPECT_FALSE(report["findings"][0][member].asString().empty()) << member;
    }
    EXPECT_EQ(report["findings"][0]["id"], "F101");
    EXPECT_EQ(report["findings"][0]["severity"], "error");
    EXPECT_EQ(report["findings"][0]["detail"], "it is no ELF file");
}

TEST_F(Check, WhatWasNotCheckedIsSaid)
{
    const Outcome outcome = check({kExamples / "tuner.so", "--hardware", kHardware});
    EXPECT_EQ(outcome.status, 0) << outcome.out;
    EXPECT_THAT(outcome.out,
                HasSubstr("Note: No image was given, so doUpdate was not called: give --package IMG"));
}

// script(1) of util-linux gives it a terminal.
TEST_F(Check, ResultHasALineOfItsOwnOnATerminal)
{
    for (const std::string columns : {"40", "80", "200"}) {
        const std::string command = "stty cols " + columns + "; '" FWMOD "' check '" +
                                    (kExamples / "tuner.so").string() + "' --hardware '" + kHardware + "'";
        const Outcome outcome =
            runProgram({"env", "TMPDIR=" + directory.path().string(), "script", "-qec", command, "/dev/null"},
                       directory.path());
        EXPECT_EQ(outcome.status, 0) << outcome.out;
        EXPECT_THAT(outcome.out, HasSubstr("questions and an update"));
        EXPECT_THAT(outcome.out, HasSubstr("\r\033[KChecked with ")) << "the line of progress is not cleared";
    }
}

TEST_F(Check, PipeAmongTheHardwareIsNamed)
{
    fs::create_directory(directory / "hardware");
    ASSERT_EQ(mkfifo((directory / "hardware/chip").c_str(), 0600), 0);
    const Outcome outcome = check({kExamples / "tuner.so", "--hardware", "hardware"});
    EXPECT_EQ(outcome.status, 1);
    EXPECT_THAT(
        outcome.err,
        HasSubstr("cannot put hardware into the set: hardware/chip is not a file but a pipe: take it away"));
    EXPECT_EQ(namesIn(directory.path()), std::vector<std::string>{"hardware"});
}

// Of one user's processes each may end every other, unlike root's in the daemon's place.
TEST_F(Check, LibraryThatEndsItsGroupEndsNothingButItself)
{
    fs::permissions(directory.path(), fs::perms::all);
    std::vector<std::string> line = {"env", "TMPDIR=" + directory.path().string(), FWMOD, "check",
                                     fs::path(FAULTY) / "signalling/tuner.so"};
    if (geteuid() == 0) {
        line.insert(line.begin(),
                    {"setpriv", "--reuid", "12345", "--regid", "12345", "--clear-groups", "--"});
    }
    const Outcome outcome = runProgram(line, directory.path());
    EXPECT_EQ(outcome.status, 1);
    EXPECT_THAT(outcome.out, HasSubstr("getActiveVersion was ended by SIGTERM")) << outcome.err;
}

// What ends a process from outside, such as the system that is short of memory, is no fault of the library's.
TEST_F(Check, ProcessThatIsKilledOutsideOfACallIsNotTheLibrarysCrash)
{
    const Outcome outcome = check({fs::path(FAULTY) / "killed/tuner.so"});
    EXPECT_EQ(outcome.status, 1);
    EXPECT_EQ(outcome.out, "");
    EXPECT_THAT(outcome.err,
                HasSubstr("a process of the examination was ended by SIGKILL outside of any call: by "
                          "the system, if memory is short"));
}

TEST_F(Check, HardwareThatIsUpToDateIsNotUpdated)
{
    const Json::Value report =
        checkJson({kExamples / "tuner.so", "--package", kExamples / "images/1.1/empTuner.img", "--hardware",
                   kExamples / "images/1.1/hardware"},
                  1);
    ASSERT_EQ(report["findings"].size(), 1U) << report;
    EXPECT_EQ(report["findings"][0]["id"], "F211");
    EXPECT_THAT(report["notes"][0].asString(), HasSubstr("The hardware has the offered version already"));
    EXPECT_FALSE(report["measured"].isMember("writes"));
}

TEST_F(Check, InterruptionRemovesTheSet)
{
    const Outcome outcome =
        runProgram({"timeout", "--preserve-status", "--signal=INT", "1", "env",
                    "TMPDIR=" + directory.path().string(), FWMOD, "check", kExamples / "tuner.so",
                    "--package", kExamples / "images/1.1/empTuner.img", "--hardware", kHardware},
                   directory.path());
    EXPECT_EQ(outcome.status, 128 + SIGINT) << outcome.out; // it was still at work
    EXPECT_THAT(outcome.err, HasSubstr("fwmod: interrupted, and the set has ended\n"));
    EXPECT_THAT(namesIn(directory.path()), IsEmpty());
}

TEST_F(Check, ExampleWithAPackageIsSound)
{
    expectSound({kExamples / "tuner.so", "--package", kExamples / "images/1.1/empTuner.img", "--other",
                 kExamples / "images/1.0/Tuner", "--hardware", kHardware});
}

TEST_F(Check, ExampleInTheSystemImageIsSound)
{
    expectSound(
        {kExamples / "panel.so", "--firmware", kExamples / "images/1.1/Panel", "--hardware", kHardware});
}

TEST_F(Check, ExternalExampleIsSound)
{
    expectSound({kExamples / "EXT-soundbar.so", "--firmware", kExamples / "images/1.1/Soundbar", "--other",
                 kExamples / "images/1.0/Soundbar", "--hardware", kHardware});
}

// The daemon derives the names from the identifier, so these would never be looked at on a set.
TEST_F(Check, AnImageUnderAnotherNameIsRefused)
{
    const fs::path images = kExamples / "images/1.1";
    fs::copy(images / "Tuner", directory / "Other");
    fs::rename(fs::path(directory / "Other") / "Tuner.bin", fs::path(directory / "Other") / "Other.bin");
    const std::string information = directory / "Other/info.json";
    const std::string image = directory / "Other/Other.bin";
    const std::string package = directory / "empOther.img";
    runProgram(
        {FWMOD, "package", "--image", image, "--info", information, "--id", "empOther", "-o", package});
    const std::string library = kExamples / "tuner.so";
    const std::string hardware = kExamples / "images/1.0/hardware";
    const Outcome misnamed = check({library, "--package", package, "--hardware", hardware});
    EXPECT_EQ(misnamed.status, 1);
    EXPECT_THAT(misnamed.err, HasSubstr("so the daemon asks for empTuner.img"));
    const Outcome unoffered = check({library, "--firmware", directory / "Other"});
    EXPECT_EQ(unoffered.status, 1);
    EXPECT_THAT(unoffered.err, HasSubstr("ui_use"));
}
} // namespace
