// A program that was started, and its end.
#ifndef VSET_TELEVISION_PROCESS_H
#define VSET_TELEVISION_PROCESS_H

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <sys/types.h>
#include <vector>

#include "common/files/unique-fd.h"
#include "include/tarnwick/television.h"

namespace vset
{

// Far beyond what anything here takes: a wait that reaches it has failed, on however busy a machine.
constexpr std::chrono::seconds kPatience{30};

// What a wait does some twenty times a second; what it throws ends the wait.
using Meanwhile = std::function<void()>;

class Process
{
public:
    // Starts a program (searched for in PATH), out of reach of the terminal's Ctrl-C, which is its starter's
    // to answer. What it writes to standard output and error is appended to the files `output` and `errors`;
    // its standard input is a pipe that ends with this object. Throws tarnwick::TelevisionError.
    Process(const std::vector<std::string>& command, const std::string& output, const std::string& errors);
    Process(const std::vector<std::string>& command, const std::string& output)
        : Process(command, output, output)
    {
    }
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
    std::optional<int> waitFor(std::chrono::milliseconds longest, const Meanwhile& meanwhile = {});

private:
    std::optional<int> takeEnd(int longest); // milliseconds

    pid_t id_ = -1;
    common::UniqueFd handle_; // becomes readable when the process ends
    common::UniqueFd input_;
    std::optional<int> status_;
};

// Runs a program to its end, with nothing to read. Throws when it does not end within `longest`.
tarnwick::Output run(const std::vector<std::string>& command, const Meanwhile& meanwhile = {},
                     std::chrono::milliseconds longest = kPatience);

// The same for a program that must succeed: throws with what it said.
std::string runOrThrow(const std::vector<std::string>& command, const Meanwhile& meanwhile = {});

} // namespace vset

#endif
