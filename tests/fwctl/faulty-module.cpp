// A control library with one fault, chosen when it is compiled.
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <pthread.h>
#include <semaphore.h>
#include <stdexcept>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <tarnwick/control.h>
#include <unistd.h>

#ifdef NEEDS_MORE
extern "C" int notProvidedByAnybody(int);
#endif

#ifdef WRITES_FOR_A_WHILE
static constexpr const char* kHardware = "/var/lib/hardware/killed"; // its version is 1.NUMBER OF UPDATES
#endif

#ifdef HANGS_WHILE_LOADING
__attribute__((constructor)) static void hang()
{
    for (;;) {
        pause();
    }
}
#endif

#ifdef UNLINKS_THE_SEMAPHORE
__attribute__((constructor)) static void unlinkSemaphore()
{
    sem_unlink("/SEM_UPDATE_CONTROL");
}
#endif

#ifdef POSTS_THE_SEMAPHORE
__attribute__((constructor)) static void postSemaphore()
{
    sem_t* const semaphore = sem_open("/SEM_UPDATE_CONTROL", 0);
    for (int count = 0; semaphore != SEM_FAILED && count < 5; ++count) {
        sem_post(semaphore);
    }
}
#endif

#ifdef LOWERS_ITS_MEMORY
__attribute__((constructor)) static void lowerMemory()
{
    const rlimit little = {1 << 20, 1 << 20};
    setrlimit(RLIMIT_AS, &little);
}
#endif

#ifdef HAS_NO_FILES_IN_DOUPDATE
static void forbidFiles()
{
    const rlimit none = {0, 0};
    setrlimit(RLIMIT_NOFILE, &none);
    usleep(200'000); // the process wants one meanwhile
}
#endif

#ifdef REMOVES_FILES
__attribute__((constructor)) static void removeFile()
{
    unlink("/var/of-root/file");
}
#endif

#ifdef LEAVES_PROCESSES
// One of the group, and one that has left it.
__attribute__((constructor)) static void leaveProcesses()
{
    int there[2];
    if (pipe(there) != 0) {
        std::abort();
    }
    for (const bool isDaemon : {false, true}) {
        if (fork() != 0) {
            continue;
        }
        if (isDaemon && (setsid() < 0 || fork() != 0)) {
            _exit(0);
        }
        close(open("/tmp/left-behind", O_WRONLY | O_CREAT | O_CLOEXEC, 0666));
        close(there[1]);
        for (;;) {
            pause();
        }
    }
    close(there[1]);
    char none = 0;
    (void)!read(there[0], &none, 1); // until both have closed their ends
    close(there[0]);
}
#endif

int setContext(const char*, int, char*)
{
#ifdef NEEDS_MORE
    return notProvidedByAnybody(0);
#else
    return 0;
#endif
}

int getEMPID(char* out)
{
#ifdef PRINTS
    std::printf("to the screen: \033[2J\nfwctl: done\n");
    std::fprintf(stderr, "and no end of line");
#endif
    std::strcpy(out, IDENTIFIER);
    return 0;
}

int getActiveVersion(char* out)
{
#ifdef CRASHES_IN_GETACTIVEVERSION
    std::abort();
#endif
#ifdef HANGS_IN_GETACTIVEVERSION
    for (;;) {
        pause();
    }
#endif
#ifdef SCRIBBLES
    constexpr char kText[] = "{\"begun\": 99999}\n{\"sources\": 7}\n{\"done\": true}\n{";
    for (int descriptor = 3; descriptor < 64; ++descriptor) {
        const ssize_t written = write(descriptor, kText, sizeof kText - 1);
        static_cast<void>(written);
    }
    const rlimit none = {0, 0};
    setrlimit(RLIMIT_NOFILE, &none);
#endif
#ifdef CLOSES_FILES
    for (int descriptor = 3; descriptor < 1024; ++descriptor) {
        close(descriptor);
    }
#endif
#ifdef ENDS_ITS_THREAD
    pthread_exit(nullptr);
#endif
#ifdef KILLS_IN_GETACTIVEVERSION
    kill(KILLS_IN_GETACTIVEVERSION);
#endif
#ifdef WRITES_FOR_A_WHILE
    struct stat hardware = {};
    stat(kHardware, &hardware);
    std::sprintf(out, "1.%d", static_cast<int>(hardware.st_size));
    return 0;
#endif
#ifdef VERSION
    std::strcpy(out, VERSION);
#else
    std::strcpy(out, "1.0");
#endif
    return 0;
}

int checkVersion(const char*, int* result)
{
#ifdef CRASHES_IN_CHECKVERSION
    raise(SIGABRT);
#endif
#if defined(VERDICT)
    *result = VERDICT;
#elif defined(IS_OLD)
    *result = TARNWICK_CONTROL_VERDICT_NEWER;
#else
    *result = TARNWICK_CONTROL_VERDICT_SAME;
#endif
    return 0;
}

#ifdef WRITES_FOR_A_WHILE
// Says so when another process is at it.
int doUpdate(const char*, unsigned long)
{
    const int hardware = open(kHardware, O_RDWR | O_CREAT | O_APPEND | O_CLOEXEC, 0666);
    if (flock(hardware, LOCK_EX | LOCK_NB) != 0) {
        close(open("/var/lib/hardware/overlap", O_WRONLY | O_CREAT | O_CLOEXEC, 0666));
    }
    usleep(300'000);
    const bool isWritten = write(hardware, "1", 1) == 1;
    close(hardware);
    return isWritten ? 0 : -1;
}
#elif !defined(WITHOUT_DOUPDATE)
int doUpdate(const char*, unsigned long)
{
#if defined(CRASHES_IN_DOUPDATE)
    std::abort();
#elif defined(EXITS_IN_DOUPDATE)
    _exit(0);
#elif defined(HAS_NO_FILES_IN_DOUPDATE)
    forbidFiles();
#elif defined(WAITS_IN_DOUPDATE)
    close(open("/tmp/at-work", O_WRONLY | O_CREAT | O_CLOEXEC, 0666));
    while (access("/tmp/go-on", F_OK) != 0) {
        usleep(20'000);
    }
#elif defined(LIES_IN_DOUPDATE)
    return 0;
#elif defined(THROWS_IN_DOUPDATE)
    usleep(100'000); // else the daemon may miss its end, and wait out its time
    throw std::runtime_error("no chip");
#endif
    return -1;
}
#endif
