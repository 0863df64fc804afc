// One line of progress on standard error: drawn over on a terminal that can do that, whose width it keeps to,
// and written anew every tenth otherwise.
#ifndef COMMON_TERMINAL_PROGRESS_LINE_H
#define COMMON_TERMINAL_PROGRESS_LINE_H

#include <string>

namespace common
{

class ProgressLine
{
public:
    ProgressLine();
    bool isDrawn() const { return isDrawn_; } // over and over, in its place
    // `name` may come from anywhere: control characters are shown.
    void show(const std::string& name, unsigned int percent);
    void finish(); // leaves the line, if one is drawn; what is written next has a line of its own
    void clear();  // takes it away

private:
    bool isDrawn_;
    std::string last_;
};

} // namespace common

#endif
