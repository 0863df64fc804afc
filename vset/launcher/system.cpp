#include "vset/launcher/system.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "common/plain-words.h"
#include "common/process/this-program.h"
#include "common/terminal/visible-text.h"

namespace vset
{

void failWithErrno(const std::string& what)
{
    throw Error(what + ": " + common::reasonOf(errno));
}

void writeFile(const fs::path& path, const std::string& text, mode_t mode)
{
    const UniqueFd file(open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, mode));
    if (!file) {
        failWithErrno("cannot write " + path.string());
    }
    size_t written = 0;
    while (written < text.size()) {
        const ssize_t count = write(file.get(), text.data() + written, text.size() - written);
        if (count < 0 && errno == EINTR) {
            continue;
        }
        check(count, "cannot write " + path.string());
        written += static_cast<size_t>(count);
    }
}

bool makePlainDirectory(const fs::path& path)
{
    if (mkdir(path.c_str(), 0755) == 0) {
        return true;
    }
    if (errno != EEXIST) {
        failWithErrno("cannot make " + path.string());
    }
    if (!fs::is_directory(fs::symlink_status(path))) {
        throw Error(path.string() + " is in the way: a set has a directory there");
    }
    return false;
}

sigset_t endingSignals()
{
    sigset_t signals;
    sigemptyset(&signals);
    for (const int number : {SIGTERM, SIGINT, SIGHUP, SIGQUIT}) {
        sigaddset(&signals, number);
    }
    return signals;
}

int waitFor(pid_t process)
{
    int status = 0;
    while (waitpid(process, &status, 0) < 0) {
        if (errno != EINTR) {
            failWithErrno("cannot wait for process " + std::to_string(process));
        }
    }
    return status;
}

fs::path kitDirectory()
{
    const fs::path directory = common::directoryOfThisProgram();
    return fs::is_directory(directory / "set/usr") ? directory : fs::path();
}

BuildTree buildTree()
{
    const fs::path file = common::directoryOfThisProgram() / "build-tree";
    std::ifstream lines(file);
    std::string source;
    std::string build;
    std::string cmake;
    if (!std::getline(lines, source) || !std::getline(lines, build) || !std::getline(lines, cmake)) {
        throw Error(file.string() + " is missing: vset runs in its build tree, or as installed with its kit");
    }
    return {source, build, cmake};
}

void note(const std::string& text)
{
    const std::string line = "vset: " + common::visible(text) + "\n";
    fputs(line.c_str(), stderr); // stderr is unbuffered: one write, whole lines also from PID 1
}

} // namespace vset
