// semaphore take|give|show: another program of the set that uses the update semaphore as the daemon does.
//
//   take    opens it (making it when needed), waits for it and ends with it taken
//   give    gives it back
//   show    prints its value
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <semaphore.h>
#include <string>

namespace
{

constexpr const char* kName = "/SEM_UPDATE_CONTROL";

int complain()
{
    std::fprintf(stderr, "semaphore %s: %s\n", kName, std::strerror(errno));
    return 1;
}

int show(sem_t* semaphore)
{
    int value = 0;
    if (sem_getvalue(semaphore, &value) != 0) {
        return complain();
    }
    std::printf("%d\n", value);
    return 0;
}

int take(sem_t* semaphore)
{
    while (sem_wait(semaphore) != 0) {
        if (errno != EINTR) {
            return complain();
        }
    }
    return 0;
}

} // namespace

int main(int argc, char** argv)
{
    const std::string verb = argc == 2 ? argv[1] : "";
    if (verb != "take" && verb != "give" && verb != "show") {
        std::fprintf(stderr, "usage: semaphore take|give|show\n");
        return 2;
    }
    sem_t* semaphore = sem_open(kName, O_CREAT, 0600, 1);
    if (semaphore == SEM_FAILED) {
        return complain();
    }
    if (verb == "show") {
        return show(semaphore);
    }
    if (verb == "take") {
        return take(semaphore);
    }
    return sem_post(semaphore) == 0 ? 0 : complain();
}
