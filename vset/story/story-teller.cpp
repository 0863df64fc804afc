#include "vset/story/story-teller.h"

#include <cstdio>
#include <ctime>

namespace vset
{

std::optional<double> secondsOf(const LogRecord& record)
{
    std::tm parts{};
    double fraction = 0;
    const char* rest = strptime(record.time.c_str(), "%Y-%m-%dT%H:%M:%S", &parts);
    if (rest == nullptr) {
        return std::nullopt;
    }
    std::sscanf(rest, "%lf", &fraction);
    return static_cast<double>(timegm(&parts)) + fraction;
}

std::optional<std::string> StoryTeller::tell(const LogRecord& record)
{
    const std::optional<common::DaemonEvent> event = common::readDaemonEvent(record);
    if (!event) {
        return std::nullopt;
    }
    const std::string sentence = narrator_.tell(*event);
    const std::optional<double> now = secondsOf(record);
    if (sentence.empty() || !now) {
        return std::nullopt;
    }
    // Every start of the daemon counts from 0. It may not be among what is told, and others speak as it does.
    if (event->kind == common::DaemonEventKind::kStarted || !start_) {
        start_ = *now;
    }
    char seconds[32];
    std::snprintf(seconds, sizeof seconds, "%8.1f s  ", *now - *start_);
    return seconds + sentence;
}

} // namespace vset
