#include "tools/fwmod/check/examiner/machine/held-parts.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <map>
#include <optional>
#include <string_view>
#include <unordered_map>

#include "tools/fwmod/check/examiner/machine/hardware-copy.h"
#include "tools/fwmod/check/examiner/machine/mapped-file.h"
#include "tools/fwmod/check/examiner/machine/plain-files.h"

namespace fwmod::examiner
{

namespace fs = std::filesystem;

namespace
{
constexpr std::size_t kLeast = 96;  // bytes that are no part by chance
constexpr std::size_t kEdge = 16;   // of a part: what lies around it may begin like the image's next bytes
constexpr std::size_t kMost = 4096; // parts

// Where in the image some bytes are: every so often eight, which are not one byte again and again.
class Index
{
public:
    explicit Index(std::string_view image)
    {
        constexpr std::size_t kStep = 32;
        for (std::size_t at = 0; at + sizeof(std::uint64_t) <= image.size(); at += kStep) {
            const std::uint64_t key = number(image.substr(at));
            if (!isOneByte(key)) {
                places_.emplace(key, at);
            }
        }
    }
    std::optional<std::size_t> find(std::string_view bytes) const
    {
        const std::uint64_t key = number(bytes);
        if (isOneByte(key)) { // most of a chip, which is looked through byte by byte
            return std::nullopt;
        }
        const auto place = places_.find(key);
        return place == places_.end() ? std::nullopt : std::optional(place->second);
    }

private:
    static std::uint64_t number(std::string_view bytes)
    {
        std::uint64_t value = 0;
        std::memcpy(&value, bytes.data(), sizeof value);
        return value;
    }
    static bool isOneByte(std::uint64_t key) { return key == (key << 8U | key >> 56U); } // again and again
    std::unordered_map<std::uint64_t, std::size_t> places_;
};

// The longest piece around two places that hold the same.
HeldPart pieceAround(std::string_view image, std::size_t begin, std::string_view content, std::size_t at)
{
    HeldPart piece;
    std::size_t before = 0;
    while (before < std::min(begin, at) && image[begin - before - 1] == content[at - before - 1]) {
        ++before;
    }
    const auto end = std::mismatch(image.begin() + static_cast<std::ptrdiff_t>(begin), image.end(),
                                   content.begin() + static_cast<std::ptrdiff_t>(at), content.end());
    piece.begin = begin - before;
    piece.position = at - before;
    piece.size = static_cast<std::uint64_t>(end.first - image.begin()) - piece.begin;
    return piece;
}

// Without what may be there by chance: bytes that are all the same, and some more. Nothing when little is
// left.
std::optional<HeldPart> coreOf(HeldPart part, std::string_view image)
{
    const std::string_view bytes = image.substr(part.begin, part.size);
    const std::size_t first = bytes.find_first_not_of(bytes.front());
    const std::size_t last = bytes.find_last_not_of(bytes.back());
    if (first == std::string_view::npos || last < first + 3 * kEdge) {
        return std::nullopt;
    }
    part.begin += first + kEdge;
    part.position += first + kEdge;
    part.size = last + 1 - first - 2 * kEdge;
    return part;
}

// All pieces of a file that are long enough, in their order.
std::vector<HeldPart> piecesIn(std::string_view content, std::string_view image, const Index& index)
{
    std::vector<HeldPart> pieces;
    std::size_t at = 0;
    while (at + sizeof(std::uint64_t) <= content.size()) {
        const std::optional<std::size_t> begin = index.find(content.substr(at));
        const HeldPart piece = begin ? pieceAround(image, *begin, content, at) : HeldPart();
        const bool isPiece = piece.size >= kLeast;
        if (isPiece) {
            pieces.push_back(piece);
        }
        at = isPiece ? std::max<std::size_t>(piece.position + piece.size, at + 1) : at + 1;
    }
    return pieces;
}

// What a part brings that no other has brought.
std::uint64_t cover(std::vector<bool>& covered, const HeldPart& part)
{
    std::uint64_t fresh = 0;
    for (std::uint64_t at = part.begin; at < part.begin + part.size; ++at) {
        fresh += covered[at] ? 0 : 1;
        covered[at] = true;
    }
    return fresh;
}

class Files // each opened once
{
public:
    explicit Files(const fs::path& root) : root_(root) {}
    std::string_view content(const std::string& path)
    {
        return files_.try_emplace(path, root_ / fs::path(path).relative_path()).first->second.content();
    }
    bool isAnywhere(std::string_view bytes)
    {
        const std::vector<fs::path> all = filesIn(root_ / fs::path(kHardware).relative_path());
        return std::any_of(all.begin(), all.end(), [&](const fs::path& file) {
            return content("/" + file.lexically_relative(root_).string()).find(bytes) !=
                   std::string_view::npos;
        });
    }

private:
    fs::path root_;
    std::map<std::string, MappedFile> files_;
};
} // namespace

std::vector<HeldPart> partsOf(const std::string& image, const fs::path& root)
{
    constexpr std::uint64_t kNearlyAll = 4; // all but a fourth
    const Index index(image);
    std::vector<HeldPart> parts;
    std::vector<bool> covered(image.size());
    std::uint64_t size = 0;
    for (const fs::path& file : filesIn(root / fs::path(kHardware).relative_path())) {
        const MappedFile mapped(file);
        for (HeldPart piece : piecesIn(mapped.content(), image, index)) {
            const std::uint64_t fresh = cover(covered, piece);
            size += fresh;
            piece.path = "/" + file.lexically_relative(root).string();
            if (const auto core = fresh > 0 ? coreOf(piece, image) : std::nullopt) {
                parts.push_back(*core);
            }
        }
    }
    const bool isMost = size * kNearlyAll >= image.size() * (kNearlyAll - 1);
    return isMost && parts.size() <= kMost ? parts : std::vector<HeldPart>();
}

bool arePartsThere(const std::vector<HeldPart>& parts, const std::string& image, const fs::path& root)
{
    Files files(root);
    return std::all_of(parts.begin(), parts.end(), [&](const HeldPart& part) {
        const std::string_view right = std::string_view(image).substr(part.begin, part.size);
        const std::string_view content = files.content(part.path);
        const std::size_t at = std::min<std::size_t>(part.position, content.size());
        return content.substr(at, part.size) == right || files.isAnywhere(right);
    });
}
} // namespace fwmod::examiner
