// Programs that a test runs, and the keys that it has for them.
#ifndef USB_TEST_PROGRAMS_H
#define USB_TEST_PROGRAMS_H

#include <filesystem>
#include <gio/gio.h>
#include <initializer_list>
#include <stdexcept>
#include <string>
#include <sys/wait.h>
#include <vector>

struct Outcome {
    int status; // -1 when it was killed or could not be started
    std::string out;
    std::string err;
};

inline std::string takeText(char* text)
{
    std::string taken = text != nullptr ? text : "";
    g_free(text);
    return taken;
}

inline Outcome runIn(const std::string& directory, std::vector<std::string> arguments)
{
    std::vector<char*> pointers;
    for (std::string& argument : arguments) {
        pointers.push_back(argument.data());
    }
    pointers.push_back(nullptr);
    char* out = nullptr;
    char* err = nullptr;
    int status = -1;
    g_spawn_sync(directory.c_str(), pointers.data(), nullptr, G_SPAWN_SEARCH_PATH, nullptr, nullptr, &out,
                 &err, &status, nullptr);
    return {status >= 0 && WIFEXITED(status) ? WEXITSTATUS(status) : -1, takeText(out), takeText(err)};
}

inline void mustRun(const std::string& directory, const std::vector<std::string>& arguments)
{
    const Outcome outcome = runIn(directory, arguments);
    if (outcome.status != 0) {
        throw std::runtime_error(arguments[0] + " failed: " + outcome.err);
    }
}

// Copies NAME.pem and NAME.pub.pem of the keys that are made for tests (see keys/README.md).
inline void copyTestKeys(const std::string& directory, std::initializer_list<const char*> names)
{
    for (const std::string name : names) {
        for (const char* kind : {".pem", ".pub.pem"}) {
            std::filesystem::copy(TEST_KEYS "/" + name + kind, directory + "/" + name + kind);
        }
    }
}

#endif
