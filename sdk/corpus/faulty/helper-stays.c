// A helper in a session of its own runs on after an update.
// finds: F311
#include <sys/wait.h>
#define OWN_doUpdate
#include "chip.h"

static void start_helper(void)
{
    pid_t first = fork();
    if (first == 0) {
        setsid();
        if (fork() == 0) {
            execl("/bin/sleep", "sleep", "20", (char*)NULL);
        }
        _exit(0);
    }
    waitpid(first, NULL, 0);
}

int doUpdate(const char* name, unsigned long value)
{
    size_t n = 0;
    unsigned char* data = slurp(name, &n);
    if (data == NULL) {
        return -1;
    }
    int done = checksumOf(data, n) == value ? install(data, n) : fail(EBADMSG);
    int kept = errno;
    free(data);
    if (done == 0) {
        start_helper();
    }
    errno = kept;
    return done;
}
