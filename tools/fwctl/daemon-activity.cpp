#include "tools/fwctl/daemon-activity.h"

#include <fstream>
#include <map>
#include <sstream>
#include <unistd.h>

namespace fwctl
{

namespace
{
constexpr const char* kLog = "/var/log/platform.log";
constexpr std::streamoff kRead = 4 * 1024 * 1024; // of its end: far more than one update's messages

// Fields of a line, separated by tabs.
constexpr std::size_t kProcess = 4;
constexpr std::size_t kThread = 5;
constexpr std::size_t kMessage = 10;

std::vector<std::string> fieldsOf(const std::string& line)
{
    std::vector<std::string> fields;
    std::istringstream in(line);
    for (std::string field; std::getline(in, field, '\t');) {
        fields.push_back(field);
    }
    return fields;
}

// The firmware's name in "file: function(line) > NAME update time SECONDS sec", else empty.
std::string updateAnnouncedIn(const std::string& message)
{
    constexpr const char* kWords = " update time ";
    const std::size_t place = message.find(" > ");
    const std::size_t begin = place == std::string::npos ? 0 : place + 3;
    const std::size_t words = message.find(kWords, begin);
    const std::size_t end = message.find(" sec", begin);
    const bool isAnnounced = words != std::string::npos && end != std::string::npos && end > words;
    return isAnnounced ? message.substr(begin, words - begin) : "";
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
    std::ifstream log(kLog, std::ios::binary);
    log.seekg(0, std::ios::end);
    log.seekg(std::max<std::streamoff>(0, static_cast<std::streamoff>(log.tellg()) - kRead));
    std::map<pid_t, std::string> lastWords; // of each thread
    const std::string wanted = std::to_string(process);
    for (std::string line; std::getline(log, line);) {
        if (line.find(wanted) == std::string::npos) {
            continue;
        }
        const std::vector<std::string> fields = fieldsOf(line);
        if (fields.size() > kMessage && fields[kProcess] == wanted) {
            lastWords[std::atoi(fields[kThread].c_str())] = fields[kMessage];
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
