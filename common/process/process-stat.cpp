#include "common/process/process-stat.h"

#include <array>
#include <cstdio>
#include <cstring>

#include "common/files/owned-file.h"

namespace common
{

std::optional<ProcessStat> readProcessStat(const std::string& directory)
{
    const OwnedFile file(std::fopen((directory + "/stat").c_str(), "re"));
    std::array<char, 1024> text{};
    if (!file || std::fread(text.data(), 1, text.size() - 1, file.get()) == 0) {
        return std::nullopt;
    }
    const char* const nameEnd =
        std::strrchr(text.data(), ')'); // "412 (name) S 1 ...": a name may hold anything
    ProcessStat stat;
    const bool isRead =
        nameEnd != nullptr &&
        std::sscanf(nameEnd,
                    ") %c %d %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %llu",
                    &stat.state, &stat.parent, &stat.startTicks) == 3;
    return isRead ? std::optional(stat) : std::nullopt;
}

} // namespace common
