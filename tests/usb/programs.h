// Programs that a test runs, and the keys that it has for them.
#ifndef TESTS_USB_PROGRAMS_H
#define TESTS_USB_PROGRAMS_H

#include <filesystem>
#include <initializer_list>
#include <stdexcept>
#include <string>
#include <vector>

#include "tests/support/run-program.h"

inline void mustRun(const std::string& directory, const std::vector<std::string>& arguments)
{
    const Outcome outcome = runProgram(arguments, directory);
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
