// One line of progress on standard error: drawn over on a terminal, written anew every tenth otherwise.
#ifndef TOOLS_PROGRESS_H
#define TOOLS_PROGRESS_H

#include <string>

class ProgressLine
{
public:
    ProgressLine();
    void show(const std::string& name, unsigned int percent);
    void finish(); // leaves the line, if one is drawn
    void clear();  // takes it away

private:
    bool isTerminal_;
    std::string last_;
};

#endif
