// fwmod as a maker types it: the program itself, its output and its exit status.
#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstddef>
#include <cstring>
#include <elf.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <thread>
#include <vector>

#include "common/files/whole-file.h"
#include "tests/support/names-in.h"
#include "tests/support/run-program.h"
#include "tests/support/temporary-directory.h"

namespace fs = std::filesystem;

namespace
{
using testing::AllOf;
using testing::HasSubstr;
using testing::IsEmpty;

class Fwmod : public testing::Test
{
protected:
    Outcome fwmod(std::vector<std::string> arguments)
    {
        arguments.insert(arguments.begin(), FWMOD);
        return runProgram(arguments, directory.path());
    }
    Outcome check(const std::string& json, std::vector<std::string> more = {})
    {
        writeBytes(directory / "info.json", json);
        more.insert(more.begin(), {"info", "--check", "info.json"});
        return fwmod(more);
    }
    void makeInformation()
    {
        writeBytes(directory / "Tuner.bin", std::string(100000, 'x'));
        ASSERT_EQ(fwmod({"info", "--version", "1.1", "--image", "Tuner.bin", "-o", "info.json"}).status, 0);
    }
    std::vector<std::string> packageAs(const std::string& identifier)
    {
        return {"package", "--image", "Tuner.bin", "--info", "info.json", "--id", identifier};
    }
    // Of fwmod and its template, to be spoilt; returns where the template is.
    fs::path copyKit()
    {
        const fs::path kit = directory / "share/tarnwick/template";
        fs::create_directories(directory / "bin");
        fs::create_directories(kit.parent_path());
        fs::copy_file(FWMOD, directory / "bin/fwmod");
        fs::copy(fs::canonical(fs::path(FWMOD).parent_path().parent_path() / "share/tarnwick/template"), kit,
                 fs::copy_options::recursive);
        return kit;
    }
    // Nothing half-written may stay.
    std::vector<std::string> names() { return namesIn(directory.path()); }

    TemporaryDirectory directory;
};

// ---- new ----

std::vector<fs::path> filesIn(const fs::path& directory)
{
    std::vector<fs::path> found;
    for (const auto& entry : fs::recursive_directory_iterator(directory)) {
        if (entry.is_regular_file()) {
            found.push_back(entry.path());
        }
    }
    return found;
}

TEST_F(Fwmod, NewLeavesNoPlaceholder)
{
    ASSERT_EQ(fwmod({"new", "tuner"}).status, 0);
    EXPECT_TRUE(fs::exists(directory / "tuner/tuner.cpp"));
    EXPECT_FALSE(fs::exists(directory / "tuner/tuner.c"));
    for (const fs::path& file : filesIn(directory / "tuner")) {
        EXPECT_THAT(file.filename(), Not(HasSubstr("NAME")));
        EXPECT_THAT(common::readWhole(file), Not(testing::ContainsRegex("@[A-Z]+@"))) << file;
    }
}

TEST_F(Fwmod, NewAsksItsMakerToUnderstandSixtyLinesAtMost)
{
    for (const auto& [language, file] : {std::pair("c", "tuner.c"), std::pair("c++", "tuner.cpp")}) {
        ASSERT_EQ(fwmod({"new", "tuner", "--lang", language, "-o", language}).status, 0);
        const std::string text = common::readWhole(directory / language / file);
        EXPECT_GT(text.size(), 1000U);
        EXPECT_LE(std::count(text.begin(), text.end(), '\n'), 60) << file;
    }
}

struct NameCase {
    const char* name;
    const char* kind;
    const char* made;  // the directory, and the library without ".so"
    const char* words; // in CMakeLists.txt
};

constexpr NameCase kNames[] = {
    {"tuner", "--emp", "tuner", "set(IDENTIFIER \"empTuner\")"},
    {"my-tuner_2b", "--builtin", "my-tuner_2b", "set(IDENTIFIER \"empMyTuner2b\")"},
    {"emp", "--emp", "emp", "set(FIRMWARE Emp)"},
    {"soundbar", "--external", "EXT-soundbar", "set(FIRMWARE Soundbar)"},
    {"my-ext-bar", "--external", "my-ext-bar", "set(IDENTIFIER \"\")"},
};

TEST_F(Fwmod, NewNamesTheModuleByTheDaemonsRules)
{
    for (const NameCase& c : kNames) {
        const Outcome outcome = fwmod({"new", c.name, c.kind});
        EXPECT_EQ(outcome.status, 0) << outcome.err;
        EXPECT_TRUE(fs::exists(directory / c.made / (std::string(c.made) + ".cpp"))) << c.made;
        EXPECT_THAT(common::readWhole(directory / c.made / "CMakeLists.txt"), HasSubstr(c.words));
    }
}

TEST_F(Fwmod, NewRefusesNamesThatCannotBe)
{
    for (const char* name : {"-tuner", "_tuner", "a b", "../tuner", "t\xC3\xBCner", "tuner.so", "EXT-bar"}) {
        const Outcome outcome = fwmod({"new", "--emp", "--", name});
        EXPECT_EQ(outcome.status, 2) << name;
        EXPECT_THAT(outcome.err, HasSubstr("name")) << name;
    }
    EXPECT_THAT(fwmod({"new", "--emp", ""}).err, HasSubstr("NAME: is empty"));
    EXPECT_EQ(fwmod({"new", ""}).status, 2);
    EXPECT_EQ(fwmod({"new", "EXT-", "--external"}).status, 2);
    EXPECT_EQ(fwmod({"new", std::string(125, 'x')}).status, 2);
    EXPECT_EQ(fwmod({"new", "tuner", "--emp", "--builtin"}).status, 2);
    EXPECT_EQ(fwmod({"new", "tuner", "--lang", "rust"}).status, 2);
    EXPECT_THAT(names(), IsEmpty());
}

TEST_F(Fwmod, NewMakesTheDirectoryThatItIsTold)
{
    fs::create_directory(directory / "empty");
    for (const char* path : {"empty", "deep/down/tuner", "trailing/"}) {
        EXPECT_EQ(fwmod({"new", "tuner", "-o", path}).status, 0);
        EXPECT_TRUE(fs::exists(directory / path / "tuner.cpp")) << path;
    }
}

TEST_F(Fwmod, NewOverwritesNothing)
{
    ASSERT_EQ(fwmod({"new", "tuner"}).status, 0);
    writeBytes(directory / "tuner/tuner.cpp", "my work");
    const Outcome again = fwmod({"new", "tuner"});
    EXPECT_EQ(again.status, 1);
    EXPECT_THAT(again.err, HasSubstr("choose another with -o"));
    EXPECT_EQ(common::readWhole(directory / "tuner/tuner.cpp"), "my work");
    EXPECT_EQ(fwmod({"new", "tuner", "-o", "tuner/tuner.cpp"}).status, 1);
}

TEST_F(Fwmod, NewLeavesNothingHalfMade)
{
    // No file may be larger than a block of 1024 bytes; some of the template are.
    const Outcome outcome =
        runProgram({"bash", "-c", "trap '' XFSZ; ulimit -f 1; exec \"$0\" new tuner -o deep/tuner", FWMOD},
                   directory.path());
    EXPECT_EQ(outcome.status, 1);
    EXPECT_THAT(outcome.err, HasSubstr("cannot write"));
    EXPECT_THAT(names(), IsEmpty());
    EXPECT_EQ(fwmod({"new", "tuner", "-o", "/proc/modules/tuner"}).status, 1);
}

TEST_F(Fwmod, NewSaysWhatToDoWithoutItsTemplate)
{
    fs::copy_file(FWMOD, directory / "fwmod");
    const Outcome outcome = runProgram({directory / "fwmod", "new", "tuner"}, directory.path());
    EXPECT_EQ(outcome.status, 1);
    EXPECT_THAT(outcome.err, HasSubstr("scripts/install-sdk"));
}

TEST_F(Fwmod, NewNamesWhatItsTemplateLacks)
{
    const fs::path kit = copyKit();
    for (const fs::path& file : filesIn(kit)) {
        fs::rename(file, directory / "away");
        const Outcome outcome = runProgram({directory / "bin/fwmod", "new", "tuner"}, directory.path());
        EXPECT_EQ(outcome.status, 1) << file;
        EXPECT_THAT(outcome.err, AllOf(HasSubstr(" lacks " + file.lexically_relative(kit).string() + ": "),
                                       HasSubstr("scripts/install-sdk")));
        EXPECT_FALSE(fs::exists(directory / "tuner")) << file;
        fs::rename(directory / "away", file);
    }
    fs::remove_all(kit / "support");
    EXPECT_THAT(runProgram({directory / "bin/fwmod", "new", "tuner"}, directory.path()).err,
                AllOf(HasSubstr("support/file.c, "), HasSubstr(", support/module.c: ")));
}

TEST_F(Fwmod, NewReadsNothingOfATemplateThatIsNoSmallFile)
{
    const fs::path file = copyKit() / "NAME.cpp";
    const auto refused = [&](const char* why) {
        const Outcome outcome =
            runProgram({"timeout", "100", directory / "bin/fwmod", "new", "tuner"}, directory.path());
        EXPECT_EQ(outcome.status, 1) << why;
        EXPECT_THAT(outcome.err, AllOf(HasSubstr(why), HasSubstr("scripts/install-sdk")));
        EXPECT_FALSE(fs::exists(directory / "tuner"));
        fs::remove(file);
    };
    writeBytes(file, "");
    fs::resize_file(file, std::uintmax_t{1} << 40);
    refused("is longer than");
    ASSERT_EQ(mkfifo(file.c_str(), 0600), 0);
    refused("is not a file but a pipe");
}

TEST_F(Fwmod, TryNamesWhatItsKitLacks)
{
    fs::copy_file(FWMOD, directory / "fwmod");
    writeBytes(directory / "vset", "");
    fs::permissions(directory / "vset", fs::perms::all);
    fs::copy_file(fs::path(SAMPLE_IMAGES) / "../tuner.so", directory / "tuner.so");
    fs::create_directory(directory / "Tuner");
    const Outcome outcome =
        runProgram({directory / "fwmod", "try", "tuner.so", "--firmware", "Tuner"}, directory.path());
    EXPECT_EQ(outcome.status, 1);
    EXPECT_THAT(outcome.err, AllOf(HasSubstr("platformd is not in "), HasSubstr("scripts/install-sdk")));
}

// ---- crc ----

TEST_F(Fwmod, CrcPrintsTheDaemonsChecksum)
{
    writeBytes(directory / "one", "\x01");
    writeBytes(directory / "none", "");
    const Outcome outcome = fwmod({"crc", "one", "none"});
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.out, "28458147 0x01b23ca3 one\n0 0x00000000 none\n");
}

TEST_F(Fwmod, CrcOfWhatIsNoFileFails)
{
    const Outcome missing = fwmod({"crc", "nowhere"});
    EXPECT_EQ(missing.status, 1);
    EXPECT_EQ(missing.err, "fwmod: nowhere does not exist: check the path\n");
    EXPECT_EQ(fwmod({"crc", "."}).status, 1);
}

TEST_F(Fwmod, CrcOfWhatCannotBeReadFails)
{
    const Outcome outcome = fwmod({"crc", "/proc/self/mem"}); // looks like a file, and reading it fails
    EXPECT_EQ(outcome.status, 1);
    EXPECT_EQ(outcome.out, "");
    EXPECT_EQ(outcome.err, "fwmod: cannot read all of /proc/self/mem: Input/output error\n");
}

TEST_F(Fwmod, LongReadingShowsHowFarItIsAndLeavesNothing)
{
    writeBytes(directory / "huge.bin", "");
    fs::resize_file(directory / "huge.bin", std::uintmax_t{1} << 42); // reading it takes an hour
    writeBytes(directory / "small.bin", "\x01");
    const auto onTerminal = [&](const std::string& command) {
        return runProgram({"env", "TERM=xterm", "script", "-qec",
                           "timeout --foreground -s INT 4 " + std::string(FWMOD) + " " + command,
                           "/dev/null"},
                          directory.path());
    };
    for (const char* command :
         {"crc huge.bin", "info --version 1 --image huge.bin -o info.json", "diff huge.bin huge.bin"}) {
        EXPECT_THAT(onTerminal(command).out,
                    AllOf(HasSubstr("\rhuge.bin [..."), testing::EndsWith("\r\x1b[K")))
            << command;
        EXPECT_EQ(names(), (std::vector<std::string>{"huge.bin", "small.bin"})) << command;
    }
    EXPECT_EQ(onTerminal("crc small.bin").out, "28458147 0x01b23ca3 small.bin\r\n");
    const Outcome unseen =
        runProgram({"timeout", "-s", "INT", "2", FWMOD, "crc", "huge.bin"}, directory.path());
    EXPECT_EQ(unseen.out + unseen.err, "");
}

// ---- info ----

TEST_F(Fwmod, WrittenInformationIsAcceptedByTheCheck)
{
    writeBytes(directory / "Tuner.bin", "\x01");
    const std::vector<std::string> arguments{
        "info", "--version", "1.1",    "--image", "Tuner.bin", "--expected-time",
        "8",    "--ui-use",  "select", "-o",      "info.json"};
    ASSERT_EQ(fwmod(arguments).status, 0);
    EXPECT_EQ(common::readWhole(directory / "info.json"),
              "{\n  \"crc\" : 28458147,\n  \"expected_time\" : 8,\n  \"ui_use\" : \"select\",\n"
              "  \"version\" : \"1.1\"\n}\n");
    const Outcome outcome = fwmod({"info", "--check", "info.json", "--image", "Tuner.bin"});
    EXPECT_EQ(outcome.status, 0);
    EXPECT_THAT(outcome.out, AllOf(HasSubstr("The daemon accepts info.json."), Not(HasSubstr("warning"))));
}

struct InformationCase {
    const char* json;
    int status;
    const char* line; // one line of the report
};

constexpr InformationCase kInformation[] = {
    {R"({"version":"1.2"})", 0, "warning: expected_time -: absent: the daemon takes 300 seconds"},
    {R"({"version":"1.2"/*x*/,"crc":1})", 0, R"(ok: version "1.2": offered)"},
    {R"({"version":"1.2"})", 0, "the daemon logs: Warn: json does not have ui_use tag (info.json)"},
    {R"({})", 0, R"(warning: version -: absent: the daemon takes "0000")"},
    {R"({"version":1.10})", 0, R"(the daemon takes "1.1)"},
    {R"({"version":[]})", 1, "refused: version []"},
    {R"({"crc":-1})", 1, "refused: crc -1"},
    {R"({"crc":"123"})", 1, R"(refused: crc "123")"},
    {R"({"crc":4294967296})", 1, "refused: crc 4294967296"},
    {R"({"crc":true})", 0, "warning: crc true: not a whole number: the daemon takes 1"},
    {R"({"expected_time":"x"})", 1, R"(refused: expected_time "x")"},
    {R"({"expected_time":0})", 0, "warning: expected_time 0: 0 seconds"},
    {R"({"expected_time":2147483})", 0, "ok: expected_time 2147483: seconds"},
    {R"({"expected_time":2147484})", 0,
     "warning: expected_time 2147484: more seconds than the daemon can count"},
    {R"({"ui_use":"Force"})", 0, R"(warning: ui_use "Force": unknown)"},
    {R"({"ui_use":5})", 0, "warning: ui_use 5: not a text"},
    {R"({"ui_use":"force"})", 0, R"(ok: ui_use "force": the screen forces)"},
    {R"({"Version":"1.2"})", 0, R"(warning: Version "1.2": the daemon does not read this key)"},
    {R"({"crc":1,"crc":2})", 0,
     "warning: a key stands more than once (Line 1, Column 10: Duplicate key: 'crc'): "},
    {R"({"crc":"x","crc":2})", 0, "ok: crc 2: compared"},
    {R"({"crc":1,"crc":"x"})", 1, R"(refused: crc "x")"},
    {R"([1])", 1, "refused: - [1]: no JSON object"},
    {R"(null)", 0, "warning: version -: absent"},
    {R"({"version":)", 1, "refused: not JSON"},
    {"", 1, "the daemon logs: Error: json loadInformation fail.(info.json)"},
};

TEST_F(Fwmod, CheckTellsWhatTheDaemonMakesOfEveryValue)
{
    for (const InformationCase& c : kInformation) {
        const Outcome outcome = check(c.json);
        EXPECT_EQ(outcome.status, c.status) << c.json << "\n" << outcome.out;
        EXPECT_THAT(outcome.out, HasSubstr(c.line)) << c.json;
        EXPECT_THAT(outcome.out, HasSubstr(c.status == 0 ? "The daemon accepts" : "The daemon refuses"));
    }
}

TEST_F(Fwmod, CheckReadsAsDeepAndAsFarAsTheDaemon)
{
    const std::string deep = std::string(200, '[') + std::string(200, ']');
    EXPECT_THAT(check("{\"crc\": 1, \"expected_time\": 5, \"ui_use\": \"none\", \"version\": \"1\", \"x\": " +
                      deep + "}")
                    .out,
                AllOf(HasSubstr("The daemon accepts"), Not(HasSubstr("nested"))));
    writeBytes(directory / "endless", "{");
    fs::resize_file(directory / "endless", uintmax_t{1} << 40);
    const Outcome outcome = fwmod({"info", "--check", "endless"});
    EXPECT_EQ(outcome.status, 1);
    EXPECT_THAT(outcome.out, HasSubstr("longer than 1048576 bytes"));
}

TEST_F(Fwmod, CheckComparesTheChecksumOfTheImage)
{
    writeBytes(directory / "Tuner.bin", "\x01");
    EXPECT_EQ(check(R"({"crc":28458147})", {"--image", "Tuner.bin"}).status, 0);
    const Outcome outcome = check(R"({"crc":28458148})", {"--image", "Tuner.bin"});
    EXPECT_EQ(outcome.status, 1);
    EXPECT_THAT(outcome.out, HasSubstr("refused: image Tuner.bin: its checksum is 28458147"));
}

TEST_F(Fwmod, CheckOfAKeyThatStandsTwiceTellsWhichValueTheDaemonTakes)
{
    writeBytes(directory / "Tuner.bin", "\x01");
    const Outcome outcome = check(R"({"crc":5,"crc":28458147})", {"--image", "Tuner.bin"});
    EXPECT_EQ(outcome.status, 0) << outcome.out;
    EXPECT_THAT(outcome.out, HasSubstr("the daemon takes its last value; take the others out"));
    EXPECT_EQ(check(R"({"crc":28458147,"crc":5})", {"--image", "Tuner.bin"}).status, 1);
}

TEST_F(Fwmod, InfoRefusesWrongUseAndWritesNothing)
{
    writeBytes(directory / "Tuner.bin", "x");
    const std::vector<std::vector<std::string>> wrong = {
        {"info"},
        {"info", "--version", "1", "-o", "info.json"},
        {"info", "--version", "1", "--image", "Tuner.bin", "--ui-use", "Select", "-o", "info.json"},
        {"info", "--version", "1", "--image", "Tuner.bin", "--expected-time", "0", "-o", "info.json"},
        {"info", "--version", "1", "--image", "Tuner.bin", "--expected-time", "x", "-o", "info.json"},
        {"info", "--check", "info.json", "--version", "1"},
        {"info", "--what"},
        {},
        {"bake"},
    };
    for (const auto& arguments : wrong) {
        const Outcome outcome = fwmod(arguments);
        EXPECT_EQ(outcome.status, 2) << testing::PrintToString(arguments);
        EXPECT_FALSE(outcome.err.empty());
    }
    EXPECT_EQ(names(), std::vector<std::string>{"Tuner.bin"});
}

TEST_F(Fwmod, OutputReplacesNothingButAFile)
{
    writeBytes(directory / "Tuner.bin", "x");
    fs::create_directory(directory / "directory");
    ASSERT_EQ(mkfifo((directory / "pipe").c_str(), 0600), 0);
    for (const char* output : {"directory", "pipe"}) {
        const Outcome outcome = fwmod({"info", "--version", "1", "--image", "Tuner.bin", "-o", output});
        EXPECT_EQ(outcome.status, 1) << output;
        EXPECT_THAT(outcome.err, HasSubstr("exists and is not a file")) << output;
    }
    EXPECT_TRUE(fs::is_fifo(directory / "pipe"));
    EXPECT_EQ(names(), (std::vector<std::string>{"Tuner.bin", "directory", "pipe"}));
}

// ---- package ----

TEST_F(Fwmod, PackageHoldsWhatTheDaemonLooksFor)
{
    makeInformation();
    ASSERT_EQ(fwmod(packageAs("empTuner")).status, 0);
    ASSERT_EQ(runProgram({"unsquashfs", "-q", "-n", "-d", "tree", "empTuner.img"}, directory.path()).status,
              0);
    EXPECT_EQ(common::readWhole(directory / "tree" / "Tuner.bin"),
              common::readWhole(directory / "Tuner.bin"));
    EXPECT_EQ(common::readWhole(directory / "tree" / "info.json"),
              common::readWhole(directory / "info.json"));
    EXPECT_EQ(names(), (std::vector<std::string>{"Tuner.bin", "empTuner.img", "info.json", "tree"}));
}

TEST_F(Fwmod, FirmwareIsNamedWithoutTheFirstEmp)
{
    makeInformation();
    ASSERT_EQ(fwmod(packageAs("xyempabemp")).status, 0);
    const Outcome listing = runProgram({"unsquashfs", "-l", "xyempabemp.img"}, directory.path());
    EXPECT_THAT(listing.out, HasSubstr("/xyabemp.bin\n"));
}

TEST_F(Fwmod, SameInputGivesTheSameBytesWhateverTimeModeOrEnvironment)
{
    makeInformation();
    ASSERT_EQ(fwmod(packageAs("empTuner")).status, 0);
    const std::string first = common::readWhole(directory / "empTuner.img");
    fs::permissions(directory / "Tuner.bin", fs::perms(0400));
    fs::last_write_time(directory / "Tuner.bin", fs::file_time_type::clock::now() - std::chrono::hours(5000));
    std::vector<std::string> again = packageAs("empTuner");
    again.insert(again.begin(), {"env", "SOURCE_DATE_EPOCH=12345", "TZ=Asia/Tokyo", FWMOD});
    std::this_thread::sleep_for(std::chrono::milliseconds(1100)); // mksquashfs counts in seconds
    const Outcome outcome = runProgram(again, directory.path());
    ASSERT_EQ(outcome.status, 0) << outcome.err;
    EXPECT_TRUE(common::readWhole(directory / "empTuner.img") == first);
}

// They are made by smaller programs, which are built sooner.
TEST_F(Fwmod, SampleImagesAreWhatFwmodMakesOfThem)
{
    struct Sample {
        const char* name;
        const char* expectedTime;
        const char* uiUse;
    };
    for (const Sample& sample : {Sample{"Tuner", "8", "none"}, Sample{"Panel", "6", "select"}}) {
        const fs::path images = fs::path(SAMPLE_IMAGES) / "1.1";
        const std::string image = images / sample.name / (std::string(sample.name) + ".bin");
        const std::string identifier = std::string("emp") + sample.name;
        ASSERT_EQ(fwmod({"info", "--version", "1.1", "--image", image, "--expected-time", sample.expectedTime,
                         "--ui-use", sample.uiUse, "-o", "info.json"})
                      .status,
                  0);
        EXPECT_EQ(common::readWhole(directory / "info.json"),
                  common::readWhole(images / sample.name / "info.json"));
        ASSERT_EQ(fwmod({"package", "--image", image, "--info", "info.json", "--id", identifier}).status, 0);
        EXPECT_TRUE(common::readWhole(directory / (identifier + ".img")) ==
                    common::readWhole(images / (identifier + ".img")))
            << identifier;
    }
}

TEST_F(Fwmod, PackageRefusesIdentifiersThatTheDaemonRefuses)
{
    makeInformation();
    for (const char* identifier :
         {"Tuner", "EMPTuner", "emp_tuner", "emp", "empT ner", "", "empT\xC3\xBCner"}) {
        const Outcome outcome = fwmod(packageAs(identifier));
        EXPECT_EQ(outcome.status, 2) << identifier;
        EXPECT_THAT(outcome.err, HasSubstr("--id")) << identifier;
    }
    EXPECT_EQ(fwmod(packageAs("emp" + std::string(130, 'x'))).status, 2);
    EXPECT_EQ(names(), (std::vector<std::string>{"Tuner.bin", "info.json"}));
}

TEST_F(Fwmod, PackageRefusesWhatTheDaemonWouldRefuse)
{
    makeInformation();
    writeBytes(directory / "Tuner.bin", "changed since");
    const Outcome outcome = fwmod(packageAs("empTuner"));
    EXPECT_EQ(outcome.status, 1);
    EXPECT_THAT(outcome.err, HasSubstr("its checksum is"));
    EXPECT_EQ(names(), (std::vector<std::string>{"Tuner.bin", "info.json"}));
}

TEST_F(Fwmod, InfoNeverOverwritesItsImage)
{
    writeBytes(directory / "image", "firmware");
    const Outcome outcome = fwmod({"info", "--version", "1", "--image", "image", "-o", "image"});
    EXPECT_EQ(outcome.status, 2);
    EXPECT_EQ(common::readWhole(directory / "image"), "firmware");
}

TEST_F(Fwmod, PackageNeverOverwritesItsInput)
{
    makeInformation();
    for (const char* input : {"Tuner.bin", "info.json"}) {
        std::vector<std::string> arguments = packageAs("empTuner");
        arguments.insert(arguments.end(), {"-o", input});
        EXPECT_EQ(fwmod(arguments).status, 2);
    }
    EXPECT_EQ(common::readWhole(directory / "Tuner.bin").size(), 100000U);
}

TEST_F(Fwmod, MissingPackerIsNamed)
{
    makeInformation();
    std::vector<std::string> arguments = packageAs("empTuner");
    arguments.insert(arguments.begin(), {"env", "PATH=/nowhere", FWMOD});
    const Outcome outcome = runProgram(arguments, directory.path());
    EXPECT_EQ(outcome.status, 1);
    EXPECT_EQ(outcome.err, "fwmod: mksquashfs was not found: install squashfs-tools\n");
    EXPECT_EQ(names(), (std::vector<std::string>{"Tuner.bin", "info.json"}));
}

// However it ends, and whatever program it waits for meanwhile.
TEST_F(Fwmod, NothingStaysOfAPackageThatWasInterrupted)
{
    makeInformation();
    fs::create_directories(directory / "bin");
    fs::create_directories(directory / "temporary");
    writeBytes(directory / "bin/mksquashfs", "#!/bin/sh\necho half >\"$2\"\necho $$ > \"$STARTED.part\"\n"
                                             "mv \"$STARTED.part\" \"$STARTED\"\nexec sleep 60\n");
    fs::permissions(directory / "bin/mksquashfs", fs::perms::owner_all);
    const std::string script = R"(
        export TMPDIR=$PWD/temporary PATH=$PWD/bin:$PATH STARTED=$PWD/started
        env --default-signal "$@" &
        until test -e started; do sleep 0.02; done
        ls -d temporary/fwmod-* || exit 100
        kill -$SIGNAL $!
        wait $!
        status=$?
        for try in {1..600}; do # nobody can wait for what removes it after a KILL
            [[ $SIGNAL == KILL ]] && ls temporary | grep -q . || break
            sleep 0.1
        done
        ls temporary
        packing() { grep -q sleep /proc/$(cat started)/cmdline 2>/dev/null; }
        for try in {1..3000}; do packing || break; sleep 0.02; done # who is killed is gone a moment later
        ! packing || echo "the packer goes on"
        rm started
        exit $status)";
    for (const auto& [name, number] :
         {std::pair("INT", SIGINT), std::pair("TERM", SIGTERM), std::pair("HUP", SIGHUP),
          std::pair("QUIT", SIGQUIT), std::pair("XCPU", SIGXCPU), std::pair("KILL", SIGKILL)}) {
        std::vector<std::string> words = {"env", std::string("SIGNAL=") + name, "bash", "-c", script, "bash",
                                          FWMOD};
        const std::vector<std::string> command = packageAs("empTuner");
        words.insert(words.end(), command.begin(), command.end());
        const Outcome outcome = runProgram(words, directory.path());
        EXPECT_EQ(outcome.status, 128 + number) << name << outcome.err;
        EXPECT_THAT(outcome.out, testing::MatchesRegex("temporary/fwmod-[^\n]*\n")) << name;
        EXPECT_EQ(names(), (std::vector<std::string>{"Tuner.bin", "bin", "info.json", "temporary"})) << name;
    }
}

// The helper that removes them is one process, and a process can be killed.
TEST_F(Fwmod, NothingStaysWhenTheHelperIsKilled)
{
    makeInformation();
    fs::create_directories(directory / "bin");
    fs::create_directories(directory / "temporary");
    writeBytes(directory / "bin/mksquashfs",
               "#!/bin/sh\necho half >\"$2\"\n"
               "for child in $(cat /proc/$PPID/task/$PPID/children); do\n"
               "    test $child = $$ || { kill -KILL $child && echo killed >&2; }\n"
               "done\necho no >&2\nexit 1\n");
    fs::permissions(directory / "bin/mksquashfs", fs::perms::owner_all);
    std::vector<std::string> words = {"bash", "-c", "TMPDIR=$PWD/temporary PATH=$PWD/bin:$PATH \"$@\"",
                                      "bash", FWMOD};
    const std::vector<std::string> command = packageAs("empTuner");
    words.insert(words.end(), command.begin(), command.end());
    const Outcome outcome = runProgram(words, directory.path());
    EXPECT_EQ(outcome.status, 1);
    EXPECT_EQ(outcome.err, "fwmod: mksquashfs failed: killed\nno\n");
    EXPECT_TRUE(fs::is_empty(directory / "temporary"));
    EXPECT_EQ(names(), (std::vector<std::string>{"Tuner.bin", "bin", "info.json", "temporary"}));
}

// mksquashfs says that something could not be written, and not what.
TEST_F(Fwmod, FileThatCannotBeWrittenIsNamed)
{
    makeInformation();
    fs::create_directories(directory / "bin");
    writeBytes(directory / "bin/mksquashfs",
               "#!/bin/sh\necho 'Write failed because No space left on device' >&2\nexit 1\n");
    fs::permissions(directory / "bin/mksquashfs", fs::perms::owner_all);
    const auto package = [&](const std::string& output, const std::string& path = "/usr/bin:/bin") {
        std::vector<std::string> words = packageAs("empTuner");
        words.insert(words.begin(), {"env", "PATH=" + path, FWMOD});
        words.insert(words.end(), {"-o", output});
        return runProgram(words, directory.path());
    };
    EXPECT_EQ(package("/proc/version").err, "fwmod: cannot write /proc/version: No such file or directory\n");
    EXPECT_EQ(package("Tuner.bin/x").err, "fwmod: cannot write Tuner.bin/x: Tuner.bin is not a directory\n");
    EXPECT_EQ(package("nowhere/x").err, "fwmod: cannot write nowhere/x: make the directory nowhere first\n");
    EXPECT_EQ(
        package("full.img", directory / "bin").err,
        "fwmod: cannot write full.img: No space left on device: make room there, or name another place\n");
    EXPECT_EQ(names(), (std::vector<std::string>{"Tuner.bin", "bin", "info.json"}));
}

TEST_F(Fwmod, DirectoryForTemporaryFilesIsNamedInShort)
{
    makeInformation();
    for (const std::string& place : {std::string("/nowhere"), "/" + std::string(100000, 'x')}) {
        std::vector<std::string> words = packageAs("empTuner");
        words.insert(words.begin(), {"env", "TMPDIR=" + place, FWMOD});
        const Outcome outcome = runProgram(words, directory.path());
        EXPECT_EQ(outcome.status, 1);
        EXPECT_THAT(outcome.err,
                    testing::StartsWith("fwmod: cannot make a directory for temporary files in /"));
        EXPECT_THAT(outcome.err, testing::EndsWith(" (set TMPDIR to one that can be written)\n"));
        EXPECT_LT(outcome.err.size(), 400U);
    }
}

// The program headers of an example that are then changed, or its whole text.
TEST_F(Fwmod, LibraryThatNoLoaderTakesIsDamaged)
{
    const std::string sound = common::readWhole(fs::path(SAMPLE_IMAGES).parent_path() / "tuner.so");
    const auto inspect = [&](const std::string& bytes) {
        writeBytes(directory / "tuner.so", bytes);
        return fwmod({"inspect", "tuner.so"});
    };
    ASSERT_EQ(inspect(sound).status, 0);
    Elf64_Ehdr header;
    ASSERT_GE(sound.size(), sizeof header);
    std::memcpy(&header, sound.data(), sizeof header);
    const auto withHeader = [&](auto change) {
        Elf64_Ehdr changed = header;
        change(changed);
        return std::string(sound).replace(0, sizeof changed, reinterpret_cast<const char*>(&changed),
                                          sizeof changed);
    };
    const auto withPart = [&](auto change, Elf64_Word type = PT_LOAD) {
        for (std::size_t at = header.e_phoff;; at += header.e_phentsize) {
            Elf64_Phdr part;
            std::memcpy(&part, sound.data() + at, sizeof part);
            if (part.p_type == type) {
                change(part);
                return std::string(sound).replace(at, sizeof part, reinterpret_cast<const char*>(&part),
                                                  sizeof part);
            }
        }
    };
    const std::pair<std::string, const char*> cases[] = {
        {withHeader([](Elf64_Ehdr& e) { e.e_phoff = 0, e.e_phnum = 0; }), "nothing in it can be loaded"},
        {withHeader([](Elf64_Ehdr& e) { e.e_phoff = 0x7fffffff; }), "the file ends too soon"},
        {withPart([](Elf64_Phdr& p) { p.p_filesz = 1ULL << 40; }), "the file ends too soon"},
        {withPart([](Elf64_Phdr& p) { p.p_offset = 1ULL << 40; }), "the file ends too soon"},
        {withPart([](Elf64_Phdr& p) { p.p_memsz = 1ULL << 40; }), "cannot be 1099511627776 bytes in memory"},
        {withPart([](Elf64_Phdr& p) { p.p_memsz = 1; }), "cannot be 1 bytes in memory"},
        {withPart([](Elf64_Phdr& p) { p.p_align = 3; }), "cannot be mapped where it belongs"},
        {withPart([](Elf64_Phdr& p) { p.p_vaddr += 16; }), "cannot be mapped where it belongs"},
        {withPart([](Elf64_Phdr& p) { p.p_vaddr = 1ULL << 40; }), "program headers contradict each other"},
        {withPart([](Elf64_Phdr& p) { p.p_vaddr = 1ULL << 40; }, PT_DYNAMIC), "contradict each other"},
        {withPart([](Elf64_Phdr& p) { p.p_vaddr = 1ULL << 40; }, PT_NOTE), "contradict each other"},
        {withPart([](Elf64_Phdr& p) { p.p_type = PT_NULL; }, PT_DYNAMIC), "it has no dynamic section"},
        {withHeader([](Elf64_Ehdr& e) { e.e_phentsize = 55; }), "nothing in it can be loaded"},
        {sound.substr(0, 4), "is a damaged library: the file ends too soon"},
    };
    for (const auto& [bytes, words] : cases) {
        const Outcome outcome = inspect(bytes);
        EXPECT_EQ(outcome.status, 1) << words;
        EXPECT_THAT(outcome.out + outcome.err, HasSubstr(words));
    }
}

TEST_F(Fwmod, FileThatMayNotGrowIsAFailedWrite)
{
    makeInformation();
    fs::create_directories(directory / "temporary");
    std::vector<std::string> words = {
        "bash", "-c", "ulimit -f 8; TMPDIR=$PWD/temporary exec env --default-signal=XFSZ \"$@\"", "bash",
        FWMOD};
    const std::vector<std::string> command = packageAs("empTuner");
    words.insert(words.end(), command.begin(), command.end());
    const Outcome outcome = runProgram(words, directory.path());
    EXPECT_EQ(outcome.status, 1);
    EXPECT_THAT(outcome.err, AllOf(HasSubstr("cannot copy Tuner.bin into "), HasSubstr("File too large")));
    EXPECT_TRUE(fs::is_empty(directory / "temporary"));
}

TEST_F(Fwmod, PackageOfAnEndlessImageIsRefusedUnread)
{
    makeInformation();
    writeBytes(directory / "endless", "");
    fs::resize_file(directory / "endless", std::uintmax_t{1} << 42); // reading it takes an hour
    const Outcome outcome = runProgram(
        {"timeout", "20", FWMOD, "package", "--image", "endless", "--info", "info.json", "--id", "empTuner"},
        directory.path());
    EXPECT_EQ(outcome.status, 1);
    EXPECT_EQ(outcome.err, "fwmod: endless is too large: a package may hold 4 GiB\n");
}

TEST_F(Fwmod, PackageIntoAMissingDirectoryFails)
{
    makeInformation();
    std::vector<std::string> arguments = packageAs("empTuner");
    arguments.insert(arguments.end(), {"-o", "nowhere/empTuner.img"});
    const Outcome outcome = fwmod(arguments);
    EXPECT_EQ(outcome.status, 1);
    EXPECT_THAT(outcome.err, HasSubstr("nowhere"));
}

// ---- Whatever a file is called, and whatever is in it ----

TEST_F(Fwmod, NothingInAFileSteersTheTerminal)
{
    writeBytes(directory / "Tuner.bin", "firmware");
    writeBytes(directory / "info.json",
               "{\"version\": \"1.1\\u001b[2J\\nThe daemon accepts\", \"odd\\u0007\": \"\x9b\"}");
    const std::vector<std::string> commands[] = {
        {"info", "--check", "info.json"},      {"inspect", "info.json"},
        {"diff", "info.json", "Tuner.bin"},    packageAs("empTuner"),
        {"new", "tuner", "-o", "\x1b[2J\x9b"}, {"inspect", "--json", "info.json"},
    };
    for (const auto& command : commands) {
        const Outcome outcome = fwmod(command);
        for (const std::string& text : {outcome.out, outcome.err}) {
            EXPECT_THAT(text, Not(testing::ContainsRegex("[\x01-\x09\x0b-\x1f\x7f\x9b]"))) << command[0];
            EXPECT_THAT(text, Not(HasSubstr("\nThe daemon accepts\""))) << command[0];
        }
    }
    EXPECT_THAT(fwmod({"inspect", "info.json"}).out, HasSubstr("version: 1.1\\x1B[2J\\nThe daemon accepts"));
}

TEST_F(Fwmod, PipeIsNeverWaitedFor)
{
    makeInformation();
    ASSERT_EQ(mkfifo((directory / "pipe").c_str(), 0600), 0);
    ASSERT_EQ(mkfifo((directory / "pipe.so").c_str(), 0600), 0);
    fs::create_directory(directory / "hardware");
    ASSERT_EQ(mkfifo((directory / "hardware/chip").c_str(), 0600), 0);
    const std::vector<std::string> commands[] = {
        {"crc", "pipe"},
        {"info", "--check", "pipe"},
        {"info", "--check", "info.json", "--image", "pipe"},
        {"info", "--version", "1", "--image", "pipe"},
        {"package", "--image", "pipe", "--info", "info.json", "--id", "empTuner"},
        {"package", "--image", "Tuner.bin", "--info", "pipe", "--id", "empTuner"},
        {"inspect", "pipe"},
        {"inspect", "pipe.so"},
        {"diff", "pipe", "info.json"},
        {"diff", "info.json", "pipe"},
        {"try", "pipe.so", "--firmware", "."},
        {"check", "pipe.so"},
        {"check", "pipe.so", "--hardware", "hardware"},
    };
    for (std::vector<std::string> command : commands) {
        const std::string text = testing::PrintToString(command);
        command.insert(command.begin(), {"timeout", "10", FWMOD});
        const Outcome outcome = runProgram(command, directory.path());
        EXPECT_EQ(outcome.status, command[3] == "diff" ? 2 : 1) << text << outcome.err;
        EXPECT_THAT(outcome.err, AllOf(HasSubstr("pipe"), HasSubstr("is not a file"))) << text;
    }
}

// Files of each kind that are wrong, each in its own way.
void writeWrongFiles(const TemporaryDirectory& directory)
{
    writeBytes(directory / "Tuner.bin", "x");
    writeBytes(directory / "tuner.so", "x");
    writeBytes(directory / "info.json", R"({"crc":-5,"expected_time":[]})");
    writeBytes(directory / "broken.json", "{");
    writeBytes(directory / "empty", "");
    const std::string rest = R"(","crc":5,"expected_time":5,"ui_use":"none"})";
    writeBytes(directory / "long.json", R"({"version":")" + std::string(200000, 'x') + rest);
    writeBytes(directory / "latin.json", "{\"version\":\"1.\xe9" + rest);
    writeBytes(directory / "nul.json", R"({"version":"1.1\u0000x)" + rest);
    std::string library = common::readWhole(fs::path(SAMPLE_IMAGES).parent_path() / "tuner.so");
    writeBytes(directory / "cut.so", library.substr(0, 5000));
    std::fill_n(library.begin() + offsetof(Elf64_Ehdr, e_shoff), sizeof(Elf64_Off), '\xff');
    writeBytes(directory / "bare.so", library);
    writeBytes(directory / "cut.img",
               common::readWhole(fs::path(SAMPLE_IMAGES) / "1.1/empTuner.img").substr(0, 400));
}

// Whatever is given, a line says what is wrong, where, and what to do.
TEST_F(Fwmod, MessagesSayWhatIsWrongAndWhatToDo)
{
    writeWrongFiles(directory);
    const std::string tooLong(5000, 'x');
    struct Case {
        std::vector<std::string> command;
        int status;
        const char* said;
    };
    const Case kCases[] = {
        {{"info", "--check", "info.json"},
         1,
         "refused: crc -5: not a whole number from 0 to 4294967295, as fwmod crc prints it: the daemon refuses "
         "the file; correct the value\n"},
        {{"info", "--check", "info.json"}, 1, "expected_time []: not a whole number of seconds"},
        {{"info", "--check", "broken.json"}, 1, "not JSON: Line 1, Column 2: Missing '}'"},
        {{"info", "--check", "broken.json"}, 1, ": correct it, or write the file anew (fwmod info --version"},
        {{"info", "--check", "empty"}, 1, "refused: it is empty: write the file anew (fwmod info --version"},
        {{"info", "--check", "long.json"}, 0, "xxx...xxx"},
        {{"info", "--check", "latin.json"}, 0, "warning: version \"1.\xEF\xBF\xBD\": no UTF-8"},
        {{"info", "--check", "nul.json"}, 0, "warning: version \"1.1\\u0000x\": holds a NUL"},
        {{"inspect", "long.json"}, 0, "xxx...xxx"},
        {{"inspect", "empty"}, 1, "problem: it is empty: make it anew, or copy it again"},
        {{"inspect", "Tuner.bin"}, 1, ": is it the right file, and whole?"},
        {{"inspect", "cut.so"},
         1,
         "problem: damaged: the file ends too soon (build it anew, or copy it again)\n"},
        {{"inspect", "bare.so"},
         0,
         "note: its entry points cannot be read: its table of sections is missing"},
        {{"inspect", "cut.img"}, 1, " bytes: make it anew (fwmod package), or copy it again\n"},
        {{"new", std::string(125, 'x')},
         2,
         "the identifier that follows from the name is too long: at most 127"},
        {{"new", "tuner", "-o", tooLong}, 1, "fwmod: cannot look at xxx"},
        {{"info", "--version", "1", "--image", "Tuner.bin", "-o", tooLong}, 1, "fwmod: cannot look at xxx"},
        {{"check", "tuner.so", "--hardware", tooLong}, 1, "fwmod: cannot look at xxx"},
        {{"check", "tuner.so", "--hardware", "Tuner.bin/x"}, 1, "--hardware Tuner.bin/x is not a directory"},
        {{"inspect", "Tuner.bin", "--public-key", tooLong}, 1, "neither an encrypted"},
        {{"inspect", "long.json", "--public-key", "none"},
         0,
         "signature and a content key: the keys given were"},
        {{"crc", ""}, 2, "FILE: is empty"},
    };
    for (const Case& c : kCases) {
        const Outcome outcome = fwmod(c.command);
        EXPECT_EQ(outcome.status, c.status) << c.said << outcome.err;
        EXPECT_THAT(outcome.out + outcome.err, AllOf(HasSubstr(c.said), Not(HasSubstr("filesystem error"))));
        EXPECT_LT(outcome.err.size(), 500U) << c.said;
        EXPECT_LT(outcome.out.size(), 2000U) << c.said;
    }
    EXPECT_THAT(fwmod({"inspect", "cut.so"}).out, Not(HasSubstr("setContext is missing")));
    // Its help would not help.
    EXPECT_EQ(fwmod({"diff", "nowhere", "info.json"}).err, "fwmod: nowhere does not exist: check the path\n");
}

TEST_F(Fwmod, HelpOfEveryCommandHasAnExample)
{
    for (const char* command : {"new", "crc", "info", "package", "usb", "inspect", "diff"}) {
        const Outcome outcome = fwmod({command, "--help"});
        EXPECT_EQ(outcome.status, 0);
        EXPECT_THAT(outcome.out, HasSubstr(std::string("  fwmod ") + command)) << command;
        EXPECT_THAT(outcome.err, IsEmpty());
    }
}

TEST_F(Fwmod, ShellCompletesWhatFwmodItselfTells)
{
    const auto complete = [&](const std::string& words, const std::string& index) {
        const std::string script = "PATH=${1%/*}:$PATH; . \"$2\"; COMP_WORDS=(" + words +
                                   "); COMP_CWORD=" + index + "; _fwmod; echo \"${COMPREPLY[*]}\"";
        return runProgram({"bash", "-c", script, "bash", FWMOD, COMPLETION}, directory.path()).out;
    };
    EXPECT_EQ(complete("fwmod di", "1"), "diff\n");
    EXPECT_EQ(complete("fwmod new --e", "2"), "--emp --external\n");
    writeBytes(directory / "Tuner.bin", "");
    EXPECT_EQ(complete("fwmod crc Tu", "2"), "Tuner.bin\n");
}
} // namespace
