#include "tools/fwctl/turn/daemon-activity.h"

#include <fstream>
#include <map>
#include <unistd.h>

#include "common/daemon/daemon-events.h"
#include "common/daemon/places.h"

namespace fwctl
{

namespace
{
constexpr std::streamoff kRead = 4L * 1024 * 1024; // of its end: far more than one update's messages

// The name of the firmware whose update is announced, else empty.
std::string updateAnnouncedIn(const std::string& message)
{
    const common::DaemonEvent event = common::readDaemonMessage(message);
    return event.kind == common::DaemonEventKind::kTurnWanted ? event.values[0] : "";
}

bool isAlive(pid_t process, pid_t thread)
{
    const std::string path = "/proc/" + std::to_string(process) + "/task/" + std::to_string(thread);
    return access(path.c_str(), F_OK) == 0;
}
} // namespace

DaemonActivity activityOf(pid_t process)
{
    DaemonActivity activity;
    std::ifstream log(common::places::kLogFile, std::ios::binary);
    log.seekg(0, std::ios::end);
    log.seekg(std::max<std::streamoff>(0, static_cast<std::streamoff>(log.tellg()) - kRead));
    std::map<pid_t, std::string> lastWords; // of each thread
    const std::string wanted = std::to_string(process);
    for (std::string line; std::getline(log, line);) {
        if (line.find(wanted) == std::string::npos) {
            continue;
        }
        const std::optional<common::LogRecord> record = common::parseLogLine(line);
        if (record && record->process == process) {
            lastWords[record->thread] = record->message;
        }
    }
    activity.isKnown = !lastWords.empty();
    for (const auto& [thread, words] : lastWords) {
        const std::string module = updateAnnouncedIn(words);
        if (!module.empty() && isAlive(process, thread)) {
            activity.updating.push_back({thread, module});
        }
    }
    return activity;
}

} // namespace fwctl
