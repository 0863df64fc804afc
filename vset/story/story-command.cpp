#include "story-command.h"

#include "../launcher/set-directory.h"
#include "story-teller.h"

#include <cstdio>
#include <optional>
#include <string>

namespace vset
{

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
        StoryTeller teller;
        // False when the story is over.
        const auto take = [&teller](const LogRecord& record) {
            const std::optional<std::string> line = teller.tell(record);
            if (!line)
                return true;
            std::printf("%s\n", line->c_str());
            std::fflush(stdout);
            return !(untilEnd && record.message == "service finalize");
        };
        while (onlyNew && reader.next()) {
        }
        if (follow || untilEnd) {
            reader.follow(take);
            return;
        }
        while (const std::optional<LogRecord> record = reader.next())
            take(*record);
    });
}

} // namespace vset
