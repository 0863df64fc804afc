// JSON as a text: what is read, what is refused without an exception, and how it is written.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "common/json-text.h"

namespace
{

using common::parseJson;
using testing::HasSubstr;
using testing::Not;

std::string nested(size_t depth)
{
    return std::string(depth, '[') + std::string(depth, ']');
}

TEST(JsonText, ReadsWhatItWrites)
{
    Json::Value value;
    value["text"] = "Grüße\n\033";
    value["list"].append(1.5);
    EXPECT_EQ(parseJson(common::compactJson(value)), value);
    EXPECT_EQ(parseJson(common::indentedJson(value)), value);
    EXPECT_THAT(common::compactJson(value), Not(HasSubstr("\n")));
    EXPECT_THAT(common::compactJson(value), HasSubstr("Grüße"));
}

TEST(JsonText, TellsAKeyThatStandsTwice)
{
    const std::string text = "{\"a\": {\"b\": 1},\n \"b\": 2, \"b\": 3}";
    EXPECT_EQ((*parseJson(text))["b"], 3);
    EXPECT_EQ(common::repeatedKeyIn(text), "Line 2, Column 10: Duplicate key: 'b'");
    EXPECT_EQ(common::repeatedKeyIn("{\"a\": {\"b\": 1}, \"b\": 2}"), "");
    EXPECT_EQ(common::repeatedKeyIn("{\"a\": 1, \"a\":"), "") << "no JSON";
    EXPECT_EQ(common::repeatedKeyIn(nested(100)), "") << "beyond the limits";
}

TEST(JsonText, WritesNothingButUtf8)
{
    Json::Value value;
    value["key \xff"] = "text \xc3(";
    const std::string text = common::compactJson(value);
    EXPECT_EQ(text, "{\"key \xef\xbf\xbd\":\"text \xef\xbf\xbd(\"}");
    EXPECT_TRUE(parseJson(text));
}

TEST(JsonText, SteersNoTerminalAndIsReadAsItWas)
{
    // Escape, delete, a control of two bytes, writing from the right, and a tag beyond the first plane.
    const std::string hostile = "a\x1b[2J\x7f\u009b\u202e\U000e0001\u00e4\n";
    Json::Value value;
    value["text"] = hostile;
    for (const std::string& text : {common::compactJson(value), common::indentedJson(value)}) {
        EXPECT_THAT(text, HasSubstr(R"(a\u001b[2J\u007f\u009b\u202e\udb40\udc01)"
                                    "\u00e4\\n"));
        EXPECT_EQ((*parseJson(text))["text"], hostile);
    }
}

TEST(JsonText, RefusesNestingBeyondTheLimitWithoutAnException)
{
    std::string why;
    EXPECT_TRUE(parseJson(nested(60)));
    for (const size_t depth : {65UL, 2000UL, 1000000UL}) {
        EXPECT_FALSE(parseJson(nested(depth), &why)) << depth;
        EXPECT_EQ(why, "nested deeper than 64");
    }
}

TEST(JsonText, RefusesWhatIsTooLong)
{
    std::string why;
    common::JsonLimits limits;
    limits.bytes = 10;
    EXPECT_TRUE(parseJson("[12345678]", nullptr, limits));
    EXPECT_FALSE(parseJson("[123456789]", &why, limits));
    EXPECT_EQ(why, "longer than 10 bytes");
}

TEST(JsonText, SaysInOneLineWhatIsWrong)
{
    for (const char* text : {"", "{", "{\"a\":}", "nonsense", "[1,2", "\"\\ud800\"", "\xff\xfe"}) {
        std::string why;
        EXPECT_FALSE(parseJson(text, &why)) << text;
        EXPECT_NE(why, "") << text;
        EXPECT_THAT(why, Not(HasSubstr("\n"))) << text;
    }
}

TEST(JsonText, AnObjectIsAnObject)
{
    std::string why;
    EXPECT_TRUE(common::parseJsonObject("{}", &why));
    for (const char* text : {"[]", "null", "7", "\"x\""}) {
        EXPECT_FALSE(common::parseJsonObject(text, &why)) << text;
        EXPECT_EQ(why, "not a JSON object");
    }
}

} // namespace
