// One line of progress on standard error: drawn over on a terminal, written anew every tenth otherwise.
#ifndef FWCTL_PROGRESS_H
#define FWCTL_PROGRESS_H

#include <string>

class ProgressLine
{
public:
    ProgressLine();
    void show(const std::string& name, unsigned int percent);
    void finish(); // leaves the line, if one is drawn

private:
    bool isTerminal_;
    std::string last_;
};

#endif
