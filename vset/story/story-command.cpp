#include "story-command.h"

#include "../client/platform-log.h"
#include "../launcher/set-directory.h"
#include "narrator.h"

#include <cstdio>
#include <ctime>
#include <optional>
#include <string>

namespace vset
{

namespace
{

// Seconds since 1970 of a record's time, with its fraction; nothing when the text is no time.
std::optional<double> secondsOf(const std::string& time)
{
    std::tm parts{};
    double fraction = 0;
    const char* rest = strptime(time.c_str(), "%Y-%m-%dT%H:%M:%S", &parts);
    if (rest == nullptr)
        return std::nullopt;
    std::sscanf(rest, "%lf", &fraction);
    return static_cast<double>(timegm(&parts)) + fraction;
}

class StoryTeller
{
public:
    explicit StoryTeller(bool untilEnd) : untilEnd_(untilEnd) {}

    // False when the story is over.
    bool take(const LogRecord& record)
    {
        if (record.buffer != LogBuffer::System || record.tag != "FWUPDATE")
            return true;
        const std::string sentence = narrator_.tell(record.message);
        const std::optional<double> now = secondsOf(record.time);
        if (sentence.empty() || !now)
            return true;
        if (record.message == "service initialize") // every start of the daemon counts from 0
            start_ = *now;
        std::printf("%8.1f s  %s\n", *now - start_, sentence.c_str());
        std::fflush(stdout);
        return !(untilEnd_ && record.message == "service finalize");
    }

private:
    Narrator narrator_;
    bool untilEnd_;
    double start_ = 0;
};

} // namespace

void addStoryCommand(CLI::App& app)
{
    auto* command = app.add_subcommand("story", "Tell what the daemon did, in sentences");
    static std::string set;
    static bool follow = false;
    static bool untilEnd = false;
    static bool onlyNew = false;
    command->add_option("SET", set, "Directory of the set")->required();
    command->add_flag("-f,--follow", follow, "Go on telling while it happens");
    command->add_flag("--until-end", untilEnd, "Go on, and stop when the daemon ends");
    command->add_flag("--new", onlyNew, "Leave out what has happened so far");
    command->footer("Seconds are the set's own, counted from the start of the daemon.\n"
                    "For the messages themselves see `vset log`.");
    command->callback([] {
        LogReader reader(SetDirectory::open(set).root() / "var/log/platform.log");
        StoryTeller teller(untilEnd);
        while (onlyNew && reader.next()) {
        }
        if (follow || untilEnd) {
            reader.follow([&](const LogRecord& record) { return teller.take(record); });
            return;
        }
        while (const std::optional<LogRecord> record = reader.next())
            teller.take(*record);
    });
}

} // namespace vset
