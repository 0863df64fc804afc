// vset: a virtual television on a PC, with a private root, system bus, loop devices and clock.

#include "commands.h"
#include "console/console-commands.h"
#include "launcher/exec.h"
#include "launcher/leader.h"
#include "launcher/set-clock.h"
#include "launcher/set-directory.h"
#include "story/story-command.h"

#include <CLI/CLI.hpp>

#include <cstdio>
#include <cstdlib>

namespace
{

constexpr int kExitUsage = 2;
constexpr double kLongestJump = 10.0 * 365 * 86400; // seconds
constexpr unsigned int kMostWrites = 1'000'000'000;
constexpr unsigned int kMostLoopNodes = 250; // the device numbers of a set are 0 to 249

constexpr const char* kExamples = R"(Examples:
  vset new /tmp/tv                         make a set, with the daemon that was built
  vset run /tmp/tv                         switch it on; Ctrl-C ends it
  vset exec /tmp/tv -- ls -l /dev          look around in it, from another terminal
  vset clock /tmp/tv --jump 600            ten minutes later, at once
  vset run /tmp/tv -- bash                 a shell in the set, without the daemon
  vset run --temporary -- ./unit-test      a command with a root of its own, gone afterwards

Exit status: 0 done (or the command's own), 1 failure, 2 wrong use, 3 the power was cut.)";

// Each subcommand leaves its exit status here.
int exitStatus = EXIT_SUCCESS;

void addNew(CLI::App& app)
{
    auto* command = app.add_subcommand("new", "Make the directory of a set and put the built daemon into it");
    static std::string set;
    static bool bare = false;
    command->add_option("SET", set, "Directory of the set")->required();
    command->add_flag("--bare", bare, "Only the directories, without the daemon");
    command->footer("Run again on an existing set it renews the daemon and keeps everything else.");
    command->callback([] {
        const vset::SetDirectory directory = vset::SetDirectory::make(set);
        if (!bare)
            directory.installDaemon();
        std::printf("%s\n", directory.path().c_str());
    });
}

void addRun(CLI::App& app)
{
    auto* command = app.add_subcommand("run", "Switch a set on, or run a command in it");
    static vset::RunOptions options;
    static std::string set;
    static bool temporary = false;
    command->add_option("SET", set, "Directory of the set");
    command->add_flag("--temporary", temporary, "A new set that is removed afterwards, instead of SET");
    command->add_flag("-u,--rootless", options.rootless,
                      "Without root: user namespace, squashfuse, one user");
    command
        ->add_option("-b,--bind", options.binds,
                     "Make a directory of the PC visible at its own path (repeatable)")
        ->type_name("DIR")
        ->allow_extra_args(false);
    command->add_option("-n,--loop-nodes", options.loopNodes, "Loop device nodes present at start")
        ->check(CLI::Range(0U, kMostLoopNodes))
        ->capture_default_str();
    command->add_option("--clock-rate", options.clockRate, "Set seconds per second of the PC")
        ->check(CLI::Range(vset::kLowestRate, vset::kHighestRate));
    command
        ->add_option("--cut-power-at-write", options.cutAtWrite,
                     "Cut the power when the daemon (or CMD) is about to write to hardware for the N-th time")
        ->type_name("N")
        ->check(CLI::Range(1U, kMostWrites));
    command->add_option("CMD", options.command, "After --: a command; the set lives as long as it does");
    command->footer(
        "Without CMD the set is a television: the daemon runs, and reboots and power-offs are carried out.\n"
        "With CMD they are only recorded, and the daemon is the command's to start.");
    command->callback([] {
        if (temporary && !set.empty())
            options.command.insert(options.command.begin(), set); // "--temporary -- CMD": there is no SET
        else if (!temporary && set.empty())
            throw vset::UsageError("run: SET is required (or --temporary)");
        else if (!temporary)
            options.set = set;
        exitStatus = vset::runSet(options);
    });
}

void addExec(CLI::App& app)
{
    auto* command = app.add_subcommand("exec", "Run a command in a running set, as its root");
    static std::string set;
    static std::vector<std::string> words;
    command->add_option("SET", set, "Directory of the set")->required();
    command->add_option("CMD", words, "After --: the command")->required();
    command->callback([] { vset::executeInSet(set, words); });
}

void addClock(CLI::App& app)
{
    auto* command = app.add_subcommand("clock", "Show or change the time of a running set");
    static std::string set;
    static vset::ClockChange change;
    command->add_option("SET", set, "Directory of the set")->required();
    command->add_option("--rate", change.rate, "Set seconds per second of the PC")
        ->check(CLI::Range(vset::kLowestRate, vset::kHighestRate));
    command->add_option("--jump", change.jump, "Seconds forwards; negative: the wall clock only, backwards")
        ->check(CLI::Range(-kLongestJump, kLongestJump));
    command->callback([] { std::printf("%s\n", vset::changeClock(set, change).c_str()); });
}

} // namespace

int main(int argc, char** argv)
{
    CLI::App app("A virtual television on a PC", "vset");
    app.footer(kExamples);
    app.require_subcommand(1);
    addNew(app);
    addRun(app);
    addExec(app);
    addClock(app);
    addControlCommands(app);
    addConsoleCommands(app);
    vset::addStoryCommand(app);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        const int status = app.exit(error);
        return status == 0 ? EXIT_SUCCESS : kExitUsage;
    } catch (const vset::UsageError& error) {
        vset::note(error.what());
        return kExitUsage;
    } catch (const std::exception& error) {
        vset::note(error.what());
        return EXIT_FAILURE;
    }
    return exitStatus;
}
