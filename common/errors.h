// Failures that end a command, each with the exit status that scripts rely on. Their texts are for the person
// at the terminal: what is wrong, where, and what to do next.
#ifndef COMMON_ERRORS_H
#define COMMON_ERRORS_H

#include <stdexcept>
#include <string>

namespace common
{

// The same in every program of ours.
constexpr int kStatusFailed = 1;
constexpr int kStatusWrongUse = 2;

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

} // namespace common

#endif
