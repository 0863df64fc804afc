// What a daemon may leave in a running set, as one sees it from outside.
#ifndef TESTS_PROOF_LEFT_OVER_H
#define TESTS_PROOF_LEFT_OVER_H

#include <cstddef>
#include <filesystem>
#include <string>
#include <vector>

#include "include/tarnwick/television.h"

namespace proof
{

struct LeftOver {
    std::vector<std::string> mounts; // of packages, as the set's table has them
    int semaphore = 1;
    bool isListThere = false;
    std::size_t locks = 0;

    bool isAsAfterAnEnd() const; // the mounts are judged apart
    std::string text() const;    // of all but the mounts
};
LeftOver leftOverIn(tarnwick::Television& tv);

// The number of the set's first process on this machine, and a place of the running set: "/mounts" and
// "/root/dev/shm", for example, as /proc has them below that number.
std::string initOf(const tarnwick::Television& tv);
std::filesystem::path insideSet(const tarnwick::Television& tv, const std::string& path);

} // namespace proof

#endif
