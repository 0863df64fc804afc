// vset new, run, exec, clock: the set itself.
#include <cstdio>
#include <memory>
#include <unistd.h>

#include "common/terminal/visible-text.h"
#include "vset/commands/commands.h"
#include "vset/launcher/exec.h"
#include "vset/launcher/leader.h"
#include "vset/launcher/set-clock.h"
#include "vset/launcher/set-directory.h"

namespace vset
{

void defineNew(common::CommandLine& command)
{
    struct Options {
        std::string set;
        bool isBare = false;
    };
    const auto options = std::make_shared<Options>();
    takeSet(command, options->set);
    command.flag("--bare", options->isBare, "Only the directories, without the daemon");
    command.footer("Run again on an existing set it renews the daemon and keeps everything else.");
    command.onRun([options] {
        using Content = SetDirectory::Content;
        const SetDirectory directory =
            SetDirectory::make(options->set, options->isBare ? Content::kNothing : Content::kDaemon);
        // For a script as it is; a person's terminal shall not obey it.
        const std::string path = directory.path();
        std::printf("%s\n", (isatty(STDOUT_FILENO) != 0 ? common::visible(path) : path).c_str());
    });
}

// ---- Run ----

namespace
{

struct RunArguments {
    std::string set;
    bool isTemporary = false;
    std::vector<std::string> binds;
    RunOptions run;
};

// With --temporary the first word is the command's, unless it was meant for a set: by its place before the
// "--", or by what it names.
bool isMeantForSet(const RunArguments& arguments, std::optional<std::size_t> wordsBehindDashes)
{
    std::error_code error;
    return wordsBehindDashes ? *wordsBehindDashes == arguments.run.command.size()
                             : fs::is_directory(arguments.set, error);
}

// Its arguments may be empty; a program has a name.
void requireCommand(const std::string& name, const std::vector<std::string>& command)
{
    if (!command.empty() && command.front().empty()) {
        throw common::WrongUse(name + ": CMD is empty");
    }
}

int run(RunArguments& arguments, bool isSetGiven, std::optional<std::size_t> wordsBehindDashes)
{
    RunOptions& options = arguments.run;
    options.binds.assign(arguments.binds.begin(), arguments.binds.end());
    std::error_code error;
    const bool isCommandAlone = wordsBehindDashes && !isMeantForSet(arguments, wordsBehindDashes);
    if (isSetGiven && arguments.set.empty() && !(isCommandAlone && arguments.isTemporary)) {
        throw common::WrongUse("run: SET is empty");
    }
    if (isCommandAlone && !arguments.isTemporary && !fs::is_directory(arguments.set, error)) {
        throw common::WrongUse("run: SET is required before the -- (or --temporary)");
    }
    if (arguments.isTemporary && isSetGiven) {
        if (isMeantForSet(arguments, wordsBehindDashes)) {
            throw common::WrongUse("SET and --temporary cannot be given together: a temporary set has a "
                                   "directory of its own");
        }
        options.command.insert(options.command.begin(), arguments.set);
    } else if (!arguments.isTemporary && arguments.set.empty()) {
        throw common::WrongUse("run: SET is required (or --temporary)");
    } else if (!arguments.isTemporary) {
        options.set = arguments.set;
    }
    requireCommand("run", options.command);
    return runSet(options);
}

} // namespace

void defineRun(common::CommandLine& command)
{
    constexpr common::Range<unsigned int> kWrites{1, 1'000'000'000};
    constexpr common::Range<unsigned int> kLoopNodes{0, 250}; // the device numbers of a set are 0 to 249
    const auto arguments = std::make_shared<RunArguments>();
    RunOptions& options = arguments->run;
    const common::Option set =
        command.text("SET", arguments->set, "Directory of the set").mayBeEmpty(); // it may be CMD
    command.flag("--temporary", arguments->isTemporary,
                 "A new set that is removed afterwards, instead of SET");
    command.flag("-u,--rootless", options.rootless, "Without root: user namespace, squashfuse, one user");
    command
        .texts("-b,--bind", arguments->binds,
               "Make a directory of the PC visible at its own path (repeatable)")
        .called("DIR");
    command.number("-n,--loop-nodes", options.loopNodes, kLoopNodes, "Loop device nodes present at start");
    command.number("--clock-rate", options.clockRate, common::Range<double>{kLowestRate, kHighestRate},
                   "Set seconds per second of the PC");
    command.number("--cut-power-at-write", options.cutAtWrite, kWrites,
                   "Cut the power when the daemon (or CMD) is about to write to hardware for the N-th time");
    command.texts("CMD", options.command, "After --: a command; the set lives as long as it does")
        .mayBeEmpty(); // an argument of it, that is
    command.footer(
        "Without CMD the set is a television: the daemon runs, and reboots and power-offs are carried out.\n"
        "With CMD they are only recorded, and the daemon is the command's to start.");
    command.onRun(
        [arguments, set, &command] { return run(*arguments, set.isGiven(), command.wordsBehindDashes()); });
}

void defineExec(common::CommandLine& command)
{
    struct Options {
        std::string set;
        std::vector<std::string> words;
    };
    const auto options = std::make_shared<Options>();
    takeSet(command, options->set);
    command.texts("CMD", options->words, "After --: the command").required().mayBeEmpty();
    command.onRun([options] {
        requireCommand("exec", options->words);
        executeInSet(options->set, options->words);
    });
}

void defineClock(common::CommandLine& command)
{
    struct Options {
        std::string set;
        ClockChange change;
    };
    const auto options = std::make_shared<Options>();
    takeSet(command, options->set);
    command.number("--rate", options->change.rate, common::Range<double>{kLowestRate, kHighestRate},
                   "Set seconds per second of the PC");
    command.number("--jump", options->change.jump, common::Range<double>{-kLongestJump, kLongestJump},
                   "Seconds forwards; negative: the wall clock only, backwards");
    command.onRun([options] { std::printf("%s\n", changeClock(options->set, options->change).c_str()); });
}

} // namespace vset
