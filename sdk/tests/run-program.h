// Runs a program as a person would: found in PATH, in a directory, its output and exit status kept.
#ifndef SDK_RUN_PROGRAM_H
#define SDK_RUN_PROGRAM_H

#include <gio/gio.h>

#include <string>
#include <sys/wait.h>
#include <vector>

struct Outcome {
    int status;
    std::string out;
    std::string err;
};

inline std::string take(char* text)
{
    std::string taken = text != nullptr ? text : "";
    g_free(text);
    return taken;
}

inline Outcome runProgram(std::vector<std::string> arguments, const std::string& directory)
{
    std::vector<char*> pointers;
    for (std::string& argument : arguments)
        pointers.push_back(argument.data());
    pointers.push_back(nullptr);
    char* out = nullptr;
    char* err = nullptr;
    int status = -1;
    g_spawn_sync(directory.c_str(), pointers.data(), nullptr, G_SPAWN_SEARCH_PATH, nullptr, nullptr, &out,
                 &err, &status, nullptr);
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, take(out), take(err)};
}

#endif
