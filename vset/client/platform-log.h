// The log file of a running set, followed as it grows.
#ifndef VSET_CLIENT_PLATFORM_LOG_H
#define VSET_CLIENT_PLATFORM_LOG_H

#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include "common/log-record.h"

namespace vset
{

using common::kLogFile;
using common::LogBuffer;
using common::LogRecord;
using common::parseLogLine;
using common::priorityName;

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
