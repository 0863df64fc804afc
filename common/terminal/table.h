// A table on a terminal: columns that are as wide as their widest cell, control characters shown and not
// obeyed.
#ifndef COMMON_TERMINAL_TABLE_H
#define COMMON_TERMINAL_TABLE_H

#include <string>
#include <vector>

namespace common
{

class Table
{
public:
    explicit Table(std::vector<std::string> headings) : rows_{std::move(headings)} {}

    void add(std::vector<std::string> row);

    // To standard output, each line indented by two blanks; `nothing` in place of a table without rows.
    void print(const char* nothing) const;

private:
    std::vector<std::vector<std::string>> rows_; // the first are the headings
};

} // namespace common

#endif
