// platform-trial: one trial of tarnwick-platform-check, linked to the platform as the daemon is. It is
// started by the check, once for each trial, so that the platform's libraries start anew as they do in the
// daemon.
#include <algorithm>
#include <array>
#include <cerrno>
#include <clocale>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <gio/gio.h>
#include <iterator>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>
#include <utility>

#include "common/files/unique-fd.h"
#include "common/glib-pointers.h"
#include "common/process/guarded-buffer.h"
#include "common/terminal/command-line.h"
#include "platform/check/trials/trial.h"

namespace platformcheck
{

namespace
{

TrialPage* pageOfCrash = nullptr;

// The process is lost already; what counts is that the words get out.
void noteCrash(int signal, siginfo_t* information, void*)
{
    using common::GuardedBuffer;
    const bool isFault = information->si_code > 0;
    const auto hit = isFault ? GuardedBuffer::describeHit(information->si_addr, pageOfCrash->lastWords,
                                                          sizeof pageOfCrash->lastWords)
                             : GuardedBuffer::Hit::None;
    pageOfCrash->isArgumentTouched = hit != GuardedBuffer::Hit::None;
    std::signal(signal, SIG_DFL);
    if (!isFault) {
        raise(signal); // a fault comes again by itself
    }
}

void catchCrashes(TrialPage& page)
{
    static std::array<char, 64UL * 1024> stack;
    const stack_t other = {stack.data(), 0, stack.size()};
    sigaltstack(&other, nullptr);
    pageOfCrash = &page;
    struct sigaction action = {};
    action.sa_sigaction = noteCrash;
    action.sa_flags = SA_SIGINFO | SA_ONSTACK;
    for (const int signal : {SIGSEGV, SIGBUS}) {
        sigaction(signal, &action, nullptr);
    }
}

const TrialKind* trialNamed(const std::string& name)
{
    static const std::vector<TrialKind> all = [] {
        std::vector<TrialKind> kinds;
        for (const auto& room : {processTrials(), settingsTrials(), listenerTrials(), powerTrials(),
                                 serviceTrials(), mountTrials(), logTrials(), repeatTrials(), kindTrials()}) {
            kinds.insert(kinds.end(), room.begin(), room.end());
        }
        return kinds;
    }();
    const auto found =
        std::find_if(all.begin(), all.end(), [&](const TrialKind& kind) { return name == kind.name; });
    return found == all.end() ? nullptr : &*found;
}

// ---- What the whole process must keep ----

FindingId findingOf(common::ProcessChange::Kind kind)
{
    using Kind = common::ProcessChange::Kind;
    switch (kind) {
    case Kind::kDirectory:
        return FindingId::WorkingDirectory;
    case Kind::kLocale:
        return FindingId::Locale;
    case Kind::kEnvironment:
        return FindingId::Environment;
    case Kind::kFileModeMask:
        return FindingId::FileModeMask;
    case Kind::kTimer:
        return FindingId::TimerLeft;
    default:
        return FindingId::SignalHandling;
    }
}

// Descriptors of this program, as the daemon has its own: whoever closes what is not its own meets one of
// them.
class Sentinels
{
public:
    Sentinels()
    {
        bool isKept = false; // by a program that is executed
        for (common::UniqueFd& descriptor : descriptors_) {
            descriptor.reset(open("/dev/null", O_RDONLY | (isKept ? 0 : O_CLOEXEC)));
            isKept = !isKept;
        }
        for (std::size_t index = 0; index < descriptors_.size(); index += 3) {
            descriptors_[index].reset(); // with room between them
        }
        for (const int standard : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
            remember(standard);
        }
        for (const common::UniqueFd& descriptor : descriptors_) {
            remember(descriptor.get());
        }
    }

    // The first that is not as it was, in words; "" when there is none.
    std::string change() const
    {
        for (const auto& [number, before] : known_) {
            const State now = stateOf(number);
            const std::string name = "number " + std::to_string(number);
            if (now.file != before.file) {
                return name + (now.flags < 0 ? " is closed" : " leads to another file");
            }
            if (now.flags != before.flags || now.fileFlags != before.fileFlags) {
                return "the flags of " + name + " are others";
            }
        }
        return "";
    }

private:
    struct State {
        int flags = -1; // of the number; -1: it is closed
        int fileFlags = -1;
        std::pair<dev_t, ino_t> file;
    };

    static State stateOf(int number)
    {
        struct stat status = {};
        State state;
        if (fstat(number, &status) == 0) {
            state = {fcntl(number, F_GETFD), fcntl(number, F_GETFL), {status.st_dev, status.st_ino}};
        }
        return state;
    }
    void remember(int number)
    {
        const State state = stateOf(number);
        if (state.flags >= 0) {
            known_.emplace_back(number, state);
        }
    }

    std::array<common::UniqueFd, 24> descriptors_;
    std::vector<std::pair<int, State>> known_; // those that are nobody else's
};

// A timer of the process's own, far ahead.
class OwnTimer
{
public:
    OwnTimer()
    {
        const itimerval ahead = {{0, 0}, {kAhead, 0}};
        setitimer(ITIMER_REAL, &ahead, nullptr);
    }
    bool isKept() const
    {
        itimerval now = {};
        getitimer(ITIMER_REAL, &now);
        constexpr time_t kLongest = 600; // of a trial
        return now.it_value.tv_sec > kAhead - kLongest && now.it_value.tv_sec <= kAhead &&
               now.it_interval.tv_sec == 0;
    }

private:
    static constexpr time_t kAhead = 36000;
};

std::vector<int> handledSignals()
{
    std::vector<int> handled;
    for (int signal = 1; signal < SIGRTMIN; ++signal) {
        struct sigaction action = {};
        const bool isKnown = sigaction(signal, nullptr, &action) == 0;
        if (isKnown && action.sa_handler != SIG_DFL && action.sa_handler != SIG_IGN) {
            handled.push_back(signal);
        }
    }
    return handled;
}

// GLib ignores SIGPIPE when it makes its first socket, whoever asks for one.
bool hasGlibSocket()
{
    const GType type = g_type_from_name("GSocket");
    return type != 0 && g_type_class_peek(type) != nullptr;
}

// By what is loaded, and not by who has started this process.
unsigned int ignoredByLoading(const TrialOptions& options)
{
    const unsigned int ignored = ignoredSignals() & ~options.ignored;
    return hasGlibSocket() ? ignored & ~(1U << (SIGPIPE - 1)) : ignored;
}

// What a process has before main() without any library: this one has it from the check that has started it,
// and from exec.
void judgeStart(Trial& trial, const std::vector<int>& handled, unsigned int ignored)
{
    for (int signal = 1; signal < 32; ++signal) {
        trial.require((ignored >> (signal - 1) & 1U) == 0, FindingId::SignalHandling,
                      common::signalName(signal) + " is ignored before main(), by loading");
    }
    trial.require(std::string(setlocale(LC_ALL, nullptr)) == "C", FindingId::Locale,
                  std::string("before main(), by loading: ") + setlocale(LC_ALL, nullptr));
    for (const int signal : handled) {
        trial.found(FindingId::SignalHandling,
                    common::signalName(signal) + " has a handler before main(), by loading");
    }
    for (const auto which : {ITIMER_REAL, ITIMER_VIRTUAL, ITIMER_PROF}) {
        itimerval timer = {};
        getitimer(which, &timer);
        trial.require(timer.it_value.tv_sec == 0 && timer.it_value.tv_usec == 0, FindingId::TimerLeft,
                      "before main(), by loading");
    }
    std::error_code unreadable;
    const auto directory = [&](const std::string& process) {
        return std::filesystem::read_symlink("/proc/" + process + "/cwd", unreadable);
    };
    const std::filesystem::path others = directory(std::to_string(getppid()));
    trial.require(unreadable || directory("self") == others, FindingId::WorkingDirectory,
                  "before main(), by loading: " + directory("self").string());
    const mode_t mask = umask(0);
    umask(mask);
    trial.require(mask == trial.options().mask, FindingId::FileModeMask, "before main(), by loading");
}

void judgeProcess(Trial& trial, const common::ProcessState& before, const Sentinels& sentinels,
                  const OwnTimer& timer)
{
    using Kind = common::ProcessChange::Kind;
    for (const common::ProcessChange& change : before.changesIn(common::ProcessState::now())) {
        if (change.kind != Kind::kThread && change.kind != Kind::kProcess) { // a library may have its own
            trial.found(findingOf(change.kind), change.seen);
        }
    }
    trial.require(g_main_context_get_thread_default() == nullptr, FindingId::ContextLeft,
                  "the calling thread has another default main context than before");
    const std::string change = sentinels.change();
    trial.require(change.empty(), FindingId::DescriptorClosed, change);
    trial.require(timer.isKept(), FindingId::TimerLeft, "the process's own is gone, or another one");
}

// What of the daemon's waits for its main loop would be called in the middle of a call.
Trial* trialOfLoop = nullptr;

gboolean prepareProbe(GSource*, gint* timeout)
{
    *timeout = -1;
    if (Trial::isInsideCall()) {
        trialOfLoop->found(FindingId::LoopInsideCall, Trial::callUnderWay());
    }
    return FALSE;
}

void watchMainLoop(Trial& trial)
{
    static GSourceFuncs probe = {prepareProbe, nullptr, nullptr, nullptr, nullptr, nullptr};
    trialOfLoop = &trial;
    GSource* const source = g_source_new(&probe, sizeof(GSource));
    g_source_attach(source, nullptr);
    g_source_unref(source);
}

int runTrial(const std::string& name, const TrialOptions& options)
{
    const SharedPage page = openPage(options.page);
    const TrialKind* const kind = trialNamed(name);
    if (kind == nullptr) {
        throw common::WrongUse("there is no trial \"" + name + "\"");
    }
    const std::vector<int> handled = handledSignals();
    const unsigned int ignored = ignoredByLoading(options);
    page->isStarted = true;
    catchCrashes(*page);
    // What the daemon itself does with GLib has its own effects, on SIGPIPE for one.
    const common::GlibPointer<GDBusConnection> bus(g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, nullptr));
    if (bus != nullptr) {
        g_dbus_connection_set_exit_on_close(bus.get(), FALSE);
    }
    static Trial trial(*page, options); // for threads that end with the process
    watchMainLoop(trial);
    if (name == "load") {
        judgeStart(trial, handled, ignored);
    }
    const OwnTimer timer;
    const Sentinels sentinels;
    const common::ProcessState before = common::ProcessState::now();
    kind->run(trial);
    judgeProcess(trial, before, sentinels, timer);
    trial.require(bus == nullptr || g_dbus_connection_is_closed(bus.get()) == FALSE,
                  FindingId::ConnectionLost, "the process's connection is closed");
    trial.judgeTimes();
    page->isDone = true;
    std::fflush(nullptr);
    _exit(0); // libraries may have threads at work: nothing is torn down beside them
}

} // namespace

} // namespace platformcheck

int main(int argc, char** argv)
{
    using namespace platformcheck;
    common::CommandLine program("platform-trial", "One trial of tarnwick-platform-check, which starts it.");
    std::string name;
    TrialOptions options;
    bool isLogTextUnjudged = false;
    program.text("NAME", name, "The trial").required();
    program.path("--page", options.page, "Where it is told what is found").required();
    program.path("--work", options.work, "A directory to work in").required();
    program.path("--image", options.image, "The image to mount");
    program.path("--content", options.content, "What the image's file \"content\" holds");
    program.path("--other", options.other, "A second image");
    program.path("--other-content", options.otherContent, "What its file \"content\" holds");
    program.path("--directory", options.directory, "Where it is mounted");
    program.text("--package", options.package, "The package to ask for");
    program.text("--application", options.application, "The application that answers");
    program.number("--token", options.token, common::Range<unsigned int>{0, 999999999}, "The check's number");
    program.number("--seconds", options.seconds, common::Range<unsigned int>{0, 3600},
                   "To wait for a person");
    program.number("--mask", options.mask, common::Range<unsigned int>{0, 0777},
                   "The file mode mask at its start");
    program.number("--ignored", options.ignored, common::Range<unsigned int>{0, 0x7fffffff},
                   "The signals that are ignored at its start, by bits");
    program.flag("--no-log-text", isLogTextUnjudged, "Leave the texts of the logs alone");
    program.flag("--again", options.isAgain, "The trial was made before");
    program.onRun([&] {
        options.isLogTextJudged = !isLogTextUnjudged;
        return runTrial(name, options);
    });
    return program.main(argc, argv);
}
