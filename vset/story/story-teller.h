// The records of a set's log as the lines of a story: the set's seconds since the daemon's start, and a
// sentence.
#ifndef VSET_STORY_STORY_TELLER_H
#define VSET_STORY_STORY_TELLER_H

#include <optional>
#include <string>

#include "common/daemon/daemon-events.h"
#include "vset/client/platform-log.h"
#include "vset/story/narrator.h"

namespace vset
{

// Seconds since 1970 of a record, with their fraction; nothing when its time is none.
std::optional<double> secondsOf(const LogRecord& record);

class StoryTeller
{
public:
    // Nothing for a record that carries the story no further.
    std::optional<std::string> tell(const LogRecord& record);

private:
    Narrator narrator_;
    std::optional<double> start_;
};

} // namespace vset

#endif
