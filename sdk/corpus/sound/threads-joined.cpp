// Two threads verify the halves of the firmware, with all signals blocked in them, and are joined.
// finds: nothing
#define OWN_verifySlot
#include <atomic>
#include <csignal>
#include <thread>

#include "base.h"

static inline int verifySlot(int chip, int slot)
{
    std::atomic<int> wrong{0};
    const auto verify = [&](size_t first) {
        sigset_t all;
        sigfillset(&all);
        pthread_sigmask(SIG_BLOCK, &all, nullptr);
        unsigned char written[BLOCK];
        for (size_t block = first; block < BLOCKS; block += 2) {
            const auto at = static_cast<off_t>(block * BLOCK);
            if (pread(chip, written, BLOCK, slotOffset(slot) + at) != BLOCK ||
                memcmp(written, image + at, BLOCK) != 0) {
                ++wrong;
            }
        }
    };
    std::thread even(verify, 0);
    std::thread odd(verify, 1);
    even.join();
    odd.join();
    return wrong == 0 ? 0 : fail(EIO);
}
