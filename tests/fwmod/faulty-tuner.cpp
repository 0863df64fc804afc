// A control library that takes every image for a newer one and gets the update wrong, as it was compiled to.
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <tarnwick/control.h>
#if defined(KILLED)
#include <chrono>
#include <thread>
#endif
#include <unistd.h>

#if defined(FORKING)
namespace
{
// Leaves a process behind in whoever loads the library, with all that it has open.
__attribute__((constructor)) void leaveProcess()
{
    if (fork() == 0) {
        while (true) {
            pause();
        }
    }
}
} // namespace
#endif

int setContext(const char*, int, char*)
{
    return 0;
}

int getEMPID(char* out)
{
    std::strcpy(out, "empTuner");
    return 0;
}

int getActiveVersion(char* out)
{
#if defined(SIGNALLING)
    kill(getppid(), SIGKILL);
    kill(0, SIGTERM);
#elif defined(KILLED)
    // As somebody else does it, between two calls.
    std::thread([] {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        kill(getpid(), SIGKILL);
    }).detach();
#endif
    std::strcpy(out, "1.0");
    return 0;
}

int checkVersion(const char*, int* result)
{
    *result = TARNWICK_CONTROL_VERDICT_NEWER;
    return 0;
}

int doUpdate(const char*, unsigned long)
{
    usleep(200000); // the daemon may take a shorter update for a time-out
#if defined(FAILING)
    errno = EIO;
    return -1;
#elif defined(SLOW)
    sleep(60);
#elif defined(CRASHING)
    std::abort();
#endif
    return 0; // IDLE, FORKING: nothing was done
}
