#include "common/terminal/terminal.h"

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <sstream>
#include <string_view>
#include <sys/ioctl.h>
#include <unistd.h>
#include <utility>

namespace common
{

namespace
{

std::string_view variable(const char* name)
{
    const char* const value = std::getenv(name);
    return value != nullptr ? value : "";
}

} // namespace

bool isDrawable(int descriptor)
{
    const std::string_view kind = variable("TERM");
    return isatty(descriptor) != 0 && !kind.empty() && kind != "dumb" && kind != "unknown";
}

bool isColoured(int descriptor)
{
    return isDrawable(descriptor) && variable("NO_COLOR").empty();
}

std::size_t columnsOf(int descriptor)
{
    winsize size = {};
    return ioctl(descriptor, TIOCGWINSZ, &size) == 0 ? size.ws_col : 0;
}

namespace
{

// Where its lines go on below each other: the column behind two blanks, or else where the text begins.
std::size_t columnIn(const std::string& line)
{
    const std::size_t text = line.find_first_not_of(' ');
    const std::size_t gap = line.find("  ", text);
    const std::size_t column = gap == std::string::npos ? gap : line.find_first_not_of(' ', gap);
    return column == std::string::npos ? text : column;
}

// A command, indented, with nothing that explains it.
bool isToBeTyped(std::size_t column)
{
    constexpr std::size_t kDeepest = 10; // from there on it is the column of what explains
    return column > 0 && column < kDeepest;
}

// As much as fits in the width; the rest stays in `line`, indented.
std::string takeLine(std::string& line, std::size_t column, std::size_t width)
{
    const std::size_t blank = line.rfind(' ', width);
    if (line.size() <= width || blank == std::string::npos || blank < column) {
        return std::exchange(line, "");
    }
    std::string taken = line.substr(0, blank);
    line = std::string(column, ' ') + line.substr(blank + 1);
    return taken;
}

} // namespace

std::string wrappedHelp(const std::string& help, std::size_t width)
{
    constexpr std::size_t kNarrowest = 40;
    if (width < kNarrowest) {
        return help;
    }
    std::istringstream lines(help);
    std::string all;
    std::string rest; // of a sentence that the next line may continue
    for (std::string line; std::getline(lines, line);) {
        const auto first = static_cast<unsigned char>(line.empty() ? ' ' : line.front());
        const bool isContinued = std::islower(first) != 0 || std::isdigit(first) != 0;
        if (!rest.empty() && !isContinued) {
            all += std::exchange(rest, "") + "\n";
        }
        if (!rest.empty()) {
            line.insert(0, std::exchange(rest, "") + " ");
        }
        const std::size_t column = line.size() > width ? columnIn(line) : 0;
        const bool isWrapped = line.size() > width && !isToBeTyped(column) && column < width * 2 / 3;
        while (isWrapped && line.size() > width) {
            all += takeLine(line, column, width) + "\n";
        }
        if (isWrapped && column == 0) {
            rest = line;
        } else if (!isWrapped || !line.empty()) {
            all += line + "\n";
        }
    }
    return all + (rest.empty() ? "" : rest + "\n");
}

} // namespace common
