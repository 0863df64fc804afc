// Where the running program lies: what belongs to it is found from there.
#ifndef COMMON_PROCESS_THIS_PROGRAM_H
#define COMMON_PROCESS_THIS_PROGRAM_H

#include <filesystem>

namespace common
{

// Absolute, links followed. Throws std::filesystem::filesystem_error without /proc. A library asks for its
// own place instead (vset/television/television.cpp), because any program may load it.
inline std::filesystem::path directoryOfThisProgram()
{
    return std::filesystem::read_symlink("/proc/self/exe").parent_path();
}

} // namespace common

#endif
