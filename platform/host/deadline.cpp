#include "platform/host/deadline.h"

#include <cstdint>
#include <mutex>
#include <pthread.h>
#include <set>
#include <signal.h>
#include <sys/timerfd.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace platform
{

namespace
{

constexpr long kTickMilliseconds = 250;
constexpr int kTicksOfACall = 5000 / kTickMilliseconds + 1; // the first tick may come at once

} // namespace

// Counts down every call that is under way, on a thread that sleeps while there is none.
class Ticker
{
public:
    // Never destroyed: calls may still be under way on other threads when the process exits.
    static Ticker& instance()
    {
        static auto* const ticker = new Ticker;
        return *ticker;
    }

    void add(Deadline* deadline)
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        if (waiting_.insert(deadline).second && waiting_.size() == 1) {
            arm(true);
        }
    }

    void remove(Deadline* deadline)
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        if (waiting_.erase(deadline) > 0 && waiting_.empty()) {
            arm(false);
        }
    }

private:
    Ticker() : timer_(timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC))
    {
        if (timer_ < 0) {
            return; // out of descriptors: calls then end when the service or the bus does
        }
        sigset_t all;
        sigset_t before;
        sigfillset(&all);
        pthread_sigmask(SIG_SETMASK, &all, &before); // signals belong to the program's own threads
        std::thread([this] { run(); }).detach();
        pthread_sigmask(SIG_SETMASK, &before, nullptr);
    }

    void arm(bool on) const
    {
        const timespec interval = {0, on ? kTickMilliseconds * 1'000'000 : 0};
        const itimerspec spec = {interval, interval};
        timerfd_settime(timer_, 0, &spec, nullptr);
    }

    void run()
    {
        pthread_setname_np(pthread_self(), "platform-calls");
        uint64_t ticks = 0;
        while (read(timer_, &ticks, sizeof ticks) == sizeof ticks) {
            countDown();
        }
    }

    void countDown()
    {
        for (const common::GlibPointer<GCancellable>& late : takeLate()) {
            g_cancellable_cancel(
                late.get()); // outside the lock: the call may end, and remove itself, at once
        }
    }

    std::vector<common::GlibPointer<GCancellable>> takeLate()
    {
        std::vector<common::GlibPointer<GCancellable>> late;
        const std::lock_guard<std::mutex> lock(mutex_);
        for (Deadline* deadline : waiting_) {
            if (--deadline->ticksLeft_ == 0) {
                late.emplace_back(G_CANCELLABLE(g_object_ref(deadline->cancellable())));
            }
        }
        return late;
    }

    const int timer_;
    std::mutex mutex_;
    std::set<Deadline*> waiting_;
};

Deadline::Deadline() : cancellable_(g_cancellable_new()), ticksLeft_(kTicksOfACall)
{
    Ticker::instance().add(this);
}

Deadline::~Deadline()
{
    Ticker::instance().remove(this);
}

} // namespace platform
