// vset: a virtual television on a PC, with a private root, system bus, loop devices and clock.
#include <csignal>

#include "common/process/room.h"
#include "vset/commands/commands.h"

namespace
{

constexpr common::Command kCommands[] = {
    {"new", "Make the directory of a set and put the built daemon into it", vset::defineNew},
    {"run", "Switch a set on, or run a command in it", vset::defineRun},
    {"put", "Put a module's files, a stick or a key into a set, running or not", vset::definePut},
    {"wait", "Wait until something has happened to a set", vset::defineWait},
    {"exec", "Run a command in a running set, as its root", vset::defineExec},
    {"clock", "Show or change the time of a running set", vset::defineClock},
    {"get", "Read a settings key of a running set", vset::defineGet},
    {"set", "Write a settings key of a running set", vset::defineSet},
    {"power", "Show or change the power state of a running set", vset::definePower},
    {"poweroff", "Power a running set off, as its switch does", vset::definePowerOff},
    {"reboot", "Let a running set reboot", vset::defineReboot},
    {"show", "Show what a running set's platform knows", vset::defineShow},
    {"log", "Show the log of a set, running or not", vset::defineLog},
    {"fault", "Make a call of the platform fail or be late, or a service crash", vset::defineFault},
    {"property", "Read or write the system information of a running set", vset::defineProperty},
    {"packages", "Show or time the package service of a running set", vset::definePackages},
    {"reply", "Answer an application launch of a running set", vset::defineReply},
    {"console", "Show the address of a running set's page for the browser", vset::defineConsole},
    {"modules", "Ask the modules of a running set for their versions and progress", vset::defineModules},
    {"ui", "Show the upgrade UI, click in it, or say what the next one does", vset::defineUi},
    {"usb", "Insert a directory of the PC as a USB stick, or remove it", vset::defineUsb},
    {"mirroring", "Show or turn screen mirroring", vset::defineMirroring},
    {"factory", "Show or turn the factory production switch", vset::defineFactory},
    {"pkgmgr", "Show or turn whether the package manager is ready", vset::definePackageManager},
    {"story", "Tell what the daemon did, in sentences", vset::defineStory},
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

int main(int argc, char** argv)
{
    // "ulimit -f": a write that fails, and says so. Programs that are started are ended by it, as ever.
    std::signal(SIGXFSZ, [](int) {});
    common::CommandLine program("vset", "A virtual television on a PC");
    program.footer(kExamples);
    program.beforeRun(common::requireRoom);
    for (const common::Command& command : kCommands) {
        command.define(program.command(command.name, command.summary));
    }
    return program.main(argc, argv);
}
