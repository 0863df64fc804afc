// Runs a program as a person would: found in PATH, in a directory, its output and exit status kept.
#ifndef TESTS_SUPPORT_RUN_PROGRAM_H
#define TESTS_SUPPORT_RUN_PROGRAM_H

#include <string>
#include <sys/wait.h>
#include <vector>

#include "common/glib-pointers.h"

struct Outcome {
    int status = -1; // as a shell tells it: 128 + signal when one ended it; -1 when it could not be started
    std::string out;
    std::string err;
};

inline int shellStatus(int waitStatus)
{
    return WIFEXITED(waitStatus) ? WEXITSTATUS(waitStatus) : 128 + WTERMSIG(waitStatus);
}

inline std::string takeText(char* text)
{
    const common::GlibPointer<char> owned(text);
    return owned ? owned.get() : "";
}

// In this process's own directory when none is given.
inline Outcome runProgram(std::vector<std::string> arguments, const std::string& directory = "")
{
    std::vector<char*> pointers;
    for (std::string& argument : arguments) {
        pointers.push_back(argument.data());
    }
    pointers.push_back(nullptr);
    char* out = nullptr;
    char* err = nullptr;
    int status = 0;
    const gboolean isStarted =
        g_spawn_sync(directory.empty() ? nullptr : directory.c_str(), pointers.data(), nullptr,
                     G_SPAWN_SEARCH_PATH, nullptr, nullptr, &out, &err, &status, nullptr);
    return {isStarted != FALSE ? shellStatus(status) : -1, takeText(out), takeText(err)};
}

#endif
