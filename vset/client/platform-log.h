// The set's log file, as the platform's log calls write it.
//
// One line for each record; platform/host/platform-log.cpp says how its fields are separated and escaped.
#ifndef VSET_CLIENT_PLATFORM_LOG_H
#define VSET_CLIENT_PLATFORM_LOG_H

#include <cstdint>
#include <functional>
#include <optional>
#include <string>

namespace vset
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

inline constexpr const char* kLogFile = "/var/log/platform.log";

// Nothing for a line that is not a whole record. `line` without its end.
std::optional<LogRecord> parseLogLine(const std::string& line);

// "debug", "info", "warning", "error", or the number.
std::string priorityName(int priority);

// Reads the file of a set from the first record on.
class LogReader
{
public:
    // Throws ControlError when there is no such file. `path` as this process sees it.
    explicit LogReader(const std::string& path);
    ~LogReader();
    LogReader(const LogReader&) = delete;
    LogReader& operator=(const LogReader&) = delete;

    // Leaves out what stands before byte `start` of the file: the end of a line. A file that is shorter was
    // emptied since, and is read from its start. Before the first next().
    void skipTo(int64_t start);

    // The next record that is in the file already; nothing at its end. Lines that are no records are skipped.
    std::optional<LogRecord> next();

    // Goes on with the new file when the log was moved away, and from its start when it was cut. For whoever
    // looks for the next record again and again. True when it was so.
    bool renew();

    // Hands every record to `take` as it is written, for ever, or until `take` returns false, or until
    // nothing more is in the file and `isOver` is so. Renews the log.
    void follow(const std::function<bool(const LogRecord&)>& take, const std::function<bool()>& isOver = {});

private:
    std::optional<std::string> nextLine();
    bool isReplaced() const;
    void reopen();

    std::string path_;
    int file_ = -1;
    std::string buffered_;
    size_t taken_ = 0; // bytes at its start
};

} // namespace vset

#endif
