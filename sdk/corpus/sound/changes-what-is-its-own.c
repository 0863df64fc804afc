// What is the thread's or a child's own is changed; what is the process's is looked at and set to what it is.
// finds: nothing
// runs: whole
#define _GNU_SOURCE
#define OWN_getActiveVersion
#include <locale.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include "base.h"

static int changeInChild(void)
{
    int status = 0;
    const pid_t child = fork();
    if (child == 0) {
        const struct rlimit few = {16, 16};
        umask(0);
        signal(SIGINT, SIG_IGN);
        setenv("TZ", "UTC", 1);
        setlocale(LC_ALL, "C.UTF-8");
        setrlimit(RLIMIT_NOFILE, &few);
        _exit(chdir("/tmp") == 0 ? 0 : 1);
    }
    return child > 0 && waitpid(child, &status, 0) == child && status == 0 ? 0 : fail(ECHILD);
}

int getActiveVersion(char* out)
{
    struct sigaction action;
    struct rlimit files;
    sigset_t interrupts, before;
    sigemptyset(&interrupts);
    sigaddset(&interrupts, SIGINT);
    pthread_sigmask(SIG_BLOCK, &interrupts, &before); // of this thread alone
    sigaction(SIGTERM, NULL, &action);
    sigaction(SIGTERM, &action, NULL);
    getrlimit(RLIMIT_NOFILE, &files);
    setrlimit(RLIMIT_NOFILE, &files);
    setlocale(LC_ALL, setlocale(LC_ALL, NULL));
    const int result = changeInChild() == 0 ? readVersion(out) : -1;
    const int cause = errno;
    pthread_sigmask(SIG_SETMASK, &before, NULL);
    errno = cause;
    return result;
}
