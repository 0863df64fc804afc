// The functions that a control library exports (tarnwick/control.h), for programs that look them up by name.
#ifndef COMMON_DAEMON_ENTRY_POINTS_H
#define COMMON_DAEMON_ENTRY_POINTS_H

#include <stdexcept>
#include <string_view>

namespace common
{

struct EntryPoint {
    const char* name;
    bool isRequired; // without it the daemon does not take the library
};

// In the order in which the daemon binds them.
constexpr EntryPoint kEntryPoints[] = {
    {"setContext", true},           {"getEMPID", true},         {"getActiveVersion", true},
    {"checkVersion", true},         {"doUpdate", true},         {"allUpdateDone", false},
    {"doUpdate_decryption", false}, {"getExpectedTime", false}, {"getUpdateProgress", false},
};

constexpr const EntryPoint& entryPoint(std::string_view name)
{
    for (const EntryPoint& entry : kEntryPoints) {
        if (entry.name == name) {
            return entry;
        }
    }
    throw std::logic_error("a control library has no such function");
}

} // namespace common

#endif
