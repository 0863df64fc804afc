#include "tools/fwmod/check/examiner/held-image.h"

#include <algorithm>
#include <vector>

#include "tools/fwmod/check/examiner/hardware-copy.h"

namespace fwmod::examiner
{

namespace fs = std::filesystem;

namespace
{
// By the set's path.
std::map<std::string, std::string> hardwareOf(const Machine& machine)
{
    std::map<std::string, std::string> contents;
    const fs::path root = machine.file("/");
    for (const fs::path& file : filesIn(machine.file(kHardware))) {
        contents["/" + file.lexically_relative(root).string()] = contentOf(file);
    }
    return contents;
}

bool contains(const std::string& content, const std::string& part)
{
    return content.find(part) != std::string::npos;
}

// The longest beginning of the image that is somewhere in the content.
std::size_t longestBeginning(const std::string& content, const std::string& image)
{
    constexpr std::size_t kSure = 64; // bytes that are hardly there by chance
    const std::string head = image.substr(0, kSure);
    std::size_t longest = 0;
    for (std::size_t at = content.find(head); at != std::string::npos; at = content.find(head, at + 1)) {
        const auto end =
            std::mismatch(image.begin(), image.end(), content.begin() + static_cast<long>(at), content.end());
        longest = std::max(longest, static_cast<std::size_t>(end.first - image.begin()));
    }
    return longest;
}
} // namespace

std::string imageOf(const Job& job)
{
    return job.isExternal || !job.hasImage() ? "" : contentOf(job.image);
}

Holders holdersOf(const Machine& machine, const std::string& image)
{
    Holders exact;
    Holders around;
    if (image.empty()) {
        return {};
    }
    for (const auto& [path, content] : hardwareOf(machine)) {
        if (content == image) {
            exact[path] = content.size();
        } else if (contains(content, image)) {
            around[path] = content.size();
        }
    }
    return exact.empty() ? around : exact;
}

bool isHeld(const Machine& machine, const std::string& image, const Holders& holders)
{
    return std::any_of(holders.begin(), holders.end(), [&](const auto& holder) {
        const std::string content = contentOf(machine.file(holder.first));
        return holder.second == image.size() ? content == image : contains(content, image);
    });
}

std::optional<std::size_t> missingAtEnd(const Machine& machine, const std::string& image)
{
    constexpr std::size_t kMost =
        4; // a fourth of the image: with less there it is not the beginning that counts
    std::size_t there = 0;
    const auto contents = hardwareOf(machine);
    for (const auto& [path, content] : contents) {
        there = std::max(there, longestBeginning(content, image));
    }
    const std::size_t missing = image.size() - there;
    if (missing == 0 || missing * kMost > image.size()) {
        return std::nullopt;
    }
    const std::string end = image.substr(there);
    const bool isElsewhere = std::any_of(contents.begin(), contents.end(),
                                         [&](const auto& file) { return contains(file.second, end); });
    return isElsewhere ? std::nullopt : std::optional(missing);
}
} // namespace fwmod::examiner
