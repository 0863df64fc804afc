#include "platform/check/checking.h"

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <memory>
#include <poll.h>
#include <set>
#include <string_view>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>

#include "common/errors.h"
#include "common/process/interruption.h"
#include "common/process/process-state.h"
#include "common/terminal/visible-text.h"
#include "platform/check/trial-run.h"
#include "platform/check/trials/trial-page.h"

namespace platformcheck
{

namespace fs = std::filesystem;

namespace
{

using namespace std::chrono_literals;

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

// ---- One trial ----

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
    Checker(const CheckOptions& options,
            const std::function<void(const std::string&, unsigned int)>& showProgress)
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
    std::unique_ptr<TrialRun> start(const ListedTrial& trial, bool isAgain = false) const;
    void waitFor(TrialRun& run);
    void judgeRun(std::unique_ptr<TrialRun> run);
    bool isKnownSlow(const std::set<std::string>& calls) const;
    void runTrial(const ListedTrial& trial);
    void finishBeside();
    void endInterrupted(const std::vector<const ListedTrial*>& trials);
    void gatherRun(const TrialRun& run, const std::set<std::string>& slowCalls);
    void gather(TrialReport& report, const TrialPage& page, const Ending& ending,
                const std::set<std::string>& slowCalls);
    void gatherEnding(TrialReport& report, const TrialPage& page, const Ending& ending);
    void add(TrialReport& report, FindingId id, const std::string& seen);
    void showNow();

    const common::InterruptionWatch watch_; // also while what was made is removed
    const CheckOptions& options_;
    const std::function<void(const std::string&, unsigned int)>& showProgress_;
    fs::path program_;
    WorkDirectory work_;
    PlacedImage image_;
    CheckReport report_;
    std::set<std::string> slowCalls_;  // beyond doubt
    std::unique_ptr<TrialRun> beside_; // a trial that mostly waits
    std::string title_;
    unsigned int percent_ = 0;
    std::string whyOver_; // nothing else is to be tried; empty: it is
};

// In lines of a terminal's width.
std::string namesOfTrials()
{
    constexpr std::size_t kWidth = 60; // the first one has words before it
    std::string lines;
    std::string line;
    for (const ListedTrial& trial : kTrials) {
        if (line.size() + 2 + std::strlen(trial.name) > kWidth) {
            lines += line + ",\n";
            line.clear();
        }
        line += (line.empty() ? "" : ", ") + std::string(trial.name);
    }
    return lines + line;
}

std::vector<const ListedTrial*> Checker::chosen() const
{
    for (const std::string& name : options_.trials) {
        const auto isNamed = [&](const ListedTrial& trial) { return name == trial.name; };
        if (std::none_of(std::begin(kTrials), std::end(kTrials), isNamed)) {
            throw common::WrongUse("there is no trial " + common::inQuotes(name) + ": " + namesOfTrials());
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
        {"--application", options_.application},
        {"--seconds", options_.seconds > 0 ? std::to_string(options_.seconds) : ""}};
    for (const auto& [option, value] : more) {
        if (!value.empty()) {
            arguments.insert(arguments.end(), {option, value});
        }
    }
    const mode_t mask = umask(0);
    umask(mask);
    arguments.insert(arguments.end(), {"--mask", std::to_string(mask)});
    arguments.insert(arguments.end(), {"--ignored", std::to_string(ignoredSignals())});
    if (!options_.isLogTextJudged) {
        arguments.emplace_back("--no-log-text");
    }
    return arguments;
}

std::unique_ptr<TrialRun> Checker::start(const ListedTrial& trial, bool isAgain) const
{
    const fs::path file = work_.path() / (std::string("page.") + trial.name);
    const fs::path preload = options_.preload.empty() ? fs::path() : fs::absolute(options_.preload);
    const std::chrono::seconds patience =
        (options_.isReboot ? 60s : 0s) + std::chrono::seconds(2 * options_.seconds);
    std::vector<std::string> arguments = argumentsOf(trial, file);
    if (isAgain) {
        arguments.emplace_back("--again");
    }
    SharedPage page = makePage(file);
    return std::make_unique<TrialRun>(trial, std::move(page), arguments, preload, patience);
}

// The one beside it goes on meanwhile.
void Checker::waitFor(TrialRun& run)
{
    while (!run.hasEnded()) {
        std::vector<pollfd> news = {pollfd{run.output(), POLLIN, 0}, pollfd{run.news(), POLLIN, 0}};
        if (beside_ && !beside_->hasEnded()) {
            news.push_back({beside_->output(), POLLIN, 0});
            news.push_back({beside_->news(), POLLIN, 0});
        }
        poll(news.data(), news.size(), 100);
        showNow();
        if (common::InterruptionWatch::times() > 1) {
            run.kill(); // what it would have put back stays as it is
        }
    }
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
std::string placeOf(const OldestCall& call, const ListedTrial& trial, const TrialPage& page)
{
    if (!call.name.empty()) {
        return call.name;
    }
    const std::string situation(page.situation, strnlen(page.situation, sizeof page.situation));
    return std::string(trial.title) + (situation.empty() ? "" : ", " + situation) +
           ": between two calls, in a callback, or on a thread of the platform";
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

constexpr const char* kFree = "free()"; // the beginning of the name of those that are tried

FindingId crashOf(const OldestCall& call, const TrialPage& page)
{
    if (call.name.rfind(kFree, 0) == 0) {
        return FindingId::TextNotOwned;
    }
    return page.isArgumentTouched ? FindingId::ArgumentTouched : FindingId::Crashed;
}

// Of several threads' calls the one that has ended the process: the C library says so when it was free().
OldestCall lastCall(const TrialPage& page, const std::string& lastWords)
{
    const bool isFree =
        lastWords.find("free") != std::string::npos || lastWords.find("munmap_chunk") != std::string::npos;
    const OldestCall freeing = isFree ? oldestCall(page, kFree) : OldestCall{};
    return freeing.name.empty() ? oldestCall(page) : freeing;
}

// The loader leaves out what it cannot put before the platform's, with a word on a trial's standard error and
// no more: the platform alone would be judged, and its verdict taken for both.
void refuseLeftOut(const fs::path& preload, const std::string& output)
{
    if (preload.empty()) { // which std::filesystem::absolute() refuses
        return;
    }
    constexpr std::string_view kWhy = " from LD_PRELOAD cannot be preloaded (";
    const std::size_t place = output.find("'" + fs::absolute(preload).string() + "'" + std::string(kWhy));
    if (place == std::string::npos) {
        return;
    }
    const std::size_t why = output.find(kWhy, place) + kWhy.size();
    throw common::WrongUse(common::shortened(preload.string()) +
                           " cannot be preloaded: " + output.substr(why, output.find(')', why) - why));
}

bool tellsSlow(const Told& line)
{
    return line.kind == Line::kFinding && line.number == static_cast<unsigned int>(FindingId::Slow);
}

// The call that such a line tells of.
std::string slowCallOf(const Told& line)
{
    return line.text.substr(0, line.text.find(kTook));
}

std::set<std::string> slowCallsOf(const TrialRun& run)
{
    std::set<std::string> calls;
    for (const Told& line : readLines(run.page())) {
        if (tellsSlow(line)) {
            calls.insert(slowCallOf(line));
        }
    }
    return calls;
}

std::set<std::string> inBoth(const std::set<std::string>& one, const std::set<std::string>& other)
{
    std::set<std::string> both;
    std::set_intersection(one.begin(), one.end(), other.begin(), other.end(),
                          std::inserter(both, both.end()));
    return both;
}

// In a trial before.
bool Checker::isKnownSlow(const std::set<std::string>& calls) const
{
    return std::includes(slowCalls_.begin(), slowCalls_.end(), calls.begin(), calls.end());
}

// `slowCalls` were slow each time.
void Checker::gather(TrialReport& report, const TrialPage& page, const Ending& ending,
                     const std::set<std::string>& slowCalls)
{
    refuseLeftOut(options_.preload, ending.output);
    for (const Told& line : readLines(page)) {
        const auto id = findingsTable().withNumber(line.number);
        if (tellsSlow(line) && slowCalls.count(slowCallOf(line)) == 0) {
            continue;
        }
        if (line.kind == Line::kFinding && id) {
            add(report, *id, line.text);
            if (*id == FindingId::NoBus) {
                whyOver_ =
                    "as the daemon does not run without the bus, and calls that need it could but fail";
            }
        } else if (line.kind == Line::kNote) {
            const bool isNew = std::count(report_.notes.begin(), report_.notes.end(), line.text) == 0;
            report_.notes.insert(report_.notes.end(), isNew ? 1 : 0, line.text);
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
    const std::string last = lastLine(ending.output);
    const OldestCall call = lastCall(page, last);
    const std::string place = placeOf(call, *report.trial, page);
    const std::string said = last.empty() ? "" : "; its last words: " + last;
    if (!page.isStarted) {
        whyOver_ = "as the platform's libraries cannot be loaded";
        add(report, FindingId::NotLoaded, whyNotBegun(ending, last, said));
    } else if (ending.isLate) {
        add(report, FindingId::NoReturn, place + (call.name.empty() ? "" : " had not returned after 10 s"));
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
    showProgress_(title_, percent_);
}

// Nobody changes the power a second time, nor does a reboot come back.
bool mayBeMadeAgain(const TrialRun& run)
{
    const When when = run.trial().when;
    constexpr double kLong = 60; // seconds
    return when != When::kWithPerson && when != When::kWithReboot && run.page().isDone &&
           run.seconds() < kLong && common::InterruptionWatch::times() == 0;
}

// Of a busy machine nothing is believed at once, and of no machine that a call is slow: what is found once
// more is the platform's.
bool isDoubtful(const TrialRun& run)
{
    const std::vector<Told> lines = readLines(run.page());
    const auto findings = std::count_if(lines.begin(), lines.end(),
                                        [](const Told& line) { return line.kind == Line::kFinding; });
    const bool isAllSlow = findings == std::count_if(lines.begin(), lines.end(), tellsSlow);
    return findings > 0 && (run.page().isDisturbed || isAllSlow);
}

void Checker::gatherRun(const TrialRun& run, const std::set<std::string>& slowCalls)
{
    report_.trials.push_back({&run.trial(), run.seconds(), {}});
    gather(report_.trials.back(), run.page(), run.ending(), slowCalls);
}

// A machine may hold up any call, also where nothing shows that it is busy: only what is slow three times is
// the platform's.
void Checker::judgeRun(std::unique_ptr<TrialRun> run)
{
    constexpr int kMostTimes = 3;
    std::set<std::string> slow = slowCallsOf(*run);
    bool isAgain = isDoubtful(*run) && (slow.empty() || !isKnownSlow(slow));
    for (int times = 1; isAgain && times < kMostTimes && mayBeMadeAgain(*run); ++times) {
        run = start(run->trial(), true);
        waitFor(*run);
        slow = inBoth(slow, slowCallsOf(*run));
        isAgain = !slow.empty();
    }
    slowCalls_.insert(slow.begin(), slow.end());
    gatherRun(*run, slow);
}

void Checker::runTrial(const ListedTrial& trial)
{
    title_ = trial.title;
    showNow();
    std::unique_ptr<TrialRun> run = start(trial);
    waitFor(*run);
    judgeRun(std::move(run));
}

// Of the trial beside all others.
void Checker::finishBeside()
{
    if (std::unique_ptr<TrialRun> run = std::exchange(beside_, nullptr)) {
        title_ = run->trial().title;
        waitFor(*run);
        judgeRun(std::move(run));
    }
}

// What the trials before have changed is put back all the same.
void Checker::endInterrupted(const std::vector<const ListedTrial*>& trials)
{
    const auto restores = [](const ListedTrial* trial) {
        return std::strcmp(trial->name, "settings-restore") == 0;
    };
    const auto last = std::find_if(trials.begin(), trials.end(), restores);
    const bool isToBeMade = last != trials.end() && report_.trials.back().trial < *last;
    if (isToBeMade && common::InterruptionWatch::times() == 1) {
        runTrial(**last);
    }
    common::InterruptionWatch::check();
}

CheckReport Checker::run()
{
    const std::vector<const ListedTrial*> trials = chosen();
    unsigned int done = 0;
    for (const ListedTrial* const trial : trials) {
        percent_ = ++done * 100 / static_cast<unsigned int>(trials.size() + 1);
        if (trial->when == When::kBeside) {
            beside_ = start(*trial);
            continue;
        }
        if (trial->when == When::kAfterBeside || trial->when == When::kEnclosing) {
            finishBeside();
        }
        runTrial(*trial);
        if (common::InterruptionWatch::times() > 0) {
            endInterrupted(trials);
        }
        if (!whyOver_.empty()) {
            report_.notes.push_back("nothing else was tried, " + whyOver_);
            break;
        }
    }
    std::sort(report_.trials.begin(), report_.trials.end(),
              [](const TrialReport& one, const TrialReport& other) { return one.trial < other.trial; });
    return std::move(report_);
}

} // namespace

CheckReport checkPlatform(const CheckOptions& options,
                          const std::function<void(const std::string&, unsigned int)>& showProgress)
{
    return Checker(options, showProgress).run();
}

} // namespace platformcheck
