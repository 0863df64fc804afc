// What the daemon lays around the update of a module (the announcement in both logs, the turn, a thread, the
// wait with a time-out), beside a bare scheme of the same, and beside the hand-over to a thread that waits
// already. The module has nothing to do.
//
// The daemon waits for the whole time that it gives an update when the notice of its end came before the wait
// for it; control.h asks modules to take longer than that, and this one takes nothing. Such updates are left
// out on both sides: left in on one alone, they would be its cheapest, as nobody has to be woken.

#include <condition_variable>
#include <cstring>
#include <fcntl.h>
#include <future>
#include <mutex>
#include <semaphore.h>
#include <stdexcept>
#include <thread>

#include "bench/measure.h"
#include "bench/set-room.h"
#include "src/fw-update-log.h"
#include "src/src/fw-update-symbol-manager.h"

namespace
{

constexpr int kUpdates = 60; // per sample: one takes microseconds, or two seconds when it is left out
constexpr int kRefused = -1; // says a module without a package

void must(bool isSo, const char* what)
{
    if (!isSo) {
        throw std::runtime_error(what);
    }
}

int update(FWUpdateSymbol& module)
{
    char context[] = "";
    return module.updateFirmware(FW_CALLER_EMP, context);
}

// False when the end came before the wait for it.
bool updateAsDaemon(FWUpdateSymbol& module)
{
    char context[] = "";
    try {
        const int result =
            FWUpdateSymbolManager::getInstance()->update_timeout_wrapper(module, 0, FW_CALLER_EMP, context);
        must(result == kRefused, "the daemon's update has another result");
        return true;
    } catch (const std::runtime_error& error) {
        if (strstr(error.what(), "timeout") == nullptr) {
            throw;
        }
        return false;
    }
}

// The same.
bool updateInBareScheme(FWUpdateSymbol& module)
{
    FWLOGE("%s update time %d sec", module.firmwareName.c_str(), 0);
    sem_t* const turn = sem_open("/bench-turn", O_CREAT, 0600, 1);
    must(turn != SEM_FAILED && sem_wait(turn) == 0, "there is no semaphore");
    std::packaged_task<int()> task([&module] { return update(module); });
    std::future<int> result = task.get_future();
    std::thread(std::move(task)).detach();
    const bool isWaitedFor = result.wait_for(std::chrono::seconds(0)) != std::future_status::ready;
    must(result.wait_for(std::chrono::seconds(2)) == std::future_status::ready, "the update takes too long");
    sem_post(turn);
    sem_close(turn);
    must(result.get() == kRefused, "the bare scheme's update has another result");
    return isWaitedFor;
}

// Those that were waited for.
void measure(bench::Sample& sample, FWUpdateSymbol& module, bool (*updateOnce)(FWUpdateSymbol&), int count)
{
    using Seconds = std::chrono::duration<double>;
    Seconds elapsed{};
    int done = 0;
    sample.time([&] {
        for (int i = 0; i < count; ++i) {
            const auto begin = bench::Sample::Clock::now();
            if (updateOnce(module)) {
                elapsed += bench::Sample::Clock::now() - begin;
                ++done;
            }
        }
    });
    must(done > 0, "no update was waited for");
    sample.set(elapsed.count() / done, sample.processor() / count);
}

// A thread that does what it is handed.
class Waiting
{
public:
    Waiting() : thread_([this] { work(); }) {}
    ~Waiting()
    {
        hand(nullptr);
        thread_.join();
    }
    Waiting(const Waiting&) = delete;
    Waiting& operator=(const Waiting&) = delete;

    // Nothing ends it.
    void hand(FWUpdateSymbol* module)
    {
        std::unique_lock<std::mutex> lock(mutex_);
        module_ = module;
        isHanded_ = true;
        change_.notify_all();
        change_.wait(lock, [this] { return !isHanded_; });
    }

private:
    void work()
    {
        for (bool isOver = false; !isOver;) {
            std::unique_lock<std::mutex> lock(mutex_);
            change_.wait(lock, [this] { return isHanded_; });
            isOver = module_ == nullptr;
            if (!isOver) {
                update(*module_);
            }
            isHanded_ = false;
            change_.notify_all();
        }
    }

    std::mutex mutex_;
    std::condition_variable change_;
    FWUpdateSymbol* module_ = nullptr;
    bool isHanded_ = false;
    std::thread thread_; // the last: it uses the others
};

void declare()
{
    const auto module = std::make_shared<FWUpdateSymbol>("bench");
    const int count = bench::isTrial() ? 5 : kUpdates;
    bench::add("daemon", [=](bench::Sample& sample) { measure(sample, *module, updateAsDaemon, count); });
    bench::add("bareScheme",
               [=](bench::Sample& sample) { measure(sample, *module, updateInBareScheme, count); });
    const auto waiting = std::make_shared<Waiting>();
    bench::add("handOver",
               [=](bench::Sample& sample) { sample.time([&] { waiting->hand(module.get()); }, count); });
}

} // namespace

int main(int argc, char** argv)
{
    const int status = bench::enterSet(argv);
    return status != 0 ? status : bench::main(argc, argv, declare);
}
