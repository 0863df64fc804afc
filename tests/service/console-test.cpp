// The console over what makers and thieves put into a set: nothing of it ends the platform, and the set with
// it.
#include "service-test.h"

#include <cmath>

#include <sys/stat.h>
#include <unistd.h>

#include "common/json-text.h"

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
