// The names and words of all commands, in one table; which program has which: main.cpp, vset-control.cpp.
#include "vset/commands/program.h"

#include <algorithm>
#include <csignal>
#include <iterator>
#include <vector>

#include "common/process/room.h"
#include "vset/commands/commands.h"

namespace vset
{

namespace
{

struct Words {
    const char* name;
    const char* summary;
};

constexpr Words kCommands[] = {
    {"new", "Make the directory of a set and put the built daemon into it"},
    {"run", "Switch a set on, or run a command in it"},
    {"put", "Put a module's files, a stick or a key into a set, running or not"},
    {"wait", "Wait until something has happened to a set"},
    {"exec", "Run a command in a running set, as its root"},
    {"clock", "Show or change the time of a running set"},
    {"get", "Read a settings key of a running set"},
    {"set", "Write a settings key of a running set"},
    {"power", "Show or change the power state of a running set"},
    {"poweroff", "Power a running set off, as its switch does"},
    {"reboot", "Let a running set reboot"},
    {"show", "Show what a running set's platform knows"},
    {"log", "Show the log of a set, running or not"},
    {"fault", "Make a call of the platform fail or be late, or a service crash"},
    {"property", "Read or write the system information of a running set"},
    {"packages", "Show or time the package service of a running set"},
    {"reply", "Answer an application launch of a running set"},
    {"console", "Show the address of a running set's page for the browser"},
    {"modules", "Ask the modules of a running set for their versions and progress"},
    {"ui", "Show the upgrade UI, click in it, or say what the next one does"},
    {"usb", "Show the USB slot, insert a directory of the PC as a stick, or remove it"},
    {"mirroring", "Show or turn screen mirroring"},
    {"factory", "Show or turn the factory production switch"},
    {"pkgmgr", "Show or turn whether the package manager is ready"},
    {"story", "Tell what the daemon did, in sentences"},
};

constexpr const char* kExamples = R"(Examples:
  vset new /tmp/tv                         make a set, with the daemon that was built
  vset run /tmp/tv                         switch it on; Ctrl-C ends it
  vset put /tmp/tv library tuner.so        a control library; also packages, hardware, a stick
  vset wait /tmp/tv says "update start"    until the daemon says so
  vset exec /tmp/tv -- ls -l /dev          look around in it, from another terminal
  vset clock /tmp/tv --jump 600            ten minutes later, at once
  vset run /tmp/tv -- bash                 a shell in the set, without the daemon
  vset run --temporary -- ./unit-test      a command with a root of its own, gone afterwards

Exit status: 0 done (or the command's own), 1 failure, 2 wrong use, 3 the power was cut.)";

} // namespace

common::Option takeSet(common::CommandLine& command, std::string& set)
{
    return command.text("SET", set, "Directory of the set").required();
}

int runCommandLine(int argc, char** argv, const Definitions& own, const char* other)
{
    // "ulimit -f": a write that fails, and says so. Programs that are started are ended by it, as ever.
    std::signal(SIGXFSZ, [](int) {});
    std::vector<common::Command> table;
    std::transform(std::begin(kCommands), std::end(kCommands), std::back_inserter(table),
                   [&own](const Words& words) {
                       const auto definition = own.find(words.name);
                       return common::Command{words.name, words.summary,
                                              definition == own.end() ? nullptr : definition->second};
                   });
    common::CommandLine program("vset", "A virtual television on a PC");
    program.footer(kExamples);
    program.beforeRun(common::requireRoom);
    program.commands(table, other);
    return program.main(argc, argv);
}

} // namespace vset
