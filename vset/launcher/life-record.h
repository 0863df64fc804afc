// What the launcher writes down while a set is on, for whoever looks at the set from outside: SET/.vset/life,
// one JSON object a line, each written with one call. The reader is vset/television/set-life.h.
//
// The leader opens it; PID 1 has the descriptor from it and needs no path.
#ifndef VSET_LAUNCHER_LIFE_RECORD_H
#define VSET_LAUNCHER_LIFE_RECORD_H

#include <cstdint>
#include <json/json.h>

#include "vset/launcher/system.h"
#include "vset/write-watch/write-watch.h"

namespace vset
{

class LifeRecord
{
public:
    // Empties the file: this is a new life. Only while the set's lock is held. Throws Error.
    explicit LifeRecord(const fs::path& set);

    void boot(int64_t logStart) const; // bytes of the set's log before this boot
    void up(bool isCommand) const;     // services and daemon, or command, have been started
    void daemonEnded(int waitStatus) const;
    // Those of the daemon, or the command, to hardware so far; in a set whose power was to be cut at one.
    void writes(unsigned int count) const;
    void cut(unsigned int number, const HardwareWrite& write) const;
    void off(int status) const; // exit status of `vset run`

private:
    void write(const char* event, Json::Value record) const;

    UniqueFd file_;
};

} // namespace vset

#endif
