// What whoever starts a program needs: its words as the system wants them, and its end as a shell tells it.
#ifndef COMMON_PROCESS_PROGRAM_H
#define COMMON_PROCESS_PROGRAM_H

#include <string>
#include <sys/wait.h>
#include <vector>

namespace common
{

// For exec and its like, with the null pointer at the end; usable while `words` are.
inline std::vector<char*> argumentsOf(const std::vector<std::string>& words)
{
    std::vector<char*> arguments;
    arguments.reserve(words.size() + 1);
    for (const std::string& word : words) {
        arguments.push_back(const_cast<char*>(word.c_str())); // the calls are of C, and leave them alone
    }
    arguments.push_back(nullptr);
    return arguments;
}

// The process's own exit status, or 128 + the signal's number.
inline int shellStatus(int waitStatus)
{
    return WIFSIGNALED(waitStatus) ? 128 + WTERMSIG(waitStatus) : WEXITSTATUS(waitStatus);
}

} // namespace common

#endif
