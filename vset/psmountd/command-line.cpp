#include "vset/psmountd/command-line.h"

#include <algorithm>
#include <charconv>
#include <sstream>
#include <vector>

namespace psmount
{

namespace
{

constexpr const char* kLoopPrefix = "/dev/loop";

std::vector<std::string> splitOn(const std::string& text, char separator)
{
    std::vector<std::string> parts;
    std::istringstream stream(text);
    for (std::string part; std::getline(stream, part, separator);) {
        if (!part.empty()) {
            parts.push_back(part);
        }
    }
    return parts;
}

// Only digits, no sign and no blank, within `highest`.
std::optional<unsigned int> parseNumber(const std::string& text, unsigned int highest, int base)
{
    unsigned int number = 0;
    const char* end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, number, base);
    if (error != std::errc() || stop != end || text.empty() || number > highest) {
        return std::nullopt;
    }
    return number;
}

struct Words {
    std::vector<std::pair<std::string, std::string>> options;
    std::vector<std::string> positions;
};

// Options take the next word, wherever they stand.
std::optional<Words> readWords(const std::string& text, const std::string& known)
{
    Words words;
    const std::vector<std::string> all = splitOn(text, ' ');
    for (size_t index = 0; index < all.size(); ++index) {
        const std::string& word = all[index];
        if (word[0] != '-') {
            words.positions.push_back(word);
            continue;
        }
        if (word.size() != 2 || known.find(word[1]) == std::string::npos || index + 1 == all.size()) {
            return std::nullopt;
        }
        words.options.emplace_back(word, all[++index]);
    }
    return words;
}

} // namespace

std::optional<MountCommand> parseMount(const std::string& text)
{
    const std::optional<Words> words = readWords(text, "o");
    if (!words || words->positions.size() != 2) {
        return std::nullopt;
    }
    MountCommand command{words->positions[0], words->positions[1]};
    bool readOnly = false;
    for (const auto& [name, list] : words->options) {
        for (const std::string& option : splitOn(list, ',')) {
            const bool implied = option == "loop" || option == "nodev" || option == "nosuid";
            if (option == "ro") {
                readOnly = true;
            } else if (option == "noexec") {
                command.noExec = true;
            } else if (!implied) {
                return std::nullopt;
            }
        }
    }
    const bool absolute = command.image[0] == '/' && command.directory[0] == '/';
    return readOnly && absolute ? std::optional(command) : std::nullopt;
}

std::optional<MknodCommand> parseMknod(const std::string& text)
{
    const std::optional<Words> words = readWords(text, "mZ");
    if (!words || words->positions.size() != 4) {
        return std::nullopt;
    }
    const std::string& node = words->positions[0];
    const std::string prefix = kLoopPrefix;
    if (node.compare(0, prefix.size(), prefix) != 0 || words->positions[1] != "b" ||
        words->positions[2] != "7") {
        return std::nullopt;
    }
    const auto loop = parseNumber(node.substr(prefix.size()), kHighestLoop, 10);
    const auto minor = parseNumber(words->positions[3], kHighestLoop, 10);
    if (!loop || !minor || *loop != *minor || node != prefix + std::to_string(*loop)) {
        return std::nullopt;
    }
    MknodCommand command{*loop, 0660};
    for (const auto& [name, value] : words->options) {
        if (name != "-m") {
            continue; // the security context has no meaning here
        }
        const auto mode = parseNumber(value, 0777, 8);
        if (!mode) {
            return std::nullopt;
        }
        command.mode = *mode;
    }
    return command;
}

} // namespace psmount
