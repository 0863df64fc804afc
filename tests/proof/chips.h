// The hardware of the example modules in a set, with images of a few blocks: an update takes as many calls as
// its image has blocks.
#ifndef TESTS_PROOF_CHIPS_H
#define TESTS_PROOF_CHIPS_H

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "include/tarnwick/television.h"

namespace proof
{

const std::vector<std::string>& chips();
std::filesystem::path chipImages(); // 1.0 and 1.1: firmware, packages, and hardware that has it

// Of the firmware that would run.
std::optional<std::string> versionOn(const tarnwick::Television& tv, const std::string& chip);
// What is wrong with it, when it is not version 1.0 or 1.1 byte for byte; else empty.
std::string damageOn(const tarnwick::Television& tv, const std::string& chip);

} // namespace proof

#endif
