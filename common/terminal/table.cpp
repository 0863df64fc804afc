#include "common/terminal/table.h"

#include <algorithm>
#include <cstdio>
#include <glib.h>

#include "common/terminal/visible-text.h"

namespace common
{

namespace
{

// Places that the text takes on a terminal, not bytes.
size_t widthOf(const std::string& text)
{
    size_t width = 0;
    for (const char* at = text.c_str(); *at != '\0'; at = g_utf8_next_char(at)) {
        const gunichar character = g_utf8_get_char(at);
        width += g_unichar_iszerowidth(character) != FALSE ? 0 : g_unichar_iswide(character) != FALSE ? 2 : 1;
    }
    return width;
}

void printRow(const std::vector<std::string>& row, const std::vector<size_t>& widths)
{
    std::string line = " ";
    for (size_t column = 0; column < row.size(); ++column) {
        line += " " + row[column] + std::string(widths[column] - widthOf(row[column]) + 1, ' ');
    }
    line.erase(line.find_last_not_of(' ') + 1);
    std::printf("%s\n", line.c_str());
}

} // namespace

void Table::add(std::vector<std::string> row)
{
    for (std::string& cell : row) {
        cell = visible(cell);
    }
    rows_.push_back(std::move(row));
}

void Table::print(const char* nothing) const
{
    if (rows_.size() == 1) {
        std::printf("  %s\n", nothing);
        return;
    }
    std::vector<size_t> widths(rows_.front().size());
    for (const auto& row : rows_) {
        for (size_t column = 0; column < row.size(); ++column) {
            widths[column] = std::max(widths[column], widthOf(row[column]));
        }
    }
    for (const auto& row : rows_) {
        printRow(row, widths);
    }
}

} // namespace common
