// What the launcher of a set has written down since the set was switched on: its boots, the ends of its
// daemon, and its own end. It stands in SET/.vset/life, one JSON object a line; docs/vset-commands.md lists
// them.
//
// It throws common::Failure, with what to do, when there is something else than a file where it stands. One
// thread.
#ifndef VSET_TELEVISION_SET_LIFE_H
#define VSET_TELEVISION_SET_LIFE_H

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace vset
{

constexpr const char* kLifeFile = ".vset/life"; // in the set's directory

// Where the power was cut.
struct PowerCut {
    unsigned int write = 0; // to hardware, counted from 1
    std::string call;       // "pwrite64"
    std::string path;       // of the set
};

struct Boot {
    int64_t logStart = 0;   // bytes of the set's log before it
    bool isUp = false;      // all services are there, and the daemon, or the command, has been started
    bool isCommand = false; // the latter
    std::optional<int> daemonEnded; // exit status of the daemon (or the command), 128 + n after signal n
    bool isBySignal = false;        // it has ended so
    // Of the daemon (or the command) to hardware, when the power was to be cut at one and was not.
    std::optional<unsigned int> writes;
    std::optional<PowerCut> cut;
};

struct SetLife {
    std::vector<Boot> boots; // since it was switched on; a reboot adds one
    std::optional<int> end;  // exit status of `vset run`; nothing while the set is on, or when it was killed
};

// "daemon" or "command".
const char* nameOfMain(const Boot& boot);

// As it stands now; no boot when the set was never on. A line that is not whole yet is left out.
SetLife readLife(const std::filesystem::path& set);

} // namespace vset

#endif
