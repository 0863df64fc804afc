// Small helpers over system calls for the launcher: errors as exceptions, owned descriptors, files.
//
// The launcher is single-threaded; nothing here is meant for use from several threads.
#ifndef VSET_LAUNCHER_SYSTEM_H
#define VSET_LAUNCHER_SYSTEM_H

#include <csignal>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <sys/types.h>

#include "common/errors.h"
#include "common/files/unique-fd.h"
#include "common/process/program.h"

namespace vset
{

namespace fs = std::filesystem;

// Something failed; the text is for the person at the terminal and says what to do next. Exit status 1.
class Error : public std::runtime_error
{
public:
    using std::runtime_error::runtime_error;
};

// Throws Error with `what` and the text of the current errno.
[[noreturn]] void failWithErrno(const std::string& what);

// Returns `result`, or throws Error when it is negative (errno as the system call left it).
inline long check(long result, const std::string& what)
{
    if (result < 0) {
        failWithErrno(what);
    }
    return result;
}

using common::shellStatus;
using common::UniqueFd;

// A whole file of moderate size. Replaces what is there, in place: for /proc and files that no one else reads
// yet.
void writeFile(const fs::path& path, const std::string& text, mode_t mode = 0644);

// False when it is there already. A link in its place is none: what is made or mounted in it would be outside
// of the set. Throws Error.
bool makePlainDirectory(const fs::path& path);

// The signals that end a set, and its programs.
sigset_t endingSignals();

// waitpid() that is not disturbed by signals; returns the wait status.
int waitFor(pid_t process);

// The installed kit that this executable belongs to, which holds all that a set is made of; empty in a build
// tree.
fs::path kitDirectory();

// What the build tree beside this executable says of itself. The executable has no path of it inside, so that
// the same sources give the same program wherever they are built.
struct BuildTree {
    fs::path source;
    fs::path build;
    std::string cmake; // the program
};
BuildTree buildTree();

// One line on stderr, prefixed with the program's name.
void note(const std::string& text);

} // namespace vset

#endif
