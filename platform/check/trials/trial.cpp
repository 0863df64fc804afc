#include "platform/check/trials/trial.h"

#include <algorithm>
#include <array>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <gio/gio.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>

namespace platformcheck
{

namespace
{

thread_local int callDepth = 0;
constexpr std::size_t kMostTimes = 256;

// What a kind of call may take, usually: by the beginning of its name.
struct Limit {
    const char* prefix;
    std::chrono::milliseconds most;
};
constexpr Limit kLimits[] = {
    {"pralis_", 500ms},       {"pwrctl_", 500ms},    {"Flagpost", 500ms}, {"hangwatch_", 500ms},
    {"__norlog_print", 50ms}, {"TraceLogger", 50ms}, {"PS_", 10000ms},    {"", 5000ms},
};

std::chrono::milliseconds limitOf(const std::string& name)
{
    const auto fits = [&](const Limit& limit) { return name.rfind(limit.prefix, 0) == 0; };
    return std::find_if(std::begin(kLimits), std::end(kLimits), fits)->most;
}

std::chrono::nanoseconds processorDelay()
{
    thread_local const common::ProcessorDelay delay;
    return delay.soFar();
}

std::string inSeconds(std::chrono::nanoseconds time)
{
    char text[32];
    std::snprintf(text, sizeof text, "%.2f s", std::chrono::duration<double>(time).count());
    return text;
}

} // namespace

Trial::Mark::Mark(Trial& trial, const char* name)
    : trial_(trial), name_(name), slot_(nullptr), begin_(common::realNow()), delayBefore_(processorDelay())
{
    for (TrialPage::Call& slot : trial.page_.underWay) {
        std::int64_t none = 0;
        if (slot.since.compare_exchange_strong(none, begin_)) {
            slot_ = &slot;
            std::snprintf(slot.name, sizeof slot.name, "%s", name);
            break;
        }
    }
    ++trial.page_.calls;
    ++callDepth;
}

Trial::Mark::~Mark()
{
    --callDepth;
    if (slot_ != nullptr) {
        slot_->since = 0;
    }
    const std::chrono::nanoseconds wall(common::realNow() - begin_);
    const std::lock_guard<std::mutex> lock(trial_.mutex_);
    std::vector<std::chrono::nanoseconds>& times = trial_.times_[name_];
    if (times.size() < kMostTimes) { // what is measured here must not grow itself
        times.reserve(kMostTimes);
        times.push_back(wall - (processorDelay() - delayBefore_));
    }
}

bool Trial::isInsideCall()
{
    return callDepth > 0;
}

int Trial::judged(const char* name, int result)
{
    require(result <= 0, FindingId::WrongResult, std::string(name) + " gave " + std::to_string(result));
    return result;
}

// Whoever repeats a call thousands of times says the same thousands of times.
void Trial::found(FindingId id, const std::string& seen)
{
    constexpr unsigned int kMost = 20;
    const std::lock_guard<std::mutex> lock(mutex_);
    hasFound_ = true;
    if (++told_[id] <= kMost) {
        tell(page_, Line::kFinding, seen, static_cast<unsigned int>(id));
    }
}

bool Trial::require(bool isRight, FindingId id, const std::string& seen)
{
    if (!isRight) {
        found(id, seen);
    }
    return isRight;
}

void Trial::note(const std::string& text)
{
    tell(page_, Line::kNote, text);
}

void Trial::tellLibrary(const std::string& path)
{
    tell(page_, Line::kLibrary, path);
}

void Trial::refuse(const std::string& reason)
{
    tell(page_, Line::kRefusal, reason);
}

bool Trial::iterate(std::chrono::milliseconds most, const std::function<bool()>& isOver)
{
    const std::int64_t end = common::realNow() + std::chrono::nanoseconds(most).count();
    bool over = isOver();
    while (!over && common::realNow() < end) {
        while (g_main_context_iteration(nullptr, FALSE) != FALSE) {
        }
        over = isOver();
        if (!over) {
            g_usleep(1000);
        }
    }
    return over;
}

void Trial::runBeside(const char* name)
{
    const std::string page = options_.work / "page.beside";
    const SharedPage made = makePage(page);
    const std::string program = std::filesystem::read_symlink("/proc/self/exe");
    const std::string token = std::to_string(options_.token);
    const char* const arguments[] = {program.c_str(),       name,      "--page",      page.c_str(), "--work",
                                     options_.work.c_str(), "--token", token.c_str(), nullptr};
    pid_t process = 0;
    if (posix_spawn(&process, program.c_str(), nullptr, nullptr, const_cast<char* const*>(arguments),
                    environ) != 0) {
        return;
    }
    int status = 0;
    const auto hasEnded = [&] { return waitpid(process, &status, WNOHANG) == process; };
    if (!iterate(10s, hasEnded)) {
        kill(process, SIGKILL);
        waitpid(process, &status, 0);
    }
}

void Trial::judgeTimes()
{
    std::map<std::string, std::vector<std::chrono::nanoseconds>> times;
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        times = times_;
    }
    for (auto& [name, all] : times) {
        std::sort(all.begin(), all.end());
        const std::chrono::nanoseconds limit = limitOf(name);
        const std::chrono::nanoseconds farBeyond = std::max<std::chrono::nanoseconds>(4 * limit, 1s);
        const auto late = std::count_if(all.begin(), all.end(), [&](auto time) { return time > farBeyond; });
        if (all.size() < 3) { // one call may have to find its service first
            require(all.front() <= 2 * limit, FindingId::Slow, name + " took " + inSeconds(all.front()));
        } else if (all[all.size() / 2] > limit) {
            found(FindingId::Slow, name + " took " + inSeconds(all[all.size() / 2]) + ", the middle one of " +
                                       std::to_string(all.size()) + " calls");
        } else {
            require(late < 2, FindingId::Slow,
                    name + " took up to " + inSeconds(all.back()) + ", more than " + inSeconds(farBeyond) +
                        " in " + std::to_string(late) + " of " + std::to_string(all.size()) + " calls");
        }
    }
}

} // namespace platformcheck
