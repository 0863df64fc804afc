// What this build is: "1.0.0 (commit 385b404abcde)". In a file of its own, as it is the one thing that every
// commit changes.
#ifndef COMMON_VERSION_H
#define COMMON_VERSION_H

namespace common
{

// Lives as long as the program.
const char* version();

} // namespace common

#endif
