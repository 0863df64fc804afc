#include "tools/fwmod/check/examiner/machine/held-image.h"

#include <algorithm>
#include <map>
#include <string_view>
#include <vector>

#include "common/files/whole-file.h"
#include "tools/fwmod/check/examiner/machine/hardware-copy.h"
#include "tools/fwmod/check/examiner/machine/held-parts.h"
#include "tools/fwmod/check/examiner/machine/mapped-file.h"
#include "tools/fwmod/check/examiner/machine/plain-files.h"

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

bool contains(std::string_view content, const std::string& part)
{
    return content.find(part) != std::string_view::npos;
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
    return job.isExternal || !job.hasImage() ? "" : common::readWhole(job.image);
}

Holding holdingOf(const Machine& machine, const std::string& image)
{
    Holding exact;
    Holding around;
    if (image.empty()) {
        return {};
    }
    for (const auto& [path, content] : hardwareOf(machine)) {
        if (content == image) {
            exact.files[path] = content.size();
        } else if (contains(content, image)) {
            around.files[path] = content.size();
        }
    }
    if (!exact.isKnown() && !around.isKnown()) {
        around.parts = partsOf(image, machine.file("/"));
    }
    return exact.isKnown() ? exact : around;
}

bool isHeld(const fs::path& root, const std::string& image, const Holding& holding)
{
    if (holding.files.empty()) {
        return arePartsThere(holding.parts, image, root);
    }
    return std::any_of(holding.files.begin(), holding.files.end(), [&](const auto& holder) {
        const MappedFile file(root / fs::path(holder.first).relative_path());
        const std::string_view content = file.content();
        return holder.second == image.size() ? content == image : contains(content, image);
    });
}

bool isVersionOfNothing(const std::string& version)
{
    return !version.empty() && version.find_first_not_of("0.") == std::string::npos;
}

bool isAnywhere(const Machine& machine, const std::string& bytes)
{
    const std::vector<fs::path> files = filesIn(machine.file(kHardware));
    return std::any_of(files.begin(), files.end(),
                       [&](const fs::path& path) { return contains(MappedFile(path).content(), bytes); });
}

namespace
{
// Pieces of a content, evenly spread, without those that any memory has: of one byte again and again.
struct Piece {
    std::size_t at;
    std::string bytes;
};

std::vector<Piece> piecesOf(std::string_view content)
{
    constexpr std::size_t kSize = 64;
    constexpr std::size_t kMost = 64;
    std::vector<Piece> pieces;
    const std::size_t step = std::max(content.size() / kMost, kSize);
    for (std::size_t at = 0; at + kSize <= content.size(); at += step) {
        std::string bytes(content.substr(at, kSize));
        if (bytes.find_first_not_of(bytes[0]) != std::string::npos) {
            pieces.push_back({at, std::move(bytes)});
        }
    }
    return pieces;
}
} // namespace

bool isOldFirmwareGone(const Machine& machine)
{
    constexpr std::size_t kFew = 8;   // pieces, of which nothing can be said
    constexpr std::size_t kMost = 10; // a tenth of them may be there
    std::size_t all = 0;
    std::size_t there = 0;
    for (const fs::path& path : filesIn(kHardware)) { // the set's own, from which machines are made
        const MappedFile old(path);
        const MappedFile now(machine.file(path));
        for (const Piece& piece : piecesOf(old.content())) {
            const std::string_view same =
                now.content().substr(std::min(piece.at, now.content().size()), piece.bytes.size());
            there += same == piece.bytes || isAnywhere(machine, piece.bytes) ? 1 : 0;
            ++all;
        }
    }
    return all >= kFew && there * kMost <= all;
}

std::optional<std::size_t> missingAtEnd(const Machine& machine, const std::string& image,
                                        const std::string& version)
{
    constexpr std::size_t kLeastBlock = 256;
    constexpr std::size_t kMost =
        4; // a fourth of the image: with less there it is not the beginning that counts
    std::size_t there = 0;
    const auto contents = hardwareOf(machine);
    for (const auto& [path, content] : contents) {
        there = std::max(there, longestBeginning(content, image));
    }
    const std::size_t missing = image.size() - there;
    const std::string end = image.substr(there);
    const bool tellsVersion =
        !version.empty() && contains(end, version) && !contains(image.substr(0, there), version);
    const bool isTrailer = there % kLeastBlock != 0 || tellsVersion;
    if (missing == 0 || missing * kMost > image.size() || isTrailer) {
        return std::nullopt;
    }
    const bool isElsewhere = std::any_of(contents.begin(), contents.end(),
                                         [&](const auto& file) { return contains(file.second, end); });
    return isElsewhere ? std::nullopt : std::optional(missing);
}
} // namespace fwmod::examiner
