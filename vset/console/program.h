// Runs another program for a moment, without waiting for it.
#ifndef VSET_CONSOLE_PROGRAM_H
#define VSET_CONSOLE_PROGRAM_H

#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace vset
{

// Starts `command` and hands over what it wrote to standard output; nothing when it could not be started,
// failed, wrote more than a megabyte or did not end within `limit` milliseconds of the PC's time, in which
// two cases it is killed at once. Main thread; `done` is called there, never before this returns.
void runProgram(const std::vector<std::string>& command, int64_t limit,
                std::function<void(const std::optional<std::string>&)> done);

} // namespace vset

#endif
