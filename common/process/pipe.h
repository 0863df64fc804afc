// A pipe between this process and its children: nobody else inherits its ends.
#ifndef COMMON_PROCESS_PIPE_H
#define COMMON_PROCESS_PIPE_H

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <unistd.h>

#include "common/errors.h"
#include "common/files/unique-fd.h"

namespace common
{

struct Pipe {
    UniqueFd reading;
    UniqueFd writing;
};

// Throws Failure, with `problem` and the reason, when the system has no descriptors left.
inline Pipe makePipe(const std::string& problem = "cannot make a pipe for a child process")
{
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) {
        throw Failure(problem + ": " + std::strerror(errno));
    }
    return {UniqueFd(ends[0]), UniqueFd(ends[1])};
}

} // namespace common

#endif
