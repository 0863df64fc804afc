// fwctl: what a technician needs on the set, beside the daemon or without it.
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <iterator>

#include "common/process/room.h"
#include "tools/fwctl/commands/command.h"

namespace fwctl
{

namespace
{
constexpr common::Command kCommands[] = {
    {"list", "Modules, their versions and what is pending (changes nothing)", defineList},
    {"why", "Why a module is, or is not, updated (changes nothing)", defineWhy},
    {"check", "Have every module checked, as the daemon does at its start", defineCheck},
    {"update", "Update one module, or all that are pending", defineUpdate},
    {"usb", "Check or install encrypted images of a USB stick", defineUsb},
    {"watch", "Show status, progress and power as they change", defineWatch},
    {"doctor", "Find leftovers and broken modules; --fix mends what is safe", defineDoctor},
};

constexpr const char* kFooter =
    "Examples:\n"
    "  fwctl list\n"
    "  fwctl why tuner\n"
    "  fwctl update tuner\n"
    "  fwctl usb install /opt/media/USBDriveA --key-file /root/usb.key\n"
    "  fwctl doctor --fix\n"
    "\"fwctl COMMAND --help\" says more.\n"
    "Exit status: 0 done (why: pending), 1 failed, 2 wrong use, 3 nothing to do (why: not pending),\n"
    "4 no such module, 5 doctor left something to be mended, 6 an update took longer than expected.";
} // namespace

} // namespace fwctl

// A control library may have left a thread at work: nothing is torn down beside it.
int main(int argc, char** argv)
{
    std::signal(SIGPIPE, SIG_IGN); // a reader that goes away is a failed write, not a half-done update
    common::CommandLine program("fwctl", "Shows, checks and updates the firmware of this set's modules.");
    program.footer(fwctl::kFooter);
    program.beforeRun(common::requireRoom);
    program.commands({std::begin(fwctl::kCommands), std::end(fwctl::kCommands)});
    const int status = program.main(argc, argv);
    std::fflush(stdout);
    std::quick_exit(status);
}
