#include "common/process/interruption.h"

#include <array>
#include <csignal>

namespace common
{

namespace
{
volatile sig_atomic_t interruption = 0;
volatile sig_atomic_t count = 0;
bool isWatched = false;
constexpr std::array<int, 4> kInterruptions = {SIGINT, SIGTERM, SIGHUP, SIGQUIT};
std::array<struct sigaction, kInterruptions.size()> usual;
} // namespace

InterruptionWatch::InterruptionWatch()
{
    isWatched = true;
    interruption = 0;
    count = 0;
    struct sigaction action = {};
    action.sa_handler = [](int signal) {
        interruption = signal;
        count = count + 1;
    };
    for (std::size_t index = 0; index < kInterruptions.size(); ++index) {
        sigaction(kInterruptions[index], nullptr, &usual[index]);
        if (usual[index].sa_handler != SIG_IGN) { // by nohup, or a shell for its background
            sigaction(kInterruptions[index], &action, nullptr);
        }
    }
}

InterruptionWatch::~InterruptionWatch()
{
    leave();
}

void InterruptionWatch::leave()
{
    for (std::size_t index = 0; isWatched && index < kInterruptions.size(); ++index) {
        sigaction(kInterruptions[index], &usual[index], nullptr);
    }
    isWatched = false;
}

bool InterruptionWatch::isThere()
{
    return isWatched;
}

int InterruptionWatch::times()
{
    return count;
}

void InterruptionWatch::check()
{
    if (interruption != 0) {
        throw Interrupted{interruption};
    }
}
} // namespace common
