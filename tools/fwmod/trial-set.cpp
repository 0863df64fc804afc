#include "tools/fwmod/trial-set.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <gio/gio.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include "common/visible-text.h"
#include "tools/fwmod/commands/command.h"
#include "tools/fwmod/files.h"
#include "tools/fwmod/programs.h"
#include "vset/television/users.h"

namespace fwmod
{

namespace fs = std::filesystem;

namespace
{
using vset::kSystemGroup;
using vset::kUpdateUser;
constexpr int kPowerCutStatus = 3;
constexpr std::chrono::seconds kPatience(30);

[[noreturn]] void failOn(const std::string& what)
{
    throw common::Failure("cannot " + what + ": " + std::strerror(errno));
}

std::string take(char* text)
{
    std::string taken = text != nullptr ? text : "";
    g_free(text);
    return taken;
}

std::vector<char*> pointersTo(std::vector<std::string>& words)
{
    std::vector<char*> pointers;
    for (std::string& word : words) {
        pointers.push_back(word.data());
    }
    pointers.push_back(nullptr);
    return pointers;
}

TrialSet::Output runProgram(std::vector<std::string> words)
{
    char* out = nullptr;
    char* err = nullptr;
    int status = -1;
    GError* error = nullptr;
    if (g_spawn_sync(nullptr, pointersTo(words).data(), nullptr, G_SPAWN_DEFAULT, nullptr, nullptr, &out,
                     &err, &status, &error) == FALSE) {
        const std::string reason = error->message;
        g_error_free(error);
        throw common::Failure("cannot start " + words[0] + ": " + reason);
    }
    const TrialSet::Output output{WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status), take(out),
                                  take(err)};
    InterruptionWatch::check(); // Ctrl-C has ended that program, too
    return output;
}

// "vset: the daemon made 3 writes to hardware": what follows `start`.
std::optional<std::string> findLine(const std::vector<std::string>& lines, const std::string& start,
                                    std::size_t first = 0)
{
    for (std::size_t index = first; index < lines.size(); ++index) {
        if (lines[index].compare(0, start.size(), start) == 0) {
            return lines[index].substr(start.size());
        }
    }
    return std::nullopt;
}

void giveAway(const fs::path& directory, uid_t user, gid_t group)
{
    for (const fs::directory_entry& entry : fs::recursive_directory_iterator(directory)) {
        if (lchown(entry.path().c_str(), user, group) != 0) {
            failOn("change the owner of " + entry.path().string());
        }
    }
}
} // namespace

// ---- The set's directory ----

TrialSet::TrialSet(bool isRootless, std::FILE* story)
    : vset_(vsetProgram()), isRootless_(isRootless || geteuid() != 0), story_(story)
{
    GError* error = nullptr;
    path_ = take(g_dir_make_tmp("fwmod-try-XXXXXX", &error));
    if (path_.empty()) {
        const std::string reason = error->message;
        g_error_free(error);
        throw common::Failure("cannot make a temporary directory: " + reason);
    }
    try {
        requireRoomForSet(path_);
        const Output made = runProgram({vset_, "new", path_});
        if (made.status != 0) {
            throw common::Failure("the set cannot be made: " + made.errors);
        }
        if (geteuid() == 0 && isRootless_) { // the set will have no user but its caller
            giveAway(path_, 0, 0);
        }
        log_ = std::make_unique<vset::LogReader>(file(vset::kLogFile));
    } catch (...) { // no destructor runs for what was not made
        std::error_code ignored;
        fs::remove_all(path_, ignored);
        throw;
    }
}

TrialSet::~TrialSet()
{
    try {
        end();
    } catch (const std::exception& error) {
        std::fprintf(stderr, "fwmod: %s\n", error.what());
    }
    std::error_code error;
    if (isKept_) {
        std::fprintf(story_, "The set stays in %s\n", path_.c_str());
    } else {
        fs::remove_all(path_, error);
    }
    if (error) {
        std::fprintf(stderr, "fwmod: cannot remove %s: %s\n", path_.c_str(), error.message().c_str());
    }
}

fs::path TrialSet::file(const std::string& inside) const
{
    return inside.compare(0, 5, "/usr/") == 0 ? path_ / inside.substr(1) : path_ / "root" / inside.substr(1);
}

void TrialSet::add(const fs::path& from, const std::string& directory, const std::string& name)
{
    copyIntoSet(from, file(directory) / name);
}

void TrialSet::addHardware(const fs::path& from)
{
    const fs::path hardware = file("/var/lib/hardware");
    copyIntoSet(from, hardware);
    if (geteuid() == 0 && !isRootless_) {
        giveAway(hardware, kUpdateUser, kSystemGroup);
    }
}

// ---- Power ----

void TrialSet::start(std::vector<std::string> arguments, std::optional<unsigned int> cutAtWrite)
{
    end();
    launcherLines_.clear();
    forget();
    std::vector<std::string> words = {vset_, "run", path_, "--clock-rate", "1"};
    if (isRootless_) {
        words.emplace_back("-u");
    }
    if (cutAtWrite) {
        words.insert(words.end(), {"--cut-power-at-write", std::to_string(*cutAtWrite)});
    }
    words.insert(words.end(), arguments.begin(), arguments.end());
    const std::vector<char*> pointers = pointersTo(words);

    int output[2];
    if (pipe2(output, O_CLOEXEC) != 0) {
        failOn("make a pipe");
    }
    const pid_t self = getpid();
    launcher_ = fork();
    if (launcher_ < 0) {
        failOn("start vset");
    }
    if (launcher_ == 0) {
        setpgid(0, 0); // Ctrl-C is ours to answer
        prctl(PR_SET_PDEATHSIG, SIGTERM);
        std::signal(SIGPIPE, SIG_DFL); // ours is not its business
        dup2(output[1], STDOUT_FILENO);
        dup2(output[1], STDERR_FILENO);
        if (getppid() == self) {
            execv(pointers[0], pointers.data());
        }
        _exit(127);
    }
    close(output[1]);
    launcherOutput_ = output[0];
    fcntl(launcherOutput_, F_SETFL, O_NONBLOCK);
}

void TrialSet::switchOn(std::optional<unsigned int> cutAtWrite)
{
    start({}, cutAtWrite);
    // The bus is there before the platform answers on it; the console's address comes last.
    waitFor("the set to come up", kPatience,
            [this] { return findLine(launcherLines_, "console: ").has_value(); });
}

void TrialSet::switchOff()
{
    if (!isOn()) {
        return;
    }
    act([](const vset::ControlClient& platform) { platform.powerOff(0); });
    jumpClock(2); // it goes off a second later
    const auto limit = std::chrono::steady_clock::now() + kPatience;
    while (isOn() && std::chrono::steady_clock::now() < limit) {
        InterruptionWatch::check();
        listen();
    }
    end();
}

int TrialSet::runAlone(const std::vector<std::string>& command, std::optional<unsigned int> cutAtWrite)
{
    std::vector<std::string> arguments = {"--"};
    arguments.insert(arguments.end(), command.begin(), command.end());
    start(arguments, cutAtWrite);
    while (isOn()) {
        InterruptionWatch::check();
        listen();
    }
    if (cutAtWrite && launcherStatus_ == kPowerCutStatus &&
        findLine(launcherLines_, "vset: the power was cut ")) {
        failOnEnd();
    }
    return launcherStatus_;
}

std::optional<unsigned int> TrialSet::writes() const
{
    for (const std::string& line : launcherLines_) {
        unsigned int count = 0;
        const std::size_t made = line.find(" made ");
        if (made != std::string::npos &&
            std::sscanf(line.c_str() + made, " made %u writes to hardware", &count) == 1) {
            return count;
        }
    }
    return std::nullopt;
}

// However the set was left.
void TrialSet::end()
{
    platform_.reset();
    if (launcher_ > 0) {
        kill(launcher_, SIGTERM);
        for (int tries = 0; launcher_ > 0 && isOn(); ++tries) {
            if (tries == 250) { // the kernel ends the set with it
                kill(launcher_, SIGKILL);
            }
            listen();
        }
    }
    if (launcherOutput_ >= 0) {
        close(launcherOutput_);
    }
    launcherOutput_ = -1;
    unfinishedLine_.clear();
}

// ---- A running set ----

bool TrialSet::isOn()
{
    if (launcher_ <= 0) {
        return false;
    }
    int status = 0;
    const pid_t ended = waitpid(launcher_, &status, WNOHANG);
    if (ended == 0) {
        return true;
    }
    while (readLauncher()) {
    }
    launcher_ = 0;
    launcherStatus_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    return false;
}

void TrialSet::failOnEnd()
{
    const std::string cut = "the power was cut ";
    if (const auto where = findLine(launcherLines_, "vset: " + cut)) {
        throw PowerWasCut(cut + *where);
    }
    throw common::Failure("the set has ended:\n" + lastWords());
}

void TrialSet::setClockRate(double rate)
{
    const Output changed = runProgram({vset_, "clock", path_, "--rate", std::to_string(rate)});
    if (changed.status != 0 && isOn()) {
        throw common::Failure("the set's clock cannot be changed: " + changed.errors);
    }
}

void TrialSet::jumpClock(unsigned int seconds)
{
    const Output changed = runProgram({vset_, "clock", path_, "--jump", std::to_string(seconds)});
    if (changed.status != 0 && isOn()) {
        throw common::Failure("the set's clock cannot be changed: " + changed.errors);
    }
}

void TrialSet::act(const std::function<void(const vset::ControlClient&)>& action)
{
    try {
        if (!platform_) {
            platform_.emplace(vset::ControlClient::ofSet(path_));
        }
        action(*platform_);
    } catch (const vset::ControlError& error) {
        platform_.reset();
        InterruptionWatch::check();
        for (int tries = 0; tries < 50; ++tries) { // whether the whole set has gone
            if (!isOn()) {
                failOnEnd();
            }
            listen();
        }
        throw common::Failure(error.what());
    }
}

Json::Value TrialSet::snapshot()
{
    Json::Value json;
    act([&](const vset::ControlClient& platform) { json = platform.snapshot(); });
    return json;
}

Json::Value TrialSet::console(const char* method)
{
    Json::Value json;
    act([&](const vset::ControlClient& platform) {
        const auto reply = platform.callConsole(method, nullptr, "(s)");
        const char* text = nullptr;
        g_variant_get(reply.get(), "(&s)", &text);
        const std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
        if (!reader->parse(text, text + std::strlen(text), &json, nullptr)) {
            throw common::Failure(std::string("the set's console tells nonsense: ") + text);
        }
    });
    return json;
}

TrialSet::Output TrialSet::run(const std::vector<std::string>& command)
{
    std::vector<std::string> words = {vset_, "exec", path_, "--"};
    words.insert(words.end(), command.begin(), command.end());
    return runProgram(words);
}

bool TrialSet::said(common::DaemonEventKind kind) const
{
    return std::any_of(events_.begin(), events_.end(),
                       [&](const common::DaemonEvent& event) { return event.kind == kind; });
}

bool TrialSet::hasReached(int state) const
{
    return std::any_of(events_.begin(), events_.end(), [&](const common::DaemonEvent& event) {
        return event.kind == common::DaemonEventKind::kState && event.number(0) == state;
    });
}

void TrialSet::forget()
{
    records_.clear();
    events_.clear();
    platform_.reset();
    firstLine_ = launcherLines_.size();
}

std::optional<std::string> TrialSet::daemonEnd() const
{
    const auto end = findLine(launcherLines_, "vset: tarnwick ", firstLine_);
    return end ? std::optional("tarnwick " + *end) : std::nullopt;
}

// ---- Following ----

// Takes what `vset run` has to say; what a command says goes on to the story. False at its end.
bool TrialSet::readLauncher()
{
    char text[4096];
    const ssize_t length = read(launcherOutput_, text, sizeof text);
    if (length <= 0) {
        return false;
    }
    unfinishedLine_.append(text, static_cast<std::size_t>(length));
    for (std::size_t end = 0; (end = unfinishedLine_.find('\n')) != std::string::npos;) {
        const std::string line = unfinishedLine_.substr(0, end);
        unfinishedLine_.erase(0, end + 1);
        launcherLines_.push_back(line);
        if (line.compare(0, 6, "vset: ") != 0 && line.compare(0, 9, "console: ") != 0) {
            std::fprintf(story_, "              %s\n", common::visible(line).c_str());
        }
    }
    return true;
}

// Takes and tells what has happened, and waits a moment for more.
void TrialSet::listen()
{
    pollfd more{launcherOutput_, POLLIN, 0};
    if (poll(&more, 1, 20) > 0 && !readLauncher()) {
        poll(nullptr, 0, 20); // the pipe's end, for good
    }
    while (const std::optional<vset::LogRecord> record = log_->next()) {
        if (common::isOfDaemon(*record)) {
            records_.push_back(*record);
            events_.push_back(common::readDaemonMessage(record->message));
        }
        const std::optional<std::string> line = teller_.tell(*record);
        if (!line) {
            continue;
        }
        std::fprintf(story_, "%s\n", common::visible(*line).c_str());
        std::fflush(story_);
    }
}

void TrialSet::waitFor(const std::string& what, std::chrono::seconds limit, const std::function<bool()>& isSo)
{
    const auto end = std::chrono::steady_clock::now() + limit;
    while (true) {
        const bool runs = isOn();
        listen();
        if (runs && isSo()) {
            return;
        }
        InterruptionWatch::check();
        if (std::ferror(story_) != 0) {
            throw common::Failure("the story cannot be written: its reader has gone, or the disk is full");
        }
        if (!runs) {
            failOnEnd();
        }
        if (std::chrono::steady_clock::now() > end) {
            throw common::Failure("waited " + std::to_string(limit.count()) + " s in vain for " + what +
                                  "\n" + lastWords());
        }
    }
}

// For the person who has to find out what went wrong.
std::string TrialSet::lastWords() const
{
    constexpr std::size_t kShown = 5;
    std::string text;
    const std::size_t first = launcherLines_.size() - std::min(kShown, launcherLines_.size());
    for (std::size_t index = first; index < launcherLines_.size(); ++index) {
        text += "  " + launcherLines_[index] + "\n";
    }
    const std::size_t early = records_.size() - std::min(kShown, records_.size());
    for (std::size_t index = early; index < records_.size(); ++index) {
        text += "  the daemon: " + std::string(common::withoutLineEnd(records_[index].message)) + "\n";
    }
    return text;
}
} // namespace fwmod
