// The page that a set's processes share with `vset clock`: how the set's time follows the PC's.
//
//   set time = setBase + (PC's monotonic time - hostBase) * rate
//
// One writer at a time (it holds the file's lock), any number of readers; a sequence number, odd while
// the writer is at work, tells readers to look again. Times are nanoseconds. Readers who wait are woken by
// the writer: those on the futex `sequence`, and those who watch the file's attributes.
#ifndef VSET_CLOCK_CLOCK_PAGE_H
#define VSET_CLOCK_CLOCK_PAGE_H

#include <atomic>
#include <cstdint>

namespace vset
{

inline constexpr const char* kClockPage = "/run/vset-clock"; // in the set

constexpr uint32_t kClockMagic = 0x76634c4b; // layout of this header; changes with it

struct ClockPage {
    std::atomic<uint32_t> magic;
    std::atomic<uint32_t> sequence;
    std::atomic<int64_t> hostBase;   // CLOCK_MONOTONIC of the PC at the last change
    std::atomic<int64_t> setBase;    // the set's monotonic time at that moment
    std::atomic<int64_t> wallOffset; // the set's wall time is its monotonic time plus this
    std::atomic<double> rate;        // set seconds per second of the PC; above 0
};

static_assert(std::atomic<int64_t>::is_always_lock_free && std::atomic<double>::is_always_lock_free,
              "the page is shared between processes");

// A consistent copy of the page.
struct ClockState {
    int64_t hostBase = 0;
    int64_t setBase = 0;
    int64_t wallOffset = 0;
    double rate = 1.0;

    int64_t monotonicAt(int64_t hostNow) const
    {
        const int64_t elapsed = hostNow - hostBase;
        // At the PC's own pace nothing is rounded.
        return setBase + (rate == 1.0 ? elapsed : static_cast<int64_t>(static_cast<double>(elapsed) * rate));
    }
};

inline ClockState readClock(const ClockPage& page)
{
    while (true) {
        const uint32_t before = page.sequence.load(std::memory_order_acquire);
        ClockState state;
        // Who sees one of the writer's values also sees, afterwards, that its sequence was odd.
        state.hostBase = page.hostBase.load(std::memory_order_acquire);
        state.setBase = page.setBase.load(std::memory_order_acquire);
        state.wallOffset = page.wallOffset.load(std::memory_order_acquire);
        state.rate = page.rate.load(std::memory_order_acquire);
        if ((before & 1) == 0 && page.sequence.load(std::memory_order_relaxed) == before) {
            return state;
        }
    }
}

inline void writeClock(ClockPage& page, const ClockState& state)
{
    page.sequence.fetch_add(1, std::memory_order_relaxed);
    page.hostBase.store(state.hostBase, std::memory_order_release);
    page.setBase.store(state.setBase, std::memory_order_release);
    page.wallOffset.store(state.wallOffset, std::memory_order_release);
    page.rate.store(state.rate, std::memory_order_release);
    page.sequence.fetch_add(1, std::memory_order_release);
}

} // namespace vset

#endif
