#include "vset/television/set-watch.h"

#include <algorithm>
#include <climits>
#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/syscall.h>
#include <system_error>
#include <thread>
#include <unistd.h>

#include "common/daemon/daemon-events.h"
#include "common/errors.h"
#include "common/files/unique-fd.h"
#include "common/json-text.h"
#include "common/terminal/visible-text.h"
#include "vset/client/control-client.h"
#include "vset/client/platform-log.h"
#include "vset/client/set-lock.h"
#include "vset/television/set-contents.h"
#include "vset/television/set-life.h"

namespace vset
{

namespace
{

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

constexpr std::chrono::milliseconds kBetweenLooks{50};
constexpr std::chrono::seconds kToBeSwitchedOn{10};
constexpr std::chrono::milliseconds kLongestLook{500}; // at a log, however long it is

std::string inSeconds(std::chrono::milliseconds time)
{
    std::string text = std::to_string(static_cast<double>(time.count()) / 1000);
    text.erase(text.find_last_not_of('0') + 1);
    text.erase(text.find_last_not_of('.') + 1);
    return text + " s";
}

// What a launcher that has been killed has left behind is no life.
bool isAlive(const fs::path& set, const SetLife& life)
{
    return isOn(set) && !life.boots.empty() && !life.end;
}

std::string lifeText(const fs::path& set)
{
    const SetLife life = readLife(set);
    if (!isOn(set)) {
        return "the set is off" +
               (life.end ? ", its `vset run` ended with status " + std::to_string(*life.end) : std::string());
    }
    const std::string boot = "boot " + std::to_string(life.boots.size());
    if (life.boots.empty() || !life.boots.back().isUp) {
        return boot + ", not up yet";
    }
    const Boot& latest = life.boots.back();
    return boot + ", its " + nameOfMain(latest) + " " +
           (latest.daemonEnded ? "has ended with status " + std::to_string(*latest.daemonEnded) : "runs");
}

// The boot that is meant, once there is one.
const Boot* bootIn(const SetLife& life, std::optional<int> wanted)
{
    if (life.boots.empty()) {
        return nullptr;
    }
    if (!wanted) {
        return &life.boots.back();
    }
    const auto index = static_cast<size_t>(*wanted - 1);
    return index < life.boots.size() ? &life.boots[index] : nullptr;
}

[[noreturn]] void giveUp(const Condition& condition, const std::string& why)
{
    throw common::Failure("waited in vain: " + condition.what + "; " + why +
                          ". Seen last: " + condition.seen());
}

} // namespace

namespace
{

// What is left of the limit; something at the end, too, so that a limit of nothing is one look.
std::chrono::milliseconds longestLook(Clock::time_point start, std::chrono::milliseconds limit)
{
    constexpr std::chrono::milliseconds kLeast{1000};
    constexpr std::chrono::milliseconds kMost{10000};
    const auto passed = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start);
    return std::clamp(limit - passed, kLeast, kMost);
}

} // namespace

void waitFor(const fs::path& set, const Condition& condition, std::chrono::milliseconds limit)
{
    const Clock::time_point start = Clock::now();
    bool wasOn = condition.ofSetThatIsOff;
    while (true) {
        const bool isOnNow = isAlive(set, readLife(set)); // before the look: what it did at its end counts
        wasOn = wasOn || isOnNow;
        if (wasOn && condition.isSo(longestLook(start, limit))) {
            return;
        }
        const auto passed = Clock::now() - start;
        if (!condition.ofSetThatIsOff && !isOnNow) {
            if (wasOn) {
                giveUp(condition, "the set has gone off");
            }
            if (passed > std::min<Clock::duration>(limit, kToBeSwitchedOn)) {
                throw common::Failure(
                    "the set in " + set.string() +
                    (isOn(set)
                         ? " is not up, though its directory is locked: it is starting, or another "
                           "program has locked it"
                         : " is off: switch it on with `vset run " + common::inShell(set.string()) + "`"));
            }
        }
        if (passed > limit) {
            giveUp(condition, "not within " + inSeconds(limit));
        }
        std::this_thread::sleep_for(kBetweenLooks);
    }
}

// ---- Its life ----

Condition isUp(const fs::path& set, std::optional<int> boot)
{
    const auto isSo = [set, boot](auto) {
        const SetLife life = readLife(set);
        const Boot* const meant = bootIn(life, boot);
        return meant != nullptr && meant->isUp;
    };
    return {boot ? "boot " + std::to_string(*boot) : "the set to be on", isSo,
            [set] { return lifeText(set); }};
}

Condition isOff(const fs::path& set)
{
    return {"the set to be off", [set](auto) { return !isOn(set); }, [set] { return lifeText(set); }, true};
}

Condition hasEnded(const fs::path& set, std::optional<int> status, std::optional<int> boot)
{
    const auto isSo = [set, status, boot](auto) {
        const SetLife life = readLife(set);
        const Boot* const meant = bootIn(life, boot);
        if (meant == nullptr || !meant->daemonEnded) {
            return false;
        }
        if (status && *status != *meant->daemonEnded) {
            throw common::Failure("the " + std::string(nameOfMain(*meant)) + " has ended with status " +
                                  std::to_string(*meant->daemonEnded) + ", not " + std::to_string(*status));
        }
        return true;
    };
    return {"the end of the daemon, or of the command" +
                (boot ? " in boot " + std::to_string(*boot) : std::string()),
            isSo, [set] { return lifeText(set); }};
}

// ---- What the daemon says ----

namespace
{

class LineWatch
{
public:
    LineWatch(fs::path set, Text wanted) : set_(std::move(set)), wanted_(std::move(wanted))
    {
        std::error_code error;
        const auto size = fs::file_size(logFile(), error);
        now_ = error ? 0 : static_cast<int64_t>(size);
    }

    bool isSo()
    {
        if (!reader_ && !open()) {
            return false;
        }
        reader_->renew();
        reader_->takeSome([this](const LogRecord& record) { return take(record); }, kLongestLook);
        return found_ >= wanted_.count;
    }

    std::string seen() const
    {
        const std::string count =
            found_ > 0 ? std::to_string(found_) + " of " + std::to_string(wanted_.count) + " such messages; "
                       : "";
        const std::string said =
            last_.empty() ? "the daemon has said nothing" : "the daemon said " + common::inQuotes(last_);
        return count + said + "; " + lifeText(set_);
    }

private:
    fs::path logFile() const { return set_ / "root/var/log/platform.log"; }

    // False when what is to be read has not begun yet.
    bool open()
    {
        int64_t start = wanted_.since == Since::kNow ? now_ : 0;
        if (wanted_.since == Since::kBoot || wanted_.since == Since::kOn || wanted_.boot) {
            const SetLife life = readLife(set_);
            const bool isFirst = wanted_.since == Since::kOn && !wanted_.boot;
            const Boot* const boot = bootIn(life, isFirst ? std::optional(1) : wanted_.boot);
            if (boot == nullptr) {
                return false;
            }
            start = boot->logStart;
        }
        reader_ = std::make_unique<LogReader>(logFile());
        reader_->skipTo(start);
        return true;
    }

    bool take(const LogRecord& record)
    {
        if (!common::isOfDaemon(record)) {
            return true;
        }
        last_ = common::withoutLineEnd(record.message);
        found_ += isWanted(record.message) ? 1 : 0;
        return true;
    }

    bool isWanted(const std::string& message) const
    {
        if (wanted_.state) {
            return common::showsState(message, *wanted_.state);
        }
        return wanted_.isWhole ? last_ == common::withoutLineEnd(wanted_.text)
                               : message.find(wanted_.text) != std::string::npos;
    }

    fs::path set_;
    Text wanted_;
    int64_t now_ = 0;
    std::unique_ptr<LogReader> reader_;
    size_t found_ = 0;
    std::string last_;
};

} // namespace

Condition hasSaid(const fs::path& set, const Text& text)
{
    const auto watch = std::make_shared<LineWatch>(set, text);
    const std::string times = text.count == 1 ? "" : " " + std::to_string(text.count) + " times";
    const std::string what = text.state ? "come to state " + std::to_string(*text.state)
                                        : "say " + common::inQuotes(text.text) + times;
    return {"the daemon to " + what, [watch](auto) { return watch->isSo(); },
            [watch] { return watch->seen(); }};
}

// ---- Files, platform ----

namespace
{

// A link leads where it does in the set: never to the PC's files.
common::UniqueFd openInRoot(const fs::path& root, const fs::path& file, int flags)
{
    const common::UniqueFd directory(open(root.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    open_how how{};
    how.flags = static_cast<unsigned int>(O_PATH | O_CLOEXEC | flags);
    how.resolve = RESOLVE_IN_ROOT;
    return common::UniqueFd(syscall(SYS_openat2, directory.get(), file.c_str(), &how, sizeof how));
}

// What lies in no directory of the set is the PC's, which the set sees at the same place.
bool leadsToShared(const common::UniqueFd& link)
{
    char target[PATH_MAX];
    const ssize_t size = readlinkat(link.get(), "", target, sizeof target);
    const fs::path path = fs::path(std::string(target, static_cast<size_t>(std::max<ssize_t>(size, 0))));
    const std::string top = path.is_absolute() ? *std::next(path.lexically_normal().begin()) : fs::path();
    constexpr const char* kShared[] = {"usr", "bin", "sbin", "lib", "lib64"};
    std::error_code error;
    return std::find(std::begin(kShared), std::end(kShared), top) != std::end(kShared) &&
           fs::exists(path, error);
}

enum class Found { kNothing, kDeadLink, kFile };

Found look(const fs::path& root, const fs::path& file)
{
    if (openInRoot(root, file, 0)) {
        return Found::kFile;
    }
    const common::UniqueFd link = openInRoot(root, file, O_NOFOLLOW);
    return !link ? Found::kNothing : leadsToShared(link) ? Found::kFile : Found::kDeadLink;
}

} // namespace

Condition fileIs(const fs::path& set, const std::string& path, bool isThere)
{
    const fs::path file = SetContents(set).outside(path).lexically_relative(set);
    const bool isOfRoot = *file.begin() == "root";
    const fs::path root = isOfRoot ? set / "root" : set;
    const fs::path inRoot = isOfRoot ? file.lexically_relative("root") : file;
    const auto isSo = [=](auto) { return (look(root, inRoot) == Found::kFile) == isThere; };
    const auto seen = [=] {
        constexpr const char* kWords[] = {"it is not there; ", "it is a link that leads nowhere; ",
                                          "it is there; "};
        return kWords[static_cast<size_t>(look(root, inRoot))] + lifeText(set);
    };
    return {common::visible(path) + (isThere ? " to be there" : " to be gone"), isSo, seen};
}

namespace
{

// A value of the platform's snapshot. Between two boots, and while it is being started, there is none.
class PlatformWatch
{
public:
    using Look = std::function<std::string(const Json::Value& snapshot)>;
    PlatformWatch(fs::path set, Look look) : set_(std::move(set)), look_(std::move(look)) {}

    bool is(const std::string& wanted, std::chrono::milliseconds longest)
    {
        try {
            seen_ = look_(ControlClient::ofSet(set_, longest).snapshot());
            return seen_ == wanted;
        } catch (const ControlError& error) {
            seen_ = error.what();
            return false;
        }
    }
    const std::string& seen() const { return seen_; }

private:
    fs::path set_;
    Look look_;
    std::string seen_ = "nothing";
};

Condition platformIs(const fs::path& set, const std::string& what, const std::string& wanted,
                     PlatformWatch::Look look)
{
    const auto watch = std::make_shared<PlatformWatch>(set, std::move(look));
    return {what + " " + common::visible(wanted), [=](auto longest) { return watch->is(wanted, longest); },
            [=] { return watch->seen() + "; " + lifeText(set); }};
}

} // namespace

Condition progressIs(const fs::path& set, const std::string& module, int atLeast)
{
    const auto seen = std::make_shared<std::string>("nothing");
    const auto isSo = [set, module, atLeast, seen](auto longest) {
        try {
            const auto reply = ControlClient::ofSet(set, longest).callConsole("GetModules", nullptr, "(s)");
            const char* text = nullptr;
            g_variant_get(reply.get(), "(&s)", &text);
            *seen = "no such module";
            for (const Json::Value& each : common::parseJson(text).value_or(Json::Value())) {
                if (each["name"].asString() != module) {
                    continue;
                }
                *seen = each["progress"].isInt() ? each["progress"].asString() + " %" : "no figure of it";
                return each["progress"].isInt() && each["progress"].asInt() >= atLeast;
            }
        } catch (const ControlError& error) {
            *seen = error.what();
        }
        return false;
    };
    return {common::visible(module) + " to have written " + std::to_string(atLeast) + " %", isSo,
            [set, seen] { return *seen + "; " + lifeText(set); }};
}

Condition powerIs(const fs::path& set, int state)
{
    return platformIs(set, "the power state", std::to_string(state),
                      [](const Json::Value& snapshot) { return snapshot["power"]["state"].asString(); });
}

Condition locksAre(const fs::path& set, unsigned int count)
{
    return platformIs(
        set, "the number of power locks", std::to_string(count),
        [](const Json::Value& snapshot) { return std::to_string(snapshot["locks"]["held"].size()); });
}

Condition settingIs(const fs::path& set, const std::string& key, int value)
{
    return platformIs(set, "the setting " + common::visible(key), std::to_string(value),
                      [key](const Json::Value& snapshot) {
                          const Json::Value& settings = snapshot["settings"];
                          return settings.isMember(key) ? settings[key]["value"].asString()
                                                        : std::string("there is no such key");
                      });
}

} // namespace vset
