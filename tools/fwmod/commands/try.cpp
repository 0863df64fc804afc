// fwmod try: the module alone on a virtual set, through the whole story of an update, and what is true then.
#include <algorithm>
#include <memory>
#include <unistd.h>

#include "common/daemon/daemon-events.h"
#include "common/json-text.h"
#include "common/process/interruption.h"
#include "common/terminal/terminal.h"
#include "common/terminal/visible-text.h"
#include "include/tarnwick/television.h"
#include "src/src/fw-update-symbol.h"
#include "tools/fwmod/commands/command.h"
#include "tools/fwmod/files.h"
#include "tools/fwmod/images/control-library.h"
#include "tools/fwmod/images/package.h"
#include "tools/fwmod/programs.h"
#include "vset/television/set-contents.h"

namespace fwmod
{

namespace fs = std::filesystem;

namespace
{
using EventKind = common::DaemonEventKind;
using std::chrono::steady_clock;
using tarnwick::PowerWasCut;
using tarnwick::Television;

constexpr unsigned int kMostWrites = 1'000'000'000;
constexpr unsigned int kGraceSeconds = 600; // after the daemon's start, in which a standby only ends it
constexpr double kPatience = 60;            // seconds
constexpr std::chrono::milliseconds kProgressPause(500);
// Where nothing is measured. At this pace a bus call still has five seconds of this PC's.
constexpr double kQuickRate = 5;

struct TryOptions {
    fs::path library;
    fs::path package;
    fs::path firmware;
    fs::path hardware;
    bool isAccepted = false;
    std::optional<unsigned int> powerCut;
    bool isRootless = false;
    bool isKept = false;
    bool isJson = false;
};

struct Proof {
    std::string text;
    bool isTrue;
};

// The library's turn in an update.
struct Write {
    std::string verdict = "not started"; // or unfinished, success, failure, time-out
    std::string reason;                  // the daemon's last complaint, or how it ended
    double duration = 0;                 // seconds of the set
};

struct Result {
    Json::Value before; // versions; null where they are not known
    Json::Value after;
    Json::Value offered;
    unsigned int expectedSeconds = 0; // 0: nobody says
    std::optional<Write> write;
    std::string cut; // where the power was cut
    std::vector<Proof> proofs;
    std::string problem; // why the story ended early

    bool isGood() const
    {
        bool isAllTrue = problem.empty() && !proofs.empty();
        for (const Proof& proof : proofs) {
            isAllTrue = isAllTrue && proof.isTrue;
        }
        return isAllTrue;
    }
};

Write readWrite(const std::vector<tarnwick::Message>& messages)
{
    Write write;
    int64_t start = 0;
    const auto end = [&](const char* verdict, const tarnwick::Message& message) {
        write.verdict = verdict;
        write.duration = static_cast<double>(message.time - start) / 1e6;
    };
    for (const tarnwick::Message& message : messages) {
        const EventKind kind = common::readDaemonMessage(message.text).kind;
        if (common::isComplaint(message.text)) {
            write.reason = common::withoutLineEnd(message.text);
        }
        if (kind == EventKind::kUpdateBegun) {
            write.verdict = "unfinished";
            start = message.time;
        } else if (kind == EventKind::kUpdateTimedOut) {
            end("time-out", message);
        } else if (write.verdict == "time-out") {
            continue; // what comes after it is lost
        } else if (kind == EventKind::kUpdateFailed) {
            end("failure", message);
        } else if (kind == EventKind::kUpdateSucceeded) {
            end("success", message);
        }
    }
    return write;
}

std::string textOf(const tarnwick::End& end)
{
    return end.isBySignal ? "tarnwick was ended by signal " + std::to_string(end.status - 128)
                          : "tarnwick ended with status " + std::to_string(end.status);
}

std::string textOf(const Json::Value& value)
{
    return value.isString() ? common::visible(value.asString()) : "unknown";
}

std::string oneDecimal(double value)
{
    char text[32];
    std::snprintf(text, sizeof text, "%.1f", value);
    return text;
}

// ---- Before a set is made ----

bool isExternal(const TryOptions& options)
{
    return isExternalName(options.library.stem());
}

// What the daemon would stumble over at once.
void checkLibrary(const TryOptions& options)
{
    if (options.library.extension() != ".so") {
        throw common::Failure("the daemon opens NAME.so only: rename " + common::shown(options.library));
    }
    const std::string problem = whyNotLoadable(options.library);
    if (!problem.empty()) {
        throw common::Failure(common::shown(options.library) + " cannot be loaded: " + problem);
    }
    const ControlLibrary library = readControlLibrary(options.library);
    for (const EntryPointState& entry : library.entryPoints) {
        if (entry.required && !entry.exported) {
            throw common::Failure(common::shown(options.library) + " does not export " + entry.name +
                                  ", which the daemon requires (\"fwmod inspect\" lists the entry points)");
        }
    }
}

void checkUse(const TryOptions& options)
{
    if (isExternal(options) && !options.package.empty()) {
        throw common::WrongUse(
            "an external module (EXT-) has no package: its library finds the image itself, for "
            "example with --firmware DIR in the system image");
    }
    if (isExternal(options) && options.isAccepted) {
        throw common::WrongUse(
            "an external module (EXT-) is never offered on the screen: leave --accept away");
    }
    if (!isExternal(options) && options.package.empty() && options.firmware.empty()) {
        throw common::WrongUse(
            "there is nothing to update from: give --package IMG, or --firmware DIR for an image "
            "in the system image");
    }
}

void checkRootless(const TryOptions& options)
{
    const bool isRootless = options.isRootless || geteuid() != 0;
    if (!isRootless || options.package.empty()) {
        return;
    }
    if (access("/dev/fuse", R_OK | W_OK) != 0) {
        throw common::Failure("without root a package is mounted through /dev/fuse, which cannot be used: "
                              "sudo chmod 0666 /dev/fuse, or run this as root");
    }
    if (access("/usr/bin/squashfuse", X_OK) != 0) {
        throw common::Failure(
            "without root a package is mounted with squashfuse: install squashfuse and fuse3, or run "
            "this as root");
    }
}

// ---- The trial ----

class Trial
{
public:
    explicit Trial(const TryOptions& options)
        : options_(options), name_(options.library.stem()), story_(options.isJson ? stderr : stdout)
    {
    }
    ~Trial();
    bool run(); // whether the module was updated, and everything is true

private:
    void makeSet();
    void fill();
    void tryModule();
    void tryExternalModule();

    void say(const std::string& text);
    void chapter(const std::string& title);
    void prove(const std::string& text, bool isTrue) { result_.proofs.push_back({text, isTrue}); }

    bool said(EventKind kind) const;
    bool hasReached(int state) const;
    bool isFoundPending();
    Json::Value examine();
    void checkNames(const Json::Value& module) const;
    void checkWay(const Json::Value& module) const;
    [[noreturn]] void failNotPending();
    void bootForTheFirstTime();
    void awaitDelivery(const Json::Value& module);

    void update();
    void updateAtStandby(const Json::Value& module);
    void updateOnScreen();
    void awaitWrite(const std::string& what, const std::function<bool()>& isOver);
    void showProgress();
    void proveNothingIsLeft();
    void tellCut(const PowerWasCut& cut);
    void surviveCut();
    [[noreturn]] void failUncut();
    void bootAfterwards();
    void updateDirectly(std::optional<unsigned int> powerCut);

    void report() const;
    Json::Value toJson() const;

    const TryOptions& options_;
    const std::string name_; // of the library
    std::FILE* const story_;
    const common::InterruptionWatch watch_; // also while the set is removed
    std::optional<ScratchDirectory> scratch_;
    std::optional<Television> set_;
    Result result_;
    bool hasRebooted_ = false; // by itself, after the update
    int shownProgress_ = 0;
    steady_clock::time_point nextProgress_;
};

Trial::~Trial()
{
    if (!set_) {
        return;
    }
    set_.reset();
    if (options_.isKept) {
        say("The set stays in " + scratch_->path().string());
    }
}

bool Trial::run()
{
    try {
        makeSet();
        fill();
        if (isExternal(options_)) {
            tryExternalModule();
        } else {
            tryModule();
        }
    } catch (const std::exception& error) {
        common::InterruptionWatch::check();
        result_.problem = error.what();
    }
    if (result_.write || !result_.before.isNull() || !result_.proofs.empty()) {
        report();
    }
    if (!result_.problem.empty()) {
        std::fprintf(stderr, "fwmod: %s\n", common::visibleLines(result_.problem).c_str());
    }
    if (options_.isJson) {
        std::puts(common::indentedJson(toJson()).c_str());
    }
    return result_.isGood();
}

void Trial::say(const std::string& text)
{
    std::fprintf(story_, "%s\n", text.c_str());
    std::fflush(story_);
}

void Trial::chapter(const std::string& title)
{
    const bool isBold = common::isColoured(fileno(story_));
    say(isBold ? "\n\033[1m" + title + "\033[0m" : "\n" + title);
}

void Trial::makeSet()
{
    const fs::path vset = vsetProgram();
    programBesideVset("platformd"); // a set goes without, but nothing of the story comes about then
    scratch_.emplace("fwmod-try-");
    requireRoomForSet(scratch_->path());
    set_.emplace(tarnwick::Making{vset, scratch_->path(), options_.isRootless});
    if (options_.isKept) {
        scratch_->keep();
        set_->keep();
    }
    set_->tellStory([this](const std::string& line) { say(common::visible(line)); });
    set_->watchWaits([this] {
        common::InterruptionWatch::check();
        if (std::ferror(story_) != 0) {
            throw common::Failure("the story cannot be written: its reader has gone, or the disk is full");
        }
    });
}

void Trial::fill()
{
    say("A virtual set for " + common::visible(name_) + " alone, in " +
        common::visible(set_->set().string()) + (options_.isKept ? "" : " until the end"));
    const bool isBuiltIn = !isExternal(options_) && options_.package.empty();
    set_->put(options_.library, isBuiltIn ? vset::inset::kSystemControls : vset::inset::kProductControls,
              name_ + ".so");
    if (!options_.package.empty()) {
        set_->put(options_.package, vset::inset::kFeed);
    }
    if (!options_.firmware.empty()) {
        set_->put(options_.firmware, vset::inset::kBuiltInFirmware,
                  fs::canonical(options_.firmware).filename());
    }
    if (!options_.hardware.empty()) {
        set_->putHardware(options_.hardware);
    }
}

void Trial::tryModule()
{
    if (!options_.package.empty()) {
        bootForTheFirstTime();
    }
    try {
        chapter(options_.package.empty() ? "The set is switched on" : "The set boots again");
        set_->switchOn(options_.powerCut);
        set_->setClockRate(kQuickRate);
        if (!isFoundPending()) {
            failNotPending();
        }
        update();
        if (options_.powerCut && result_.write->verdict == "success") {
            failUncut();
        }
    } catch (const PowerWasCut& cut) {
        tellCut(cut);
        surviveCut();
    }
    if (!result_.write || result_.write->verdict == "success") {
        bootAfterwards();
    }
}

// ---- What the daemon finds ----

bool Trial::said(EventKind kind) const
{
    const std::vector<tarnwick::Message> messages = set_->messagesOfBoot();
    return std::any_of(messages.begin(), messages.end(), [&](const tarnwick::Message& message) {
        return common::readDaemonMessage(message.text).kind == kind;
    });
}

bool Trial::hasReached(int state) const
{
    const std::vector<tarnwick::Message> messages = set_->messagesOfBoot();
    return std::any_of(messages.begin(), messages.end(), [&](const tarnwick::Message& message) {
        return common::showsState(message.text, state);
    });
}

// At a boot: waits until the daemon has decided, and says whether it stays for an update.
bool Trial::isFoundPending()
{
    set_->waitUntil([this] { return said(EventKind::kPending) || set_->daemonEnd(); },
                    "the daemon checks the module", kPatience);
    if (said(EventKind::kPending)) {
        return true;
    }
    if (const tarnwick::End end = *set_->daemonEnd(); end.status != 0) {
        throw common::Failure(textOf(end) + " while it loaded or asked the control library");
    }
    return false;
}

// The module as "fwctl why" sees it, with the daemon's own code.
Json::Value Trial::examine()
{
    const tarnwick::Output told = set_->execute({"fwctl", "why", "--json", "--", name_});
    const std::optional<Json::Value> modules = common::parseJson(told.text);
    if (!modules || !modules->isArray() || modules->empty()) {
        throw common::Failure("the module cannot be examined: " + told.errors);
    }
    const Json::Value& module = (*modules)[0];
    if (module.isMember("failure")) {
        throw common::Failure("the control library fails: " + module["failure"].asString());
    }
    if (module["kind"] == "unusable") {
        const Json::Value& messages = module["load_messages"]; // the last one tells what stopped the loading
        throw common::Failure("the daemon cannot use the control library" +
                              (messages.empty() ? "" : ": " + messages[messages.size() - 1].asString()));
    }
    return module;
}

// Names that the daemon derives from the library's identifier.
void Trial::checkNames(const Json::Value& module) const
{
    const std::string package = module["identifier"].asString() + ".img";
    if (!options_.package.empty() && options_.package.filename() != package) {
        throw common::Failure("the daemon asks for " + package + ", after the library's identifier: rename " +
                              options_.package.string());
    }
    const std::string firmware = module["firmware_name"].asString();
    const std::string directory =
        options_.firmware.empty() ? firmware : fs::canonical(options_.firmware).filename().string();
    if (directory != firmware) {
        throw common::Failure("the daemon looks for " + firmware + "/" + firmware +
                              ".bin in the system image: rename the directory " + options_.firmware.string());
    }
}

// Whether the update comes about in the way that was asked for.
void Trial::checkWay(const Json::Value& module) const
{
    const bool isOffered = module["ui_use"] != "none";
    if (options_.isAccepted && !isOffered) {
        throw common::Failure(
            "the information file says ui_use \"none\", so the screen never offers the update: leave "
            "--accept away, or write \"select\" or \"force\" (fwmod info --ui-use)");
    }
    if (!options_.isAccepted && module["pending_source"] == "system") {
        throw common::Failure(
            "an image in the system image is only written when the viewer accepts it: add --accept");
    }
}

void Trial::failNotPending()
{
    const Json::Value module = examine();
    checkNames(module);
    const bool isBlank = module["installed"].isNull() && options_.hardware.empty();
    throw common::Failure("the daemon finds nothing to update. \"fwctl why\" in the set says:\n" +
                          set_->execute({"fwctl", "why", "--", name_}).text +
                          (isBlank ? "Without --hardware the set's /var/lib/hardware is empty." : ""));
}

void Trial::bootForTheFirstTime()
{
    chapter("The set is switched on for the first time");
    set_->switchOn();
    set_->setClockRate(kQuickRate);
    isFoundPending(); // the image in the system image, or nothing: the package is not there yet
    const Json::Value module = examine();
    checkNames(module);
    awaitDelivery(module);
    set_->powerOff();
}

void Trial::awaitDelivery(const Json::Value& module)
{
    const std::string package = module["package"].asString();
    set_->waitUntil([&] { return set_->exists(package); }, "the package service delivers " + package,
                    kPatience);
    say("              The package service has put it in place: " + package);
}

// ---- The update ----

void Trial::update()
{
    const Json::Value module = examine();
    if (!module["pending"].asBool()) {
        failNotPending();
    }
    checkNames(module);
    checkWay(module);
    if (result_.before.isNull()) {
        result_.before = module["installed"];
    }
    for (const Json::Value& source : module["sources"]) {
        if (source["source"] == module["pending_source"]) {
            result_.offered = source["offered"];
        }
    }
    result_.expectedSeconds = module["expected_time"].asUInt();
    if (options_.isAccepted) {
        updateOnScreen();
    } else {
        updateAtStandby(module);
    }
}

void Trial::updateAtStandby(const Json::Value& module)
{
    const bool isOffered = module["ui_use"] != "none";
    if (isOffered) {
        say("              The viewer does not answer the offer.");
    }
    const auto isWaiting = [&] {
        return isOffered ? hasReached(FWSVC_UI_SHOWN) || hasReached(FWSVC_UI_CANCELLED)
                         : hasReached(FWSVC_MODULES_CHECKED);
    };
    set_->waitUntil(isWaiting, "the daemon waits for a standby", kPatience);
    set_->setClockRate(1);
    chapter("Ten minutes later (the set's clock jumps), the viewer presses the standby button");
    set_->jump(kGraceSeconds);
    set_->setPower(tarnwick::kStandby);
    awaitWrite("the daemon ends after the update", [this] { return set_->daemonEnd().has_value(); });
    const tarnwick::End end = *set_->daemonEnd();
    prove("the daemon ended with status 0", end.status == 0);
    if (end.status != 0) {
        result_.write->reason = textOf(end);
    }
    proveNothingIsLeft();
    prove("no power lock is held", set_->powerLocks() == 0);
}

void Trial::updateOnScreen()
{
    set_->waitUntil([this] { return set_->upgradeUiView() == "offer"; }, "the offer is on the screen",
                    kPatience);
    set_->setClockRate(1);
    chapter("The viewer accepts the update on the screen");
    set_->clickUpgradeUi("accept");
    awaitWrite("the upgrade UI tells the end of the update",
               [this] { return set_->upgradeUiView() == "finished"; });
    proveNothingIsLeft();
    if (result_.write->verdict != "success") {
        return; // the daemon asks for no reboot then
    }
    chapter("The viewer closes the message, and the set restarts");
    set_->setClockRate(kQuickRate);
    set_->clickUpgradeUi("close");
    // It would wait for a power lock.
    set_->waitUntil([this] { return set_->boots() > 1 && said(EventKind::kStarted); }, "the set reboots",
                    kPatience);
    hasRebooted_ = true;
}

void Trial::awaitWrite(const std::string& what, const std::function<bool()>& isOver)
{
    nextProgress_ = steady_clock::now() + kProgressPause;
    const auto isOverYet = [&] {
        if (isOver()) {
            return true;
        }
        showProgress();
        return false;
    };
    set_->waitUntil(isOverYet, what, kPatience + result_.expectedSeconds);
    result_.write = readWrite(set_->messagesOfBoot());
    const Write& write = *result_.write;
    prove("the daemon's verdict is success", write.verdict == "success");
    if (write.verdict == "success") {
        prove("the write fits into the expected time", write.duration <= result_.expectedSeconds);
    }
}

// What the library itself says in another process; for one that keeps its progress to itself, nothing.
void Trial::showProgress()
{
    if (steady_clock::now() < nextProgress_ || readWrite(set_->messagesOfBoot()).verdict != "unfinished") {
        return;
    }
    nextProgress_ = steady_clock::now() + kProgressPause;
    const int percent = set_->progress(name_).value_or(0);
    if (percent > shownProgress_) {
        shownProgress_ = percent;
        say("              " + common::visible(name_) + ": " + std::to_string(percent) +
            " % written, says its control library");
    }
}

void Trial::proveNothingIsLeft()
{
    prove("no package is left mounted", set_->loopMounts().empty());
    prove("the update list is gone", !set_->exists(vset::inset::kUpdateList));
}

// ---- Power cut ----

void Trial::tellCut(const PowerWasCut& cut)
{
    result_.cut = cut.what();
    result_.proofs.clear();
    say("              " + result_.cut);
}

void Trial::surviveCut()
{
    chapter("The power is back");
    set_->switchOn();
    set_->setClockRate(kQuickRate);
    const bool isPending = isFoundPending();
    const Json::Value version = examine()["installed"];
    say("              The hardware says version " + textOf(version) + ".");
    if (isPending) {
        prove("after the power cut the module was pending again", true);
        update();
        return;
    }
    if (version.isNull() || result_.before.isNull() || version == result_.before) {
        failNotPending();
    }
    say("              Nothing was missing any more: the new firmware is in place.");
    prove("after the power cut the new firmware was complete", true);
}

void Trial::failUncut()
{
    set_->powerOff();
    const unsigned int writes = set_->writes().value_or(0);
    const std::string asked = std::to_string(*options_.powerCut);
    if (writes == 0) {
        throw common::Failure(
            "the update made no write to hardware that can be seen from outside, so the power was "
            "not cut (stores into mapped memory are not seen)");
    }
    throw common::Failure("the update made only " + std::to_string(writes) +
                          " writes to hardware, so the power was not cut at write " + asked +
                          ": choose one from 1 to " + std::to_string(writes));
}

// ---- Afterwards ----

void Trial::bootAfterwards()
{
    if (!hasRebooted_) {
        if (set_->isOn()) {
            set_->setClockRate(kQuickRate); // its services take their leave for a second
        }
        set_->powerOff();
        chapter("The set is switched on again");
        set_->switchOn();
        set_->setClockRate(kQuickRate);
    }
    const bool isPending = isFoundPending();
    Json::Value module = examine();
    if (!options_.package.empty() && !isPending) { // the boot after this one would find it
        awaitDelivery(module);
        module = examine();
    }
    result_.after = module["installed"];
    prove("the hardware has another version than before", result_.after != result_.before);
    prove("nothing is pending any more", !isPending && !module["pending"].asBool());
}

// ---- External modules ----

void Trial::tryExternalModule()
{
    chapter("The set is switched on");
    set_->switchOn();
    set_->setClockRate(kQuickRate);
    isFoundPending();
    result_.before = examine()["installed"];
    set_->powerOff();
    chapter("A technician updates the module");
    say("The daemon leaves external modules out: \"fwctl update " + common::visible(name_) +
        "\" has the library do it.");
    try {
        updateDirectly(options_.powerCut);
        if (options_.powerCut && result_.write->verdict == "success") {
            failUncut();
        }
    } catch (const PowerWasCut& cut) {
        tellCut(cut);
        chapter("The power is back, and the technician tries again");
        updateDirectly(std::nullopt);
    }
    if (result_.write->verdict != "success") {
        return;
    }
    chapter("The set is switched on again");
    set_->switchOn();
    set_->setClockRate(kQuickRate);
    isFoundPending();
    result_.after = examine()["installed"];
    prove("the hardware has another version than before", result_.after != result_.before);
}

void Trial::updateDirectly(std::optional<unsigned int> powerCut)
{
    const auto start = steady_clock::now();
    const auto tellLine = [this](const std::string& line) { say("              " + common::visible(line)); };
    // What it complains of belongs to the story as well.
    const int status = set_->runAlone({"sh", "-c", "exec \"$@\" 2>&1", "sh", "fwctl", "update", "--", name_},
                                      {powerCut, 1.0, std::nullopt, tellLine});
    Write write;
    write.verdict = status == 0 ? "success" : "failure";
    write.duration = std::chrono::duration<double>(steady_clock::now() - start).count();
    result_.write = write;
    prove("fwctl says that it was updated", status == 0);
}

// ---- What is told at the end ----

void Trial::report() const
{
    std::fprintf(story_, "\nResult\n");
    std::fprintf(story_, "  %s: version %s before, %s offered, %s after\n", name_.c_str(),
                 textOf(result_.before).c_str(), textOf(result_.offered).c_str(),
                 textOf(result_.after).c_str());
    if (!result_.cut.empty()) {
        std::fprintf(story_, "  %s\n", result_.cut.c_str());
    }
    if (result_.write) {
        const std::string expected =
            result_.expectedSeconds > 0 ? " of the expected " + std::to_string(result_.expectedSeconds) + " s"
                                        : "";
        std::fprintf(story_, "  %s after %s s%s\n", result_.write->verdict.c_str(),
                     oneDecimal(result_.write->duration).c_str(), expected.c_str());
    }
    for (const Proof& proof : result_.proofs) {
        std::fprintf(story_, "  %s  %s\n", proof.isTrue ? "yes" : "NO ", proof.text.c_str());
    }
    const bool isExplained = !result_.write || result_.write->verdict == "success";
    if (!isExplained && !result_.write->reason.empty()) {
        std::fprintf(story_, "  the last complaint: %s\n", common::visible(result_.write->reason).c_str());
    }
    std::fprintf(story_, "%s\n", result_.isGood() ? "Updated, and all of it is true." : "Not good.");
    std::fflush(story_);
}

Json::Value Trial::toJson() const
{
    Json::Value json;
    json["module"] = name_;
    json["updated"] = result_.isGood();
    json["version_before"] = result_.before;
    json["version_after"] = result_.after;
    json["version_offered"] = result_.offered;
    json["expected_seconds"] =
        result_.expectedSeconds > 0 ? Json::Value(result_.expectedSeconds) : Json::Value();
    json["verdict"] = result_.write ? result_.write->verdict : "not started";
    json["seconds"] = result_.write ? Json::Value(result_.write->duration) : Json::Value();
    json["power_cut"] = result_.cut.empty() ? Json::Value() : Json::Value(result_.cut);
    json["facts"] = Json::arrayValue;
    for (const Proof& proof : result_.proofs) {
        Json::Value fact;
        fact["text"] = proof.text;
        fact["true"] = proof.isTrue;
        json["facts"].append(fact);
    }
    json["problem"] = result_.problem.empty() ? Json::Value() : Json::Value(result_.problem);
    json["set"] = options_.isKept && set_ ? Json::Value(set_->set().string()) : Json::Value();
    return json;
}

void checkFiles(const TryOptions& options)
{
    requireReadable(options.library);
    if (!options.package.empty()) {
        requireReadable(options.package);
        const Package readable(options.package); // throws, before a set is made for nothing
    }
    requireDirectory(options.firmware, "--firmware");
    requireDirectory(options.hardware, "--hardware");
    refuseTooMuchForSet(options.firmware);
    refuseTooMuchForSet(options.hardware);
}

int tryModule(const TryOptions& options)
{
    checkUse(options);
    checkFiles(options);
    checkLibrary(options);
    checkRootless(options);
    return Trial(options).run() ? 0 : 1;
}
} // namespace

void defineTry(common::CommandLine& command)
{
    auto options = std::make_shared<TryOptions>();
    command.path("LIB", options->library, "The control library, NAME.so").required();
    command.path("--package", options->package, "Its package, IDENTIFIER.img: the package service has it");
    command.path("--firmware", options->firmware,
                 "A directory of the system image: seen as /lib/firmware/ext/NAME, by its own name");
    command.path("--hardware", options->hardware, "What lies in /var/lib/hardware at the start");
    command.flag("--accept", options->isAccepted,
                 "The viewer accepts the update on the screen (default: it is done at standby)");
    command.number("--power-cut", options->powerCut, common::Range<unsigned int>{1, kMostWrites},
                   "Cut the power at the N-th write to hardware, and boot again");
    command.flag("-u,--rootless", options->isRootless, "As a plain user does it, although this is root");
    command.flag("--keep", options->isKept, "Leave the set's directory, for a look around");
    command.flag("--json", options->isJson, "Print the result as JSON; the story goes to standard error");
    command.footer(
        "The module alone on a virtual television: boot, check, update, and a boot afterwards, told as it\n"
        "happens. No root is needed; packages want a usable /dev/fuse then.\n"
        "An external module (EXT-) takes no part in the daemon's updates: fwctl has it updated.\n"
        "Exit status: 0 updated and everything is true, 1 not, 2 wrong use.\n"
        "Examples:\n"
        "  fwmod try tuner.so --package empTuner.img --hardware hardware\n"
        "  fwmod try panel.so --firmware Panel --hardware hardware --accept\n"
        "  fwmod try tuner.so --package empTuner.img --hardware hardware --power-cut 100");
    command.onRun([options] { return tryModule(*options); });
}
} // namespace fwmod
