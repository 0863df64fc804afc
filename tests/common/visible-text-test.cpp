// Foreign texts on a terminal.
#include <gtest/gtest.h>

#include "common/terminal/visible-text.h"

namespace
{

using common::inShell;
using common::visible;

TEST(VisibleText, LeavesOrdinaryTextAsItIs)
{
    EXPECT_EQ(visible("Tuner 1.10-rc2 \\ \"Grüße\" 電視"), "Tuner 1.10-rc2 \\ \"Grüße\" 電視");
    EXPECT_EQ(visible(""), "");
}

TEST(VisibleText, ShowsLineBreaksAndControlCharacters)
{
    EXPECT_EQ(visible("a\nb\tc\rd"), "a\\nb\\tc\\rd");
    EXPECT_EQ(visible("\033[31m\007\x7f"), "\\x1B[31m\\x07\\x7F");
    EXPECT_EQ(visible(std::string_view("a\0b", 3)), "a\\x00b");
}

TEST(VisibleText, ShowsWhatSteersATerminalInUnicode)
{
    EXPECT_EQ(visible("\xC2\x9B"
                      "2J"),
              "\\xC2\\x9B2J"); // U+009B, a control sequence in one character
    EXPECT_EQ(visible("\xE2\x80\xAE"
                      "gnp"),
              "\\xE2\\x80\\xAEgnp");                       // U+202E, turns the writing
    EXPECT_EQ(visible("\xE2\x80\xA8"), "\\xE2\\x80\\xA8"); // U+2028, a line separator
}

TEST(VisibleText, KeepsTheLinesOfAMessageThatHasSeveral)
{
    EXPECT_EQ(common::visibleLines("one\n\033[2Jtwo\r\n\n"), "one\n\\x1B[2Jtwo\\r\n\n");
    EXPECT_EQ(common::visibleLines(""), "");
}

TEST(VisibleText, QuotesAWordInOneLineOfABoundedLength)
{
    EXPECT_EQ(common::inQuotes("tuner"), "\"tuner\"");
    EXPECT_EQ(common::inQuotes(""), "\"\"");
    EXPECT_EQ(common::inQuotes("a\nfwctl: done"), "\"a\\nfwctl: done\"");
    EXPECT_EQ(common::inQuotes(std::string(60, 'a')), "\"" + std::string(60, 'a') + "\"");
    EXPECT_EQ(common::inQuotes(std::string(61, 'a')), "\"" + std::string(60, 'a') + "...\"");
    EXPECT_LT(common::inQuotes(std::string(100'000, '\033')).size(), 80U);
}

TEST(VisibleText, CutsNoCharacterInTwo)
{
    std::string many;
    for (int count = 0; count < 100; ++count) {
        many += "電";
    }
    EXPECT_EQ(common::inQuotes("a" + many).find("\\x"), std::string::npos);
    EXPECT_EQ(common::shortened("a" + many).find("\\x"), std::string::npos);
}

TEST(VisibleText, ShortensAPathInItsMiddle)
{
    const std::string path = "/tmp/" + std::string(90, 'd') + "/" + std::string(60, 'e');
    EXPECT_EQ(common::shortened(path), path);
    const std::string shown = common::shortened("/begin/" + std::string(100'000, 'x') + "/end\n");
    EXPECT_LT(shown.size(), 180U);
    EXPECT_EQ(shown.substr(0, 7), "/begin/");
    EXPECT_EQ(shown.substr(shown.size() - 6), "/end\\n");
}

TEST(VisibleText, ShowsBytesThatAreNoText)
{
    EXPECT_EQ(visible("a\xFF\xC3"), "a\\xFF\\xC3");
    EXPECT_EQ(visible("\xED\xA0\x80"), "\\xED\\xA0\\x80"); // half of a surrogate pair
    EXPECT_EQ(visible("\xC0\x80"), "\\xC0\\x80");          // an overlong zero
}

// What a shell makes of a line.
std::string printedByShell(const std::string& quoted)
{
    const std::string script = "printf %s " + quoted;
    setenv("SCRIPT", script.c_str(), 1);
    FILE* const shell = popen("bash -c \"$SCRIPT\"", "r");
    char text[256] = {};
    const std::size_t size = fread(text, 1, sizeof text, shell);
    pclose(shell);
    return std::string(text, size);
}

TEST(VisibleText, IsQuotedForAShellWhereThatIsNeeded)
{
    EXPECT_EQ(inShell("/tmp/my-set_1.so"), "/tmp/my-set_1.so");
    EXPECT_EQ(inShell("b c"), "'b c'");
    EXPECT_EQ(inShell(""), "''");
    for (const std::string text :
         {"b c", "it's", "a\nb", "back\\slash", "$HOME `x` \"y\"", "\033[31mred", "~", "a\\nb"}) {
        const std::string quoted = inShell(text);
        EXPECT_EQ(printedByShell(quoted), text) << quoted;
        EXPECT_EQ(visible(quoted), quoted);
    }
}

} // namespace
