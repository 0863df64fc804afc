// The records of a set's log as the lines of a story: the set's seconds since the daemon's start, and a
// sentence.
#pragma once

#include <optional>
#include <string>

#include "narrator.h"
#include "platform-log.h"

namespace vset
{

// Seconds since 1970 of a record, with their fraction; nothing when its time is none.
std::optional<double> secondsOf(const LogRecord& record);

// Whether the daemon wrote it into the platform's log.
bool isOfDaemon(const LogRecord& record);

class StoryTeller
{
public:
    // Nothing for a record that carries the story no further.
    std::optional<std::string> tell(const LogRecord& record);

private:
    Narrator narrator_;
    double start_ = 0;
};

} // namespace vset
