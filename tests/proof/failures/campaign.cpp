#include "tests/proof/failures/campaign.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <fcntl.h>
#include <filesystem>
#include <glib.h>
#include <map>
#include <optional>
#include <random>
#include <sstream>
#include <sys/resource.h>
#include <sys/wait.h>
#include <system_error>
#include <unistd.h>
#include <utility>

#include "common/files/unique-fd.h"
#include "common/files/whole-file.h"
#include "tests/proof/failures/stories.h"
#include "tests/proof/process/daemon.h"

namespace proof
{

// ---- In the process of a run ----

namespace
{

constexpr unsigned int kSecondsForARun = 60; // of the machine's time: a run that never rests is ended

// Behind the events of a story: what is under way comes to its end, and the set is switched off. Where the
// service has not been told of that, another standby may end it.
const std::vector<std::string> kLastEvents = {"launch:ok",  "free",     "wait:20000", "poweroff",
                                              "wait:1000",  "mirror:0", "jump:600",   "power:0>2",
                                              "wait:30000", "power:2>0"};

class Session
{
public:
    Session(Run itsRun, std::string directory, bool isItTraced, int out)
        : run(std::move(itsRun)), story(storyNamed(run.story)), root(std::move(directory)),
          isTraced(isItTraced), report(out)
    {
        events = story.events;
        events.insert(events.end(), kLastEvents.begin(), kLastEvents.end());
    }

    [[noreturn]] void start()
    {
        alarm(kSecondsForARun);
        const rlimit none{0, 0};
        setrlimit(RLIMIT_CORE, &none);
        g_log_set_default_handler(noteGLib, nullptr);
        plan::start(run);
        daemon::run(story.television, root, [this] { next(); });
    }

private:
    static void noteGLib(const gchar*, GLogLevelFlags, const gchar* message, gpointer)
    {
        daemon::note(std::string("GLib: ") + message);
    }

    void next()
    {
        if (daemon::hasEnded() || at == events.size()) {
            tell();
            _exit(0);
        }
        applyEvent(events[at++]);
    }

    void tell()
    {
        const std::vector<std::string> trace = daemon::takeTrace();
        std::ostringstream text;
        for (const Fault& fault : plan::faults()) {
            text << "fault " << textOf(fault) << '\n';
        }
        std::vector<Breach> breaches = breachesIn(story, trace);
        if (isToldAllTheSame(story, trace)) {
            const std::vector<Breach> missed = missedMilestones(story, trace);
            breaches.insert(breaches.end(), missed.begin(), missed.end());
        }
        for (const Breach& breach : breaches) {
            text << "breach " << breach.invariant << ' ' << breach.text << '\n';
        }
        for (const Point& point : plan::points()) {
            text << "point " << point.call << ' ' << point.occurrence;
            for (const std::string& result : point.results) {
                text << ' ' << result;
            }
            text << '\n';
        }
        for (const std::string& line : isTraced ? trace : std::vector<std::string>{}) {
            text << "trace " << line << '\n';
        }
        write(text.str() + "end\n");
    }

    void write(const std::string& text) const
    {
        for (size_t done = 0; done < text.size();) {
            const ssize_t count = ::write(report, text.data() + done, text.size() - done);
            if (count <= 0) {
                _exit(1);
            }
            done += static_cast<size_t>(count);
        }
    }

    Run run;
    const Story& story;
    std::string root;
    bool isTraced;
    int report;
    std::vector<std::string> events;
    size_t at = 0;
};

// ---- Around it ----

struct Child {
    Run run;
    pid_t process;
    int report;
};

Child start(const Run& run, const std::string& root, bool isTraced)
{
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) {
        throw std::system_error(errno, std::generic_category(), "pipe");
    }
    const pid_t process = fork();
    if (process < 0) {
        throw std::system_error(errno, std::generic_category(), "fork");
    }
    if (process == 0) {
        if (!isTraced) {
            const int nowhere = open("/dev/null", O_WRONLY | O_CLOEXEC);
            dup2(nowhere, STDERR_FILENO);
        }
        Session(run, root, isTraced, ends[1]).start();
    }
    close(ends[1]);
    return {run, process, ends[0]};
}

void takeLine(const std::string& line, Verdict& verdict)
{
    std::istringstream words(line);
    std::string kind;
    words >> kind;
    const auto rest = [&] {
        std::string text;
        std::getline(words >> std::ws, text);
        return text;
    };
    if (kind == "fault") {
        verdict.reached.push_back(faultFrom(rest()));
    } else if (kind == "breach") {
        Breach breach;
        words >> breach.invariant;
        breach.text = rest();
        verdict.breaches.push_back(breach);
    } else if (kind == "point") {
        Point point{};
        words >> point.call >> point.occurrence;
        for (std::string result; words >> result;) {
            point.results.push_back(result);
        }
        verdict.points.push_back(point);
    } else if (kind == "trace") {
        verdict.trace.push_back(rest());
    }
}

std::string endOf(int status)
{
    if (WIFSIGNALED(status)) {
        return WTERMSIG(status) == SIGALRM ? "it did not come to rest" : strsignal(WTERMSIG(status));
    }
    return "exit " + std::to_string(WEXITSTATUS(status));
}

Verdict await(const Child& child)
{
    Verdict verdict{child.run, {}, {}, {}, {}};
    const common::UniqueFd report(child.report);
    std::istringstream lines(common::readToEnd(report.get()));
    std::string last;
    for (std::string line; std::getline(lines, line); last = line) {
        takeLine(line, verdict);
    }
    int status = 0;
    while (waitpid(child.process, &status, 0) < 0 && errno == EINTR) {
    }
    if (status != 0 || last != "end") {
        verdict.breaches.push_back({"exit", "the process ended by itself: " + endOf(status)});
    }
    return verdict;
}

} // namespace

FailureCampaign::FailureCampaign(unsigned int processes) : count(processes)
{
    for (const Story& story : stories()) {
        prepare(story, directory / story.name);
    }
}

Verdict FailureCampaign::run(const Run& one, bool isTraced)
{
    return await(start(one, directory / storyNamed(one.story).name, isTraced));
}

void FailureCampaign::runAll(const std::vector<Run>& runs, const std::function<void(const Verdict&)>& tell)
{
    std::deque<Child> children;
    for (size_t at = 0; at < runs.size() || !children.empty();) {
        if (at < runs.size() && children.size() < count) {
            children.push_back(start(runs[at], directory / runs[at].story, false));
            ++at;
            continue;
        }
        const Verdict verdict = await(children.front());
        children.pop_front();
        tell(verdict);
    }
}

// ---- Which runs ----

std::vector<Run> singlesOf(const Verdict& first)
{
    std::vector<Run> runs;
    for (const Point& point : first.points) {
        for (const std::string& result : point.results) {
            runs.push_back({first.run.story, {{point.call, point.occurrence, result}}});
        }
    }
    return runs;
}

namespace
{

// Each call as likely as any other, however often it is made.
Fault faultByChance(const Verdict& first, std::mt19937_64& random)
{
    std::map<std::string, std::vector<const Point*>> calls;
    for (const Point& point : first.points) {
        calls[point.call].push_back(&point);
    }
    const auto call = std::next(calls.begin(), static_cast<std::ptrdiff_t>(random() % calls.size()));
    const Point& point = *call->second[random() % call->second.size()];
    return {point.call, point.occurrence, point.results[random() % point.results.size()]};
}

} // namespace

std::vector<Run> pairsOf(const std::vector<Verdict>& firsts, unsigned int count, uint64_t seed)
{
    std::mt19937_64 random(seed);
    std::vector<Run> runs;
    while (runs.size() < count) {
        const Verdict& first = firsts[random() % firsts.size()];
        const Fault one = faultByChance(first, random);
        const Fault other = faultByChance(first, random);
        if (one.call != other.call || one.occurrence != other.occurrence) {
            runs.push_back({first.run.story, {one, other}});
        }
    }
    return runs;
}

} // namespace proof
