// An image is refused after the writer thread was started, which is destroyed unjoined.
// finds: F302
#include <condition_variable>
#include <thread>
#define OWN_doUpdate
#include "chip.h"

int doUpdate(const char* name, unsigned long value)
{
    size_t n = 0;
    unsigned char* data = slurp(name, &n);
    if (data == nullptr) {
        return -1;
    }
    int done = -1, error = 0;
    std::mutex start;
    start.lock();
    std::thread writer([&] {
        start.lock();
        done = install(data, n);
        error = errno;
        start.unlock();
    });
    if (checksumOf(data, n) != value) {
        free(data);
        return fail(EBADMSG);
    }
    start.unlock();
    writer.join();
    free(data);
    errno = error;
    return done;
}
