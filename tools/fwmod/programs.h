// The other programs of the kit, found relative to this one's own file, so that the kit can be moved.
#ifndef TOOLS_FWMOD_PROGRAMS_H
#define TOOLS_FWMOD_PROGRAMS_H

#include <filesystem>
#include <optional>
#include <string>
#include <sys/types.h>
#include <vector>

namespace fwmod
{

// vset: beside fwmod in the kit, in its own room of a build tree. Throws Failure, which says what to do.
std::filesystem::path vsetProgram();

// A program that lies beside vset. Throws likewise.
std::filesystem::path programBesideVset(const std::string& name);

// A program that works while this one reads what it says. Ended with the object, and with this program.
// Errors are Failure, and an interruption ends the waits.
class RunningProgram
{
public:
    // `arguments[0]` is the program's file. What it writes to standard error goes into the file `errors`.
    RunningProgram(const std::vector<std::string>& arguments, const std::filesystem::path& errors);
    ~RunningProgram();
    RunningProgram(const RunningProgram&) = delete;
    RunningProgram& operator=(const RunningProgram&) = delete;

    // The next line of its standard output; nothing after the last one.
    std::optional<std::string> readLine();
    // To be called after the last line: whether it has ended with status 0.
    bool hasSucceeded();

private:
    pid_t process_ = -1;
    int output_ = -1;
    std::string unread_;
};

} // namespace fwmod

#endif
