#include "tools/fwctl/modules/library-speech.h"

#include <string_view>

namespace fwctl
{

namespace
{
constexpr std::string_view kMark("\0\001fwctl\001", 8);
constexpr unsigned long kMostLines = 100;
constexpr std::size_t kLongestLine = 500;
} // namespace

std::string LibrarySpeech::markOf(const std::string& name)
{
    return std::string(kMark) + name + '\n';
}

void LibrarySpeech::tell(const std::string& line)
{
    if (onLine_) {
        onLine_(line);
    }
}

void LibrarySpeech::say(const std::string& text)
{
    if (text.empty() || ++lines_ > kMostLines) {
        return;
    }
    const std::string shown = text.size() <= kLongestLine ? text : text.substr(0, kLongestLine) + "...";
    // Of fwctl's own libraries, in what the control library has made of their process.
    const bool isGlibs = text.rfind("(process:", 0) == 0;
    tell(speaker_.empty() ? shown : speaker_ + (isGlibs ? ", in its process: " : " says: ") + shown);
}

void LibrarySpeech::change(const std::string& speaker)
{
    if (lines_ > kMostLines) {
        tell(speaker_ + " says " + std::to_string(lines_ - kMostLines) + " lines more, which are not shown");
    }
    lines_ = 0;
    speaker_ = speaker;
}

void LibrarySpeech::take(const std::string& bytes)
{
    constexpr std::size_t kMostKept = std::size_t{64} * 1024; // of a line without an end
    rest_ += bytes;
    std::size_t begin = 0;
    for (std::size_t end; (end = rest_.find('\n', begin)) != std::string::npos; begin = end + 1) {
        const std::string line = rest_.substr(begin, end - begin);
        const std::size_t mark = line.find(kMark);
        say(line.substr(0, mark));
        if (mark != std::string::npos) {
            change(line.substr(mark + kMark.size()));
        }
    }
    rest_.erase(0, begin);
    if (rest_.size() > kMostKept) {
        say(rest_);
        rest_.clear();
    }
}

void LibrarySpeech::finish()
{
    say(rest_);
    rest_.clear();
    change("");
}

} // namespace fwctl
