#include "vset/story/story-teller.h"

#include <cstdio>

namespace vset
{

std::optional<std::string> StoryTeller::tell(const LogRecord& record)
{
    const std::optional<common::DaemonEvent> event = common::readDaemonEvent(record);
    if (!event) {
        return std::nullopt;
    }
    const std::string sentence = narrator_.tell(*event);
    const std::optional<int64_t> now = common::microsecondsOf(record);
    if (sentence.empty() || !now) {
        return std::nullopt;
    }
    // Every start of the daemon counts from 0. It may not be among what is told, and others speak as it does.
    if (event->kind == common::DaemonEventKind::kStarted || !start_) {
        start_ = *now;
    }
    char seconds[32];
    std::snprintf(seconds, sizeof seconds, "%8.1f s  ", static_cast<double>(*now - *start_) / 1e6);
    return seconds + sentence;
}

} // namespace vset
