#include "tests/proof/crashes/lane.h"

#include <algorithm>
#include <chrono>
#include <set>
#include <utility>

#include "common/daemon/daemon-events.h"
#include "common/daemon/places.h"
#include "common/files/file-copy.h"
#include "common/files/whole-file.h"
#include "common/json-text.h"
#include "tests/proof/chips.h"
#include "tests/proof/left-over.h"
#include "vset/client/control-client.h"
#include "vset/clock/clock-file.h"

namespace proof
{

namespace
{

namespace fs = std::filesystem;
using tarnwick::Television;

const fs::path kLibraries = EXAMPLE_LIBRARIES;
constexpr const char* kWatchedDaemon = WATCHED_DAEMON;

using common::places::kLogFile;
using common::places::kPackages;
constexpr const char* kPending = "need update item, wait ui or bg fw update";
constexpr const char* kFirstLine = "start work (";

// An update of some blocks then takes milliseconds, and the time-outs of the daemon are seconds of this
// machine still.
constexpr double kFastClock = 50;
// A tick of the state machine that comes before a thread has started repeats what it does: with an offer, the
// ticks stay far apart.
constexpr double kOfferClock = 5;
constexpr double kLongestLock = 3600; // seconds on the set's clock
constexpr int kReboot = 13;           // the daemon's state in which it asks for one
constexpr double kPatience = 20;      // seconds of this machine, for what comes at once unless it never comes

struct Hit {
}; // out of any wait

// As the daemon of a set is, with a program in its place that lets it be watched.
void putWatchedDaemon(const fs::path& set)
{
    const fs::path real = set / "usr" / fs::path(kRealDaemon).lexically_relative("/usr");
    fs::create_directories(real.parent_path());
    fs::rename(set / "usr/bin/tarnwick", real);
    fs::copy_file(kWatchedDaemon, set / "usr/bin/tarnwick");
}

std::string textOf(const tarnwick::End& end)
{
    return end.isBySignal ? "signal " + std::to_string(end.status - 128)
                          : "status " + std::to_string(end.status);
}

} // namespace

const std::vector<CrashPromise>& crashPromises()
{
    static const std::vector<CrashPromise> all = {
        {"firmware", "every chip has the old firmware or the new one, complete, wherever it is hit"},
        {"offered", "by the second boot the chip has the offered version"},
        {"rest", "the next boots come to rest: the daemon ends with status 0"},
        {"exit", "a daemon whose call has failed ends with status 0, or when the set is switched off"},
        {"killed", "the locks of a daemon that was killed are released"},
        {"doctor", "fwctl doctor names what was left, and nothing else, and mends it"},
        {"left",
         "the next boots leave no mount of a written package, no list, no lock, and the semaphore at 1"},
        {"files", "no half file is left, neither among the packages nor with the hardware"},
        {"message", "the daemon says nothing but its own texts"},
    };
    return all;
}

Lane::Lane(const fs::path& directory) : tv(tarnwick::Making{VSET_PROGRAM, directory})
{
    putWatchedDaemon(tv.set());
    tv.putLibrary(kLibraries / "tuner.so");
    tv.putLibrary(kLibraries / "EXT-soundbar.so");
    tv.putLibrary(kLibraries / "panel.so", Television::Controls::kSystem);
}

void Lane::breach(const char* promise, const std::string& text)
{
    outcome.breaches.push_back({promise, text});
    told(std::string("NOT SO, ") + promise + ": " + text);
}

void Lane::told(const std::string& text) const
{
    if (tell) {
        tell(text);
    }
}

// ---- A run ----

CrashOutcome Lane::run(const CrashStory& itsStory, const std::optional<Point>& itsPoint, bool isItExamined,
                       const std::function<void(const std::string&)>& itsTell)
{
    story = &itsStory;
    point = itsPoint;
    isExamined = isItExamined;
    tell = itsTell;
    clockRate = story->source == CrashStory::Source::kBuiltIn ? kOfferClock : kFastClock;
    if (!runOnce()) {
        clockRate = 1; // this machine may have been too busy for that pace
        told("again, at the real pace");
        runOnce();
        outcome.isMadeAgain = true;
    }
    return outcome;
}

// False when the set has not come to rest.
bool Lane::runOnce()
{
    outcome = {};
    try {
        prepare();
        hitBoot();
        recover();
        return true;
    } catch (const std::exception& error) {
        breach("rest", error.what());
        tv.cutPower();
        return false;
    }
}

void Lane::quicken(std::optional<double> jump) const
{
    vset::ClockFile(tv.set() / ".vset/clock", vset::ClockFile::Opening::kExisting).change({clockRate, jump});
}

void Lane::prepare()
{
    using Source = CrashStory::Source;
    const fs::path root = tv.set() / "root";
    for (const fs::path& directory : {root / "var/lib/platform", root / "var/lib/hardware", root / "srv/feed",
                                      root / "var/log", root / "opt/usr/apps/appbinarymanager/emps"}) {
        for (const auto& entry : fs::directory_iterator(directory)) {
            fs::remove_all(entry);
        }
    }
    for (const auto& entry : fs::directory_iterator(tv.outside(kPackages))) {
        if (entry.path().filename() != "emps") {
            fs::remove_all(entry);
        }
    }
    for (const std::string& chip : chips()) {
        tv.putHardware(chipImages() / "1.0/hardware" / chip);
    }
    tv.putFirmware(chipImages() / (story->source == Source::kBuiltIn ? "1.1" : "1.0") / "Panel");
    if (story->source != Source::kBuiltIn) {
        tv.putPackage(chipImages() / "1.1" / (std::string("emp") + story->firmware + ".img"),
                      story->source == Source::kFeed ? Television::Package::kFeed
                                                     : Television::Package::kDelivered);
    }
}

bool Lane::said(const std::string& text) const
{
    return common::readWhole(tv.outside(kLogFile)).find(text) != std::string::npos;
}

// From the power switch to the daemon's end. Throws Hit when the guard has stopped it before.
void Lane::live(CallGuard* guard)
{
    fs::remove(tv.outside(kLogFile));
    tv.watchWaits([guard] {
        if (guard != nullptr && guard->hasHit()) {
            throw Hit();
        }
    });
    tv.switchOn();
    if (story->source != CrashStory::Source::kFeed || guard == nullptr) {
        quicken();
    }
    playToRest(guard);
}

void Lane::playToRest(CallGuard* guard)
{
    const bool isBuiltIn = story->source == CrashStory::Source::kBuiltIn;
    if (isBuiltIn) {
        tv.answerUpgradeUi("accept", 100);
    }
    tv.waitUntil([&] { return isAtRest() || said(kPending); }, "the check ends", kPatience);
    if (isAtRest() && guard != nullptr) {
        waitForDelivery();
    }
    if (!isBuiltIn && !isAtRest()) {
        // By the main loop, which runs once the daemon hears of the power.
        tv.waitUntil([&] { return isAtRest() || said("Expected Time Check Done"); }, "the offers are counted",
                     kPatience);
        quicken(600.0);
        tv.setPower(tarnwick::kStandby);
    }
    tv.waitUntil([&] { return isAtRest(); }, "the daemon ends", kPatience);
    told("the daemon ended: " + textOf(*tv.daemonEnd()) + ", in boot " + std::to_string(tv.boots()));
}

void Lane::waitForDelivery()
{
    if (story->source == CrashStory::Source::kFeed && said("Request (empTuner) emp download")) {
        const std::string package = std::string(kPackages) + "/empTuner.img";
        tv.waitUntil([&] { return tv.exists(package); }, "the package is delivered", kPatience);
    }
}

void Lane::hitBoot()
{
    const bool isFailing = point && point->fault == FaultKind::kFailing;
    CallGuard guard(tv.set(), point);
    try {
        live(isFailing ? nullptr : &guard);
    } catch (const Hit&) {
        tv.watchWaits({});
        afterHit(guard);
        return;
    } catch (const tarnwick::TelevisionError& error) {
        if (!isFailing) {
            throw;
        }
        told(error.what());
    }
    outcome.isHit = guard.hasHit();
    if (isFailing) {
        judgeFailing();
    } else {
        judgeEnd();
    }
    judgeMessages();
    tv.switchOff();
    guard.finish();
    outcome.calls = guard.calls();
    judgeFirmware("after the boot in which it happened");
}

void Lane::afterHit(CallGuard& guard)
{
    outcome.isHit = true;
    if (point->isCut()) {
        tv.cutPower();
        guard.finish();
        told("the power is cut");
        if (point->fault != FaultKind::kCut) {
            guard.loseUnflushed(point->fault == FaultKind::kTorn);
        }
    } else {
        tv.waitUntil([&] { return isAtRest(); }, "the daemon is gone", kPatience);
        told("the daemon is killed");
        judgeKilled();
        tv.switchOff();
        guard.finish();
    }
    judgeFirmware("at that moment");
}

void Lane::recover()
{
    for (int boot = 1; boot <= 2; ++boot) {
        told("boot " + std::to_string(boot) + " after it");
        live(nullptr);
        judgeMessages();
        judgeFirmware("after a boot");
        if (versionOn(tv, story->chip) == "1.1") {
            judgeEnd();
            tv.switchOff();
            return;
        }
        waitForDelivery(); // which on a busy machine takes longer than the daemon's check
        tv.switchOff();
    }
    breach("offered", "two boots later the chip has not got version 1.1");
}

// ---- What is there ----

// ---- What must be so ----

void Lane::judgeFirmware(const char* when)
{
    for (const std::string& chip : chips()) {
        const std::string damage = damageOn(tv, chip);
        if (!damage.empty()) {
            breach("firmware", std::string(when).append(" ").append(chip).append(" has ").append(damage));
        }
    }
}

void Lane::judgeKilled()
{
    if (hasAskedForReboot()) { // the set goes off, and all that was held in it is gone
        return;
    }
    LeftOver left = leftOverIn(tv);
    for (int look = 0; left.locks > 0 && look < 100; ++look) { // the platform hears of the end from the bus
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        left = leftOverIn(tv);
    }
    if (left.locks > 0) {
        breach("killed", std::to_string(left.locks) + " power locks are still held");
    }
    if (isExamined) {
        judgeDoctor(left, "after the daemon was killed");
        judgeMended();
    }
}

bool Lane::hasAskedForReboot() const
{
    const std::vector<tarnwick::Message> messages = tv.messages();
    return std::any_of(messages.begin(), messages.end(), [](const tarnwick::Message& message) {
        return common::showsState(message.text, kReboot);
    });
}

bool Lane::isSubscribed(const char* event) const
{
    const Json::Value subscribers = vset::ControlClient::ofSet(tv.set()).snapshot()["subscribers"];
    return std::any_of(subscribers.begin(), subscribers.end(),
                       [&](const Json::Value& each) { return each["event"] == event; });
}

void Lane::judgeFailing()
{
    if (!isAtRest()) {
        clockRate = 1; // the set leaves its programs a second to react
        const bool isTold = isSubscribed("poweroff");
        // The lock of a daemon that has lost the bus keeps the set on until its time is over.
        quicken(isTold ? std::nullopt : std::optional(kLongestLock));
        tv.powerOff(); // what ends every service that hears of it
        if (!said("service finalize")) {
            breach("exit", std::string("the daemon has not ended, not even when the set was switched off") +
                               (isTold ? "" : ", of which it had no event"));
        }
        return;
    }
    const tarnwick::End end = *tv.daemonEnd();
    if (end.status != 0) {
        // The loader says why with status 127; a signal with no word is the one of its own first page.
        const bool isLoaders =
            !said(kFirstLine) && (end.isBySignal ? tv.daemonOutput().empty() : end.status == 127);
        breach("exit", "the daemon ended with " + textOf(end) + (isLoaders ? " in its loader: " : ": ") +
                           tv.daemonOutput());
        return;
    }
    const LeftOver left = leftOverIn(tv);
    if (!left.isAsAfterAnEnd()) {
        breach("exit", "it ended with " + left.text());
    }
}

void Lane::judgeEnd()
{
    const tarnwick::End end = *tv.daemonEnd();
    if (end.status != 0) {
        breach("rest", "the daemon of a later boot ended with " + textOf(end));
    }
    const LeftOver left = leftOverIn(tv);
    const bool isWritten = said(std::string("[ ") + story->firmware + " update succeeded ]");
    // A check mounts a package, and leaves it so; a write takes it away.
    const std::size_t most = isWritten ? 0 : 1;
    if (left.mounts.size() > most) {
        breach("left", std::to_string(left.mounts.size()) + " mounts, not " + std::to_string(most));
    }
    if (!left.isAsAfterAnEnd()) {
        breach("left", left.text());
    }
    if (isExamined) {
        judgeDoctor(left, "after the next boots");
    }
    judgeFiles();
}

// At the real pace: of the ten seconds that it gives a library, a fifth of one would be left at the other.
tarnwick::Output Lane::runDoctor(const char* option)
{
    const double before = std::exchange(clockRate, 1);
    quicken();
    tarnwick::Output output = tv.execute({"fwctl", "doctor", option});
    clockRate = before;
    quicken();
    return output;
}

void Lane::judgeDoctor(LeftOver left, const char* when)
{
    tarnwick::Output output = runDoctor("--json");
    // The mount service may still have been at work for a daemon that is gone.
    for (LeftOver now = leftOverIn(tv); now.mounts != left.mounts; now = leftOverIn(tv)) {
        left = now;
        output = runDoctor("--json");
    }
    const auto findings = common::parseJson(output.text);
    if (!findings) {
        breach("doctor", std::string(when) + " it says: " + output.text + output.errors);
        return;
    }
    std::multiset<std::string> ids;
    for (const Json::Value& finding : *findings) {
        if (!finding["note"].asBool()) {
            ids.insert(finding["id"].asString());
        }
    }
    std::multiset<std::string> expected;
    for (std::size_t mount = 0; mount < left.mounts.size(); ++mount) {
        expected.insert("stale-mount");
    }
    if (left.semaphore == 0) {
        expected.insert("stuck-semaphore");
    }
    if (left.isListThere) {
        expected.insert("orphaned-list");
    }
    const auto joined = [](const std::multiset<std::string>& all) {
        std::string text;
        for (const std::string& each : all) {
            text += " " + each;
        }
        return text.empty() ? " nothing" : text;
    };
    if (ids != expected) {
        breach("doctor",
               std::string(when) + " it finds" + joined(ids) + " where there is" + joined(expected));
    }
}

void Lane::judgeMended()
{
    const tarnwick::Output output = runDoctor("--fix");
    const LeftOver left = leftOverIn(tv);
    if (!left.mounts.empty() || left.semaphore != 1 || left.isListThere) {
        breach("doctor", "--fix has not mended it: " + output.text + output.errors);
    }
}

void Lane::judgeFiles()
{
    const auto isExpected = [](const fs::path& path) {
        const std::string name = path.filename();
        const bool isBeingDelivered = name.rfind(".unfinished-", 0) == 0; // or removed at the next start
        return name == "empTuner.img" || name == "emps" || isBeingDelivered ||
               std::find(chips().begin(), chips().end(), name) != chips().end();
    };
    for (const char* directory : {kPackages, common::places::kHardware}) {
        for (const auto& entry : fs::directory_iterator(tv.outside(directory))) {
            if (!isExpected(entry.path())) {
                breach("files", std::string(directory) + " has " + entry.path().filename().string());
            }
        }
    }
}

void Lane::judgeMessages()
{
    for (const tarnwick::Message& message : tv.messages()) {
        if (!common::isDaemonText(message.text)) {
            breach("message", message.text);
        }
    }
}

} // namespace proof
