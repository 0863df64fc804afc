#include "vset/television/set-power.h"

#include <csignal>
#include <system_error>
#include <utility>

#include "common/errors.h"
#include "common/files/whole-file.h"
#include "vset/television/set-life.h"

namespace vset
{

namespace
{

namespace fs = std::filesystem;
using tarnwick::TelevisionError;

// Of `vset run`, in the set's directory.
constexpr const char* kOutput = "vset.out";
constexpr const char* kNotes = "vset.err";

} // namespace

SetPower::SetPower(fs::path vset, fs::path set, bool isRootless)
    : vset_(std::move(vset)), set_(std::move(set)), isRootless_(isRootless)
{
}

// ---- On and off ----

void SetPower::start(const std::vector<std::string>& words, TakeLine takeLine)
{
    end();
    std::vector<std::string> all = {vset_, "run", set_};
    if (isRootless_) {
        all.emplace_back("-u");
    }
    all.insert(all.end(), words.begin(), words.end());
    // What an earlier time on has said and written down is no sign of this one.
    for (const char* file : {kOutput, kNotes, kLifeFile}) {
        fs::remove(set_ / file);
    }
    launcher_ = std::make_unique<Process>(all, set_ / kOutput, set_ / kNotes);
    takeLine_ = std::move(takeLine);
    output_ = std::ifstream(set_ / kOutput, std::ios::binary);
    unfinishedLine_.clear();
}

void SetPower::end()
{
    if (launcher_) {
        launcher_->closeInput();
        launcher_->signal(SIGTERM);
        launcher_->waitFor(kPatience, [this] { tellNews(); });
    }
    launcher_.reset();
}

void SetPower::cut()
{
    launcher_.reset(); // the kernel ends the set with its launcher
}

std::optional<int> SetPower::waitForEnd(std::chrono::milliseconds longest)
{
    const std::optional<int> status =
        launcher_ ? launcher_->waitFor(longest, [this] { look(); }) : std::nullopt;
    look(); // at what came last
    if (status && takeLine_ && !unfinishedLine_.empty()) {
        takeLine_(std::exchange(unfinishedLine_, ""));
    }
    return status;
}

std::string SetPower::notes() const
{
    std::string said = common::readWhole(set_ / kNotes);
    const std::optional<int> status =
        launcher_ ? launcher_->waitFor(std::chrono::milliseconds(0)) : std::nullopt;
    if (said.empty() && status && *status > 128) {
        return "vset was ended by signal " + std::to_string(*status - 128) + "\n";
    }
    return said;
}

// ---- In every wait ----

void SetPower::tellStory(TakeLine tell)
{
    tell_ = std::move(tell);
    std::error_code none;
    const auto told = fs::file_size(set_ / "root" / fs::path(kLogFile).relative_path(), none);
    log_ = none ? nullptr : std::make_unique<LogReader>(set_ / "root" / fs::path(kLogFile).relative_path());
    if (log_) {
        log_->skipTo(static_cast<int64_t>(told));
    }
}

void SetPower::look()
{
    tellNews();
    takeLines();
    if (watch_) {
        watch_();
    }
}

void SetPower::tellNews()
{
    if (!tell_ || !log_) {
        return;
    }
    log_->renew();
    while (const std::optional<LogRecord> record = log_->next()) {
        if (const std::optional<std::string> line = teller_.tell(*record)) {
            tell_(*line);
        }
    }
}

void SetPower::takeLines()
{
    if (!takeLine_) {
        return;
    }
    output_.clear(); // it may have grown
    for (std::string piece; std::getline(output_, piece);) {
        unfinishedLine_ += piece;
        if (!output_.eof()) {
            takeLine_(std::exchange(unfinishedLine_, ""));
        }
    }
}

// ---- What the set's end can come between ----

void SetPower::throwIfCut() const
{
    SetLife life;
    try {
        life = readLife(set_);
    } catch (const common::Failure& error) {
        throw TelevisionError(error.what());
    }
    if (!life.boots.empty() && life.boots.back().cut) {
        const PowerCut& cut = *life.boots.back().cut;
        throw tarnwick::PowerWasCut("the power was cut at write " + std::to_string(cut.write) + " (" +
                                    cut.call + " to " + cut.path + ")");
    }
}

void SetPower::failOnEnd(const std::string& what) const
{
    throwIfCut();
    throw TelevisionError("the set has ended before this: " + what + "\n" + notes());
}

void SetPower::fail(const std::string& why)
{
    // The platform goes first; its launcher knows a moment later that the whole set has gone.
    constexpr std::chrono::seconds kMoment{2};
    if (launcher_ && waitForEnd(kMoment)) {
        failOnEnd(why);
    }
    throw TelevisionError(why);
}

void SetPower::command(const std::vector<std::string>& words)
{
    std::vector<std::string> all = {vset_};
    all.insert(all.end(), words.begin(), words.end());
    const tarnwick::Output output = run(all, [this] { look(); });
    if (output.status != 0) {
        fail(output.errors);
    }
}

} // namespace vset
