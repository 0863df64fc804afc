#include "vset/launcher/exec.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include "common/plain-words.h"
#include "common/process/this-program.h"
#include "vset/launcher/init.h"

namespace vset
{

namespace
{

// A set that is going off takes nobody in any more: its first process is none then, or no other is made
// beside it.
[[noreturn]] void failToEnter(const std::string& what)
{
    if (errno == ESRCH || errno == ENOMEM) {
        throw Error("the set is just going off, or reboots");
    }
    failWithErrno(what);
}

void enterNamespaces(const RunningSet& running)
{
    // Root can enter another user's set; a user can enter only his own.
    const int user = running.rootless ? CLONE_NEWUSER : 0;
    if (setns(running.process.get(), user | CLONE_NEWNS | CLONE_NEWPID | CLONE_NEWIPC | CLONE_NEWUTS) != 0) {
        failToEnter("cannot enter the set (it belongs to another user? then use sudo)");
    }
    if (!running.rootless) {
        return;
    }
    check(setresgid(0, 0, 0), "cannot become root of the set");
    check(setresuid(0, 0, 0), "cannot become root of the set");
}

[[noreturn]] void runChild(const std::vector<std::string>& command, const fs::path& workingDirectory,
                           bool clock)
{
    try {
        check(prctl(PR_SET_PDEATHSIG, SIGKILL, 0, 0, 0), "cannot tie the command to its caller");
        if (chdir(workingDirectory.c_str()) != 0) {
            check(chdir("/"), "cannot enter /");
        }
        cleanEnvironment(common::directoryOfThisProgram(), clock);
        prepareForProgram();
        executeCommand(command);
    } catch (const std::exception& error) {
        note(common::plainWords(error));
        _exit(126);
    }
}

pid_t commandProcess = 0;

void handOn(int number)
{
    kill(commandProcess, number);
}

} // namespace

void executeInSet(const fs::path& set, const std::vector<std::string>& command)
{
    const RunningSet running = SetDirectory::open(set).running();
    std::error_code error;
    const fs::path workingDirectory = fs::current_path(error);
    enterNamespaces(running);
    commandProcess = fork(); // only a child is in the set's process namespace
    if (commandProcess < 0) {
        failToEnter("cannot start the command");
    }
    if (commandProcess == 0) {
        runChild(command, workingDirectory, running.clock);
    }
    for (const int number : {SIGINT, SIGQUIT}) {
        std::signal(number, SIG_IGN); // from the terminal: the command's to answer
    }
    for (const int number : {SIGTERM, SIGHUP}) {
        std::signal(number, handOn);
    }
    // Straight out: this process sees the set's /proc but is not in it, which confuses what runs at exit (a
    // leak checker looks for its own threads there).
    _exit(shellStatus(waitFor(commandProcess)));
}

} // namespace vset
