// What a terminal can show. TERM says whether it knows escape sequences; "dumb", "unknown" or nothing is none
// that does.
#ifndef COMMON_TERMINAL_TERMINAL_H
#define COMMON_TERMINAL_TERMINAL_H

namespace common
{

// Whether what is written to `descriptor` can be drawn over, and have colours.
bool isDrawable(int descriptor);

// The same, unless the person wants no colours (NO_COLOR).
bool isColoured(int descriptor);

} // namespace common

#endif
