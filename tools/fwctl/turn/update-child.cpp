#include "tools/fwctl/turn/update-child.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

#include "common/daemon/daemon-events.h"
#include "common/process/pipe.h"
#include "common/terminal/progress-line.h"
#include "common/terminal/visible-text.h"
#include "tools/fwctl/commands/command.h"
#include "tools/fwctl/modules/mounts.h"
#include "tools/fwctl/output.h"
#include "tools/fwctl/privileges.h"
#include "tools/fwctl/turn/power-lock.h"

namespace fwctl
{

namespace
{
constexpr const char* kTurnWanted = "turn_wanted";
constexpr const char* kRefused = "refused";
constexpr const char* kMounted = "mounted";

using Mounts = std::vector<std::string>; // before the update

void unmountAll(const std::set<std::string>& directories)
{
    for (const std::string& directory : directories) {
        unmount(directory); // what stays is for doctor to find
    }
}

// The parent is the one that answers Ctrl-C. No signal must cut off what is written, neither here nor in a
// program that the library has started.
void heedNoSignal()
{
    for (const int signal : {SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGTTOU}) {
        std::signal(signal, SIG_IGN);
    }
}

// The turn goes back however the work ends, and no mount stays: the parent may be gone.
struct Settling {
    UpdateTurn& turn;
    const UpdateLink& link;
    const Mounts& before;
    ~Settling()
    {
        unmountAll(mountsSince(before, link.mounted()));
        turn.settle();
    }
};

void runInChild(const std::function<void(UpdateLink&)>& work, Telling& telling, UpdateTurn& turn,
                common::Pipe& permission, uid_t user, const Mounts& before)
{
    permission.writing.reset(); // else our own end would keep us waiting when the parent has ended
    heedNoSignal();
    UpdateLink link(telling, turn, permission.reading.get());
    const Settling settling{turn, link, before};
    try {
        becomeUser(user);
        prepareUpdateSemaphore();
        work(link);
    } catch (const common::CommandError& error) {
        Json::Value refused;
        refused["status"] = error.status();
        refused["text"] = error.what();
        telling.put(kRefused, refused);
    }
}

// The parent's end.
class Supervisor
{
public:
    explicit Supervisor(const std::function<void(UpdateLink&)>& work);
    Json::Value run();

private:
    void take(const Json::Value& part);
    void sayAboveProgress(const std::string& line);
    void tryToGiveTurn();
    void completeOutcomes(const std::string& failure);
    void unmountLeft();

    uid_t user_;
    UpdateTurn turn_;
    Mounts before_ = packageMountPoints();
    std::set<std::string> mounted_;
    common::Pipe permission_ = common::makePipe();
    Child child_;
    TurnWait wait_;
    common::ProgressLine line_;
    Json::Value told_{Json::objectValue};
    bool isTurnWanted_ = false;
};

Supervisor::Supervisor(const std::function<void(UpdateLink&)>& work)
    : user_(requireUpdater()), turn_(user_),
      child_(
          [this, &work](Telling& telling) { runInChild(work, telling, turn_, permission_, user_, before_); },
          Child::Orphaned::kGoesOn, [this](const std::string& line) { sayAboveProgress("fwctl: " + line); })
{
    permission_.reading.reset();
}

void Supervisor::sayAboveProgress(const std::string& line)
{
    line_.clear();
    std::fprintf(stderr, "%s\n", common::visible(line).c_str());
}

void Supervisor::take(const Json::Value& part)
{
    if (part.isMember("say")) {
        sayAboveProgress(part["say"].asString());
    } else if (part.isMember("progress")) {
        line_.show(part["progress"][0].asString(), part["progress"][1].asUInt());
    } else if (part.isMember("power")) {
        constexpr uint32_t kToTellMs = 5000; // the new versions are asked for, too
        keepPowerUntilEnd(part["power"].asUInt() + kToTellMs);
    } else if (part.isMember(kMounted)) {
        mounted_.insert(part[kMounted].asString());
    } else if (part.isMember(kTurnWanted)) {
        isTurnWanted_ = true;
        tryToGiveTurn();
    } else {
        for (const std::string& name : part.getMemberNames()) {
            told_[name] = part[name];
        }
    }
}

void Supervisor::tryToGiveTurn()
{
    if (!isTurnWanted_) {
        return;
    }
    if (!turn_.tryToTake(child_.process())) {
        wait_.tell();
        return;
    }
    isTurnWanted_ = false;
    const char byte = 1;
    const ssize_t written = write(permission_.writing.get(), &byte, 1);
    static_cast<void>(written); // a child that has ended is noticed anyway, and the turn given back
}

void Supervisor::completeOutcomes(const std::string& failure)
{
    for (Json::Value& outcome : told_["outcomes"]) {
        if (outcome["result"] == "started") {
            outcome["result"] = "failed";
            outcome["reason"] = failure;
        }
    }
}

// What a child that crashed has left. In a process of its own: this one stays without the bus, see
// isolated.h.
void Supervisor::unmountLeft()
{
    const std::set<std::string> left = mountsSince(before_, mounted_);
    if (!left.empty()) {
        runIsolated([&](Telling&) { unmountAll(left); });
    }
}

Json::Value Supervisor::run()
{
    const std::string failure =
        child_.wait([this](const Json::Value& part) { take(part); }, [this] { tryToGiveTurn(); });
    unmountLeft();
    turn_.settle();
    line_.finish();
    if (child_.leftBehind() > 0) {
        complain(leftBehindText(child_.leftBehind()));
    }
    if (told_.isMember(kRefused)) {
        throw common::CommandError(told_[kRefused]["status"].asInt(), told_[kRefused]["text"].asString());
    }
    if (!failure.empty()) {
        told_["failure"] = failure;
        told_["culprit"] = child_.culprit();
        completeOutcomes(failure);
    }
    return told_;
}
} // namespace

void UpdateLink::tellProgress(const std::string& module, unsigned int percent)
{
    Json::Value progress(Json::arrayValue);
    progress.append(module);
    progress.append(percent);
    telling_.put("progress", progress);
}

void UpdateLink::noteDaemonMessage(const std::string& message)
{
    const common::DaemonEvent event = common::readDaemonMessage(message);
    if (event.kind == common::DaemonEventKind::kMounted) {
        const std::lock_guard<std::mutex> lock(mutex_);
        mounted_.insert(event.values[2]);
        telling_.put(kMounted, event.values[2]);
    }
}

std::set<std::string> UpdateLink::mounted() const
{
    const std::lock_guard<std::mutex> lock(mutex_);
    return mounted_;
}

void UpdateLink::takeTurn()
{
    telling_.put(kTurnWanted, true);
    char byte = 0;
    ssize_t count = 0;
    do {
        count = read(permission_, &byte, 1);
    } while (count < 0 && errno == EINTR);
    if (count == 1) {
        return;
    }
    turn_.settle(); // the parent may have taken it, and been killed before it could say so
    _exit(1);
}

Json::Value runUpdate(const std::function<void(UpdateLink&)>& work)
{
    return Supervisor(work).run();
}

} // namespace fwctl
