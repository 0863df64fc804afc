// A record of the set's log, as the platform's log calls write it.
//
// One line for each; platform/host/platform-log.cpp says how its fields are separated and escaped. No state;
// any thread.
#ifndef COMMON_DAEMON_LOG_RECORD_H
#define COMMON_DAEMON_LOG_RECORD_H

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace common
{

enum class LogBuffer { System, Other, Trace };

struct LogRecord {
    std::string time; // UTC of the set, "2026-01-31T12:00:00.000000Z"
    LogBuffer buffer = LogBuffer::Other;
    int logId = -1; // of the platform log; 2 is its system buffer
    int priority = 0;
    std::string tag;
    int process = 0;
    int thread = 0;
    std::string threadName;
    // Where the call stands: told by the recorder, read from the usual start of the message in the platform
    // log.
    std::string file;
    std::string function;
    int line = 0;
    std::string message; // without that start
    std::string text;    // whole, as it was written
};

// The usual start of a message in the platform log, "FILE: FUNCTION(LINE) > ", is taken from `text` into the
// fields for it; without one, nothing changes.
void takePlaceFromMessage(LogRecord& record);

// Nothing for a line that is not a whole record. `line` without its end.
std::optional<LogRecord> parseLogLine(const std::string& line);

// Microseconds since 1970 of a record's time; nothing for a text that is none, such as a day that no month
// has.
std::optional<int64_t> microsecondsOf(const LogRecord& record);

// The message as a person is told it: the daemon ends some of its own with a line's end.
std::string_view withoutLineEnd(std::string_view message);

// "debug", "info", "warning", "error", or the number.
std::string priorityName(int priority);

} // namespace common

#endif
