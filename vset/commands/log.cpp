// vset log and story: what was said in a set, and what it means.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <unistd.h>

#include "common/json-text.h"
#include "common/terminal/terminal.h"
#include "common/terminal/visible-text.h"
#include "vset/client/platform-log.h"
#include "vset/client/set-lock.h"
#include "vset/commands/commands.h"
#include "vset/launcher/set-directory.h"
#include "vset/story/story-teller.h"
#include "vset/television/set-life.h"
#include "vset/television/set-watch.h"

namespace vset
{

// ---- Log ----

namespace
{

struct LogOptions {
    std::string set;
    bool isFollowing = false;
    bool isJson = false;
    std::string priority = "debug";
    std::string buffer = "system";
    std::string text;
};

// Of a word that the option takes; the last one is "error".
int priorityNumber(const std::string& word)
{
    int priority = 3;
    while (priority < 6 && word != priorityName(priority) && word != std::to_string(priority)) {
        ++priority;
    }
    return priority;
}

bool isWanted(const LogRecord& record, const LogOptions& options, int lowest)
{
    const bool isTrace = record.buffer == LogBuffer::Trace;
    const bool isOfBuffer = options.buffer == "both" || isTrace == (options.buffer == "trace");
    return isOfBuffer && record.priority >= lowest && record.text.find(options.text) != std::string::npos;
}

std::string placeOf(const LogRecord& record)
{
    if (record.file.empty()) {
        return record.tag.empty() ? "-" : record.tag;
    }
    const std::string name = record.file.substr(record.file.find_last_of('/') + 1);
    return name + ":" + std::to_string(record.line) + " " + record.function;
}

const char* colourOf(int priority)
{
    if (priority >= 6) {
        return "\033[31m";
    }
    return priority == 5 ? "\033[33m" : priority <= 3 ? "\033[2m" : "";
}

// Where the output is a full disk, or closed, nobody will read the rest. Its end is told by the program's.
bool isWritten()
{
    return std::ferror(stdout) == 0;
}

void printRecord(const LogRecord& record, bool isColoured)
{
    // The column grows with what came so far, so that the log stays aligned without knowing its end.
    static size_t placeWidth = 24;
    constexpr size_t kWidest = 56;
    const std::string place = common::visible(placeOf(record));
    placeWidth = std::min(kWidest, std::max(placeWidth, place.size()));

    const std::string_view message = common::withoutLineEnd(record.message);
    const std::string clock = record.time.size() >= 23 ? record.time.substr(11, 12) : record.time;
    std::printf("%s%s  %-7s  %s  %-*s  %s%s\n", isColoured ? colourOf(record.priority) : "",
                common::visible(clock).c_str(), priorityName(record.priority).c_str(),
                record.buffer == LogBuffer::Trace ? "trc" : "sys", static_cast<int>(placeWidth),
                place.c_str(), common::visible(message).c_str(), isColoured ? "\033[0m" : "");
    std::fflush(stdout);
}

void printRecordAsJson(const LogRecord& record)
{
    Json::Value json;
    json["time"] = record.time;
    json["buffer"] = record.buffer == LogBuffer::Trace ? "trace" : std::to_string(record.logId);
    json["priority"] = record.priority;
    json["tag"] = record.tag;
    json["pid"] = record.process;
    json["tid"] = record.thread;
    json["thread"] = record.threadName;
    json["file"] = record.file;
    json["function"] = record.function;
    json["line"] = record.line;
    json["message"] = record.message;
    std::printf("%s\n", common::compactJson(json).c_str());
    std::fflush(stdout);
}

void runLog(const LogOptions& options)
{
    const int lowest = priorityNumber(options.priority);
    const bool isColoured = common::isColoured(STDOUT_FILENO);
    LogReader reader(SetDirectory::open(options.set).root() / "var/log/platform.log");
    const auto print = [&](const LogRecord& record) {
        if (!isWanted(record, options, lowest)) {
            return true;
        }
        if (options.isJson) {
            printRecordAsJson(record);
        } else {
            printRecord(record, isColoured);
        }
        return isWritten();
    };
    if (options.isFollowing) {
        reader.follow(print);
    } else {
        reader.takeAll(print);
    }
}

} // namespace

void defineLog(common::CommandLine& command)
{
    const auto options = std::make_shared<LogOptions>();
    takeSet(command, options->set);
    command.flag("-f,--follow", options->isFollowing, "Go on as the log grows, until Ctrl-C");
    command.text("--priority", options->priority, "At least debug, info, warning or error (3 to 6)")
        .oneOf({"debug", "info", "warning", "error", "3", "4", "5", "6"});
    command.text("--buffer", options->buffer, "Which log: the platform's (system), the recorder's (trace)")
        .oneOf({"system", "trace", "both"});
    command.text("--grep", options->text, "Only records that contain this text");
    command.flag("--json", options->isJson, "One JSON object a line, for programs");
    command.footer("Columns: time (UTC of the set), priority, log, call location, message.\n"
                   "Coloured on a terminal that knows colours, unless NO_COLOR is set.\n"
                   "Example: vset log /tmp/tv -f --priority info --grep update");
    command.onRun([options] { runLog(*options); });
}

// ---- Story ----

namespace
{

struct StoryOptions {
    std::string set;
    bool isFollowing = false;
    bool untilEnd = false;
    bool onlyNew = false;
    std::optional<int> boot;
    std::string after;
    std::string until;
    std::optional<double> limit;

    bool hasEnd() const { return untilEnd || !until.empty(); }
};

// Whether a story is over without what it was to be told until: its daemon has ended in another way, its set
// has gone off, or it takes too long.
class StoryEnd
{
public:
    explicit StoryEnd(const StoryOptions& options) : set_(options.set), limit_(options.limit)
    {
        const SetLife life = readLife(set_);
        const bool isOver = options.onlyNew && !life.boots.empty() && life.boots.back().daemonEnded;
        boot_ = options.boot ? static_cast<size_t>(*options.boot)
                             : std::max<size_t>(life.boots.size() + (isOver ? 1 : 0), 1);
    }

    Wanted operator()()
    {
        wasOn_ = wasOn_ || isOn(set_);
        if (isLate()) {
            reason_ = "the limit has passed before that";
            return Wanted::kNoMore;
        }
        if (!wasOn_ && passed() > kToBeSwitchedOn) {
            reason_ = "the set is off: switch it on with `vset run " + common::inShell(set_.string()) + "`";
        } else if (const std::optional<Boot> ended = endedBoot()) {
            reason_ = "the " + std::string(nameOfMain(*ended)) + " has ended before that, with status " +
                      std::to_string(*ended->daemonEnded);
        } else if (wasOn_ && !isOn(set_)) {
            reason_ = "the set has gone off before that";
        }
        return reason_.empty() ? Wanted::kMore : Wanted::kWhatIsThere;
    }

    bool isLate() const { return limit_ && passed() > *limit_; }
    const std::string& reason() const { return reason_; }

private:
    static constexpr double kToBeSwitchedOn = 10; // seconds

    double passed() const
    {
        return std::chrono::duration<double>(std::chrono::steady_clock::now() - start_).count();
    }
    std::optional<Boot> endedBoot() const
    {
        const SetLife life = readLife(set_);
        const bool isIt = wasOn_ && life.boots.size() >= boot_ && life.boots.back().daemonEnded;
        return isIt ? std::optional(life.boots.back()) : std::nullopt;
    }

    std::filesystem::path set_;
    std::optional<double> limit_;
    std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
    size_t boot_ = 1; // whose story it is
    bool wasOn_ = false;
    std::string reason_;
};

// Tells what the options want of the records that it is given.
class StoryPart
{
public:
    explicit StoryPart(const StoryOptions& options) : options_(options), isTelling_(options.after.empty()) {}

    // False once the part has been told.
    bool take(const LogRecord& record)
    {
        const std::optional<std::string> line = teller_.tell(record); // knows what came before, too
        if (!common::isOfDaemon(record)) {
            return true;
        }
        if (!isTelling_) {
            isTelling_ = record.message.find(options_.after) != std::string::npos;
            return true;
        }
        if (line) {
            std::printf("%s\n", common::visible(*line).c_str());
            std::fflush(stdout);
        }
        isTold_ = (options_.untilEnd &&
                   common::readDaemonMessage(record.message).kind == common::DaemonEventKind::kEnding) ||
                  (!options_.until.empty() && record.message.find(options_.until) != std::string::npos);
        return !isTold_;
    }
    bool isTold() const { return isTold_; }

private:
    const StoryOptions& options_;
    StoryTeller teller_;
    bool isTelling_;
    bool isTold_ = false;
};

void skipToBoot(LogReader& reader, const StoryOptions& options)
{
    const auto limit = std::chrono::milliseconds(static_cast<int64_t>(options.limit.value_or(30) * 1000));
    waitFor(options.set, isUp(options.set, options.boot), limit);
    reader.skipTo(readLife(options.set).boots[static_cast<size_t>(*options.boot - 1)].logStart);
}

void tellStory(const StoryOptions& options)
{
    LogReader reader(SetDirectory::open(options.set).root() / "var/log/platform.log");
    StoryPart part(options);
    StoryEnd end(options); // its limit counts from here
    if (options.boot) {
        skipToBoot(reader, options);
    }
    if (options.onlyNew) {
        reader.skipToLatest(0);
    }
    const auto take = [&part](const LogRecord& record) { return part.take(record) && isWritten(); };
    if (options.hasEnd()) {
        reader.follow(take, [&end] { return end(); });
        if (!part.isTold() && isWritten()) {
            throw common::Failure(end.reason());
        }
    } else if (options.isFollowing || options.limit) {
        reader.follow(take, [&end] { return end.isLate() ? Wanted::kNoMore : Wanted::kMore; });
    } else {
        reader.takeAll(take);
    }
}

} // namespace

void defineStory(common::CommandLine& command)
{
    constexpr common::Range<int> kBoots{1, 1'000'000};
    constexpr common::Range<double> kLimit{0, 24 * 60 * 60};
    const auto options = std::make_shared<StoryOptions>();
    takeSet(command, options->set);
    command.flag("-f,--follow", options->isFollowing, "Go on telling while it happens");
    const common::Option untilEnd =
        command.flag("--until-end", options->untilEnd, "Go on, and stop when the daemon ends");
    command.text("--until", options->until, "Go on, and stop when the daemon has said this")
        .called("TEXT")
        .excludes(untilEnd);
    command.number("--limit", options->limit, kLimit, "Go on so long at most, of this PC's time").called("S");
    command.flag("--new", options->onlyNew, "Leave out what has happened so far");
    command.number("--boot", options->boot, kBoots, "From the N-th boot on since the set was switched on")
        .called("N");
    command.text("--after", options->after, "Leave out what came until the daemon said this").called("TEXT");
    command.footer("Seconds are the set's own, counted from the start of the daemon, or else from the first "
                   "sentence.\n"
                   "For the messages themselves see `vset log`.\n"
                   "Exit status with --until and --until-end: "
                   "1 when the daemon ended in another way, or its set did, before that.\n"
                   "Examples:\n"
                   "  vset story /tmp/tv -f\n"
                   "  vset story /tmp/tv --boot 2 --until \"update start\"\n"
                   "  vset story /tmp/tv --boot 2 --after \"update start\" --until-end");
    command.onRun([options] { tellStory(*options); });
}

} // namespace vset
