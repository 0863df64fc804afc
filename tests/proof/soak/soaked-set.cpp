#include "tests/proof/soak/soaked-set.h"

#include <algorithm>
#include <chrono>
#include <fstream>
#include <thread>
#include <utility>

#include "common/daemon/daemon-events.h"
#include "common/daemon/places.h"
#include "tests/proof/chips.h"
#include "tests/proof/left-over.h"
#include "vset/client/platform-log.h"
#include "vset/clock/clock-file.h"

namespace proof
{

namespace
{

namespace fs = std::filesystem;
using tarnwick::Television;

const fs::path kLibraries = EXAMPLE_LIBRARIES;
using common::places::kPackages;
constexpr const char* kPending = "need update item, wait ui or bg fw update";

constexpr double kFastClock = 50;
// A tick of the state machine that comes before a thread has started repeats what it does.
constexpr double kOfferClock = 5;
constexpr double kPatience = 30; // seconds of this machine, for what comes at once unless it never comes

template <typename Condition>
bool comesTrue(const Condition& condition, double limit = kPatience)
{
    const auto end = std::chrono::steady_clock::now() + std::chrono::duration<double>(limit);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > end) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return true;
}

bool isAsSteady(const std::map<std::string, ServiceState>& now,
                const std::map<std::string, ServiceState>& before)
{
    return std::equal(now.begin(), now.end(), before.begin(), before.end(),
                      [](const auto& one, const auto& other) {
                          return one.first == other.first && one.second.processes == other.second.processes &&
                                 one.second.descriptors <= other.second.descriptors;
                      });
}

std::string describe(const ServiceState& state)
{
    return std::to_string(state.processes) + " processes with " + std::to_string(state.descriptors) +
           " descriptors";
}

void changeClock(const Television& tv, double rate, std::optional<double> jump = std::nullopt)
{
    vset::ClockFile(tv.set() / ".vset/clock", vset::ClockFile::Opening::kExisting).change({rate, jump});
}

} // namespace

SoakedSet::SoakedSet(const fs::path& directory, Way way)
    : tv_(tarnwick::Making{VSET_PROGRAM, directory}), way_(way)
{
    tv_.putLibrary(kLibraries / "tuner.so");
    tv_.putFirmware(chipImages() / "1.0/Panel");
    tv_.switchOnAlone();
    // Kept over reboots, and not after the boot that offers: on a busy machine the offer may be there first.
    tv_.answerUpgradeUi("accept", 100);
    if (way_ == Way::kServices) {
        ++figures_.boots;
        openConsole();
    } else {
        tv_.switchOff();
    }
}

std::string SoakedSet::textOf(const SoakPlan& plan)
{
    std::string text = plan.offer == SoakPlan::Offer::kNothing   ? "nothing offered"
                       : plan.offer == SoakPlan::Offer::kStandby ? "a package, at standby"
                                                                 : "an offer that is accepted";
    for (const std::string& module : plan.modules) {
        text += ", with " + module;
    }
    if (plan.fault) {
        text += std::string(", ") + plan.fault->call + " gives " + std::to_string(plan.fault->result) + " " +
                std::to_string(plan.fault->count) + " times";
    }
    if (plan.killedAfter) {
        text += ", the daemon killed after " + std::to_string(*plan.killedAfter) + " ms";
    }
    return text;
}

std::vector<std::string> SoakedSet::live(const SoakPlan& plan)
{
    breaches_.clear();
    try {
        prepare(plan);
        play(plan);
        judge(plan);
    } catch (const std::exception& error) {
        breach(error.what());
    }
    return breaches_;
}

// ---- A cycle ----

void SoakedSet::prepare(const SoakPlan& plan)
{
    for (const auto& [module, file] :
         {std::pair("panel", "panel.so"), std::pair("soundbar", "EXT-soundbar.so")}) {
        if (std::count(plan.modules.begin(), plan.modules.end(), module) > 0) {
            tv_.putLibrary(kLibraries / file);
        } else {
            fs::remove(tv_.outside(std::string(common::places::kProductControls) + "/" + file));
        }
    }
    for (const std::string& chip : chips()) {
        tv_.putHardware(chipImages() / "1.0/hardware" / chip);
    }
    const bool isAccepted = plan.offer == SoakPlan::Offer::kAccept;
    tv_.putFirmware(chipImages() / (isAccepted ? "1.1" : "1.0") / "Panel");
    fs::remove(tv_.outside(std::string(kPackages) + "/empTuner.img"));
    if (plan.offer == SoakPlan::Offer::kStandby) {
        tv_.putPackage(chipImages() / "1.1/empTuner.img", Television::Package::kDelivered);
    }
}

// In this cycle.
bool SoakedSet::said(const std::string& text) const
{
    return tv_.read(vset::kLogFile).find(text) != std::string::npos;
}

void SoakedSet::start()
{
    if (figures_.boots > 0) {
        tv_.clearLog();
    }
    if (way_ == Way::kServices) {
        tv_.setPower(tarnwick::kNormal);
        tv_.startDaemon();
        return;
    }
    closeConsole();
    if (figures_.boots == 0) {
        tv_.switchOn();
    } else {
        const int boot = tv_.boots();
        tv_.reboot();
        tv_.waitForBoot(boot + 1);
    }
    ++figures_.boots;
    openConsole();
}

void SoakedSet::play(const SoakPlan& plan)
{
    if (plan.fault) {
        tv_.setFault(plan.fault->call, plan.fault->result, plan.fault->count);
        ++figures_.faults;
    }
    start();
    changeClock(tv_, plan.offer == SoakPlan::Offer::kAccept ? kOfferClock : kFastClock);
    if (plan.killedAfter) {
        killAfter(*plan.killedAfter);
    } else {
        playToRest(plan);
    }
}

void SoakedSet::killAfter(unsigned int milliseconds)
{
    // Before its first words it may not be there yet.
    comesTrue([&] { return isAtRest() || said("start work"); });
    std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds));
    comesTrue([&] {
        if (isAtRest()) {
            return true;
        }
        try {
            tv_.killDaemon();
            ++figures_.kills;
            return true;
        } catch (const tarnwick::TelevisionError&) {
            return false; // it has just ended, or is still about to start
        }
    });
}

void SoakedSet::playToRest(const SoakPlan& plan)
{
    const auto hasCome = [&] { return isAtRest() || said(kPending); };
    if (!comesTrue(hasCome) && !plan.fault) {
        breach("the check has not ended");
    }
    if (plan.offer != SoakPlan::Offer::kAccept && !isAtRest()) {
        comesTrue([&] { return isAtRest() || said("Expected Time Check Done"); }, plan.fault ? 1 : kPatience);
        changeClock(tv_, kFastClock, 600.0);
        tv_.setPower(tarnwick::kStandby);
    }
    if (!comesTrue([&] { return isAtRest(); })) {
        breach("the daemon does not end");
        tv_.killDaemon();
    }
}

bool SoakedSet::isAtRest()
{
    return !tv_.daemonRuns();
}

void SoakedSet::openConsole()
{
    std::string url;
    comesTrue([&] {
        std::ifstream file(insideSet(tv_, "/root/run/console.url"));
        return static_cast<bool>(std::getline(file, url));
    });
    console_ = std::make_unique<ConsoleClient>(url);
    messagesBefore_ = 0;
    if (!comesTrue([&] { return console_->messages() > 0; })) {
        breach("the console tells its page nothing");
    }
}

void SoakedSet::closeConsole()
{
    countMessages();
    console_.reset();
    messagesBefore_ = 0;
}

// ---- What must be so ----

void SoakedSet::judge(const SoakPlan& plan)
{
    judgeEnd(plan);
    judgeLeftOver(plan);
    judgeServices();
    const bool isLeftToTheReboot = plan.killedAfter && way_ == Way::kTelevision;
    if (!isLeftToTheReboot) {
        judgeFiles();
    }
    countMessages();
}

void SoakedSet::judgeEnd(const SoakPlan& plan)
{
    for (const std::string& chip : chips()) {
        const std::string damage = damageOn(tv_, chip);
        if (!damage.empty()) {
            breach(std::string(chip).append(" has ").append(damage));
        }
    }
    const char* const chip = plan.offer == SoakPlan::Offer::kAccept ? "panel" : "tuner";
    const bool isUpdated = versionOn(tv_, chip) == "1.1";
    figures_.updates += isUpdated ? 1 : 0;
    if (plan.offer != SoakPlan::Offer::kNothing && !plan.hasTrouble() && !isUpdated) {
        breach(std::string(chip) + " has not got version 1.1");
    }
    for (const tarnwick::Message& message : tv_.messages()) {
        if (!common::isDaemonText(message.text)) {
            breach("the daemon says " + message.text);
        }
    }
    const int status = tv_.waitForDaemon();
    if (status != 0 && !plan.killedAfter) {
        breach("the daemon ended with status " + std::to_string(status));
    }
}

void SoakedSet::judgeLeftOver(const SoakPlan& plan)
{
    if (plan.hasTrouble() && way_ == Way::kServices) {
        tv_.resetFaults();
        tv_.execute({"fwctl", "doctor", "--fix"}); // as a technician would, who does not reboot the set
    }
    LeftOver left = leftOverIn(tv_);
    comesTrue([&] { return (left = leftOverIn(tv_)).locks == 0; },
              5); // the platform hears of a kill from the bus
    if (plan.killedAfter && way_ == Way::kTelevision) {
        return; // the next cycle's reboot clears the rest
    }
    if (!left.isAsAfterAnEnd()) {
        breach("there is left: " + left.text());
    }
    if (!left.mounts.empty()) {
        breach(std::to_string(left.mounts.size()) + " mounts are left");
    }
    if (loopDevicesOf(tv_) != left.mounts.size()) {
        breach("loop devices are left");
    }
    if (fs::exists(tv_.outside(std::string(kPackages) + "/empTuner.img")) && !plan.hasTrouble()) {
        breach("the package is left");
    }
}

void SoakedSet::judgeServices()
{
    if (way_ == Way::kServices && !console_->isOpen()) {
        breach("the console has closed its page");
    }
    // What is on its way to its end gets there, and a service is done with what it was just asked.
    std::map<std::string, ServiceState> services = servicesOf(tv_);
    comesTrue([&] {
        const std::map<std::string, ServiceState> before = std::exchange(services, servicesOf(tv_));
        return isAsSteady(services, services_ ? *services_ : before);
    });
    if (!services_) {
        services_ = services;
    }
    for (const auto& [name, state] : services) {
        const ServiceState before = services_->count(name) > 0 ? services_->at(name) : ServiceState{};
        if (state.descriptors > before.descriptors || state.processes > before.processes) {
            breach(name + ": " + describe(state) + ", and after the first cycle " + describe(before));
        }
    }
    for (const auto& [name, state] : services) {
        memory_[name].take(static_cast<double>(state.memory));
    }
}

void SoakedSet::judgeFiles()
{
    constexpr std::size_t kCyclesThatDiffer = 10;
    fs::remove(tv_.outside(std::string(kPackages) + "/empTuner.img"));
    ++cycles_;
    for (const std::string& file : filesOf(tv_)) {
        if (files_.insert(file).second && cycles_ > kCyclesThatDiffer) {
            breach("there is a file that was not there before: " + file);
        }
    }
}

void SoakedSet::countMessages()
{
    const std::uint64_t now = console_ ? console_->messages() : 0;
    figures_.messages += now - messagesBefore_;
    messagesBefore_ = now;
}

} // namespace proof
