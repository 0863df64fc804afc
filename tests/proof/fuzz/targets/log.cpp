// The set's log, which every program on the set writes to, as records, as the daemon's events and as a story.
#include <vector>

#include "common/daemon/daemon-events.h"
#include "common/terminal/visible-text.h"
#include "tests/proof/fuzz/target.h"
#include "vset/client/platform-log.h"
#include "vset/story/story-teller.h"

namespace
{

std::vector<vset::LogRecord> recordsIn(std::string_view text)
{
    std::vector<vset::LogRecord> records;
    for (size_t end = 0; (end = text.find('\n')) != std::string_view::npos; text.remove_prefix(end + 1)) {
        if (auto record = vset::parseLogLine(std::string(text.substr(0, end)))) {
            records.push_back(*record);
        }
    }
    return records;
}

std::vector<vset::LogRecord> recordsOf(vset::LogReader& reader)
{
    std::vector<vset::LogRecord> records;
    reader.takeAll([&](const vset::LogRecord& record) {
        records.push_back(record);
        return true;
    });
    return records;
}

void requireSame(const std::vector<vset::LogRecord>& read, const std::vector<vset::LogRecord>& expected)
{
    fuzz::require(read.size() == expected.size(), "every whole line is a record or none");
    for (size_t at = 0; at < read.size(); ++at) {
        fuzz::require(read[at].text == expected[at].text && read[at].time == expected[at].time,
                      "a record is its line");
    }
}

void run(std::string_view input)
{
    fuzz::Reader reader(input);
    const uint8_t latest = reader.byte();
    const std::string_view text = reader.rest();
    const std::string path = fuzz::fileWith("platform.log", text);
    vset::LogReader log(path);
    const std::vector<vset::LogRecord> records = recordsOf(log);
    requireSame(records, recordsIn(text));

    vset::LogReader end(path);
    end.skipToLatest(latest);
    fuzz::require(recordsOf(end).size() <= records.size(), "a log's end has no more than the log");

    vset::StoryTeller story;
    for (const vset::LogRecord& record : records) {
        const auto event = common::readDaemonEvent(record);
        fuzz::require(event.has_value() == common::isOfDaemon(record), "an event is of the daemon");
        fuzz::require(!common::priorityName(record.priority).empty(), "a priority has a name");
        common::isComplaint(record.message);
        const std::string line = common::visible(story.tell(record).value_or(""));
        fuzz::require(common::visible(line) == line, "a story's line is one line");
    }
}

const fuzz::Target target("log", run);

} // namespace
