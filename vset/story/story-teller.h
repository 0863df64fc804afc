// The records of a set's log as the lines of a story: the set's seconds since the daemon's start, and a
// sentence.
#ifndef VSET_STORY_STORY_TELLER_H
#define VSET_STORY_STORY_TELLER_H

#include <cstdint>
#include <optional>
#include <string>

#include "common/daemon/daemon-events.h"
#include "vset/client/platform-log.h"
#include "vset/story/narrator.h"

namespace vset
{

class StoryTeller
{
public:
    // Nothing for a record that carries the story no further.
    std::optional<std::string> tell(const LogRecord& record);

private:
    Narrator narrator_;
    std::optional<int64_t> start_; // microseconds since 1970
};

} // namespace vset

#endif
