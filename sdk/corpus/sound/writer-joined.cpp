// The write runs on a thread of its own, which doUpdate joins.
// finds: nothing
#include <new>
#include <string>
#include <thread>
#include <vector>
#define OWN_doUpdate
#include "chip.h"

int doUpdate(const char* name, unsigned long value)
{
    try {
        size_t n = 0;
        unsigned char* raw = slurp(name, &n);
        if (raw == nullptr) {
            return -1;
        }
        const std::vector<unsigned char> data(raw, raw + n);
        free(raw);
        if (checksumOf(data.data(), n) != value) {
            return fail(EBADMSG);
        }
        int done = -1, error = 0;
        std::thread writer([&] {
            done = install(data.data(), data.size());
            error = errno;
        });
        writer.join();
        errno = error;
        return done;
    } catch (const std::bad_alloc&) {
        return fail(ENOMEM);
    } catch (...) {
        return fail(EIO);
    }
}
