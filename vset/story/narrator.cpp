#include "narrator.h"

#include <array>
#include <regex>

#include "fw-update-common.h"

namespace vset
{

namespace
{

// Bytes of a message that can be one of the daemon's. Regular expressions recurse over their text: one of a
// mebibyte, from a library, ends the program.
constexpr size_t kLongest = 8192;

struct Telling {
    const char* message;  // a regular expression for the whole message
    const char* sentence; // $1 and so on: what the expression captured
};

// In the order in which a boot goes through them.
const Telling kTellings[] = {
    {R"(service initialize)", "The daemon starts: it owns its bus name and loads the control libraries."},
    {R"(Not Update Symbol \[(.+)\])", "  $1 is an external module: it has no package."},
    {R"(Error: dlsym libfile: (.+) error: (.+)\n)", "  $1 cannot be loaded: $2"},
    {R"(Error: EMPID is empty\.\((.+)\))", "  $1 tells no identifier."},
    {R"(Error: EMPID is Wrong \((.*)\))", "  the identifier $1 has no \"emp\" in it."},
    {R"(Error: use EMPID only English and numbers\. (.*))",
     "  the identifier $1 is refused: only ASCII letters and digits."},
    {R"(Request \((.+)\) emp download)", "It asks the package service for $1."},
    {R"((.+) Firmware isNeedUpdateModules Try\((.+)\))", "It checks $2:"},
    {R"(PsMntCmd:\[-o (\S+) (\S+) (\S+)\])", "  mounts the package $2, read-only"},
    {R"(Error: Firmware binary file no exist \((.+)\))", "  no image at $1"},
    {R"(Error: Firmware json file no exist \((.+)\))", "  no information file at $1"},
    {R"(Error: file no exist \((.+)\))", "  no package at $1"},
    {R"(Error: json loadInformation fail\.\((.+)\)\n)", "  $1 is no valid information file"},
    {R"(Error: (.+) Firmware (?:CRC32|crc32) different)", "  the checksum of $1's image is wrong"},
    {R"(Error: (.+) Firmware does not have proper UI information in (.+))",
     "  the information file of $1 offers nothing on the screen: refused in the system image"},
    {R"(Error: (.+) Firmware CheckVersion Fail)", "  the control library of $1 cannot compare the versions"},
    {R"(Error: (.+) not need update, version is (.*))",
     "  $1 is not newer: the module has version $2 already"},
    {R"(Need Update \[(.+)\]\[(.*)\])", "  $1 has a newer, sound image: it goes on the update list."},
    {R"(no update module item!\n)", "Nothing is pending."},
    {R"(need update item, wait ui or bg fw update\n)", "Something is pending: the daemon stays and waits."},
    {R"(launch failed (\d+))", "The upgrade UI cannot be launched (attempt $1)."},
    {R"(fwstatus_ui_cb val 1)", "The user accepts."},
    {R"(fwstatus_ui_cb val 4)", "The upgrade UI is closed."},
    {R"((\d+) seconds since the service started, try to update from 10 minutes later)",
     "The set has been on for $1 seconds, less than ten minutes: the work is left to the next boot."},
    {R"(Mirrovex or ProductMode, not try update)", "Mirroring or the factory mode holds updates back."},
    {R"(prev_state \[0\] cur_state\[2\] try fw update)",
     "The set goes to standby: the unattended update begins."},
    {R"(prev_state \[(\d)\] cur_state\[0\] try reboot)",
     "The set is switched on during the update: it will reboot."},
    {R"(Try doUpdateFirmwareUI)", "The update that the user accepted begins."},
    {R"(about total update time is (\d+) ms, Lock the power during about that time\.)",
     "  expected to take $1 ms; power is locked on for that time and a margin"},
    {R"((.+) update time (\d+) sec)", "  $1: takes the update semaphore, and has $2 s and 2 s of margin"},
    {R"(========== \[ (.+) update start \] ==========)", "  $1: its control library writes the image ..."},
    {R"(========== \[ (.+) update succeeded \] ==========)", "  $1: written."},
    {R"(Error: (.+) Firmware doUpdate Fail (-?\d+) .*)", "  $1: the write failed with $2."},
    {R"((.+) update timeout)", "  $1: time is up; the write goes on, unattended."},
    {R"(EMP UMount Success (.+))", "  removes and unmounts the package $1"},
    {R"(pwrctl_unlock_state done)", "  the power lock is released"},
    {R"(progress (\d+))", "  published progress: $1 %"},
    {R"(service finalize)", "The daemon ends."},
};

constexpr std::array<const char*, 22> kStates = {
    "initialising",
    "initialised",
    "requesting packages",
    "packages requested",
    "checking modules",
    "modules checked",
    "waiting for the package manager",
    "package manager checked",
    "launching the upgrade UI",
    "launch attempts ended",
    "upgrade UI shown, waiting for the user",
    "accepted",
    "updating",
    "update done",
    "waiting for the UI to close",
    "upgrade UI closed",
    "cancelled",
    "finished with the UI",
    "reboot to be requested",
    "reboot requested",
    "finalising",
    "finalised",
};
static_assert(kStates.size() == FWSVC_FINALIZED + 1);

} // namespace

std::string Narrator::tell(const std::string& message)
{
    if (message.size() > kLongest) {
        return "";
    }
    static const std::regex kState(R"(\d{1,2})");
    if (std::regex_match(message, kState))
        return tellState(std::stoi(message));
    for (const Telling& telling : kTellings) {
        std::smatch match;
        if (std::regex_match(message, match, std::regex(telling.message)))
            return match.format(telling.sentence);
    }
    return "";
}

std::string Narrator::tellState(int state)
{
    const bool isNew = state != state_ && state < static_cast<int>(kStates.size());
    state_ = state;
    return isNew ? "State " + std::to_string(state) + ": " + kStates[static_cast<size_t>(state)] + "." : "";
}

} // namespace vset
