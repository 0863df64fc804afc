// fwmod usb, inspect and diff as a maker types them, checked with the openssl command.
#include <algorithm>
#include <chrono>
#include <csignal>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <json/json.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

#include "common/files/whole-file.h"
#include "tests/support/names-in.h"
#include "tests/support/temporary-directory.h"
#include "tests/usb/programs.h"
#include "tests/usb/usb-test-data.h"

namespace fs = std::filesystem;
using testing::AllOf;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

namespace
{

using Words = std::vector<std::string>;
const std::string kIv = "000102030405060708090a0b0c0d0e0f";

class FwmodUsb : public testing::Test
{
protected:
    static void SetUpTestSuite()
    {
        keys = new TemporaryDirectory;
        copyTestKeys(keys->path(), {"maker", "stranger", "short", "curve"});
    }
    static void TearDownTestSuite() { delete keys; }
    void SetUp() override
    {
        writeKey("content.key", key);
        writeBytes(directory / "payload", "payload");
    }
    // As a key has to be: for its owner alone.
    void writeKey(const std::string& name, const std::string& text) const
    {
        writeBytes(directory / name, text);
        fs::permissions(directory / name, fs::perms::owner_read | fs::perms::owner_write);
    }

    Outcome fwmod(Words arguments)
    {
        arguments.insert(arguments.begin(), FWMOD);
        return runProgram(arguments, directory.path());
    }
    // A command line that works, with some of its options replaced or (by an empty text) left out.
    static Words usb(const std::vector<std::pair<std::string, std::string>>& changes = {})
    {
        std::vector<std::pair<std::string, std::string>> options = {{"--version-header", "1.1"},
                                                                    {"--payload", "payload"},
                                                                    {"--key-file", "content.key"},
                                                                    {"--sign-key", *keys / "maker.pem"},
                                                                    {"--iv", kIv},
                                                                    {"-o", "Tuner.bin"}};
        for (const auto& [name, value] : changes) {
            const auto same = [&n = name](const auto& option) { return option.first == n; };
            options.erase(std::remove_if(options.begin(), options.end(), same), options.end());
            if (!value.empty()) {
                options.emplace_back(name, value);
            }
        }
        Words words = {"usb"};
        for (const auto& [name, value] : options) {
            words.insert(words.end(), {name, value});
        }
        return words;
    }
    Outcome inspect(const std::string& file, const Words& more = {})
    {
        Words words = {"inspect", file};
        words.insert(words.end(), more.begin(), more.end());
        return fwmod(words);
    }
    Words allKeys() { return {"--key-file", "content.key", "--public-key", *keys / "maker.pub.pem"}; }

    // Header and payload of an image, after its signature was found good; both by the openssl command.
    std::string open(const std::string& name)
    {
        const std::string image = common::readWhole(directory / name);
        const std::size_t covered = image.size() - 512;
        writeBytes(directory / "covered", image.substr(0, covered));
        writeBytes(directory / "signature", image.substr(covered));
        writeBytes(directory / "secret", image.substr(kIvSize, image.size() - kIvSize - kTrailerSize));
        mustRun(directory.path(), {"openssl", "dgst", "-sha256", "-verify", *keys / "maker.pub.pem",
                                   "-signature", "signature", "covered"});
        mustRun(directory.path(), {"openssl", "enc", "-d", "-aes-256-cbc", "-K", toHex(key), "-iv",
                                   toHex(image.substr(0, kIvSize)), "-in", "secret", "-out", "plain"});
        return common::readWhole(directory / "plain");
    }
    std::vector<std::string> names() { return namesIn(directory.path()); }
    static std::string header(const std::string& text)
    {
        return text + std::string(kVersionHeaderSize - text.size(), '\0');
    }

    static TemporaryDirectory* keys;
    TemporaryDirectory directory;
    Random random{3};
    const std::string key = random.bytes(32);
    const std::vector<std::string> inputs = {"content.key", "payload"};
};
TemporaryDirectory* FwmodUsb::keys = nullptr;

// ---- usb ----

// As the technician's command refuses it, too.
TEST_F(FwmodUsb, KeyThatOthersMayReadIsRefused)
{
    fs::permissions(directory / "content.key", fs::perms::group_read, fs::perm_options::add);
    const Outcome outcome = fwmod(usb());
    EXPECT_EQ(outcome.status, 1);
    EXPECT_THAT(outcome.err, HasSubstr("others may read the key file content.key"));
    EXPECT_EQ(names(), inputs);
}

TEST_F(FwmodUsb, ImageIsWhatTheOpensslCommandTakesApart)
{
    for (const std::size_t size : {0, 1, 15, 16, 17, 65471, 65472, 65473, 65536, 131008, 400001}) {
        const std::string payload = random.bytes(size);
        writeBytes(directory / "payload", payload);
        const Outcome outcome = fwmod(usb());
        ASSERT_EQ(outcome.status, 0) << outcome.err;
        ASSERT_EQ(open("Tuner.bin"), header("1.1") + payload) << size;
    }
}

TEST_F(FwmodUsb, SameInputGivesTheSameBytes)
{
    ASSERT_EQ(fwmod(usb()).status, 0);
    ASSERT_EQ(fwmod(usb({{"-o", "Again.bin"}})).status, 0);
    EXPECT_EQ(common::readWhole(directory / "Tuner.bin"), common::readWhole(directory / "Again.bin"));
}

TEST_F(FwmodUsb, InitialisationVectorIsAnotherEveryTime)
{
    ASSERT_EQ(fwmod(usb({{"--iv", ""}})).status, 0);
    ASSERT_EQ(fwmod(usb({{"--iv", ""}, {"-o", "Again.bin"}})).status, 0);
    EXPECT_NE(common::readWhole(directory / "Tuner.bin").substr(0, kIvSize),
              common::readWhole(directory / "Again.bin").substr(0, kIvSize));
    EXPECT_EQ(open("Again.bin"), header("1.1") + "payload");
}

TEST_F(FwmodUsb, KeyMayBeWrittenAsDigits)
{
    ASSERT_EQ(fwmod(usb()).status, 0);
    std::string upper = toHex(key);
    std::transform(upper.begin(), upper.end(), upper.begin(), ::toupper);
    for (const std::string& text : {toHex(key), toHex(key) + "\n", toHex(key) + "\r\n", upper}) {
        writeKey("digits", text);
        ASSERT_EQ(fwmod(usb({{"--key-file", "digits"}, {"-o", "Again.bin"}})).status, 0) << text;
        EXPECT_EQ(common::readWhole(directory / "Tuner.bin"), common::readWhole(directory / "Again.bin"));
    }
}

TEST_F(FwmodUsb, WrongKeyFileIsRefusedWithoutTellingIt)
{
    const std::string digits = toHex(key);
    for (const std::string& text : {std::string(), key.substr(1), key + "x", digits.substr(1), digits + "0",
                                    digits + "\n\n", digits.substr(1) + "g", " " + digits}) {
        writeKey("content.key", text);
        const Outcome outcome = fwmod(usb());
        EXPECT_EQ(outcome.status, 1) << text;
        EXPECT_THAT(outcome.err,
                    AllOf(HasSubstr("content.key is no content key"), Not(HasSubstr(digits.substr(1, 8)))));
        EXPECT_EQ(names(), inputs);
    }
}

TEST_F(FwmodUsb, HeaderFileIsTakenByteForByte)
{
    const std::string bytes = random.bytes(64);
    writeBytes(directory / "header", bytes);
    ASSERT_EQ(fwmod(usb({{"--version-header", ""}, {"--header-file", "header"}})).status, 0);
    EXPECT_EQ(open("Tuner.bin"), bytes + "payload");
}

TEST_F(FwmodUsb, KeyFilesWithoutAnEndAreNotRead)
{
    writeKey("endless", "");
    fs::resize_file(directory / "endless", std::uintmax_t{1} << 42); // reading it takes an hour
    Words image = usb({{"--sign-key", "endless"}});
    image.insert(image.begin(), {"timeout", "20", FWMOD});
    const Outcome outcome = runProgram(image, directory.path());
    EXPECT_EQ(outcome.status, 1);
    EXPECT_EQ(outcome.err, "fwmod: endless is longer than 65536 bytes: name the signing key's file\n");
    ASSERT_EQ(fwmod(usb()).status, 0);
    EXPECT_THAT(runProgram({"timeout", "20", FWMOD, "inspect", "Tuner.bin", "--public-key", "endless"},
                           directory.path())
                    .err,
                HasSubstr("endless holds no public RSA key"));
}

// ---- The password of a signing key ----

class FwmodUsbPassword : public FwmodUsb
{
protected:
    void SetUp() override
    {
        FwmodUsb::SetUp();
        mustRun(directory.path(), {"openssl", "pkey", "-in", *keys / "maker.pem", "-aes256", "-passout",
                                   "pass:right", "-out", "protected.pem"});
    }
    // On a terminal of its own, or without any; `script` starts the program as "$@".
    Outcome runIn(const Words& room, const std::string& script)
    {
        writeBytes(directory / "script", script);
        Words words = room;
        words.insert(words.end(), {"sh", "script", FWMOD});
        const Words image = usb({{"--sign-key", "protected.pem"}});
        words.insert(words.end(), image.begin(), image.end());
        return runProgram(words, directory.path());
    }
};

TEST_F(FwmodUsbPassword, IsAskedForAndAWrongOneIsCalledSo)
{
    const Words noTerminal = {"setsid", "--wait"};
    const Outcome wrong = runIn(noTerminal, "echo wrong | \"$@\"");
    EXPECT_EQ(wrong.status, 1);
    EXPECT_THAT(wrong.err, HasSubstr("the password of protected.pem is not right"));
    EXPECT_FALSE(fs::exists(directory / "Tuner.bin"));
    const Outcome right = runIn(noTerminal, "echo right | \"$@\"");
    EXPECT_EQ(right.status, 0) << right.err;
    EXPECT_TRUE(fs::exists(directory / "Tuner.bin"));
}

TEST_F(FwmodUsbPassword, InterruptedQuestionEndsTheProgramAndLeavesTheTerminalAsItWas)
{
    writeBytes(directory / "terminal", "trap : INT\n\"$@\"\necho \"ended with $?\"\nstty -a\n");
    const Outcome outcome = runIn(
        {},
        "mkfifo keys; exec 3<>keys; env --default-signal=INT,QUIT script -qefc \"sh terminal $*\" /dev/null <keys >told & "
        "until grep -q assword told || ! kill -0 $!; do sleep 0.05; done; printf '\\003' >&3; "
        "until grep -q 'ended with' told || ! kill -0 $!; do sleep 0.05; done; exec 3>&-; wait $!; cat told");
    EXPECT_THAT(outcome.out, HasSubstr("ended with 130"));
    EXPECT_THAT(outcome.out, HasSubstr(" echo "));
    EXPECT_THAT(outcome.out, Not(HasSubstr("private key"))); // which there is
}

TEST_F(FwmodUsb, WrongUseWritesNothing)
{
    writeBytes(directory / "payload", "payload");
    const std::vector<Words> wrong = {
        usb({{"--version-header", ""}}),
        usb({{"--header-file", "payload"}}), // beside --version-header
        usb({{"--payload", ""}}),
        usb({{"--key-file", ""}}),
        usb({{"--sign-key", ""}}),
        usb({{"-o", ""}}),
        usb({{"--iv", "00"}}),
        usb({{"--iv", kIv + "00"}}),
        usb({{"--iv", "g" + kIv.substr(1)}}),
        usb({{"--version-header", std::string(64, 'v')}}),
        usb({{"-o", "payload"}}),
        usb({{"-o", "content.key"}}),
        usb({{"-o", *keys / "maker.pem"}}),
        usb({{"--key", toHex(key)}}),
    };
    for (const Words& words : wrong) {
        const Outcome outcome = fwmod(words);
        EXPECT_EQ(outcome.status, 2) << testing::PrintToString(words);
        EXPECT_FALSE(outcome.err.empty());
        EXPECT_EQ(names(), inputs) << testing::PrintToString(words);
    }
    EXPECT_EQ(common::readWhole(directory / "content.key"), key);
}

TEST_F(FwmodUsb, WhatCannotBeDoneWritesNothing)
{
    writeBytes(directory / "text.pem", "no key");
    const std::vector<std::pair<Words, const char*>> failing = {
        {usb({{"--payload", "nowhere"}}), "nowhere does not exist"},
        {usb({{"--payload", "."}}), "is not a file"},
        {usb({{"--key-file", "nowhere"}}), "nowhere does not exist"},
        {usb({{"--sign-key", "nowhere"}}), "nowhere does not exist"},
        {usb({{"--sign-key", "text.pem"}}), "holds no private key"},
        {usb({{"--sign-key", *keys / "maker.pub.pem"}}), "holds no private key"},
        {usb({{"--sign-key", *keys / "short.pem"}}), "RSA with 4096 bits is needed"},
        {usb({{"--sign-key", *keys / "curve.pem"}}), "RSA with 4096 bits is needed"},
        {usb({{"-o", "nowhere/Tuner.bin"}}), "make the directory nowhere first"},
        {usb({{"-o", "."}}), "exists and is not a file"},
    };
    for (const auto& [words, text] : failing) {
        const Outcome outcome = fwmod(words);
        EXPECT_EQ(outcome.status, 1) << text;
        EXPECT_THAT(outcome.err, HasSubstr(text));
        EXPECT_EQ(names(), (Words{"content.key", "payload", "text.pem"})) << text;
    }
}

TEST_F(FwmodUsb, PayloadThatTheDaemonCannotCountIsRefused)
{
    // 16 + 2147483088 + 534 bytes would be the largest; with its padding and header the payload is 65 less.
    constexpr off_t kLargest = 2147483088 - 65;
    for (const off_t size : {kLargest + 1, off_t{2147483647}, off_t{4294967296}, off_t{1} << 40}) {
        ASSERT_EQ(truncate((directory / "payload").c_str(), size), 0);
        const Outcome outcome = fwmod(usb());
        EXPECT_EQ(outcome.status, 1) << size;
        EXPECT_THAT(outcome.err, HasSubstr("too large"));
        EXPECT_EQ(names(), inputs);
    }
}

TEST_F(FwmodUsb, PipeIsNeitherReadNorReplaced)
{
    ASSERT_EQ(mkfifo((directory / "pipe").c_str(), 0600), 0);
    for (const char* option : {"--payload", "--key-file", "--sign-key", "-o"}) {
        EXPECT_EQ(fwmod(usb({{option, "pipe"}})).status, 1) << option;
    }
    EXPECT_EQ(fwmod(usb({{"--version-header", ""}, {"--header-file", "pipe"}})).status, 1);
    EXPECT_EQ(inspect("pipe").status, 1);
    EXPECT_EQ(names(), (Words{"content.key", "payload", "pipe"}));
}

TEST_F(FwmodUsb, FullDiskLeavesTheFormerImage)
{
    ASSERT_EQ(fwmod(usb()).status, 0);
    const std::string before = common::readWhole(directory / "Tuner.bin");
    writeBytes(directory / "payload", std::string(300000, 'p'));
    Words words = usb();
    words.insert(words.begin(), {"sh", "-c", "ulimit -f 100; trap '' XFSZ; exec \"$@\"", "sh", FWMOD});
    const Outcome outcome = runProgram(words, directory.path());
    EXPECT_EQ(outcome.status, 1);
    EXPECT_THAT(outcome.err, HasSubstr("cannot write"));
    EXPECT_EQ(common::readWhole(directory / "Tuner.bin"), before);
    EXPECT_EQ(names(), (Words{"Tuner.bin", "content.key", "payload"}));
}

TEST_F(FwmodUsb, InterruptionLeavesNothing)
{
    ASSERT_EQ(truncate((directory / "payload").c_str(), 2000000000), 0); // takes seconds
    Words words = usb();
    words.insert(words.begin(), {"timeout", "--preserve-status", "0.3", FWMOD});
    EXPECT_EQ(runProgram(words, directory.path()).status, 128 + SIGTERM);
    EXPECT_EQ(names(), inputs);
}

// Nobody can wait for the end of what is still at work for a killed program.
TEST_F(FwmodUsb, KillLeavesNothing)
{
    ASSERT_EQ(truncate((directory / "payload").c_str(), 2000000000), 0); // takes seconds
    Words words = usb();
    words.insert(words.begin(), {"timeout", "--signal=KILL", "0.3", FWMOD});
    EXPECT_EQ(runProgram(words, directory.path()).status, 128 + SIGKILL);
    for (int time = 0; time < 1200 && names() != inputs; ++time) {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    EXPECT_EQ(names(), inputs);
}

// ---- inspect ----

TEST_F(FwmodUsb, InspectTellsAllOfAGoodImage)
{
    ASSERT_EQ(fwmod(usb()).status, 0);
    const Outcome outcome = inspect("Tuner.bin", allKeys());
    EXPECT_EQ(outcome.status, 0);
    EXPECT_THAT(outcome.err, IsEmpty());
    EXPECT_THAT(outcome.out,
                AllOf(HasSubstr("Tuner.bin: encrypted USB image\n"), HasSubstr("  size: 630 bytes\n"),
                      HasSubstr("  iv: " + kIv + "\n"), HasSubstr("  ciphertext: 80 bytes\n"),
                      HasSubstr("  signature: holds\n"), HasSubstr("  version header: 1.1\n"),
                      HasSubstr("  payload: 7 bytes\n"), HasSubstr("it would be accepted"),
                      Not(HasSubstr(toHex(key).substr(0, 8)))));
}

TEST_F(FwmodUsb, InspectTellsProgramsTheSame)
{
    ASSERT_EQ(fwmod(usb()).status, 0);
    Words words = allKeys();
    words.push_back("--json");
    Json::Value root;
    std::istringstream(inspect("Tuner.bin", words).out) >> root;
    EXPECT_EQ(root["kind"], "encrypted USB image");
    EXPECT_EQ(root["accepted"], true);
    EXPECT_EQ(root["signature"], true);
    EXPECT_EQ(root["iv"], kIv);
    EXPECT_EQ(root["version_header"], "1.1");
    EXPECT_EQ(root["payload"], 7);
    EXPECT_TRUE(root["problems"].empty());
}

TEST_F(FwmodUsb, InspectWithoutKeysTellsWhatItCan)
{
    ASSERT_EQ(fwmod(usb()).status, 0);
    const Outcome outcome = inspect("Tuner.bin");
    EXPECT_EQ(outcome.status, 0);
    EXPECT_THAT(outcome.out, AllOf(HasSubstr("signature: not checked"), HasSubstr("give --key-file")));
}

TEST_F(FwmodUsb, InspectTakesTheKeysOfASet)
{
    ASSERT_EQ(fwmod(usb()).status, 0);
    fs::create_directory(directory / "keys");
    fs::copy(*keys / "stranger.pub.pem", directory / "keys" / "1.pem");
    EXPECT_EQ(inspect("Tuner.bin", {"--public-key", "keys"}).status, 1);
    fs::copy(*keys / "maker.pub.pem", directory / "keys" / "2.pem");
    EXPECT_EQ(inspect("Tuner.bin", {"--public-key", "keys"}).status, 0);
}

TEST_F(FwmodUsb, InspectFindsWhatIsWrong)
{
    writeBytes(directory / "payload", random.bytes(3000));
    ASSERT_EQ(fwmod(usb()).status, 0);
    const std::string image = common::readWhole(directory / "Tuner.bin");
    std::string changed = image;
    changed[1000] ^= 1;
    writeBytes(directory / "changed", changed);
    EXPECT_THAT(inspect("changed", allKeys()).out, HasSubstr("problem: signature: does not hold"));
    EXPECT_EQ(inspect("changed", allKeys()).status, 1);

    writeBytes(directory / "cut", image.substr(0, 1000) + image.substr(1001));
    EXPECT_THAT(inspect("cut").out, HasSubstr("problem: between the initialisation vector and the trailer"));
    EXPECT_EQ(inspect("cut").status, 1);

    writeKey("other.key", random.bytes(32));
    EXPECT_THAT(inspect("Tuner.bin", {"--key-file", "other.key"}).out,
                HasSubstr("problem: the content cannot"));
    EXPECT_EQ(inspect("Tuner.bin", {"--key-file", "other.key"}).status, 1);

    EXPECT_EQ(inspect("Tuner.bin", {"--public-key", *keys / "stranger.pub.pem"}).status, 1);
    EXPECT_EQ(inspect("Tuner.bin", {"--public-key", "payload"}).status, 1);
    EXPECT_EQ(inspect("Tuner.bin", {"--public-key", "nowhere"}).status, 1);
    EXPECT_EQ(inspect("Tuner.bin", {"--key-file", "payload"}).status, 1);
}

TEST_F(FwmodUsb, InspectShowsNoControlCharactersOfAHeader)
{
    writeBytes(directory / "header", "\x1b[2J");
    ASSERT_EQ(fwmod(usb({{"--version-header", ""}, {"--header-file", "header"}})).status, 0);
    const Outcome outcome = inspect("Tuner.bin", allKeys());
    EXPECT_THAT(outcome.out, AllOf(HasSubstr("version header: 0x1b5b324a"), Not(HasSubstr("\x1b"))));
}

TEST_F(FwmodUsb, InspectBearsAnImageThatIsCutAnywhere)
{
    ASSERT_EQ(fwmod(usb()).status, 0);
    const std::string image = common::readWhole(directory / "Tuner.bin");
    for (std::size_t size = 0; size < image.size(); size += (size < 40 || size > 560) ? 1 : 40) {
        writeBytes(directory / "cut", image.substr(0, size));
        ASSERT_EQ(inspect("cut", allKeys()).status, 1) << size;
        writeBytes(directory / "cut", image.substr(image.size() - size)); // with its trailer
        ASSERT_EQ(inspect("cut", allKeys()).status, 1) << size;
    }
}

TEST_F(FwmodUsb, InspectHasTheDaemonJudgeAnInformationFile)
{
    writeBytes(directory / "info.json", R"({"version":"1.2","crc":5,"expected_time":8,"ui_use":"none"})");
    const Outcome good = inspect("info.json");
    EXPECT_EQ(good.status, 0);
    EXPECT_THAT(good.out, AllOf(HasSubstr("information file"), HasSubstr("version: 1.2")));
    writeBytes(directory / "bad", R"( {"crc":-1})");
    EXPECT_EQ(inspect("bad").status, 1);
    EXPECT_THAT(inspect("bad").out, HasSubstr("problem: crc -1"));
    writeBytes(directory / "worse.json", "{");
    EXPECT_EQ(inspect("worse.json").status, 1);
}

TEST_F(FwmodUsb, InspectLooksIntoAPackage)
{
    ASSERT_EQ(fwmod({"info", "--version", "1.1", "--image", "payload", "-o", "info.json"}).status, 0);
    ASSERT_EQ(fwmod({"package", "--image", "payload", "--info", "info.json", "--id", "empTuner"}).status, 0);
    const Outcome good = inspect("empTuner.img");
    EXPECT_EQ(good.status, 0) << good.out << good.err;
    EXPECT_THAT(good.out, AllOf(HasSubstr("EMP package"), HasSubstr("files: /Tuner.bin, /info.json"),
                                HasSubstr("version: 1.1")));

    fs::copy(directory / "empTuner.img", directory / "empPanel.img");
    EXPECT_THAT(inspect("empPanel.img").out, HasSubstr("problem: Panel.bin is not in the package"));
    EXPECT_EQ(inspect("empPanel.img").status, 1);
    fs::copy(directory / "empTuner.img", directory / "Tuner.img");
    EXPECT_EQ(inspect("Tuner.img").status, 1);

    std::string damaged = common::readWhole(directory / "empTuner.img");
    writeBytes(directory / "empTuner.img", damaged.substr(0, 200));
    EXPECT_EQ(inspect("empTuner.img").status, 1);
    writeBytes(directory / "empTuner.img", "hsqs");
    EXPECT_EQ(inspect("empTuner.img").status, 1);
}

TEST_F(FwmodUsb, InspectDoesNotFollowALinkOutOfAPackage)
{
    fs::create_directory(directory / "tree");
    fs::create_symlink("/etc/passwd", directory / "tree" / "Tuner.bin");
    writeBytes(directory / "tree" / "info.json", R"({"version":"1"})");
    mustRun(directory.path(), {"mksquashfs", "tree", "empTuner.img", "-quiet", "-no-progress"});
    const Outcome outcome = inspect("empTuner.img");
    EXPECT_EQ(outcome.status, 1);
    EXPECT_THAT(outcome.out, HasSubstr("must be regular files"));
}

// Of some kilobytes; unpacked it would fill the disk.
TEST_F(FwmodUsb, PackageThatHoldsTooMuchIsNotUnpacked)
{
    fs::create_directory(directory / "tree");
    writeBytes(directory / "tree/Tuner.bin", "");
    fs::resize_file(directory / "tree/Tuner.bin", std::uintmax_t{1} << 29);
    for (int copy = 0; copy < 8; ++copy) {
        fs::create_hard_link(directory / "tree/Tuner.bin", directory / "tree" / std::to_string(copy));
    }
    mustRun(directory.path(), {"mksquashfs", "tree", "empTuner.img", "-quiet", "-no-progress"});
    writeBytes(directory / "tuner.so", common::readWhole(COMPLETE_LIBRARY));
    fs::create_directory(directory / "temporary");
    const Words room = {"env", "TMPDIR=" + (directory / "temporary").string(), FWMOD};
    const Words commands[] = {{"inspect", "empTuner.img"},
                              {"diff", "empTuner.img", "tuner.so"},
                              {"check", "tuner.so", "--package", "empTuner.img"}};
    for (const Words& command : commands) {
        Words words = room;
        words.insert(words.end(), command.begin(), command.end());
        const Outcome outcome = runProgram(words, directory.path());
        EXPECT_EQ(outcome.status, command[0] == "diff" ? 2 : 1) << command[0];
        EXPECT_THAT(outcome.out + outcome.err,
                    HasSubstr("empTuner.img would unpack to more than 4 GiB: too much to look into"));
        EXPECT_TRUE(fs::is_empty(directory / "temporary")) << command[0];
    }
}

TEST_F(FwmodUsb, InspectTellsProgramsOfDamageInTheSameForm)
{
    writeBytes(directory / "empTuner.img", "hsqs");
    writeBytes(directory / "tuner.so", "\x7f"
                                       "ELF");
    for (const char* file : {"empTuner.img", "tuner.so"}) {
        const Outcome outcome = inspect(file, {"--json"});
        Json::Value root;
        std::istringstream(outcome.out) >> root;
        EXPECT_EQ(outcome.status, 1);
        EXPECT_EQ(root["file"], file);
        EXPECT_EQ(root["accepted"], false);
        ASSERT_EQ(root["problems"].size(), 1U);
        EXPECT_THAT(root["problems"][0].asString(), HasSubstr("damaged"));
    }
}

TEST_F(FwmodUsb, InspectNamesTheMissingEntryPointsOfALibrary)
{
    const Outcome good = inspect(COMPLETE_LIBRARY);
    EXPECT_EQ(good.status, 0) << good.out;
    EXPECT_THAT(good.out, AllOf(HasSubstr("control library"), HasSubstr("setContext, getEMPID")));
    const Outcome lacking = inspect(LACKING_LIBRARY);
    EXPECT_EQ(lacking.status, 1);
    EXPECT_THAT(lacking.out, HasSubstr("problem: checkVersion is missing, and required"));
    const Outcome optional = inspect(OPTIONAL_LIBRARY);
    EXPECT_EQ(optional.status, 0);
    EXPECT_THAT(optional.out, HasSubstr("note: getExpectedTime is missing, but optional"));
    EXPECT_EQ(inspect(FWMOD).status, 1);
}

TEST_F(FwmodUsb, InspectBearsADamagedLibrary)
{
    const std::string library = common::readWhole(COMPLETE_LIBRARY);
    for (int round = 0; round < 60; ++round) {
        std::string damaged = library.substr(0, static_cast<std::size_t>(random.number(4, 20000)));
        damaged.resize(library.size(), '\xff');
        for (int change = 0; change < 20; ++change) {
            damaged[static_cast<std::size_t>(random.number(4, 600))] = random.bytes(1)[0];
        }
        writeBytes(directory / "tuner.so", round % 2 == 0 ? damaged : damaged.substr(0, 5000));
        EXPECT_GE(inspect("tuner.so").status, 0); // killed by nothing
    }
    writeBytes(directory / "tuner.so", "\x7f"
                                       "ELF");
    EXPECT_EQ(inspect("tuner.so").status, 1);
}

TEST_F(FwmodUsb, InspectSaysWhenItDoesNotKnow)
{
    for (const std::size_t size : {0, 1, 100, 566}) {
        writeBytes(directory / "file", std::string(size, 'u'));
        const Outcome outcome = inspect("file");
        EXPECT_EQ(outcome.status, 1);
        EXPECT_THAT(outcome.out, HasSubstr("file: unknown\n"));
    }
    EXPECT_THAT(inspect("file").out, HasSubstr("could be an encrypted image"));
    EXPECT_EQ(inspect("nowhere").status, 1);
    EXPECT_EQ(inspect(".").status, 1);
    EXPECT_EQ(fwmod({"inspect"}).status, 2);
    EXPECT_EQ(inspect("file", {"--what"}).status, 2);
}

// ---- diff ----

class FwmodDiff : public FwmodUsb
{
protected:
    Outcome diff(const std::string& a, const std::string& b, const Words& more = {})
    {
        Words words = {"diff", a, b};
        words.insert(words.end(), more.begin(), more.end());
        return fwmod(words);
    }
    void makePackage(const std::string& version, const std::string& payload, const Words& more = {})
    {
        const fs::path tree = directory / version / "tree";
        fs::create_directories(tree);
        writeBytes(tree / "Tuner.bin", payload);
        const std::string info = tree / "info.json";
        ASSERT_EQ(fwmod({"info", "--version", version, "--image", tree / "Tuner.bin", "-o", info}).status, 0);
        for (const std::string& name : more) {
            writeBytes(tree / name, "more");
        }
        mustRun(directory.path(),
                {"mksquashfs", tree, directory / version / "empTuner.img", "-quiet", "-no-progress"});
    }
};

TEST_F(FwmodDiff, TheSameBytesAreNoDifference)
{
    fs::copy(directory / "payload", directory / "copy");
    EXPECT_EQ(diff("payload", "copy").status, 0);
    EXPECT_EQ(diff("payload", "copy").out, "payload and copy: the same bytes\n");
}

TEST_F(FwmodDiff, BytesOfAFileOfNoKnownKindAreCountedFromOne)
{
    const std::string bytes = random.bytes(200000);
    for (const std::size_t at : {std::size_t{0}, std::size_t{65535}, std::size_t{65536}, bytes.size() - 1}) {
        std::string changed = bytes;
        changed[at] ^= 1;
        writeBytes(directory / "a", bytes);
        writeBytes(directory / "b", changed);
        EXPECT_THAT(diff("a", "b").out,
                    HasSubstr("content: differs from byte " + std::to_string(at + 1) + " on\n"));
    }
    writeBytes(directory / "b", bytes.substr(0, 65536));
    const Outcome cut = diff("a", "b");
    EXPECT_EQ(cut.status, 1);
    EXPECT_THAT(cut.out, AllOf(HasSubstr("size: 200000 bytes -> 65536 bytes"),
                               HasSubstr("content: differs from byte 65537 on")));
}

TEST_F(FwmodDiff, InformationFilesAreComparedAsTheDaemonReadsThem)
{
    writeBytes(directory / "a.json", R"({"version":"1.0","crc":5,"expected_time":8,"ui_use":"none"})");
    writeBytes(directory / "b.json", R"({"version":"1.1","crc":5,"expected_time":9,"ui_use":"None"})");
    const Outcome outcome = diff("a.json", "b.json");
    EXPECT_EQ(outcome.status, 1);
    EXPECT_EQ(outcome.out, "a.json -> b.json: information file\n"
                           "  version: 1.0 -> 1.1\n"
                           "  expected time: 8 s -> 9 s\n");
    writeBytes(directory / "b.json", R"({"version":"1.0","crc":5,"expected_time":8, "ui_use":"none"})");
    EXPECT_THAT(diff("a.json", "b.json").out, HasSubstr("content: differs from byte 44 on"));
    writeBytes(directory / "b.json", R"({"crc":-1})");
    EXPECT_THAT(diff("a.json", "b.json").out,
                AllOf(HasSubstr("version: 1.0 -> unknown"), HasSubstr("problem: crc -1")));
}

TEST_F(FwmodDiff, PackagesAreComparedFileByFile)
{
    makePackage("1.0", std::string(5000, 'x'));
    makePackage("1.1", std::string(4000, 'x') + std::string(1000, 'y'), {"README"});
    const Outcome outcome = diff("1.0/empTuner.img", "1.1/empTuner.img");
    EXPECT_EQ(outcome.status, 1) << outcome.err;
    EXPECT_THAT(outcome.out,
                AllOf(HasSubstr("EMP package\n"), HasSubstr("  version: 1.0 -> 1.1\n"),
                      HasSubstr("  files: /README: not there -> there\n"),
                      HasSubstr("  /Tuner.bin: differs from byte 4001 on\n"), Not(HasSubstr("problem"))));
}

TEST_F(FwmodDiff, LibrariesAreComparedByWhatTheyExport)
{
    const Outcome outcome = diff(COMPLETE_LIBRARY, LACKING_LIBRARY);
    EXPECT_EQ(outcome.status, 1);
    EXPECT_THAT(outcome.out, AllOf(HasSubstr("  library name: complete -> missing-checkVersion\n"),
                                   HasSubstr("  build id: "),
                                   HasSubstr("  entry points: checkVersion: there -> not there\n"),
                                   Not(HasSubstr("setContext:"))));
}

TEST_F(FwmodDiff, EncryptedImagesTellMoreWithTheKey)
{
    ASSERT_EQ(fwmod(usb({{"-o", "a"}})).status, 0);
    writeBytes(directory / "payload", "PAYLOAD");
    const std::string otherIv(32, 'a');
    ASSERT_EQ(fwmod(usb({{"-o", "b"}, {"--version-header", "1.2"}, {"--iv", otherIv}})).status, 0);
    const Outcome without = diff("a", "b");
    EXPECT_EQ(without.status, 1);
    EXPECT_EQ(without.out, "a -> b: encrypted USB image\n  iv: " + kIv + " -> " + otherIv + "\n");
    EXPECT_THAT(diff("a", "b", {"--key-file", "content.key"}).out,
                AllOf(HasSubstr("  version header: 1.1 -> 1.2\n"), HasSubstr("  payload crc: "),
                      Not(HasSubstr("  payload:"))));
}

TEST_F(FwmodDiff, PayloadChecksumIsThatOfItsFile)
{
    writeBytes(directory / "payload", random.bytes(150000));
    ASSERT_EQ(fwmod(usb()).status, 0);
    const std::string line = fwmod({"crc", "payload"}).out;
    EXPECT_THAT(inspect("Tuner.bin", allKeys()).out,
                HasSubstr("  payload crc: " + line.substr(0, line.find(' ')) + "\n"));
}

TEST_F(FwmodDiff, ProgramsGetTheSame)
{
    writeBytes(directory / "a.json", R"({"version":"1.0","crc":5,"expected_time":8,"ui_use":"none"})");
    writeBytes(directory / "b.json", R"({"version":"1.0","crc":6,"expected_time":8,"ui_use":"none"})");
    Json::Value root;
    std::istringstream(diff("a.json", "b.json", {"--json"}).out) >> root;
    EXPECT_EQ(root["same"], false);
    ASSERT_EQ(root["differences"].size(), 1U);
    EXPECT_EQ(root["differences"][0]["what"], "crc");
    EXPECT_EQ(root["differences"][0]["a"], 5);
    EXPECT_EQ(root["differences"][0]["b"], 6);
}

TEST_F(FwmodDiff, TwoKindsDifferAndTroubleIsNeither)
{
    const Outcome kinds = diff("payload", COMPLETE_LIBRARY);
    EXPECT_EQ(kinds.status, 1);
    EXPECT_THAT(kinds.out, HasSubstr("kind: unknown -> control library"));
    EXPECT_EQ(diff("payload", "nowhere").status, 2);
    EXPECT_THAT(diff("payload", "nowhere").err, HasSubstr("nowhere does not exist"));
    EXPECT_EQ(diff("payload", ".").status, 2);
    EXPECT_EQ(fwmod({"diff", "payload"}).status, 2);
    writeBytes(directory / "a.img", "hsqs");
    writeBytes(directory / "b.img", "hsqs!");
    EXPECT_EQ(diff("a.img", "b.img").status, 2);
}
} // namespace
