// vset log and story: what was said in a set, and what it means.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <optional>

#include <unistd.h>

#include "common/json-text.h"
#include "common/visible-text.h"
#include "launcher/set-directory.h"
#include "platform-log.h"
#include "story/story-teller.h"
#include "vset/commands/commands.h"

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
    if (record.file.empty())
        return record.tag.empty() ? "-" : record.tag;
    const std::string name = record.file.substr(record.file.find_last_of('/') + 1);
    return name + ":" + std::to_string(record.line) + " " + record.function;
}

const char* colourOf(int priority)
{
    if (priority >= 6)
        return "\033[31m";
    return priority == 5 ? "\033[33m" : priority <= 3 ? "\033[2m" : "";
}

void printRecord(const LogRecord& record, bool isColoured)
{
    // The column grows with what came so far, so that the log stays aligned without knowing its end.
    static size_t placeWidth = 24;
    constexpr size_t kWidest = 56;
    const std::string place = common::visible(placeOf(record));
    placeWidth = std::min(kWidest, std::max(placeWidth, place.size()));

    std::string message = record.message;
    message.erase(message.find_last_not_of('\n') + 1);
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
    const char* const noColour = std::getenv("NO_COLOR");
    const bool isColoured = isatty(STDOUT_FILENO) != 0 && (noColour == nullptr || *noColour == '\0');
    LogReader reader(options.set + "/root" + kLogFile);
    const auto print = [&](const LogRecord& record) {
        if (!isWanted(record, options, lowest))
            return true;
        if (options.isJson)
            printRecordAsJson(record);
        else
            printRecord(record, isColoured);
        return true;
    };
    if (options.isFollowing) {
        reader.follow(print);
        return;
    }
    while (const auto record = reader.next())
        print(*record);
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
                   "Coloured on a terminal, unless NO_COLOR is set.\n"
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
};

void tellStory(const StoryOptions& options)
{
    LogReader reader(SetDirectory::open(options.set).root() / "var/log/platform.log");
    StoryTeller teller;
    // False when the story is over.
    const auto take = [&](const LogRecord& record) {
        const std::optional<std::string> line = teller.tell(record);
        if (!line) {
            return true;
        }
        std::printf("%s\n", common::visible(*line).c_str());
        std::fflush(stdout);
        return !(options.untilEnd && record.message == "service finalize");
    };
    while (options.onlyNew && reader.next()) {
    }
    if (options.isFollowing || options.untilEnd) {
        reader.follow(take);
        return;
    }
    while (const std::optional<LogRecord> record = reader.next()) {
        take(*record);
    }
}

} // namespace

void defineStory(common::CommandLine& command)
{
    const auto options = std::make_shared<StoryOptions>();
    takeSet(command, options->set);
    command.flag("-f,--follow", options->isFollowing, "Go on telling while it happens");
    command.flag("--until-end", options->untilEnd, "Go on, and stop when the daemon ends");
    command.flag("--new", options->onlyNew, "Leave out what has happened so far");
    command.footer("Seconds are the set's own, counted from the start of the daemon.\n"
                   "For the messages themselves see `vset log`.");
    command.onRun([options] { tellStory(*options); });
}

} // namespace vset
