// What is drawn on a terminal, by what it says of itself.
#include <cstdlib>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <pty.h>
#include <unistd.h>

#include "common/files/unique-fd.h"
#include "common/terminal/progress-line.h"
#include "common/terminal/terminal.h"

namespace
{

using testing::HasSubstr;
using testing::Not;

// A terminal of that kind (none: TERM is not set), which is standard error as long as it lives.
class Terminal
{
public:
    explicit Terminal(const char* kind) : errors_(dup(STDERR_FILENO))
    {
        int screen = -1;
        int line = -1;
        if (openpty(&screen, &line, nullptr, nullptr, nullptr) != 0) {
            throw std::runtime_error("no pseudo-terminal");
        }
        screen_.reset(screen);
        line_.reset(line);
        dup2(line, STDERR_FILENO);
        kind == nullptr ? unsetenv("TERM") : setenv("TERM", kind, 1);
        unsetenv("NO_COLOR");
    }
    ~Terminal() { dup2(errors_.get(), STDERR_FILENO); }
    Terminal(const Terminal&) = delete;
    Terminal& operator=(const Terminal&) = delete;

    std::string shown() const
    {
        std::string text(4096, '\0');
        pollfd some{screen_.get(), POLLIN, 0};
        const ssize_t size = poll(&some, 1, 1000) > 0 ? read(screen_.get(), text.data(), text.size()) : 0;
        text.resize(static_cast<std::size_t>(std::max<ssize_t>(size, 0)));
        return text;
    }

private:
    common::UniqueFd errors_;
    common::UniqueFd screen_;
    common::UniqueFd line_;
};

TEST(Terminal, ThatKnowsEscapesIsDrawnOver)
{
    const Terminal terminal("xterm");
    EXPECT_TRUE(common::isDrawable(STDERR_FILENO));
    EXPECT_TRUE(common::isColoured(STDERR_FILENO));
    common::ProgressLine line;
    EXPECT_TRUE(line.isDrawn());
    line.show("tuner", 55);
    EXPECT_THAT(terminal.shown(), HasSubstr("55 %\033[K"));
}

TEST(Terminal, ThatKnowsNoEscapesIsSentNone)
{
    for (const char* kind : {"dumb", "unknown", "", static_cast<const char*>(nullptr)}) {
        const Terminal terminal(kind);
        EXPECT_FALSE(common::isDrawable(STDERR_FILENO));
        EXPECT_FALSE(common::isColoured(STDERR_FILENO));
        common::ProgressLine line;
        EXPECT_FALSE(line.isDrawn());
        line.show("tuner", 55);
        line.clear();
        const std::string shown = terminal.shown();
        EXPECT_THAT(shown, HasSubstr("50 %"));
        EXPECT_THAT(shown, Not(HasSubstr("\033")));
    }
}

TEST(Terminal, HasNoColoursForWhoWantsNone)
{
    const Terminal terminal("xterm");
    setenv("NO_COLOR", "1", 1);
    EXPECT_TRUE(common::isDrawable(STDERR_FILENO));
    EXPECT_FALSE(common::isColoured(STDERR_FILENO));
    setenv("NO_COLOR", "", 1); // as good as none
    EXPECT_TRUE(common::isColoured(STDERR_FILENO));
    unsetenv("NO_COLOR");
}

TEST(Terminal, IsNoPipe)
{
    setenv("TERM", "xterm", 1);
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    EXPECT_FALSE(common::isDrawable(ends[1]));
    close(ends[0]);
    close(ends[1]);
}

TEST(Help, IsWrappedAtWordsInItsColumns)
{
    const std::string help = "Usage: vset\n"
                             "  --option N                  One two three four five six seven\n"
                             "\n"
                             "Goes through the tests of the daemon, and says which one\n"
                             "stopped the update. So it is.\n"
                             "Example:\n"
                             "  fwmod crc a-long-name another-long-name and-one-more-of-them\n";
    EXPECT_EQ(common::wrappedHelp(help, 0), help);
    EXPECT_EQ(common::wrappedHelp(help, 100), help);
    EXPECT_EQ(common::wrappedHelp(help, 50),
              "Usage: vset\n"
              "  --option N                  One two three four\n"
              "                              five six seven\n"
              "\n"
              "Goes through the tests of the daemon, and says\n"
              "which one stopped the update. So it is.\n"
              "Example:\n"
              "  fwmod crc a-long-name another-long-name and-one-more-of-them\n");
    const std::string word(60, 'x');
    EXPECT_EQ(common::wrappedHelp(word + "\n" + word + " y\n", 50), word + "\n" + word + " y\n");
}

} // namespace
