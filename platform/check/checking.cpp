#include "platform/check/checking.h"

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <poll.h>
#include <set>
#include <sys/wait.h>
#include <unistd.h>

#include "common/errors.h"
#include "common/process/interruption.h"
#include "common/process/process-state.h"
#include "common/terminal/visible-text.h"
#include "platform/check/trial-run.h"

namespace platformcheck
{

namespace fs = std::filesystem;

namespace
{

using Clock = std::chrono::steady_clock;

// ---- What the check needs ----

// Beside this program in a build tree, below its prefix when it is installed.
fs::path companion(const char* name, const char* installed)
{
    const fs::path self = fs::read_symlink("/proc/self/exe").parent_path();
    for (const fs::path& path : {self / name, self.parent_path() / installed / name}) {
        if (fs::exists(path)) {
            return path;
        }
    }
    return {};
}

class WorkDirectory
{
public:
    WorkDirectory()
    {
        std::error_code none; // is told by the next line
        const fs::path directory = fs::temp_directory_path(none);
        const char* const wanted = std::getenv("TMPDIR");
        const std::string named = none && wanted != nullptr ? wanted : directory.string();
        std::string pattern = named + "/platform-check-XXXXXX";
        if (mkdtemp(pattern.data()) == nullptr) {
            throw common::Failure("cannot make a directory to work in, in " + common::shortened(named) +
                                  ": " + std::strerror(errno) + " (set TMPDIR to one that can be written)");
        }
        path_ = pattern;
    }
    ~WorkDirectory()
    {
        std::error_code ignored;
        fs::remove_all(path_, ignored);
    }
    WorkDirectory(const WorkDirectory&) = delete;
    WorkDirectory& operator=(const WorkDirectory&) = delete;
    const fs::path& path() const { return path_; }

private:
    fs::path path_;
};

constexpr const char* kPackages = "/opt/usr/apps/appbinarymanager"; // as the daemon has them

bool isUsable(const fs::path& directory)
{
    return access(directory.c_str(), W_OK | X_OK) == 0;
}

fs::path usualDirectory(const fs::path& work)
{
    const fs::path mounts = fs::path(kPackages) / "emps";
    return (isUsable(mounts) ? mounts : work) / "empPlatformCheck";
}

// The image where packages lie, because a mount service may take none from elsewhere. There is none for an
// empty path.
class PlacedImage
{
public:
    explicit PlacedImage(const fs::path& image) : path_(image)
    {
        const fs::path place = fs::path(kPackages) / "empPlatformCheck.img";
        std::error_code error;
        if (image.empty() || !isUsable(kPackages) || fs::equivalent(image.parent_path(), kPackages, error)) {
            return;
        }
        fs::remove(place, error); // what a check that was killed has left; a link there is not followed
        if (fs::copy_file(image, place, error)) {
            path_ = place;
            isCopy_ = true;
        }
    }
    ~PlacedImage()
    {
        std::error_code ignored;
        if (isCopy_) {
            fs::remove(path_, ignored);
        }
    }
    PlacedImage(const PlacedImage&) = delete;
    PlacedImage& operator=(const PlacedImage&) = delete;
    const fs::path& path() const { return path_; }

private:
    fs::path path_;
    bool isCopy_ = false;
};

// ---- What is said of a trial ----

// The last line that is no empty one.
std::string lastLine(const std::string& output)
{
    const std::size_t end = output.find_last_not_of(" \n\r\t");
    if (end == std::string::npos) {
        return "";
    }
    const std::size_t begin = output.rfind('\n', end);
    const std::size_t from = begin == std::string::npos ? 0 : begin + 1;
    return output.substr(from, end + 1 - from);
}

class Checker
{
public:
    Checker(const CheckOptions& options, const std::function<void(const Progress&)>& showProgress)
        : options_(options), showProgress_(showProgress),
          program_(companion("platform-trial", "libexec/tarnwick-platform-check")),
          image_(options.image.empty() ? companion("platform-check.img", "share/tarnwick-platform-check")
                                       : fs::absolute(options.image))
    {
        if (program_.empty()) {
            throw common::Failure(
                "the program platform-trial, which belongs to this one, is missing: install the "
                "component platform-check again");
        }
    }

    CheckReport run();

private:
    std::vector<const ListedTrial*> chosen() const;
    std::vector<std::string> argumentsOf(const ListedTrial& trial, const fs::path& page) const;
    bool mayStart(const ListedTrial& trial) const;
    void startNext();
    void start(const ListedTrial& trial);
    void waitForNews();
    bool isToBeRepeated(const TrialRun& run);
    void takeEnded();
    void leaveRest();
    void gather(TrialReport& report, const TrialPage& page, const Ending& ending);
    void gatherEnding(TrialReport& report, const TrialPage& page, const Ending& ending);
    void add(TrialReport& report, FindingId id, const std::string& seen);
    void showNow();

    const common::InterruptionWatch watch_; // also while what was made is removed
    const CheckOptions& options_;
    const std::function<void(const Progress&)>& showProgress_;
    fs::path program_;
    WorkDirectory work_;
    PlacedImage image_;
    CheckReport report_;
    std::vector<const ListedTrial*> waiting_; // in their order
    std::vector<std::unique_ptr<TrialRun>> running_;
    std::set<const ListedTrial*> repeated_;
    std::size_t count_ = 0; // of all
    Clock::time_point begin_ = Clock::now();
    bool isRefused_ = false; // nothing else is to be tried
};

std::vector<const ListedTrial*> Checker::chosen() const
{
    for (const std::string& name : options_.trials) {
        const auto isNamed = [&](const ListedTrial& trial) { return name == trial.name; };
        if (std::none_of(std::begin(kTrials), std::end(kTrials), isNamed)) {
            std::string all;
            for (const ListedTrial& trial : kTrials) {
                all += std::string(all.empty() ? "" : ", ") + trial.name;
            }
            throw common::WrongUse("there is no trial " + common::inQuotes(name) + ": " + all);
        }
    }
    std::vector<const ListedTrial*> trials;
    for (const ListedTrial& trial : kTrials) {
        const bool isNamed = std::count(options_.trials.begin(), options_.trials.end(), trial.name) > 0;
        const bool isWanted = isNamed || options_.trials.empty() || trial.when == When::kFirst ||
                              trial.when == When::kEnclosing;
        const bool isAllowed = (trial.when != When::kWithReboot || options_.isReboot) &&
                               (trial.when != When::kWithPerson || options_.seconds > 0);
        if (isWanted && isAllowed) {
            trials.push_back(&trial);
        }
    }
    return trials;
}

std::vector<std::string> Checker::argumentsOf(const ListedTrial& trial, const fs::path& page) const
{
    const auto own = [this](const char* name) {
        return options_.image.empty() ? companion(name, "share/tarnwick-platform-check") : fs::path();
    };
    const fs::path directory = options_.directory.empty()
                                   ? usualDirectory(work_.path())
                                   : fs::absolute(options_.directory) / "empPlatformCheck";
    std::vector<std::string> arguments = {
        program_,     trial.name,    "--page",  page,      "--work",
        work_.path(), "--directory", directory, "--token", std::to_string(getpid())};
    const std::pair<const char*, std::string> more[] = {
        {"--image", image_.path()},
        {"--content", own("platform-check.content")},
        {"--other", own("platform-check-other.img")},
        {"--other-content", own("platform-check-other.content")},
        {"--package", options_.package},
        {"--seconds", options_.seconds > 0 ? std::to_string(options_.seconds) : ""}};
    for (const auto& [option, value] : more) {
        if (!value.empty()) {
            arguments.insert(arguments.end(), {option, value});
        }
    }
    if (!options_.isLogTextJudged) {
        arguments.emplace_back("--no-log-text");
    }
    return arguments;
}

void Checker::add(TrialReport& report, FindingId id, const std::string& seen)
{
    for (Seen* const findings : {&report.findings, &report_.findings}) {
        std::vector<std::string>& all = (*findings)[id];
        if (std::find(all.begin(), all.end(), seen) == all.end()) {
            all.push_back(seen);
        }
    }
}

// A call that has not come to its end, or where else it was.
std::string placeOf(const OldestCall& call, const ListedTrial& trial)
{
    return call.name.empty() ? std::string(trial.title) +
                                   ": between two calls, in a callback, or on a thread of the platform"
                             : call.name;
}

// What is found in a trial that did not even begin.
std::string whyNotBegun(const Ending& ending, const std::string& last, const std::string& said)
{
    if (ending.isLate) {
        return "nothing had begun after " + std::to_string(kQuietLimit.count()) + " s";
    }
    if (WIFSIGNALED(ending.status)) {
        return common::signalName(WTERMSIG(ending.status)) + " at the start" + said;
    }
    return !last.empty() ? last
                         : "the process has ended with status " + std::to_string(WEXITSTATUS(ending.status)) +
                               " at its start";
}

FindingId crashOf(const OldestCall& call, const TrialPage& page)
{
    if (call.name.rfind("free()", 0) == 0) {
        return FindingId::TextNotOwned;
    }
    return page.isArgumentTouched ? FindingId::ArgumentTouched : FindingId::Crashed;
}

void Checker::gather(TrialReport& report, const TrialPage& page, const Ending& ending)
{
    for (const Told& line : readLines(page)) {
        const auto id = findingsTable().withNumber(line.number);
        if (line.kind == Line::kFinding && id) {
            add(report, *id, line.text);
        } else if (line.kind == Line::kNote) {
            report_.notes.push_back(line.text);
        } else if (line.kind == Line::kLibrary) {
            report_.libraries.push_back(line.text);
        } else if (line.kind == Line::kRefusal) {
            throw common::Failure(line.text);
        }
    }
    report_.calls += page.calls;
    const bool isSetEnding = report.trial->when == When::kWithReboot; // and this with it
    if (!ending.isLate && (page.isDone || isSetEnding)) {
        return;
    }
    gatherEnding(report, page, ending);
}

// Of a trial that did not come to its own end.
void Checker::gatherEnding(TrialReport& report, const TrialPage& page, const Ending& ending)
{
    const OldestCall call = oldestCall(page);
    const std::string place = placeOf(call, *report.trial);
    const std::string last = lastLine(ending.output);
    const std::string said = last.empty() ? "" : "; its last words: " + last;
    if (!page.isStarted) {
        isRefused_ = true;
        add(report, FindingId::NotLoaded, whyNotBegun(ending, last, said));
    } else if (ending.isLate) {
        add(report, FindingId::NoReturn, place);
    } else if (WIFSIGNALED(ending.status)) {
        const std::string words(page.lastWords, strnlen(page.lastWords, sizeof page.lastWords));
        add(report, crashOf(call, page),
            place + ": " + (words.empty() ? common::signalName(WTERMSIG(ending.status)) : words) + said);
    } else {
        add(report, FindingId::Ended,
            place + ": status " + std::to_string(WEXITSTATUS(ending.status)) + said);
    }
}

void Checker::showNow()
{
    if (running_.empty()) {
        return;
    }
    const auto asksForPerson = [](const auto& run) { return run->trial().when == When::kWithPerson; };
    const auto person = std::find_if(running_.begin(), running_.end(), asksForPerson);
    const ListedTrial& trial = (person == running_.end() ? running_.front() : *person)->trial();
    const std::size_t ended = count_ - waiting_.size() - running_.size();
    showProgress_({trial.title, static_cast<unsigned int>(ended * 100 / std::max(count_, std::size_t{1})),
                   std::chrono::duration_cast<std::chrono::seconds>(Clock::now() - begin_)});
}

// ---- Trials beside each other ----

// Most of a trial is waiting. What one lane tries is tried by no other.
bool Checker::mayStart(const ListedTrial& trial) const
{
    constexpr std::size_t kMost = 3; // the machine is for others, too
    const auto isInTheWay = [&](const auto& run) {
        return run->trial().lane == Lane::kAlone || run->trial().lane == trial.lane;
    };
    return trial.lane == Lane::kAlone
               ? running_.empty()
               : running_.size() < kMost && std::none_of(running_.begin(), running_.end(), isInTheWay);
}

// One that has to be alone waits for all before it, and all others wait for it.
void Checker::startNext()
{
    for (auto next = waiting_.begin(); next != waiting_.end();) {
        const ListedTrial& trial = **next;
        if (mayStart(trial) && (trial.lane != Lane::kAlone || next == waiting_.begin())) {
            next = waiting_.erase(next);
            start(trial);
        } else if (trial.lane == Lane::kAlone) {
            return;
        } else {
            ++next;
        }
    }
}

void Checker::start(const ListedTrial& trial)
{
    const fs::path file = work_.path() / (std::string("page.") + trial.name);
    const fs::path preload = options_.preload.empty() ? fs::path() : fs::absolute(options_.preload);
    const std::chrono::seconds patience =
        std::chrono::seconds(options_.isReboot ? 60 : 0) + std::chrono::seconds(2 * options_.seconds);
    SharedPage page = makePage(file);
    running_.push_back(
        std::make_unique<TrialRun>(trial, std::move(page), argumentsOf(trial, file), preload, patience));
}

void Checker::waitForNews()
{
    std::vector<pollfd> news;
    for (const auto& run : running_) {
        news.push_back({run->output(), POLLIN, 0});
        news.push_back({run->news(), POLLIN, 0});
    }
    poll(news.data(), news.size(), 100);
}

// Of a busy machine nothing is believed at once: what is found once more is the platform's.
bool Checker::isToBeRepeated(const TrialRun& run)
{
    const std::vector<Told> lines = readLines(run.page());
    const bool hasFound =
        std::any_of(lines.begin(), lines.end(), [](const Told& line) { return line.kind == Line::kFinding; });
    return hasFound && run.page().isDisturbed && run.page().isDone &&
           common::InterruptionWatch::times() == 0 && repeated_.insert(&run.trial()).second;
}

void Checker::takeEnded()
{
    for (auto run = running_.begin(); run != running_.end();) {
        if (common::InterruptionWatch::times() > 1) {
            (*run)->kill(); // what it would have put back stays as it is
        }
        if (!(*run)->hasEnded()) {
            ++run;
            continue;
        }
        const std::unique_ptr<TrialRun> ended = std::move(*run);
        run = running_.erase(run);
        if (isToBeRepeated(*ended)) {
            waiting_.insert(waiting_.begin(), &ended->trial());
            continue;
        }
        report_.trials.push_back({&ended->trial(), ended->seconds(), {}});
        gather(report_.trials.back(), ended->page(), ended->ending());
    }
}

// What a trial has changed is put back all the same.
void Checker::leaveRest()
{
    const auto isToBeLeft = [this](const ListedTrial* trial) {
        return isRefused_ || std::strcmp(trial->name, "settings-restore") != 0;
    };
    waiting_.erase(std::remove_if(waiting_.begin(), waiting_.end(), isToBeLeft), waiting_.end());
}

CheckReport Checker::run()
{
    waiting_ = chosen();
    count_ = waiting_.size();
    while (!waiting_.empty() || !running_.empty()) {
        startNext();
        showNow();
        waitForNews();
        takeEnded();
        if (isRefused_ || common::InterruptionWatch::times() > 0) {
            leaveRest();
        }
    }
    common::InterruptionWatch::check();
    if (isRefused_) {
        report_.notes.emplace_back("nothing else was tried, as the platform's libraries cannot be loaded");
    }
    std::sort(report_.trials.begin(), report_.trials.end(),
              [](const TrialReport& one, const TrialReport& other) { return one.trial < other.trial; });
    return std::move(report_);
}

} // namespace

CheckReport checkPlatform(const CheckOptions& options,
                          const std::function<void(const Progress&)>& showProgress)
{
    return Checker(options, showProgress).run();
}

} // namespace platformcheck
