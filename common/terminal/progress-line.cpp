#include "common/terminal/progress-line.h"

#include <algorithm>
#include <cstdio>
#include <limits>
#include <unistd.h>

#include "common/terminal/terminal.h"
#include "common/terminal/visible-text.h"

namespace common
{

// Debian has no C++ library for this; it is a line of text.

namespace
{

constexpr size_t kUnlimited = std::numeric_limits<size_t>::max();

size_t columns()
{
    const size_t known = columnsOf(STDERR_FILENO);
    return known > 0 ? known : 80;
}

// A line that is as wide as the terminal wraps, and cannot be drawn over: the last column stays free, and the
// bar, then the name, give way.
std::string lineOf(const std::string& name, unsigned int percent, size_t width)
{
    constexpr size_t kWidest = 40;
    constexpr size_t kNarrowest = 10;
    const std::string tail = " " + std::to_string(percent) + " %";
    const size_t taken = name.size() + tail.size() + sizeof " []"; // with the free column
    const size_t room = width > taken ? std::min(width - taken, kWidest) : 0;
    if (room < kNarrowest) {
        const size_t nameRoom = width > tail.size() + 1 ? width - tail.size() - 1 : 0;
        return name.substr(0, nameRoom) + tail;
    }
    const size_t filled = percent * room / 100;
    return name + " [" + std::string(filled, '#') + std::string(room - filled, '.') + "]" + tail;
}

} // namespace

ProgressLine::ProgressLine() : isDrawn_(isDrawable(STDERR_FILENO)) {}

void ProgressLine::show(const std::string& name, unsigned int percent)
{
    percent = std::min(percent, 100U); // a library may count on
    const unsigned int step = isDrawn_ ? percent : percent / 10 * 10;
    const std::string line = lineOf(visible(name), step, isDrawn_ ? columns() : kUnlimited);
    if (line == last_) {
        return;
    }
    std::fprintf(stderr, isDrawn_ ? "\r%s\033[K" : "%s\n", line.c_str());
    last_ = line;
}

void ProgressLine::finish()
{
    if (isDrawn_ && !last_.empty()) {
        std::fprintf(stderr, "\n");
    }
    last_.clear();
}

void ProgressLine::clear()
{
    if (isDrawn_ && !last_.empty()) {
        std::fprintf(stderr, "\r\033[K");
    }
    last_.clear();
}

} // namespace common
