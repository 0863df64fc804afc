// The set's log file, kept open for as long as it is the one at its path.
//
// A record costs one look at the path and one write. Whoever moves the file away, removes it or enters
// another root finds the next record in the file that is at the path then. Usable from any thread and after a
// fork.
#ifndef PLATFORM_HOST_LOG_FILE_H
#define PLATFORM_HOST_LOG_FILE_H

#include <string_view>
#include <sys/types.h>

namespace platform
{

// Who writes, as the log names it.
struct Writer {
    pid_t process;
    pid_t thread;
};

// Of the calling thread; asked once in its life, and once more in the child of a fork.
Writer writer();

// Appends `line` in one write, so that lines of several writers never mix. 0, or negative when it is not in
// the file whole. Changes errno.
int appendToLog(std::string_view line);

} // namespace platform

#endif
