// What a terminal can show. TERM says whether it knows escape sequences; "dumb", "unknown" or nothing is none
// that does.
#ifndef COMMON_TERMINAL_TERMINAL_H
#define COMMON_TERMINAL_TERMINAL_H

#include <cstddef>
#include <string>

namespace common
{

// Whether what is written to `descriptor` can be drawn over, and have colours.
bool isDrawable(int descriptor);

// The same, unless the person wants no colours (NO_COLOR).
bool isColoured(int descriptor);

// How wide the terminal is now: it may be made narrower while something is shown. 0 where it is none, or does
// not tell.
std::size_t columnsOf(int descriptor);

// A program's help, for a terminal of that width (0: as it is): words stay whole, what explains an option
// stays in its column, and what continues a sentence goes on in its line. Commands to be typed stay as they
// are.
std::string wrappedHelp(const std::string& help, std::size_t width);

} // namespace common

#endif
