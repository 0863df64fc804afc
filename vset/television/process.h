// A program that was started, and its end.
#ifndef VSET_TELEVISION_PROCESS_H
#define VSET_TELEVISION_PROCESS_H

#include <chrono>
#include <optional>
#include <string>
#include <sys/types.h>
#include <vector>

#include "include/tarnwick/television.h"

namespace vset
{

// Far beyond what anything here takes: a wait that reaches it has failed, on however busy a machine.
constexpr std::chrono::seconds kPatience{30};

class Process
{
public:
    // Starts a program (searched for in PATH). What it writes to standard output and error is appended to the
    // file `output`; its standard input is a pipe that ends with this object. Throws
    // tarnwick::TelevisionError.
    Process(const std::vector<std::string>& command, const std::string& output);
    // Kills it unless it has ended.
    ~Process();
    Process(const Process&) = delete;
    Process& operator=(const Process&) = delete;

    pid_t id() const { return id_; }
    // Its only child, as this machine numbers processes. Throws when there is none.
    pid_t child() const;
    void closeInput();
    void signal(int number) const;

    bool isRunning() { return !waitFor(std::chrono::milliseconds(0)); }
    // Exit status, or 128 + the signal's number, as a shell has it; no value when it runs on.
    std::optional<int> waitFor(std::chrono::milliseconds longest);

private:
    pid_t id_ = -1;
    int handle_ = -1; // becomes readable when the process ends
    int input_ = -1;
    std::optional<int> status_;
};

// Runs a program to its end, with nothing to read. Throws when it does not end within kPatience.
tarnwick::Output run(const std::vector<std::string>& command);

// The same for a program that must succeed: throws with what it said.
std::string runOrThrow(const std::vector<std::string>& command);

} // namespace vset

#endif
