// A program of several commands, one file each: a table of them in main.cpp, and here what makes it a
// program.
//
// A command declares its options on the given CLI11 app and returns what to do once they are parsed. That
// function returns the exit status or throws; what it throws derives from std::exception and says what to do
// next. Its status is CommandError's, else 1.
#ifndef TOOLS_COMMAND_LINE_H
#define TOOLS_COMMAND_LINE_H

#include <CLI/CLI.hpp>

#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

// The same in every program of ours.
constexpr int kStatusFailed = 1;
constexpr int kStatusWrongUse = 2;

using Run = std::function<int()>;

struct Command {
    const char* name;
    const char* summary; // one line for "PROGRAM --help"
    Run (*define)(CLI::App& app);
};

class CommandError : public std::runtime_error
{
public:
    CommandError(int status, const std::string& text) : std::runtime_error(text), status_(status) {}
    int status() const { return status_; }

private:
    int status_; // that the program ends with
};

// The arguments contradict each other or make no sense.
struct WrongUse : CommandError {
    explicit WrongUse(const std::string& text) : CommandError(kStatusWrongUse, text) {}
};

// The arguments are right, but it cannot be done.
struct Failure : CommandError {
    explicit Failure(const std::string& text) : CommandError(kStatusFailed, text) {}
};

// Runs the command that the arguments name and returns the program's exit status; errors are told on standard
// error. `app` has the program's name, summary and footer. Lets pass what is no std::exception.
int runCommandLine(CLI::App& app, const std::vector<Command>& commands, int argc, char** argv);

#endif
