#include "platform/check/trials/trial.h"

#include <algorithm>
#include <array>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <gio/gio.h>
#include <pwd.h>
#include <spawn.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <utility>

#include "common/process/program.h"

namespace platformcheck
{

namespace
{

thread_local const char* innermostCall = nullptr;
constexpr std::size_t kMostTimes = 256;

// What a kind of call may take, usually: by the beginning of its name.
struct Limit {
    const char* prefix;
    std::chrono::milliseconds most;
    int waiting = 4; // see waitingOf()
};
constexpr Limit kLimits[] = {
    {"pralis_", 500ms},          {"pwrctl_", 500ms},       {"Flagpost", 500ms}, {"hangwatch_", 500ms},
    {"__norlog_print", 50ms, 1}, {"TraceLogger", 50ms, 1}, {"PS_", 10000ms},    {"", 5000ms},
};

const Limit& limitFor(const std::string& name)
{
    const auto fits = [&](const Limit& limit) { return name.rfind(limit.prefix, 0) == 0; };
    return *std::find_if(std::begin(kLimits), std::end(kLimits), fits);
}

std::chrono::milliseconds limitOf(const std::string& name)
{
    return limitFor(name).most;
}

// So many have to wait for a processor when this thread has to: a call goes by a bus to a service, and its
// answer back. A record of a log is written by the thread itself.
int waitingOf(const std::string& name)
{
    return limitFor(name).waiting;
}

std::chrono::nanoseconds farBeyond(const std::string& name)
{
    return std::max<std::chrono::nanoseconds>(4 * limitOf(name), 1s);
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

// What a login has and a service has not. Each directory is one that can be written.
std::vector<std::string> sessionVariables(const std::string& directory)
{
    const passwd* const user = getpwuid(getuid());
    const std::string name = user == nullptr ? "root" : user->pw_name;
    std::vector<std::string> variables = {"USER=" + name, "LOGNAME=" + name, "SHELL=/bin/sh", "TERM=linux"};
    for (const char* const variable :
         {"HOME", "PWD", "TMPDIR", "XDG_RUNTIME_DIR", "XDG_CONFIG_HOME", "XDG_CACHE_HOME", "XDG_DATA_HOME"}) {
        variables.push_back(std::string(variable) + "=" + directory);
    }
    return variables;
}

} // namespace

Trial::Mark::Mark(Trial& trial, const char* name)
    : trial_(trial), name_(name), slot_(nullptr), around_(innermostCall), begin_(common::realNow()),
      delayBefore_(processorDelay())
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
    innermostCall = name;
}

Trial::Mark::~Mark()
{
    innermostCall = around_;
    if (slot_ != nullptr) {
        slot_->since = 0;
    }
    const std::chrono::nanoseconds wall(common::realNow() - begin_);
    const std::chrono::nanoseconds delay = processorDelay() - delayBefore_;
    trial_.keepTime(name_, wall - std::min(wall, waitingOf(name_) * delay), delay);
    trial_.endWhenHopeless(name_);
}

// What is measured here must not grow itself.
void Trial::keepTime(const char* name, std::chrono::nanoseconds taken, std::chrono::nanoseconds delay)
{
    const std::lock_guard<std::mutex> lock(mutex_);
    Times& times = times_[name];
    if (times.calls++ == 0) {
        times.first.reserve(kMostTimes);
        times.late.reserve(kMostTimes);
    }
    if (times.first.size() < kMostTimes) {
        times.first.push_back(taken);
    }
    if (times.late.size() < kMostTimes && taken > limitOf(name)) {
        times.late.push_back(taken);
    }
    if (limitOf(name) >= 500ms) { // logs may be slow and yet soon at their end
        tooMuch_ += std::max<std::chrono::nanoseconds>(taken - limitOf(name), 0ns);
    }
    longestDelay_ = std::max(longestDelay_, delay);
    if (delay > 100ms || taken > farBeyond(name)) {
        page_.isDisturbed = true;
    }
}

// Calls that take seconds each would make a trial last for minutes, and tell nothing more. It ends where it
// is: other threads may be in the middle of such calls.
void Trial::endWhenHopeless(const char* name)
{
    constexpr std::chrono::nanoseconds kMost = 8s;
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        if (tooMuch_ < kMost) {
            return;
        }
    }
    judgeTimes();
    note(std::string("a trial was not made to its end: ") + name + " takes seconds");
    page_.isDone = true;
    _exit(0);
}

bool Trial::isInsideCall()
{
    return innermostCall != nullptr;
}

const char* Trial::callUnderWay()
{
    return innermostCall;
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

void Trial::tellSituation(const char* words)
{
    std::snprintf(page_.situation, sizeof page_.situation, "%s", words);
}

bool Trial::iterate(std::chrono::milliseconds most, const std::function<bool()>& isOver)
{
    const std::int64_t end = common::realNow() + std::chrono::nanoseconds(most).count();
    const gulong nap = most >= 5s ? 10'000 : 1000; // a long wait takes no processor time from the others
    bool over = isOver();
    while (!over && common::realNow() < end) {
        while (g_main_context_iteration(nullptr, FALSE) != FALSE) {
        }
        over = isOver();
        if (!over) {
            g_usleep(nap);
        }
    }
    return over;
}

void Trial::runBeside(const char* name, Loop loop, Environment environment)
{
    const std::string page = options_.work / ("page.beside-" + std::to_string(getpid()));
    const SharedPage made = makePage(page);
    const std::string program = std::filesystem::read_symlink("/proc/self/exe");
    std::vector<std::string> words = {program,  name,          "--page",  page,
                                      "--work", options_.work, "--token", std::to_string(options_.token)};
    for (const auto& [option, value] : {std::pair<const char*, std::string>{"--image", options_.image},
                                        {"--directory", options_.directory},
                                        {"--package", options_.package}}) {
        if (!value.empty()) {
            words.insert(words.end(), {option, value});
        }
    }
    std::vector<std::string> variables;
    for (char** variable = environ; *variable != nullptr; ++variable) {
        variables.emplace_back(*variable);
    }
    if (environment == Environment::kSession) {
        const std::vector<std::string> added = sessionVariables(options_.work);
        variables.insert(variables.end(), added.begin(), added.end());
    }
    pid_t process = 0;
    if (posix_spawn(&process, program.c_str(), nullptr, nullptr, common::argumentsOf(words).data(),
                    common::argumentsOf(variables).data()) != 0) {
        return;
    }
    int status = 0;
    const auto hasEnded = [&] { return waitpid(process, &status, WNOHANG) == process; };
    const std::int64_t end = common::realNow() + std::chrono::nanoseconds(20s).count();
    bool isOver = false;
    while (!isOver && common::realNow() < end) {
        isOver = loop == Loop::kRuns ? iterate(20ms, hasEnded) : hasEnded();
        g_usleep(isOver ? 0 : 1000);
    }
    if (!isOver) {
        kill(process, SIGKILL);
        waitpid(process, &status, 0);
    }
    for (const Told& line : readLines(*made)) {
        if (line.kind == Line::kFinding) {
            hasFound_ = true;
        }
        tell(page_, line.kind, line.text, line.number);
    }
    if (!isOver || WIFSIGNALED(status)) {
        const std::string place = oldestCall(*made).name;
        found(isOver ? FindingId::Crashed : FindingId::NoReturn,
              (place.empty() ? std::string(name) : place) + ", in a second process" +
                  (isOver ? ": " + common::signalName(WTERMSIG(status)) : ""));
    }
}

Meanwhile::Meanwhile(std::function<void()> work)
    : thread_([this, work = std::move(work)] {
          work();
          isOver_ = true;
      })
{
}

Meanwhile::~Meanwhile()
{
    thread_.join();
}

std::chrono::nanoseconds Meanwhile::timeFor(Trial& trial, const std::function<void()>& work)
{
    const std::int64_t begin = common::realNow();
    trial.onThread(work);
    const std::chrono::nanoseconds alone(common::realNow() - begin);
    return std::clamp<std::chrono::nanoseconds>(20 * alone, 4s, 8s); // a call under way for ten is a hang
}

bool Meanwhile::isOverWithin(std::chrono::nanoseconds most) const
{
    const std::int64_t end = common::realNow() + most.count();
    while (!isOver_ && common::realNow() < end) {
        g_usleep(1000);
    }
    return isOver_;
}

void Trial::judgeThread(const sigset_t& before)
{
    require(g_main_context_get_thread_default() == nullptr, FindingId::ContextLeft,
            "a thread has another default main context than before");
    sigset_t after;
    pthread_sigmask(SIG_SETMASK, nullptr, &after);
    for (int signal = 1; signal < NSIG; ++signal) {
        if (sigismember(&before, signal) != sigismember(&after, signal)) {
            found(FindingId::SignalHandling,
                  common::signalName(signal) + " is blocked otherwise on a thread that has called");
        }
    }
    require(uselocale(nullptr) == LC_GLOBAL_LOCALE, FindingId::Locale, "of a thread that has called");
}

void Trial::onThread(const std::function<void()>& work, Context context)
{
    std::thread([&] {
        GMainContext* const own = context == Context::kOwn ? g_main_context_new() : nullptr;
        if (own != nullptr) {
            g_main_context_push_thread_default(own);
        }
        sigset_t before;
        pthread_sigmask(SIG_SETMASK, nullptr, &before);
        work();
        if (own != nullptr && g_main_context_get_thread_default() == own) {
            g_main_context_pop_thread_default(own);
        }
        judgeThread(before);
        if (own != nullptr) {
            g_main_context_unref(own);
        }
    }).join();
}

// The middle one of many calls counts, and each of a few; of the longest it takes several, as a machine that
// is busy makes one late now and then. How busy it is, the time tells for which this process's own threads
// have waited.
void Trial::judgeTimesOf(const std::string& name, Times& times, std::chrono::nanoseconds noise)
{
    std::vector<std::chrono::nanoseconds>& first = times.first;
    std::sort(first.begin(), first.end());
    const std::chrono::nanoseconds limit = limitOf(name);
    const int waiting = waitingOf(name);
    const std::chrono::nanoseconds most = limit + (waiting > 1 ? waiting * noise : 0ns);
    if (times.calls < 3) { // one call may have to find its service first
        require(first.front() <= limit + most, FindingId::Slow, name + kTook + inSeconds(first.front()));
        return;
    }
    if (first[first.size() / 2] > most) {
        found(FindingId::Slow, name + kTook + inSeconds(first[first.size() / 2]) + ", the middle one of " +
                                   std::to_string(first.size()) + " calls");
        return;
    }
    const auto longerThan = [&](std::chrono::nanoseconds some) {
        return std::count_if(times.late.begin(), times.late.end(), [=](auto time) { return time > some; });
    };
    const auto late = longerThan(most);
    const bool isSteady = late < 3 && longerThan(std::max(most, farBeyond(name))) < 2;
    require(
        isSteady, FindingId::Slow,
        name + kTook + "up to " +
            inSeconds(times.late.empty() ? limit : *std::max_element(times.late.begin(), times.late.end())) +
            ", and more than " + inSeconds(most) + " in " + std::to_string(late) + " of " +
            std::to_string(times.calls) + " calls");
}

void Trial::judgeTimes()
{
    std::map<std::string, Times> times;
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        times = times_;
    }
    for (auto& [name, all] : times) {
        judgeTimesOf(name, all, longestDelay_);
    }
}

} // namespace platformcheck
