// Lines for the person at the terminal. What comes from packages and libraries is in most of them, so all of
// them are shown with control characters escaped; JSON is printed as it is.
#ifndef TOOLS_FWCTL_OUTPUT_H
#define TOOLS_FWCTL_OUTPUT_H

#include <cstdio>
#include <string>

#include "common/terminal/visible-text.h"

namespace fwctl
{

inline void printLine(const std::string& text)
{
    std::printf("%s\n", common::visible(text).c_str());
}

// On standard error, after the program's name.
inline void complain(const std::string& text)
{
    std::fprintf(stderr, "fwctl: %s\n", common::visible(text).c_str());
}

} // namespace fwctl

#endif
