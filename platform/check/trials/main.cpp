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
#include <unistd.h>

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
    pageOfCrash->isArgumentTouched = hit == GuardedBuffer::Hit::Guard || hit == GuardedBuffer::Hit::Stale;
    std::signal(signal, SIG_DFL);
    if (!isFault) {
        raise(signal); // a fault comes again by itself
    }
}

void catchCrashes(TrialPage& page)
{
    static std::array<char, 64 * 1024> stack;
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
        for (const auto& room : {processTrials(), settingsTrials(), powerTrials(), serviceTrials(),
                                 mountTrials(), logTrials(), repeatTrials()}) {
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
        for (common::UniqueFd& descriptor : descriptors_) {
            descriptor.reset(open("/dev/null", O_RDONLY | O_CLOEXEC));
        }
        for (std::size_t index = 0; index < descriptors_.size(); index += 2) {
            descriptors_[index].reset(); // with room between them
        }
    }
    // The first that is gone or another; -1 when there is none.
    int firstLost() const
    {
        struct stat null = {};
        struct stat held = {};
        stat("/dev/null", &null);
        for (const common::UniqueFd& descriptor : descriptors_) {
            if (descriptor.get() >= 0 &&
                (fstat(descriptor.get(), &held) != 0 || held.st_rdev != null.st_rdev)) {
                return descriptor.get();
            }
        }
        for (const int standard : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
            if (fcntl(standard, F_GETFD) < 0) {
                return standard;
            }
        }
        return -1;
    }

private:
    std::array<common::UniqueFd, 24> descriptors_;
};

void judgeProcess(Trial& trial, const common::ProcessState& before, const Sentinels& sentinels)
{
    using Kind = common::ProcessChange::Kind;
    for (const common::ProcessChange& change : before.changesIn(common::ProcessState::now())) {
        if (change.kind != Kind::kThread && change.kind != Kind::kProcess) { // a library may have its own
            trial.found(findingOf(change.kind), change.seen);
        }
    }
    trial.require(g_main_context_get_thread_default() == nullptr, FindingId::ContextLeft,
                  "the calling thread has another default main context than before");
    const int lost = sentinels.firstLost();
    trial.require(lost < 0, FindingId::DescriptorClosed, "number " + std::to_string(lost));
}

int runTrial(const std::string& name, const TrialOptions& options)
{
    const SharedPage page = openPage(options.page);
    const TrialKind* const kind = trialNamed(name);
    if (kind == nullptr) {
        throw common::WrongUse("there is no trial \"" + name + "\"");
    }
    page->isStarted = true;
    catchCrashes(*page);
    // What the daemon itself does with GLib has its own effects, on SIGPIPE for one.
    const common::GlibPointer<GDBusConnection> bus(g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, nullptr));
    if (bus != nullptr) {
        g_dbus_connection_set_exit_on_close(bus.get(), FALSE);
    }
    Trial trial(*page, options);
    const Sentinels sentinels;
    const common::ProcessState before = common::ProcessState::now();
    kind->run(trial);
    judgeProcess(trial, before, sentinels);
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
    program.number("--token", options.token, common::Range<unsigned int>{0, 999999999}, "The check's number");
    program.number("--seconds", options.seconds, common::Range<unsigned int>{0, 3600},
                   "To wait for a person");
    program.flag("--no-log-text", isLogTextUnjudged, "Leave the texts of the logs alone");
    program.onRun([&] {
        options.isLogTextJudged = !isLogTextUnjudged;
        return runTrial(name, options);
    });
    return program.main(argc, argv);
}
