#include "common/progress-line.h"

#include <algorithm>
#include <cstdio>
#include <unistd.h>

namespace common
{

// Debian has no C++ library for this; it is a line of text.

ProgressLine::ProgressLine() : isTerminal_(isatty(STDERR_FILENO) != 0) {}

void ProgressLine::show(const std::string& name, unsigned int percent)
{
    constexpr unsigned int kWidth = 40;
    percent = std::min(percent, 100U); // a library may count on
    const unsigned int step = isTerminal_ ? percent : percent / 10 * 10;
    const unsigned int filled = step * kWidth / 100;
    const std::string bar = std::string(filled, '#') + std::string(kWidth - filled, '.');
    const std::string line = name + " [" + bar + "] " + std::to_string(step) + " %";
    if (line == last_)
        return;
    std::fprintf(stderr, isTerminal_ ? "\r%s\033[K" : "%s\n", line.c_str());
    last_ = line;
}

void ProgressLine::finish()
{
    if (isTerminal_ && !last_.empty())
        std::fprintf(stderr, "\n");
    last_.clear();
}

void ProgressLine::clear()
{
    if (isTerminal_ && !last_.empty())
        std::fprintf(stderr, "\r\033[K");
    last_.clear();
}

} // namespace common
