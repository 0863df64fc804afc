// The information file of a module, where it and the image lie, and the checksum.
#include <algorithm>
#include <filesystem>
#include <random>
#include <string>
#include <sys/stat.h>

#include "src/src/fw-update-symbol.h"
#include "tests/support/set-test.h"

namespace fs = std::filesystem;
using testing::AllOf;
using testing::ElementsAre;
using testing::EndsWith;
using testing::IsEmpty;
using testing::StartsWith;

namespace
{

constexpr const char* kInformation = "/tmp/info.json";
const std::string kInformationWarning = "Warn: json does not have ui_use tag (/tmp/info.json)\n";

class FWUpdateSymbolInformation : public SetTest
{
protected:
    void SetUp() override
    {
        SetTest::SetUp();
        fs::remove_all(kInformation);
        module.EMPName = "empTuner";
        module.firmwareName = "Tuner";
        module.empImagePath = "/opt/usr/apps/appbinarymanager/empTuner.img";
        module.isEMP = true;
    }

    bool load(const std::string& json)
    {
        writeFile(kInformation, json);
        return module.loadInformation(kInformation);
    }
    const FWInformation& information() const { return module.information; }
    // The message of a wrong type, around the text of the reader.
    void expectConversionFailure()
    {
        const std::vector<LogLine> log = platform.log();
        ASSERT_EQ(log.size(), 1u);
        EXPECT_EQ(log[0].sink, LogSink::kBoth);
        EXPECT_EQ(log[0].priority, 6);
        EXPECT_THAT(log[0].text,
                    AllOf(StartsWith("Error: json crc read fail error:"), EndsWith(" (/tmp/info.json)\n")));
        EXPECT_GT(log[0].text.size(),
                  std::string("Error: json crc read fail error: (/tmp/info.json)\n").size());
    }

    FWUpdateSymbol module{"tuner"};
};

// ---- Reading ----

TEST_F(FWUpdateSymbolInformation, IsEmptyBeforeAFileIsRead)
{
    EXPECT_EQ(information().version, "");
    EXPECT_EQ(information().ui_use, "");
    EXPECT_EQ(information().crc, 0u);
    EXPECT_EQ(information().expected_time, 0u);
}

TEST_F(FWUpdateSymbolInformation, TakesEveryKey)
{
    EXPECT_TRUE(load(R"({"version": "1.2", "crc": 28458147, "expected_time": 45, "ui_use": "select"})"));
    EXPECT_EQ(information().version, "1.2");
    EXPECT_EQ(information().crc, 28458147u);
    EXPECT_EQ(information().expected_time, 45u);
    EXPECT_EQ(information().ui_use, "select");
    EXPECT_THAT(platform.log(), IsEmpty());
}

TEST_F(FWUpdateSymbolInformation, WithTheVersionAloneHasTheDefaultsAndAWarning)
{
    EXPECT_TRUE(load(R"({"version": "1.2"})"));
    EXPECT_EQ(information().version, "1.2");
    EXPECT_EQ(information().crc, 0u);
    EXPECT_EQ(information().expected_time, 300u);
    EXPECT_EQ(information().ui_use, "none");
    EXPECT_THAT(platform.log(), ElementsAre(info(kInformationWarning)));
}

TEST_F(FWUpdateSymbolInformation, WithoutAVersionHasFourZeros)
{
    EXPECT_TRUE(load("{}"));
    EXPECT_EQ(information().version, "0000");
}

TEST_F(FWUpdateSymbolInformation, ReplacesAllOfAnEarlierOne)
{
    ASSERT_TRUE(load(R"({"version": "1.2", "crc": 7, "expected_time": 45, "ui_use": "force"})"));
    ASSERT_TRUE(load("{}"));
    EXPECT_EQ(information().version, "0000");
    EXPECT_EQ(information().crc, 0u);
    EXPECT_EQ(information().expected_time, 300u);
    EXPECT_EQ(information().ui_use, "none");
}

TEST_F(FWUpdateSymbolInformation, IgnoresOtherKeys)
{
    EXPECT_TRUE(load(R"({"Version": "9", "CRC": 9, "vendor": [1, {"a": null}], "ui_use": "force"})"));
    EXPECT_EQ(information().version, "0000");
    EXPECT_EQ(information().crc, 0u);
}

TEST_F(FWUpdateSymbolInformation, TakesTheLargestChecksumAndTime)
{
    EXPECT_TRUE(load(R"({"crc": 4294967295, "expected_time": 4294967295, "ui_use": "force"})"));
    EXPECT_EQ(information().crc, 4294967295u);
    EXPECT_EQ(information().expected_time, 4294967295u);
}

TEST_F(FWUpdateSymbolInformation, TakesATimeOfZero)
{
    EXPECT_TRUE(load(R"({"expected_time": 0, "ui_use": "force"})"));
    EXPECT_EQ(information().expected_time, 0u);
}

TEST_F(FWUpdateSymbolInformation, TakesALongVersionWhole)
{
    const std::string version(100000, 'v');
    EXPECT_TRUE(load(R"({"version": ")" + version + R"(", "ui_use": "force"})"));
    EXPECT_EQ(information().version, version);
}

TEST_F(FWUpdateSymbolInformation, TakesTheFirstObjectOfAFileWithMoreBehindIt)
{
    EXPECT_TRUE(load(R"({"version": "1.2", "ui_use": "force"} trailing)"));
    EXPECT_EQ(information().version, "1.2");
}

// The reader's own conversions: a number is a version, and what has no digits is a 0 or a 1.
TEST_F(FWUpdateSymbolInformation, TakesANumberAsAVersion)
{
    EXPECT_TRUE(load(R"({"version": 12, "ui_use": "force"})"));
    EXPECT_EQ(information().version, "12");
}

TEST_F(FWUpdateSymbolInformation, TakesANullChecksumAsZero)
{
    EXPECT_TRUE(load(R"({"crc": null, "expected_time": null, "ui_use": "force"})"));
    EXPECT_EQ(information().crc, 0u);
    EXPECT_EQ(information().expected_time, 0u);
}

TEST_F(FWUpdateSymbolInformation, TakesANullRootAsAllDefaults)
{
    EXPECT_TRUE(load("null"));
    EXPECT_EQ(information().version, "0000");
    EXPECT_EQ(information().crc, 0u);
    EXPECT_EQ(information().expected_time, 300u);
    EXPECT_EQ(information().ui_use, "none");
    EXPECT_THAT(platform.log(), ElementsAre(info(kInformationWarning)));
}

// ---- The use by the upgrade screen ----

struct UiUseCase {
    const char* json; // the value
    const char* stored;
    bool isWarned;
};

void PrintTo(const UiUseCase& one, std::ostream* out)
{
    *out << one.json;
}

class FWUpdateSymbolUiUse : public FWUpdateSymbolInformation, public testing::WithParamInterface<UiUseCase>
{
};

TEST_P(FWUpdateSymbolUiUse, IsStoredWhenItIsKnown)
{
    EXPECT_TRUE(load(std::string(R"({"ui_use": )") + GetParam().json + "}"));
    EXPECT_EQ(information().ui_use, GetParam().stored);
}

TEST_P(FWUpdateSymbolUiUse, IsWarnedOfWhenItIsNoText)
{
    load(std::string(R"({"ui_use": )") + GetParam().json + "}");
    EXPECT_THAT(platform.log(), GetParam().isWarned ? testing::Matcher<std::vector<LogLine>>(
                                                          ElementsAre(info(kInformationWarning)))
                                                    : testing::Matcher<std::vector<LogLine>>(IsEmpty()));
}

TEST_P(FWUpdateSymbolUiUse, DecidesWhatTheScreenDoes)
{
    load(std::string(R"({"ui_use": )") + GetParam().json + "}");
    const std::string stored = GetParam().stored;
    EXPECT_EQ(module.isUISupportUpdate(), stored == "select" || stored == "force");
    EXPECT_EQ(module.hasUISupportForce(), stored == "force");
}

INSTANTIATE_TEST_SUITE_P(
    EveryKindOfValue, FWUpdateSymbolUiUse,
    testing::Values(UiUseCase{R"("select")", "select", false}, UiUseCase{R"("force")", "force", false},
                    UiUseCase{R"("none")", "none", false}, UiUseCase{R"("Force")", "none", false},
                    UiUseCase{R"("SELECT")", "none", false}, UiUseCase{R"("")", "none", false},
                    UiUseCase{R"("selected")", "none", false}, UiUseCase{R"("force ")", "none", false},
                    UiUseCase{"5", "none", true}, UiUseCase{"null", "none", true},
                    UiUseCase{"true", "none", true}, UiUseCase{R"(["force"])", "none", true},
                    UiUseCase{R"({"force": 1})", "none", true}));

TEST_F(FWUpdateSymbolInformation, OffersNothingBeforeAFileIsRead)
{
    EXPECT_FALSE(module.isUISupportUpdate());
    EXPECT_FALSE(module.hasUISupportForce());
}

// ---- Values of the wrong type ----

class FWUpdateSymbolWrongNumber : public FWUpdateSymbolInformation,
                                  public testing::WithParamInterface<const char*>
{
};

TEST_P(FWUpdateSymbolWrongNumber, AsChecksumFailsAfterTheVersionWasReplaced)
{
    ASSERT_TRUE(load(R"({"version": "old", "crc": 5, "expected_time": 6, "ui_use": "force"})"));
    EXPECT_FALSE(load(std::string(R"({"version": "new", "expected_time": 9, "crc": )") + GetParam() + "}"));
    EXPECT_EQ(information().version, "new");
    EXPECT_EQ(information().crc, 5u);
    EXPECT_EQ(information().expected_time, 6u);
    EXPECT_EQ(information().ui_use, "force");
    expectConversionFailure();
}

TEST_P(FWUpdateSymbolWrongNumber, AsTimeFailsWithTheWordsOfTheChecksum)
{
    ASSERT_TRUE(load(R"({"version": "old", "crc": 5, "expected_time": 6, "ui_use": "force"})"));
    EXPECT_FALSE(load(std::string(R"({"version": "new", "crc": 9, "ui_use": "select", "expected_time": )") +
                      GetParam() + "}"));
    EXPECT_EQ(information().version, "new");
    EXPECT_EQ(information().crc, 9u);
    EXPECT_EQ(information().expected_time, 6u);
    EXPECT_EQ(information().ui_use, "force");
    expectConversionFailure();
}

INSTANTIATE_TEST_SUITE_P(EveryKindOfValue, FWUpdateSymbolWrongNumber,
                         testing::Values("-1", R"("123")", R"("x")", R"("")", "[]", "[1]", R"({"a": 1})",
                                         "4294967296", "18446744073709551615", "18446744073709551616",
                                         "1e300", "-1e300"));

class FWUpdateSymbolWrongVersion : public FWUpdateSymbolInformation,
                                   public testing::WithParamInterface<const char*>
{
};

TEST_P(FWUpdateSymbolWrongVersion, FailsWithTheWordsOfTheChecksum)
{
    ASSERT_TRUE(load(R"({"version": "old", "crc": 5, "expected_time": 6, "ui_use": "force"})"));
    EXPECT_FALSE(load(std::string(R"({"crc": 9, "version": )") + GetParam() + "}"));
    EXPECT_EQ(information().version, "old");
    EXPECT_EQ(information().crc, 5u);
    expectConversionFailure();
}

INSTANTIATE_TEST_SUITE_P(EveryKindOfValue, FWUpdateSymbolWrongVersion,
                         testing::Values("[]", R"(["1.2"])", R"({"a": "1.2"})"));

class FWUpdateSymbolWrongRoot : public FWUpdateSymbolInformation,
                                public testing::WithParamInterface<const char*>
{
};

TEST_P(FWUpdateSymbolWrongRoot, FailsWithTheWordsOfTheChecksum)
{
    module.information.version = "old";
    EXPECT_FALSE(load(GetParam()));
    EXPECT_EQ(information().version, "old");
    expectConversionFailure();
}

INSTANTIATE_TEST_SUITE_P(EveryKindOfValue, FWUpdateSymbolWrongRoot,
                         testing::Values("[]", R"([{"version": "1.2"}])", "5", R"("text")", "true", "-1.5"));

// ---- Files that cannot be read ----

class FWUpdateSymbolNoJson : public FWUpdateSymbolInformation, public testing::WithParamInterface<std::string>
{
};

TEST_P(FWUpdateSymbolNoJson, FailsAndChangesNothing)
{
    module.information.version = "old";
    module.information.ui_use = "force";
    module.information.crc = 5;
    EXPECT_FALSE(load(GetParam()));
    EXPECT_EQ(information().version, "old");
    EXPECT_EQ(information().ui_use, "force");
    EXPECT_EQ(information().crc, 5u);
    EXPECT_THAT(platform.log(), ElementsAre(error("Error: json loadInformation fail.(/tmp/info.json)\n")));
}

INSTANTIATE_TEST_SUITE_P(EveryKindOfText, FWUpdateSymbolNoJson,
                         testing::Values("", " ", "not json", "{", R"({"version")", R"({"version": "1.2")",
                                         R"({"version": "1.2",, "crc": 1})", R"({version: 1})", "{\"crc\": 1",
                                         std::string("\0\0\0\0", 4), std::string(5000, '['),
                                         std::string(5000, '[') + std::string(5000, ']')));

class FWUpdateSymbolUnreadable : public FWUpdateSymbolInformation
{
protected:
    void expectFailure(const std::string& path)
    {
        EXPECT_FALSE(module.loadInformation(path));
        EXPECT_THAT(platform.log(), ElementsAre(error("Error: json loadInformation fail.(" + path + ")\n")));
    }
};

// What would never end, or hold its reader until somebody writes.
TEST_F(FWUpdateSymbolUnreadable, AFifoFailsAtOnce)
{
    ASSERT_EQ(mkfifo(kInformation, 0600), 0);
    expectFailure(kInformation);
}

TEST_F(FWUpdateSymbolUnreadable, ALinkToADeviceFails)
{
    fs::create_symlink("/dev/zero", kInformation);
    expectFailure(kInformation);
}

TEST_F(FWUpdateSymbolUnreadable, MoreThanAMebibyteFailsAndChangesNothing)
{
    module.information.version = "old";
    const std::string json = R"({"version": "1.2"})";
    writeFile(kInformation, json + std::string((1 << 20) + 1 - json.size(), ' '));
    expectFailure(kInformation);
    EXPECT_EQ(information().version, "old");
}

TEST_F(FWUpdateSymbolInformation, MayHaveAMebibyte)
{
    const std::string json = R"({"version": "1.2"})";
    EXPECT_TRUE(load(json + std::string((1 << 20) - json.size(), ' ')));
    EXPECT_EQ(information().version, "1.2");
}

TEST_F(FWUpdateSymbolUnreadable, AMissingFileFails)
{
    expectFailure("/tmp/missing.json");
}

TEST_F(FWUpdateSymbolUnreadable, AnEmptyPathFails)
{
    expectFailure("");
}

TEST_F(FWUpdateSymbolUnreadable, ADirectoryFails)
{
    expectFailure("/tmp");
}

TEST_F(FWUpdateSymbolUnreadable, ADanglingLinkFails)
{
    fs::create_symlink("/tmp/missing.json", kInformation);
    expectFailure(kInformation);
}

TEST_F(FWUpdateSymbolUnreadable, AFileInPlaceOfADirectoryFails)
{
    writeFile("/tmp/file", "");
    expectFailure("/tmp/file/info.json");
}

// Values beside the limit of the reader's depth (1000) are still values that nobody looks at.
TEST_F(FWUpdateSymbolInformation, ReadsWhatIsNestedAsDeepAsTheReaderGoes)
{
    EXPECT_TRUE(
        load(R"({"ui_use": "force", "deep": )" + std::string(900, '[') + std::string(900, ']') + "}"));
    EXPECT_EQ(information().ui_use, "force");
}

// ---- Keeping and putting back ----

TEST_F(FWUpdateSymbolInformation, IsClonedWhole)
{
    load(R"({"version": "1.2", "crc": 7, "expected_time": 45, "ui_use": "select"})");
    FWInformation copy;
    module.cloneFwInformation(copy);
    EXPECT_EQ(copy.version, "1.2");
    EXPECT_EQ(copy.crc, 7u);
    EXPECT_EQ(copy.expected_time, 45u);
    EXPECT_EQ(copy.ui_use, "select");
}

TEST_F(FWUpdateSymbolInformation, IsRestoredWhole)
{
    load(R"({"version": "1.2", "crc": 7, "expected_time": 45, "ui_use": "select"})");
    FWInformation copy;
    module.cloneFwInformation(copy);
    load(R"({"version": "2.0", "crc": 8, "expected_time": 46, "ui_use": "force"})");
    module.restoreFwInformation(copy);
    EXPECT_EQ(information().version, "1.2");
    EXPECT_EQ(information().crc, 7u);
    EXPECT_EQ(information().expected_time, 45u);
    EXPECT_EQ(information().ui_use, "select");
}

// ---- Paths ----

TEST_F(FWUpdateSymbolInformation, OfAPackageLiesInItsMountPoint)
{
    EXPECT_EQ(module.getBinaryPath(UPDATE_TYPE_EMP),
              "/opt/usr/apps/appbinarymanager/emps/empTuner/Tuner.bin");
    EXPECT_EQ(module.getInformationPath(UPDATE_TYPE_EMP),
              "/opt/usr/apps/appbinarymanager/emps/empTuner/info.json");
}

TEST_F(FWUpdateSymbolInformation, OfTheSystemImageLiesUnderTheFirmwareName)
{
    EXPECT_EQ(module.getBinaryPath(UPDATE_TYPE_BUILTIN), "/lib/firmware/ext/Tuner/Tuner.bin");
    EXPECT_EQ(module.getInformationPath(UPDATE_TYPE_BUILTIN), "/lib/firmware/ext/Tuner/info.json");
}

TEST_F(FWUpdateSymbolInformation, OfTheSandboxLiesUnderTheFirmwareName)
{
    EXPECT_EQ(module.getBinaryPath(UPDATE_TYPE_SBOX), "/opt/usr/share/sbox/Tuner/Tuner.bin");
    EXPECT_EQ(module.getInformationPath(UPDATE_TYPE_SBOX), "/opt/usr/share/sbox/Tuner/info.json");
}

class FWUpdateSymbolUnknownType : public FWUpdateSymbolInformation, public testing::WithParamInterface<int>
{
};

TEST_P(FWUpdateSymbolUnknownType, IsAPackage)
{
    const auto type = static_cast<UPDATE_TYPE>(GetParam());
    EXPECT_EQ(module.getBinaryPath(type), "/opt/usr/apps/appbinarymanager/emps/empTuner/Tuner.bin");
    EXPECT_EQ(module.getInformationPath(type), "/opt/usr/apps/appbinarymanager/emps/empTuner/info.json");
    EXPECT_THAT(platform.log(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(EveryOtherNumber, FWUpdateSymbolUnknownType, testing::Values(4, 7, -1, 256));

class FWUpdateSymbolUsbStick : public FWUpdateSymbolInformation
{
protected:
    static void plugIn(const std::string& name)
    {
        fs::create_directory(std::string(set::kMedia) + "/" + name);
    }
};

TEST_F(FWUpdateSymbolUsbStick, ThatIsMissingLeavesNoImagePath)
{
    EXPECT_EQ(module.getBinaryPath(UPDATE_TYPE_USB), "");
    EXPECT_THAT(platform.log(), ElementsAre(error("Error: Usb mount path Not found.")));
}

TEST_F(FWUpdateSymbolUsbStick, ThatIsMissingLeavesNoInformationPath)
{
    EXPECT_EQ(module.getInformationPath(UPDATE_TYPE_USB), "");
    EXPECT_THAT(platform.log(), ElementsAre(error("Error: Usb mount path Not found.")));
}

TEST_F(FWUpdateSymbolUsbStick, ThatIsMissingLeavesTheMountPathUntouched)
{
    std::string path = "before";
    EXPECT_FALSE(module.getUsbMountPath(path));
    EXPECT_EQ(path, "before");
    EXPECT_THAT(platform.log(), IsEmpty());
}

TEST_F(FWUpdateSymbolUsbStick, HoldsImageAndInformationUnderTheFirmwareName)
{
    plugIn("USBDriveA");
    EXPECT_EQ(module.getBinaryPath(UPDATE_TYPE_USB), "/opt/media/USBDriveA/Tuner/Tuner.bin");
    EXPECT_EQ(module.getInformationPath(UPDATE_TYPE_USB), "/opt/media/USBDriveA/Tuner/info.json");
    EXPECT_THAT(platform.log(), IsEmpty());
}

TEST_F(FWUpdateSymbolUsbStick, WithANumberIsFound)
{
    plugIn("USBDriveA3");
    EXPECT_EQ(module.getBinaryPath(UPDATE_TYPE_USB), "/opt/media/USBDriveA3/Tuner/Tuner.bin");
    EXPECT_EQ(module.getInformationPath(UPDATE_TYPE_USB), "/opt/media/USBDriveA3/Tuner/info.json");
}

TEST_F(FWUpdateSymbolUsbStick, WithoutANumberComesFirst)
{
    plugIn("USBDriveA1");
    plugIn("USBDriveA");
    std::string path;
    EXPECT_TRUE(module.getUsbMountPath(path));
    EXPECT_EQ(path, "/opt/media/USBDriveA/");
}

TEST_F(FWUpdateSymbolUsbStick, WithTheLowerNumberComesFirst)
{
    plugIn("USBDriveA10");
    plugIn("USBDriveA2");
    std::string path;
    EXPECT_TRUE(module.getUsbMountPath(path));
    EXPECT_EQ(path, "/opt/media/USBDriveA2/");
}

TEST_F(FWUpdateSymbolUsbStick, WithTheNumber10IsTheLast)
{
    plugIn("USBDriveA10");
    std::string path;
    EXPECT_TRUE(module.getUsbMountPath(path));
    EXPECT_EQ(path, "/opt/media/USBDriveA10/");
}

TEST_F(FWUpdateSymbolUsbStick, OutsideTheElevenNamesIsNotFound)
{
    for (const char* name : {"USBDriveA0", "USBDriveA01", "USBDriveA11", "USBDriveB", "usbdrivea"}) {
        plugIn(name);
    }
    std::string path;
    EXPECT_FALSE(module.getUsbMountPath(path));
}

// The names end in "/", so a file of that name is no stick.
TEST_F(FWUpdateSymbolUsbStick, IsADirectory)
{
    writeFile(std::string(set::kMedia) + "/USBDriveA", "");
    std::string path;
    EXPECT_FALSE(module.getUsbMountPath(path));
}

// ---- Probes ----

TEST_F(FWUpdateSymbolInformation, AnyKindOfFileExists)
{
    writeFile("/tmp/file", "");
    EXPECT_TRUE(FWUpdateSymbol::file_exists("/tmp/file"));
    EXPECT_TRUE(FWUpdateSymbol::file_exists("/tmp"));
    EXPECT_TRUE(FWUpdateSymbol::file_exists("/dev/null"));
}

TEST_F(FWUpdateSymbolInformation, WhatIsNotThereDoesNotExist)
{
    fs::create_symlink("/tmp/missing", kInformation);
    EXPECT_FALSE(FWUpdateSymbol::file_exists(kInformation));
    EXPECT_FALSE(FWUpdateSymbol::file_exists("/tmp/missing"));
    EXPECT_FALSE(FWUpdateSymbol::file_exists(""));
}

TEST_F(FWUpdateSymbolInformation, ThePackageImageExistsWhenItsFileDoes)
{
    EXPECT_FALSE(module.getIMGExists());
    writeFile(module.empImagePath, "");
    EXPECT_TRUE(module.getIMGExists());
    EXPECT_THAT(platform.log(), IsEmpty());
}

TEST_F(FWUpdateSymbolInformation, AnExternalModuleHasNoPackageImageThoughTheFileExists)
{
    writeFile(module.empImagePath, "");
    module.isEMP = false;
    EXPECT_FALSE(module.getIMGExists());
}

// ---- Checksum ----

// Bit by bit, from the definition: width 32, polynomial 0x01B23CA3, initial value 0, most significant bit
// first.
uint32_t referenceCRC(const std::string& bytes)
{
    uint32_t crc = 0;
    for (const char byte : bytes) {
        crc ^= static_cast<uint32_t>(static_cast<unsigned char>(byte)) << 24;
        for (int bit = 0; bit < 8; ++bit) {
            crc = (crc & 0x80000000u) != 0 ? (crc << 1) ^ 0x01B23CA3u : crc << 1;
        }
    }
    return crc;
}

std::string randomBytes(size_t count)
{
    std::mt19937 generator(static_cast<unsigned int>(count) + 1); // a size always has the same bytes
    std::string bytes(count, '\0');
    std::generate(bytes.begin(), bytes.end(), [&] { return static_cast<char>(generator()); });
    return bytes;
}

class FWUpdateSymbolChecksum : public FWUpdateSymbolInformation
{
protected:
    unsigned int checksumOf(const std::string& bytes)
    {
        writeFile("/tmp/image.bin", bytes);
        return module.getBinaryCRC32("/tmp/image.bin");
    }
};

TEST_F(FWUpdateSymbolChecksum, OfAnEmptyFileIsZero)
{
    EXPECT_EQ(checksumOf(""), 0u);
    EXPECT_THAT(platform.log(), IsEmpty());
}

TEST_F(FWUpdateSymbolChecksum, OfTheByte1IsThePolynomial)
{
    EXPECT_EQ(checksumOf("\x01"), 0x01B23CA3u);
}

TEST_F(FWUpdateSymbolChecksum, OfZerosIsZero)
{
    EXPECT_EQ(checksumOf(std::string(1000, '\0')), 0u);
}

TEST_F(FWUpdateSymbolChecksum, TakesHighBytesAndLineEndsAsTheyAre)
{
    const std::string bytes = "\xFF\r\n\x1A\x80\x7F\n";
    EXPECT_EQ(checksumOf(bytes), referenceCRC(bytes));
}

TEST_F(FWUpdateSymbolChecksum, OfAMissingFileIsZeroAndLogged)
{
    EXPECT_EQ(module.getBinaryCRC32("/tmp/missing.bin"), 0u);
    EXPECT_THAT(platform.log(), ElementsAre(error("Error: binary file is NULL\n")));
}

TEST_F(FWUpdateSymbolChecksum, OfADirectoryIsThatOfNothing)
{
    EXPECT_EQ(module.getBinaryCRC32("/tmp"), 0u);
    EXPECT_THAT(platform.log(), IsEmpty());
}

TEST_F(FWUpdateSymbolChecksum, OfAFifoIsZeroAtOnce)
{
    ASSERT_EQ(mkfifo(kInformation, 0600), 0);
    EXPECT_EQ(module.getBinaryCRC32(kInformation), 0u);
    EXPECT_THAT(platform.log(), ElementsAre(error("Error: binary file is NULL\n")));
}

TEST_F(FWUpdateSymbolChecksum, OfALinkToADeviceIsZero)
{
    fs::create_symlink("/dev/zero", kInformation);
    EXPECT_EQ(module.getBinaryCRC32(kInformation), 0u);
    EXPECT_THAT(platform.log(), ElementsAre(error("Error: binary file is NULL\n")));
}

class FWUpdateSymbolChecksumOfSize : public FWUpdateSymbolChecksum, public testing::WithParamInterface<size_t>
{
};

TEST_P(FWUpdateSymbolChecksumOfSize, EqualsTheReference)
{
    const std::string bytes = randomBytes(GetParam());
    EXPECT_EQ(checksumOf(bytes), referenceCRC(bytes));
}

// Around the borders of the chunks in which a file is read.
INSTANTIATE_TEST_SUITE_P(OfAFile, FWUpdateSymbolChecksumOfSize,
                         testing::Values(1, 2, 3, 4, 5, 255, 256, 4095, 4096, 4097, 32767, 32768, 32769,
                                         65535, 65536, 65537, 1000003));

} // namespace
