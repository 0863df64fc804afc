#include "platform/check/trial-run.h"

#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <unistd.h>
#include <utility>

#include "common/process/process-state.h"
#include "common/process/program.h"

namespace platformcheck
{

namespace
{

using namespace std::chrono_literals;

constexpr std::chrono::nanoseconds kCallLimit = 10s;
constexpr std::chrono::seconds kTrialLimit = 180s;

// What somebody's session has and a service has not.
constexpr const char* kOfSessions[] = {"HOME",
                                       "USER",
                                       "LOGNAME",
                                       "SHELL",
                                       "TERM",
                                       "PWD",
                                       "OLDPWD",
                                       "MAIL",
                                       "TMPDIR",
                                       "DISPLAY",
                                       "EDITOR",
                                       "HOSTNAME",
                                       "XDG_RUNTIME_DIR",
                                       "XDG_CONFIG_HOME",
                                       "XDG_CACHE_HOME",
                                       "XDG_DATA_HOME",
                                       "XDG_SESSION_ID",
                                       "DBUS_SESSION_BUS_ADDRESS"};

[[noreturn]] void execute(const std::vector<std::string>& arguments, const std::filesystem::path& preload)
{
    const std::vector<char*> words = common::argumentsOf(arguments);
    if (!preload.empty()) {
        const char* const others = std::getenv("LD_PRELOAD");
        setenv("LD_PRELOAD",
               (preload.string() + (others == nullptr ? "" : std::string(":") + others)).c_str(), 1);
    }
    for (const char* const name : kOfSessions) {
        unsetenv(name);
    }
    // What the C library keeps for each thread after free() counts as allocated, and fills up for long.
    setenv("GLIBC_TUNABLES", "glibc.malloc.tcache_count=0", 1);
    execv(words[0], words.data());
    dprintf(STDERR_FILENO, "%s cannot be started: %s\n", words[0], std::strerror(errno));
    _exit(127);
}

} // namespace

bool Patience::isOver()
{
    const Clock::time_point now = Clock::now();
    const unsigned int calls = page_.calls;
    if (calls != calls_) {
        calls_ = calls;
        latest_ = now;
    }
    const OldestCall call = oldestCall(page_);
    const std::chrono::nanoseconds underWay(call.since == 0 ? 0 : common::realNow() - call.since);
    return underWay > kCallLimit || now - latest_ > quiet_ || now - begin_ > kTrialLimit + quiet_;
}

TrialRun::TrialRun(const ListedTrial& trial, SharedPage page, const std::vector<std::string>& arguments,
                   const std::filesystem::path& preload, std::chrono::seconds patience)
    : trial_(trial), page_(std::move(page)),
      process_([&] { execute(arguments, preload); }, common::ContainedProcess::Orphaned::kEnds),
      patience_(*page_, kQuietLimit + patience)
{
}

double TrialRun::seconds() const
{
    return std::chrono::duration<double>(end_ - begin_).count();
}

void TrialRun::takeOutput()
{
    constexpr std::size_t kMost = 64UL * 1024;
    std::array<char, 4096> chunk{};
    for (ssize_t count = 0; (count = read(process_.output(), chunk.data(), chunk.size())) > 0;) {
        ending_.output.append(chunk.data(), static_cast<std::size_t>(count));
    }
    if (ending_.output.size() > kMost) {
        ending_.output.erase(0, ending_.output.size() - kMost);
    }
}

bool TrialRun::hasEnded()
{
    if (isOver_) {
        return true;
    }
    takeOutput();
    end_ = std::chrono::steady_clock::now();
    if (process_.hasEnded()) {
        takeOutput();
        ending_.status = process_.wait().status;
        isOver_ = true;
        return true;
    }
    if (!ending_.isLate && patience_.isOver()) {
        ending_.isLate = true;
        process_.kill();
    }
    return false;
}

} // namespace platformcheck
