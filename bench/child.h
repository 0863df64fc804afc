// Programs that are measured: started without a shell, what they say goes nowhere.
#ifndef BENCH_CHILD_H
#define BENCH_CHILD_H

#include <string>
#include <sys/types.h>
#include <vector>

namespace bench
{

// A program that runs until the object ends, which kills it.
class Child
{
public:
    // Searched for in PATH. Throws std::runtime_error when it cannot be started.
    explicit Child(const std::vector<std::string>& words);
    ~Child();
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;

    pid_t id() const { return id_; }
    // Of the processor so far, by all of its threads.
    double processorSeconds() const;
    // Its end, by itself: exit status, or 128 + the signal's number.
    int wait();

private:
    pid_t id_ = -1;
};

// Runs a program to its end. Throws when that is no success.
void runProgram(const std::vector<std::string>& words);

// Whether there is such a program: a name in PATH, or a path.
bool hasProgram(const std::string& name);

} // namespace bench

#endif
