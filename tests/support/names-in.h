// What a directory holds.
#ifndef TESTS_SUPPORT_NAMES_IN_H
#define TESTS_SUPPORT_NAMES_IN_H

#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

// The names, sorted.
inline std::vector<std::string> namesIn(const std::filesystem::path& directory)
{
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(directory)) {
        names.push_back(entry.path().filename());
    }
    std::sort(names.begin(), names.end());
    return names;
}

#endif
