// The console over what makers and thieves put into a set: nothing of it ends the platform, and the set with
// it.
#include <algorithm>
#include <cmath>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>
#include <vector>

#include "common/json-text.h"
#include "tests/service/support/service-test.h"

namespace service
{
namespace
{

using testing::SizeIs;

class Console : public ServiceTest
{
protected:
    // A module that the console's own user may ask, which writes down its calls.
    void installAskable()
    {
        constexpr const char* kCalls = "/var/lib/hardware/calls";
        tv.installScripted("alpha");
        tv.write(kCalls, "");
        ASSERT_EQ(chmod(tv.outside(kCalls).c_str(), 0666), 0);
    }

    // Every module is asked anew, and its information read anew.
    Json::Value modules()
    {
        const auto reply = tv.platform().callConsole("GetModules", nullptr, "(s)");
        const char* text = nullptr;
        g_variant_get(reply.get(), "(&s)", &text);
        const auto list = common::parseJson(text);
        EXPECT_TRUE(list) << text;
        return list.value_or(Json::nullValue);
    }

    static constexpr const char* kInformation = "/usr/lib/firmware/ext/alpha/info.json";
};

std::string nested(size_t depth)
{
    return std::string(depth, '[') + std::string(depth, ']');
}

TEST_F(Console, OutlivesEveryInformationFileOfASystemImage)
{
    installAskable();
    tv.write(kInformation, R"({"version": "1.1", "expected_time": 5})");
    tv.switchOn();
    EXPECT_EQ(modules()[0]["offers"][0]["version"], "1.1");
    const std::string hostile[] = {nested(2000),
                                   R"({"version": )" + nested(2000) + "}",
                                   R"({"version": "1", "expected_time": )" + nested(60) + "}",
                                   R"({"version": {"a": 1}, "ui_use": [], "expected_time": "soon"})",
                                   "{\"version\": \"\xff\xfe\", \"ui_use\": \"\\u0000\\u001b[2J\"}",
                                   std::string(4 << 20, ' ') + "{}",
                                   std::string(1 << 20, '{'),
                                   "",
                                   "null"};
    for (const std::string& text : hostile) {
        tv.write(kInformation, text);
        const Json::Value list = modules();
        ASSERT_THAT(list, SizeIs(1)) << text.substr(0, 60);
        EXPECT_EQ(list[0]["name"], "alpha");
        EXPECT_TRUE(list[0]["offers"].empty() || list[0]["offers"][0]["expected_time"].isNull());
    }
}

TEST_F(Console, IsNotHeldUpByAnInformationFileThatNeverEnds)
{
    installAskable();
    tv.write(kInformation, "{}");
    const std::string path = tv.outside(kInformation);
    ASSERT_EQ(unlink(path.c_str()), 0);
    ASSERT_EQ(mkfifo(path.c_str(), 0644), 0);
    tv.switchOn();
    EXPECT_THAT(modules(), SizeIs(1));
}

TEST_F(Console, OutlivesAPackageWithSuchAnInformationFile)
{
    installAskable();
    tv.feed("empalpha", {{"info.json", R"({"version": )" + nested(2000) + "}"}});
    tv.switchOn();
    EXPECT_EQ(modules()[0]["offers"][0]["source"], "feed");
}

TEST_F(Console, OutlivesNamesOnAStickThatAreNoText)
{
    tv.write(std::string(kStick) + "/\xff\xfe.bin", "x");
    tv.switchOn();
    const auto reply = tv.platform().callConsole("Snapshot", nullptr, "(s)");
    const char* text = nullptr;
    g_variant_get(reply.get(), "(&s)", &text);
    EXPECT_THAT(common::parseJson(text).value_or(Json::nullValue)["usb"]["files"], SizeIs(1));
}

TEST_F(Console, RefusesWhatNoApplicationShows)
{
    tv.switchOn();
    const std::string texts[] = {nested(2000), R"({"text": )" + nested(2000) + "}", "[]", "", "{"};
    for (const std::string& text : texts) {
        EXPECT_THROW(tv.platform().callConsole("UpdateScreen", g_variant_new("(s)", text.c_str())),
                     vset::ControlError)
            << text.substr(0, 60);
    }
    tv.platform().callConsole("UpdateScreen", g_variant_new("(s)", R"({"title": "shown"})"));
}

// What steers a terminal, begins a line or turns the writing; and what is to be read as it is.
constexpr const char* kHostile = "\033[2J\x07new\nline\r\xc2\x9b"
                                 "31m\xe2\x80\xae";
constexpr const char* kPlain = "Größe 文字";

bool isHarmless(const std::string& text)
{
    const bool isPlain = std::all_of(text.begin(), text.end(), [](char c) {
        return c == '\n' || (static_cast<unsigned char>(c) >= 0x20 && c != 0x7f);
    });
    return isPlain && text.find("\xc2\x9b") == std::string::npos &&
           text.find("\xe2\x80\xae") == std::string::npos && text.find("\nline") == std::string::npos;
}

TEST_F(Console, LetsNoTextOfOthersSteerATerminal)
{
    const std::string text = std::string(kPlain) + kHostile;
    installAskable();
    Json::Value script;
    script["version"] = text;
    tv.write("/var/lib/hardware/alpha.json", common::compactJson(script));
    Json::Value information;
    information["version"] = information["ui_use"] = text;
    tv.write(kInformation, common::compactJson(information));
    tv.switchOn();
    Json::Value screen;
    screen["title"] = screen["text"] = text;
    screen["buttons"][0]["id"] = screen["buttons"][0]["label"] = text;
    tv.platform().callConsole("UpdateScreen", g_variant_new("(s)", common::compactJson(screen).c_str()));
    tv.platform().setProperty(4711, text);
    tv.execute({"gdbus", "call", "--system", "-d", "org.pellor.platform", "-o", "/org/pellor/platform", "-m",
                "org.pellor.platform.Services.RaiseFlag", text});

    const std::vector<std::pair<std::string, std::vector<std::string>>> commands = {
        {"modules", {}}, {"ui", {}},    {"ui", {"click", "none"}}, {"show", {}}, {"flag", {}},
        {"log", {}},     {"fault", {}}, {"property", {"4711"}}};
    for (const auto& [name, words] : commands) {
        const Output output = tv.command(name, words);
        const std::string said = output.text + output.errors;
        EXPECT_TRUE(isHarmless(said)) << name << ": " << testing::PrintToString(said);
    }
    EXPECT_THAT(tv.command("modules").text, testing::HasSubstr(kPlain));
    EXPECT_THAT(tv.command("ui").text, testing::HasSubstr(kPlain));
    EXPECT_THAT(tv.command("ui", {"click", "none"}).errors, testing::HasSubstr(kPlain));
}

TEST_F(Console, TellsAStoryOfAnyMessage)
{
    const std::string record = "2026-01-31T12:00:00.000000Z\t2\t4\tFWUPDATE\t9\t9\tmain\t\t\t\t";
    const std::string message = "Request (" + std::string(1 << 20, 'x') + ") emp download";
    tv.write("/var/log/platform.log", record + message + "\n" + record + "Request (\\x1B[2J) emp download\n");
    for (const char* teller : {"story", "log"}) {
        const Output output = tv.command(teller);
        EXPECT_EQ(output.status, 0) << teller;
        EXPECT_TRUE(isHarmless(output.text + output.errors)) << teller;
        EXPECT_THAT(output.text, testing::HasSubstr("\\x1B[2J")) << teller;
    }
}

TEST_F(Console, ChangesTheClockForThePageAndForTheBus)
{
    tv.switchOn();
    const auto order = [this](const char* method, double number) {
        tv.platform().callConsole(method, g_variant_new("(d)", number));
    };
    const auto monotonic = [this] { return tv.platform().snapshot()["monotonic_ms"].asInt64(); };
    const int64_t before = monotonic();
    order("JumpClock", 600);
    EXPECT_GE(monotonic() - before, 600'000);
    order("SetClockRate", 100);
    for (const double jump : {std::nan(""), double{INFINITY}, 1e12}) {
        EXPECT_THROW(order("JumpClock", jump), vset::ControlError) << jump;
    }
    for (const double rate : {std::nan(""), 0.0, -1.0, 1e6}) {
        EXPECT_THROW(order("SetClockRate", rate), vset::ControlError) << rate;
    }
    EXPECT_LT(monotonic() - before, 6'000'000);
    const auto reply = tv.platform().callConsole("Snapshot", nullptr, "(s)");
    const char* text = nullptr;
    g_variant_get(reply.get(), "(&s)", &text);
    EXPECT_EQ(common::parseJson(text).value_or(Json::nullValue)["set"]["rate"], 100.0);
}

TEST_F(Console, TurnsItsSwitchesForTheBusAsForThePage)
{
    tv.switchOn();
    const auto& platform = tv.platform();
    platform.callConsole("SetMirroring", g_variant_new("(b)", TRUE));
    EXPECT_EQ(platform.snapshot()["settings"][kMirroringKey]["value"], 1);
    platform.callConsole("SetUpgradeUI", g_variant_new("(su)", "accept", 1500U));
    EXPECT_THROW(platform.callConsole("SetUpgradeUI", g_variant_new("(su)", "dance", 1U)),
                 vset::ControlError);
    EXPECT_THROW(platform.callConsole("RemoveUsb"), vset::ControlError); // none is in
}

} // namespace
} // namespace service
