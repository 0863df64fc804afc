// Packages that a maker or a download has spoilt: told, and never written.
#include "tests/service/support/service-test.h"

namespace service
{
namespace
{

using testing::Contains;
using testing::StartsWith;

std::string imageText()
{
    return Television::imageOf("alpha");
}

// A sound info.json with one of its values replaced; an empty value takes the key away.
std::string informationWith(const std::string& key, const std::string& value)
{
    std::map<std::string, std::string> entries = {{"version", "\"1.1\""},
                                                  {"crc", std::to_string(imageChecksum(imageText()))},
                                                  {"expected_time", "5"},
                                                  {"ui_use", "\"none\""}};
    entries[key] = value;
    std::string text;
    for (const auto& [name, content] : entries) {
        if (!content.empty()) {
            text += (text.empty() ? "" : ", ") + ("\"" + name + "\": ") + content;
        }
    }
    return "{" + text + "}";
}

struct BadPackage {
    const char* name;
    Files files;
    std::string message; // that the log has, or that one of its messages begins with
};

const std::string kInformationPath = Television::mountPoint("empalpha") + "/info.json";
const std::string kParseFailure = "Error: json loadInformation fail.(" + kInformationPath + ")\n";
const std::string kValueFailure = "Error: json crc read fail error:";
const std::string kChecksumFailure = "Error: alpha Firmware CRC32 different";

Files withInformation(const std::string& information)
{
    return {{"alpha.bin", imageText()}, {"info.json", information}};
}

class SpoiltPackage : public ServiceTest, public testing::WithParamInterface<BadPackage>
{
};

TEST_P(SpoiltPackage, IsToldAndNotPending)
{
    tv.installScripted("alpha");
    tv.deliver("empalpha", GetParam().files);
    tv.switchOn();
    tv.startDaemon();
    expectEnd();
    EXPECT_THAT(tv.texts(), Contains(StartsWith(GetParam().message)));
    EXPECT_TRUE(tv.said("no update module item!\n"));
    EXPECT_FALSE(tv.said("Need Update [alpha][empalpha]"));
    EXPECT_TRUE(tv.exists(Television::packagePath("empalpha"))); // whoever delivered it may look into it
}

std::vector<BadPackage> badPackages()
{
    const std::string whole = informationWith("version", "\"1.1\"");
    return {
        {"WithoutImage",
         {{"info.json", whole}},
         "Error: Firmware binary file no exist (" + Television::mountPoint("empalpha") + "/alpha.bin)"},
        {"WithImageOfAnotherName",
         {{"Alpha.bin", imageText()}, {"info.json", whole}},
         "Error: Firmware binary file no exist (" + Television::mountPoint("empalpha") + "/alpha.bin)"},
        {"WithoutInformation",
         {{"alpha.bin", imageText()}},
         "Error: Firmware json file no exist (" + kInformationPath + ")"},
        {"Empty", {{"README", ""}}, "Error: Firmware binary file no exist ("},
        {"InformationEmpty", withInformation(""), kParseFailure},
        {"InformationNotJson", withInformation("version=1.1\n"), kParseFailure},
        {"InformationCutOff", withInformation(whole.substr(0, whole.size() / 2)), kParseFailure},
        {"InformationBinary", withInformation(std::string("\0\xff\xfe\0", 4)), kParseFailure},
        {"InformationNestedTooDeep", withInformation(std::string(5000, '[') + std::string(5000, ']')),
         kParseFailure},
        {"InformationAnArray", withInformation("[" + whole + "]"), kValueFailure},
        {"InformationANumber", withInformation("1.1"), kValueFailure},
        {"InformationAText", withInformation("\"1.1\""), kValueFailure},
        {"InformationNull", withInformation("null"), kChecksumFailure},
        {"InformationWithoutAnything", withInformation("{}"), kChecksumFailure},
        {"VersionAnObject", withInformation(informationWith("version", "{}")), kValueFailure},
        {"VersionAnArray", withInformation(informationWith("version", "[1]")), kValueFailure},
        {"ChecksumWrong", withInformation(informationWith("crc", "1")), kChecksumFailure},
        {"ChecksumMissing", withInformation(informationWith("crc", "")), kChecksumFailure},
        {"ChecksumNegative", withInformation(informationWith("crc", "-1")), kValueFailure},
        {"ChecksumTooLarge", withInformation(informationWith("crc", "4294967296")), kValueFailure},
        {"ChecksumAText", withInformation(informationWith("crc", "\"123\"")), kValueFailure},
        {"ChecksumAnObject", withInformation(informationWith("crc", "{}")), kValueFailure},
        {"TimeAText", withInformation(informationWith("expected_time", "\"5\"")), kValueFailure},
        {"TimeNegative", withInformation(informationWith("expected_time", "-5")), kValueFailure},
        {"TimeTooLarge", withInformation(informationWith("expected_time", "1e12")), kValueFailure},
        {"ImageChanged", {{"alpha.bin", imageText() + "!"}, {"info.json", whole}}, kChecksumFailure},
        {"ImageCutOff", {{"alpha.bin", imageText().substr(1)}, {"info.json", whole}}, kChecksumFailure},
        {"ImageEmpty", {{"alpha.bin", ""}, {"info.json", whole}}, kChecksumFailure},
    };
}

INSTANTIATE_TEST_SUITE_P(Package, SpoiltPackage, testing::ValuesIn(badPackages()),
                         [](const auto& bad) { return std::string(bad.param.name); });

// ---- Files that are no package ----

class Package : public ServiceTest
{
protected:
    void expectNotMounted()
    {
        tv.switchOn();
        tv.startDaemon();
        expectEnd();
        EXPECT_THAT(tv.texts(), Contains("Error: Firmware EMP Mount Fail.(empalpha)"));
        EXPECT_TRUE(tv.said("no update module item!\n"));
        EXPECT_THAT(tv.loopMounts(), testing::IsEmpty());
    }
};

TEST_F(Package, ThatIsNoDiskImageIsNotMounted)
{
    tv.installScripted("alpha");
    tv.write(Television::packagePath("empalpha"), std::string(100'000, 'x'));
    expectNotMounted();
    EXPECT_TRUE(tv.said("loop count is 8, mount count is 0"));
}

TEST_F(Package, ThatIsEmptyIsNotMounted)
{
    tv.installScripted("alpha");
    tv.write(Television::packagePath("empalpha"), "");
    expectNotMounted();
}

TEST_F(Package, ThatIsCutOffIsNotMounted)
{
    installPending("alpha");
    const fs::path package = tv.outside(Television::packagePath("empalpha"));
    fs::resize_file(package, fs::file_size(package) / 2);
    expectNotMounted();
}

TEST_F(Package, ThatIsADirectoryIsNotMounted)
{
    tv.installScripted("alpha");
    fs::create_directory(tv.outside(Television::packagePath("empalpha")));
    expectNotMounted();
    EXPECT_TRUE(tv.said("srcFile[" + Television::packagePath("empalpha") + "] is not exist."));
}

TEST_F(Package, ThatIsSpoiltAfterTheCheckIsNotWritten)
{
    installPending("alpha");
    startPending();
    Files files = Television::packageFiles("alpha");
    files["alpha.bin"] += "!";
    tv.deliver("empalpha", files); // a later delivery takes the place of the one that was checked
    goToStandby();
    expectEnd();
    EXPECT_TRUE(tv.said("Error: alpha Firmware crc32 different"));
    EXPECT_FALSE(wasAsked("alpha doUpdateReturns()"));
    EXPECT_EQ(tv.writtenImage("alpha"), "");
}

// ---- Packages that are sound in spite of something ----

TEST_F(Package, WithoutAWordOnTheUpgradeUiIsUpdatedWithoutOne)
{
    tv.installScripted("alpha");
    tv.deliver("empalpha", withInformation(informationWith("ui_use", "")));
    startPending();
    EXPECT_TRUE(tv.said("Warn: json does not have ui_use tag (" + kInformationPath + ")\n"));
    goToStandby();
    expectEnd();
    EXPECT_TRUE(wasWritten("alpha"));
}

TEST_F(Package, WithoutAnExpectedTimeHasFiveMinutes)
{
    tv.installScripted("alpha");
    tv.deliver("empalpha", withInformation(informationWith("expected_time", "")));
    startPending();
    goToStandby();
    expectEnd();
    EXPECT_TRUE(tv.said("alpha update time 300 sec"));
    EXPECT_TRUE(wasWritten("alpha"));
}

} // namespace
} // namespace service
