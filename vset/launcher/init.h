// PID 1 of a set: builds the root, starts the services, reaps, and ends the set.
#ifndef VSET_LAUNCHER_INIT_H
#define VSET_LAUNCHER_INIT_H

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "vset/launcher/life-record.h"
#include "vset/launcher/root.h"

namespace vset
{

struct InitPlan {
    RootPlan root;
    std::vector<std::string> command; // empty: the television, with the update daemon
    // The power is cut when the daemon, or the command, is about to make this write to hardware, counted from
    // 1 at every boot.
    std::optional<unsigned int> cutAtWrite;
    fs::path tools;            // where platformd, psmountd and libvset-clock.so lie
    fs::path workingDirectory; // of the command, if the set has it
    const LifeRecord& life;

    bool television() const { return command.empty(); }
};

// What PID 1 tells the leader beside its exit status.
enum class PowerRequest : char { kNone = 0, kReboot = 'R', kPowerOff = 'P' };

// Runs the set and returns PID 1's exit status. `onUp` is called once the root and the services are there.
// A power request is written to `powerPipe`, one byte.
// When PID 1 ends, the kernel ends every process of the set and drops its mounts and loop devices.
int runInit(const InitPlan& plan, int powerPipe, const std::function<void()>& onUp);

// For a process that is about to run a program of the set: signals as a new program expects them, and no
// capability that reaches beyond the set (clock, modules, raw I/O, reboot).
void prepareForProgram();

// The caller's environment as it makes sense in a set: no bus of the PC, nothing that points outside.
// With `clock`, programs started afterwards run on the set's clock.
void cleanEnvironment(const fs::path& tools, bool clock);

// Replaces the process; on failure says why on stderr and ends with 127 (not found) or 126, as a shell does.
[[noreturn]] void executeCommand(const std::vector<std::string>& command);

} // namespace vset

#endif
