// The command line as a person types it: what is stored, what is refused, and in which words.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "common/terminal/command-line.h"
#include "common/terminal/shard.h"
#include "common/version.h"

namespace
{

using testing::ElementsAre;
using testing::HasSubstr;
using testing::MatchesRegex;
using testing::Not;

// What a program with a bit of everything did with its arguments.
struct Typed {
    int status = -1;
    std::string errors;
    std::string output;
    std::string word;
    std::string tune;
    std::filesystem::path file;
    std::optional<double> factor;
    unsigned int count = 8;
    int offset = 0;
    std::vector<std::string> rest;
    std::optional<std::size_t> behindDashes;
    bool isLoud = false;
    std::string ran;
};

void declare(common::CommandLine& program, Typed& typed)
{
    common::CommandLine& play = program.command("play", "Plays");
    play.text("WORD", typed.word, "A word").required();
    play.text("--tune", typed.tune, "A tune");
    play.number("--factor", typed.factor, common::Range<double>{-1000, 1000}, "A factor");
    play.number("-n,--count", typed.count, common::Range<unsigned int>{1, 250}, "How many");
    const common::Option offset = play.number("--offset", typed.offset, common::Range<int>{-10, 10}, "Where");
    play.flag("--loud", typed.isLoud, "Loudly").excludes(offset);
    play.texts("REST", typed.rest, "The rest").mayBeEmpty();
    play.onRun([&typed, &play] {
        typed.ran = "play";
        typed.behindDashes = play.wordsBehindDashes();
    });
    common::CommandLine& stop = program.command("stop", "Stops");
    stop.onRun([&typed]() -> int {
        typed.ran = "stop";
        throw common::CommandError(7, "it cannot be stopped");
    });
    common::CommandLine& open = program.command("open", "Opens");
    open.path("FILE", typed.file, "A file").required();
    open.text("--title", typed.tune, "A title").mayBeEmpty();
    open.onRun(
        [&typed] { throw std::runtime_error("cannot open " + typed.file.string() + ": no such file"); });
    common::CommandLine& either = program.command("either", "One of two");
    common::CommandLine& two = either.group(common::CommandLine::Choice::kExactlyOne, "two", "The two");
    two.text("--one", typed.tune, "One");
    two.text("--other", typed.word, "The other");
    either.onRun([&typed] { typed.ran = "either"; });
    common::CommandLine& perhaps = program.command("perhaps", "One of two, or none");
    common::CommandLine& some = perhaps.group(common::CommandLine::Choice::kAtMostOne, "some", "Some");
    some.flag("--this", typed.isLoud, "This");
    some.text("--that", typed.word, "That");
    perhaps.onRun([&typed] { typed.ran = "perhaps"; });
    common::CommandLine& choose = program.command("choose", "Chooses");
    choose.command("left", "Left").onRun([&typed] { typed.ran = "left"; });
}

void type(common::CommandLine& program, std::vector<std::string> words, Typed& typed)
{
    words.insert(words.begin(), "player");
    std::vector<char*> arguments;
    for (std::string& word : words) {
        arguments.push_back(word.data());
    }
    testing::internal::CaptureStderr();
    testing::internal::CaptureStdout();
    typed.status = program.main(static_cast<int>(arguments.size()), arguments.data());
    typed.errors = testing::internal::GetCapturedStderr();
    typed.output = testing::internal::GetCapturedStdout();
}

Typed type(const std::vector<std::string>& words)
{
    Typed typed;
    common::CommandLine program("player", "A player");
    declare(program, typed);
    type(program, words, typed);
    return typed;
}

TEST(CommandLine, StoresWhatIsTyped)
{
    const Typed typed =
        type({"play", "hello", "--factor", "-2.5", "-n", "3", "--offset", "-7", "--", "-x", "y"});
    EXPECT_EQ(typed.errors, "");
    EXPECT_EQ(typed.status, 0);
    EXPECT_EQ(typed.word, "hello");
    EXPECT_EQ(typed.factor, -2.5);
    EXPECT_EQ(typed.count, 3U);
    EXPECT_EQ(typed.offset, -7);
    EXPECT_EQ(typed.rest, (std::vector<std::string>{"-x", "y"}));
    EXPECT_EQ(typed.ran, "play");
}

// ---- A table of commands ----

std::vector<std::string> definedCommands;
std::string givenFile;

constexpr common::Command kTable[] = {
    {"read", "Reads",
     [](common::CommandLine& command) {
         definedCommands.emplace_back("read");
         command.text("FILE", givenFile, "A file").required();
         command.onRun([] {});
     }},
    {"write", "Writes",
     [](common::CommandLine& command) {
         definedCommands.emplace_back("write");
         command.onRun([] { return 4; });
     }},
};

Typed typeForTable(const std::vector<std::string>& words)
{
    definedCommands.clear();
    givenFile.clear();
    common::CommandLine program("table", "A table");
    program.commands({std::begin(kTable), std::end(kTable)});
    Typed typed;
    type(program, words, typed);
    return typed;
}

TEST(CommandLine, DefinesOfATableWhatIsNamed)
{
    EXPECT_EQ(typeForTable({"write"}).status, 4);
    EXPECT_THAT(definedCommands, ElementsAre("write"));
    const Typed help = typeForTable({"--help"});
    EXPECT_THAT(help.output, testing::AllOf(HasSubstr("  read "), HasSubstr("  write ")));
    EXPECT_THAT(definedCommands, testing::IsEmpty());
    EXPECT_THAT(typeForTable({"read", "--help"}).output, HasSubstr("FILE"));
    EXPECT_THAT(typeForTable({"--help", "read"}).output, HasSubstr("FILE"));
    EXPECT_THAT(typeForTable({"wr"}).errors, HasSubstr("there is no command"));
}

TEST(CommandLine, TakesTheNameOfACommandAsAnArgument)
{
    EXPECT_EQ(typeForTable({"read", "write"}).status, 0);
    EXPECT_EQ(givenFile, "write");
    EXPECT_EQ(typeForTable({"read", "read"}).status, 0);
    EXPECT_EQ(givenFile, "read");
}

TEST(CommandLine, CountsWhatStandsBehindDashes)
{
    EXPECT_EQ(type({"play", "hello", "x"}).behindDashes, std::nullopt);
    EXPECT_EQ(type({"play", "hello", "--"}).behindDashes, 0U);
    EXPECT_EQ(type({"play", "hello", "--", "y", "--", "-z"}).behindDashes, 3U);
    EXPECT_EQ(type({"play", "--", "hello"}).behindDashes, 1U);
}

TEST(CommandLine, LeavesAloneWhatIsNotTyped)
{
    const Typed typed = type({"play", "hello"});
    EXPECT_EQ(typed.factor, std::nullopt);
    EXPECT_EQ(typed.count, 8U);
}

TEST(CommandLine, RefusesNumbersThatAreNone)
{
    for (const char* text :
         {"nan", "inf", "-inf", "1e300", "1e", "", " 1", "1 ", "0x10", "1,5", "two", "--1"}) {
        const Typed typed = type({"play", "hello", "--factor", text});
        EXPECT_EQ(typed.status, 2) << text;
        EXPECT_THAT(typed.errors, HasSubstr("player: --factor: \"" + std::string(text) +
                                            "\" is not a number from -1000 to 1000\n"));
        EXPECT_EQ(typed.ran, "") << text;
    }
}

TEST(CommandLine, RefusesWholeNumbersOutsideOfTheirRange)
{
    for (const char* text :
         {"0", "251", "-1", "4294967297", "99999999999999999999999", "1.5", "1e2", "0x10"}) {
        const Typed typed = type({"play", "hello", "--count", text});
        EXPECT_EQ(typed.status, 2) << text;
        EXPECT_THAT(typed.errors, HasSubstr("--count: \"" + std::string(text) +
                                            "\" is not a whole number from 1 to 250\n"));
    }
}

TEST(CommandLine, RefusesAnOptionWithoutAWord)
{
    const Typed typed = type({"play", "hello", "--tune", ""});
    EXPECT_EQ(typed.status, 2);
    EXPECT_EQ(typed.errors, "player: --tune: is empty\n\"player play --help\" says more.\n");
    EXPECT_EQ(type({"play", "hello", "--tune", "x"}).tune, "x");
}

TEST(CommandLine, CutsWhatIsRepeatedInAMessage)
{
    const Typed typed = type({"play", "hello", "--count", std::string(5000, '9')});
    EXPECT_EQ(typed.status, 2);
    EXPECT_LT(typed.errors.size(), 200U);
}

TEST(CommandLine, CutsAnArgumentThatTheCommandItselfRepeats)
{
    const Typed typed = type({"open", "/begin" + std::string(100'000, 'x') + "end"});
    EXPECT_EQ(typed.status, 1);
    EXPECT_LT(typed.errors.size(), 300U);
    EXPECT_THAT(typed.errors, MatchesRegex("player: cannot open /beginx*\\.\\.\\.x*end: no such file\n"));
}

TEST(CommandLine, LetsNoArgumentBeginALine)
{
    EXPECT_EQ(type({"open", "x\nplayer: done"}).errors,
              "player: cannot open x\\nplayer: done: no such file\n");
    EXPECT_EQ(type({"play", "hello", "--count=1\nplayer: done"}).errors,
              "player: --count: \"1\\nplayer: done\" is not a whole number from 1 to 250\n"
              "\"player play --help\" says more.\n");
}

TEST(CommandLine, RefusesAnEmptyWordWhereverOneIsWanted)
{
    EXPECT_EQ(type({"play", ""}).errors, "player: WORD: is empty\n\"player play --help\" says more.\n");
    EXPECT_EQ(type({"open", ""}).errors, "player: FILE: is empty\n\"player open --help\" says more.\n");
    EXPECT_EQ(type({"open", "a file", "--title", ""}).status, 1); // of the file: an empty title may be
}

TEST(CommandLine, NamesTheCommandThatIsNot)
{
    const Typed typed = type({"paly", "hello"});
    EXPECT_EQ(typed.status, 2);
    EXPECT_EQ(typed.errors, "player: there is no command \"paly\"\n\"player --help\" says more.\n");
}

TEST(CommandLine, NamesTheCommandThatIsNotBelowAnother)
{
    EXPECT_EQ(type({"choose", "right"}).errors,
              "player: there is no command \"right\"\n\"player choose --help\" says more.\n");
    EXPECT_EQ(type({"choose"}).errors, "player: a command is missing\n\"player choose --help\" says more.\n");
}

TEST(CommandLine, NamesTheOptionThatIsNot)
{
    EXPECT_THAT(type({"play", "hello", "--quiet"}).errors, HasSubstr("--quiet"));
    EXPECT_THAT(type({"play", "--quiet"}).errors, HasSubstr("there is no option \"--quiet\""));
    EXPECT_THAT(type({"stop", "--quiet"}).errors, HasSubstr("there is no option \"--quiet\""));
    EXPECT_THAT(type({"stop", "now"}).errors, HasSubstr("\"now\" was not expected"));
}

TEST(CommandLine, ShowsWhatSteersATerminal)
{
    EXPECT_THAT(type({"\033[2Jx"}).errors, HasSubstr("\"\\x1B[2Jx\""));
}

TEST(CommandLine, TellsWhatIsMissingOrContradicts)
{
    EXPECT_EQ(type({"play"}).errors, "player: WORD is required\n\"player play --help\" says more.\n");
    EXPECT_THAT(type({"play", "x", "--loud", "--offset", "1"}).errors,
                HasSubstr("--offset and --loud cannot be given together"));
    EXPECT_EQ(type({}).errors, "player: a command is missing\n\"player --help\" says more.\n");
}

TEST(CommandLine, HelpIsNoError)
{
    const Typed typed = type({"play", "--help"});
    EXPECT_EQ(typed.status, 0);
    EXPECT_EQ(typed.errors, "");
    EXPECT_THAT(typed.output, HasSubstr("--factor"));
    EXPECT_EQ(typed.ran, "");
}

TEST(CommandLine, TellsVersionAndCommit)
{
    const Typed typed = type({"--version"});
    EXPECT_EQ(typed.status, 0);
    EXPECT_EQ(typed.errors, "");
    EXPECT_EQ(typed.output, "player " + std::string(common::version()) + "\n");
    EXPECT_THAT(common::version(), MatchesRegex("[0-9]+\\.[0-9]+\\.[0-9]+ \\(commit [^ ]+\\)"));
}

TEST(CommandLine, TakesNothingBesideTheVersionAsAWish)
{
    const Typed typed = type({"--version=" + std::string(100'000, '1')});
    EXPECT_EQ(typed.status, 2);
    EXPECT_EQ(typed.errors, "player: --version takes no value\n\"player --help\" says more.\n");
    EXPECT_EQ(typed.output, "");
    EXPECT_EQ(type({"--help=x"}).errors, "player: --help takes no value\n\"player --help\" says more.\n");
    for (const char* word : {"x", "play", "--help"}) {
        EXPECT_NE(type({"--version", word}).output.find("player "), std::string::npos) << word;
    }
}

TEST(CommandLine, KnowsTheVersionOfTheProgramAlone)
{
    EXPECT_EQ(type({"stop", "--version"}).errors,
              "player: there is no option \"--version\"\n\"player stop --help\" says more.\n");
}

TEST(CommandLine, EndsWithTheStatusOfTheFailure)
{
    const Typed typed = type({"stop"});
    EXPECT_EQ(typed.ran, "stop");
    EXPECT_EQ(typed.status, 7);
    EXPECT_EQ(typed.errors, "player: it cannot be stopped\n");
}

struct Wrong {
    std::vector<std::string> words;
    const char* answer;
};

// None of these sentences is the parser's.
TEST(CommandLine, ThatIsWrongIsAnsweredInPlainWords)
{
    const Wrong kWrongs[] = {
        {{"play", "x", "--tune"}, "player: --tune: a value is missing"},
        {{"play", "x", "--count"}, "player: --count: a value is missing"},
        {{"play", "x", "--tune", "a", "--tune", "b"}, "player: --tune is given more than once"},
        {{"play", "x", "--loud=maybe"}, "player: --loud takes no value"},
        {{"play", "x", "--loud=no"}, "player: --loud takes no value"},
        {{"play"}, "player: WORD is required"},
        {{"either"}, "player: one of --one, --other is required"},
        {{"either", "--one", "a", "--other", "b"}, "player: only one of --one, --other can be given"},
        {{"perhaps", "--this", "--that", "b"}, "player: only one of --this, --that can be given"},
        {{"stop", "--", "now"}, "player: \"now\" was not expected"},
        {{"--", "play"}, "player: \"--\" was not expected"},
        {{"open", "--"}, "player: FILE is required"},
        {{"play", "--"}, "player: WORD is required"},
    };
    for (const Wrong& wrong : kWrongs) {
        const Typed typed = type(wrong.words);
        EXPECT_EQ(typed.status, 2);
        EXPECT_EQ(typed.errors.substr(0, typed.errors.find('\n')), wrong.answer);
    }
}

TEST(CommandLine, PointsToNoCommandBehindDashes)
{
    EXPECT_EQ(type({"--", "stop"}).errors, "player: \"--\" was not expected\n\"player --help\" says more.\n");
}

// The parser would make two words of the first, and nothing of the second.
TEST(CommandLine, BracketsAreLettersLikeOthers)
{
    const Typed typed = type({"play", "[a,b]", "--tune", "[c]", "--", "[d,e]", "[]", "[ -e x ]", "f]", ""});
    EXPECT_EQ(typed.word, "[a,b]");
    EXPECT_EQ(typed.tune, "[c]");
    EXPECT_THAT(typed.rest, ElementsAre("[d,e]", "[]", "[ -e x ]", "f]", ""));
    EXPECT_EQ(type({"play", "x", "--tune=[c,d]"}).tune, "[c,d]");
    EXPECT_EQ(type({"open", "[a]"}).errors, "player: cannot open [a]: no such file\n");
    EXPECT_THAT(type({"[a,b]"}).errors, HasSubstr("there is no command \"[a,b]\"\n"));
    EXPECT_THAT(type({"play", "x", "--count", "[2]"}).errors, HasSubstr("\"[2]\" is not a whole number"));
}

TEST(Shards, AreWrittenAsOneOfSoMany)
{
    const common::Shard shard = common::shardFrom("2/8");
    EXPECT_EQ(shard.number, 2U);
    EXPECT_EQ(shard.of, 8U);
    EXPECT_TRUE(common::shardFrom("").isWhole());
    for (const char* wrong : {"2", "9/8", "0/8", "/", "2/8/8", "-1/8", "2/0"}) {
        EXPECT_THROW(common::shardFrom(wrong), common::WrongUse) << wrong;
    }
}

TEST(Shards, ShareEachPieceOnce)
{
    for (uint64_t piece = 0; piece < 20; ++piece) {
        int owners = 0;
        for (unsigned int number = 1; number <= 3; ++number) {
            owners += common::Shard{number, 3}.has(piece) ? 1 : 0;
        }
        EXPECT_EQ(owners, 1) << piece;
    }
}

} // namespace
