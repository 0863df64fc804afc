#include "tests/proof/model/campaign.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <stdexcept>
#include <sys/mman.h>
#include <sys/wait.h>
#include <system_error>
#include <unistd.h>
#include <utility>

#include "tests/proof/process/daemon.h"
#include "tests/proof/process/places.h"

namespace proof
{

namespace
{

constexpr unsigned int kSecondsForAnEvent = 20; // of the machine's time: a run that never rests is ended
constexpr int kSequencesOfASet = 40;
constexpr size_t kLongest = 40; // events
constexpr size_t kLinesBefore = 12;

std::string lineAt(const std::vector<std::string>& lines, size_t at)
{
    return at < lines.size() ? lines[at] : "(nothing more)";
}

// Empty: they are the same.
std::string compare(const std::vector<std::string>& model, const std::vector<std::string>& daemon)
{
    size_t at = 0;
    while (at < model.size() && at < daemon.size() && model[at] == daemon[at]) {
        ++at;
    }
    if (at == model.size() && at == daemon.size()) {
        return "";
    }
    std::string text;
    for (size_t before = at - std::min(at, kLinesBefore); before < at; ++before) {
        text += "  both:   " + model[before] + "\n";
    }
    return text + "  model:  " + lineAt(model, at) + "\n  daemon: " + lineAt(daemon, at) + "\n";
}

} // namespace

// Between the processes.
struct Campaign::Shared {
    volatile uint64_t events;
    volatile uint64_t sequences;
    volatile bool hasFailed;
    char run[16384]; // what happens, as a case
    char difference[65536];
};

// One boot and what follows, in processes of its own.
class Campaign::Session
{
public:
    // What happens next; none: nothing. It may part into several processes, by the session's fork.
    using Choose = std::function<std::optional<std::string>(Session& session)>;

    Session(Campaign& campaign, const std::string& name, Choose choice)
        : shared(*campaign.shared), isShown(campaign.isShown), set(name),
          root(campaign.directory / name.substr(0, name.find('+'))), television(televisionOf(name)),
          model(television), choose(std::move(choice))
    {
    }

    [[noreturn]] void run()
    {
        tell();
        model.boot();
        alarm(kSecondsForAnEvent);
        daemon::run(television, root, [this] { next(); });
    }

    // Runs what follows in a copy. True there.
    bool fork()
    {
        const pid_t child = ::fork();
        if (child == 0) {
            alarm(kSecondsForAnEvent);
            return true;
        }
        alarm(0); // the copy has its own, and all that follows from it takes as long as it takes
        if (!await(shared, child)) {
            _exit(1);
        }
        alarm(kSecondsForAnEvent);
        return false;
    }

    // Whether it found no difference.
    static bool await(Shared& shared, pid_t child)
    {
        int status = 0;
        while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
        }
        if (!shared.hasFailed && (child < 0 || status != 0)) {
            shared.hasFailed = true;
            const int signal = WIFSIGNALED(status) ? WTERMSIG(status) : 0;
            snprintf(shared.difference, sizeof shared.difference, "  the process ended by itself: %s\n",
                     signal == SIGALRM ? "it did not come to rest"
                     : signal != 0     ? strsignal(signal)
                                       : "by exit");
        }
        return !shared.hasFailed;
    }

    size_t length() const { return events.size(); }

private:
    void tell()
    {
        const std::string text = textOf({set, events});
        strncpy(shared.run, text.c_str(), sizeof shared.run - 1);
    }

    void fail(const std::string& difference)
    {
        shared.hasFailed = true;
        strncpy(shared.difference, difference.c_str(), sizeof shared.difference - 1);
        _exit(1);
    }

    // Both have done the last event.
    void next()
    {
        const std::vector<std::string> trace = daemon::takeTrace();
        const std::string difference = compare(model.takeTrace(), trace);
        if (isShown) {
            printf("%s\n", events.empty() ? "boot" : events.back().c_str());
            for (const std::string& line : trace) {
                printf("    %s\n", line.c_str());
            }
            printf("  = %s\n", daemon::status().c_str());
            fflush(stdout);
        }
        if (!difference.empty()) {
            fail(difference);
        }
        const std::string states = compare({model.status()}, {daemon::status()});
        if (!states.empty()) {
            fail(states);
        }
        if (model.hasEnded() != daemon::hasEnded()) {
            fail("  only the " + std::string(model.hasEnded() ? "model" : "daemon") + " has ended\n");
        }
        const std::optional<std::string> event = model.hasEnded() ? std::nullopt : choose(*this);
        if (!event) {
            shared.sequences = shared.sequences + 1;
            _exit(0);
        }
        events.push_back(*event);
        shared.events = shared.events + 1;
        tell();
        model.apply(*event);
        daemon::apply(*event);
    }

    Shared& shared;
    bool isShown;
    std::string set;
    std::string root;
    Television television;
    Model model;
    Choose choose;
    std::vector<std::string> events;
};

Campaign::Campaign()
{
    for (const std::string& set : setNames()) {
        Places::write(directory / set, televisionOf(set));
    }
    void* const memory =
        mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) {
        throw std::system_error(errno, std::generic_category(), "mmap");
    }
    shared = static_cast<Shared*>(memory);
}

Campaign::~Campaign()
{
    munmap(shared, sizeof(Shared));
}

std::optional<Difference> Campaign::runSession(Session& session)
{
    shared->hasFailed = false;
    const pid_t child = ::fork();
    if (child == 0) {
        session.run();
    }
    if (Session::await(*shared, child)) {
        return std::nullopt;
    }
    return Difference{caseFrom(shared->run), shared->difference};
}

std::optional<Difference> Campaign::runRandom(uint64_t events, uint64_t seed)
{
    for (uint64_t round = 0; shared->events < events; ++round) {
        std::mt19937_64 random(seed * 1000003 + round);
        bool isParted = false;
        size_t length = 0;
        const std::string set = randomSet(random);
        Session session(*this, set, [&](Session& self) -> std::optional<std::string> {
            for (int sequence = 0; !isParted && sequence < kSequencesOfASet; ++sequence) {
                random.discard(1000);
                if (self.fork()) {
                    isParted = true;
                    length = 1 + random() % kLongest;
                }
            }
            if (self.length() >= length) {
                return std::nullopt;
            }
            return randomEvent(random);
        });
        if (const std::optional<Difference> difference = runSession(session)) {
            return difference;
        }
    }
    return std::nullopt;
}

std::optional<Difference> Campaign::runEvery(const Case& beginning, int depth, const common::Shard& shard)
{
    const size_t given = beginning.events.size();
    const std::vector<std::string>& few = fewEvents();
    size_t first = 0;
    Session session(*this, beginning.set, [&](Session& self) -> std::optional<std::string> {
        if (self.length() < given) {
            return beginning.events[self.length()];
        }
        if (self.length() < given + static_cast<size_t>(depth)) {
            // Beyond the second event all that follows is of the same part.
            const bool isSecond = self.length() == given + 1;
            std::vector<size_t> mine;
            for (size_t at = 0; at < few.size(); ++at) {
                if (!isSecond || shard.has(first * few.size() + at)) {
                    mine.push_back(at);
                }
            }
            for (const size_t at : mine) {
                if (at == mine.back() || self.fork()) { // the last one needs no copy
                    first = self.length() == given ? at : first;
                    return few[at];
                }
            }
        }
        return std::nullopt;
    });
    return runSession(session);
}

std::optional<Difference> Campaign::run(const Case& one)
{
    return runEvery(one, 0);
}

Difference Campaign::shrink(Difference found)
{
    const auto fails = [&](const Case& one) {
        const std::optional<Difference> again = run(one);
        if (again) {
            found = *again;
        }
        return again.has_value();
    };
    for (size_t size = std::max<size_t>(found.run.events.size() / 2, 1); size > 0; size /= 2) {
        for (size_t at = 0; at + size <= found.run.events.size();) {
            Case shorter = found.run;
            const auto first = shorter.events.begin() + static_cast<std::ptrdiff_t>(at);
            shorter.events.erase(first, first + static_cast<std::ptrdiff_t>(size));
            at += fails(shorter) ? 0 : 1;
        }
    }
    while (found.run.set.find('+') != std::string::npos) {
        Case plainer = found.run;
        plainer.set.resize(plainer.set.rfind('+'));
        if (!fails(plainer)) {
            break;
        }
    }
    return found;
}

Figures Campaign::figures() const
{
    return {shared->events, shared->sequences};
}

} // namespace proof
