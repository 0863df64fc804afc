// The log file of a running set, followed as it grows.
#ifndef VSET_CLIENT_PLATFORM_LOG_H
#define VSET_CLIENT_PLATFORM_LOG_H

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "common/daemon/log-record.h"
#include "common/daemon/places.h"
#include "common/files/regular-file.h"

namespace vset
{

using common::LogBuffer;
using common::LogRecord;
using common::parseLogLine;
using common::priorityName;
using common::places::kLogFile;

// How much of the log is still wanted by who follows it.
enum class Wanted {
    kMore,        // what is there and what comes
    kWhatIsThere, // to the end of the file
    kNoMore,      // at most what can be had in a moment
};

// Reads the file of a set from the first record on. What is no record is skipped, however much of it there
// is; a line of more than a mebibyte is none.
class LogReader
{
public:
    using Take = std::function<bool(const LogRecord&)>; // false when it has had enough

    // Throws ControlError when there is no such file, or something else under its name. `path` as this
    // process sees it.
    explicit LogReader(const std::string& path);
    LogReader(const LogReader&) = delete;
    LogReader& operator=(const LogReader&) = delete;

    // Leaves out what stands before byte `start` of the file: the end of a line. A file that is shorter was
    // emptied since, and is read from its start. Before the first next().
    void skipTo(int64_t start);
    // Leaves out all but the whole lines of its last `bytes`. Before the first next().
    void skipToLatest(int64_t bytes);

    // The next record that is in the file already; nothing at its end, or after 16 MiB without a record. The
    // call after that goes on from there.
    std::optional<LogRecord> next();

    // Hands what is in the file to `take`, to its end; false when `take` has had enough.
    bool takeAll(const Take& take);
    // The same for about as long as `longest` at most; it goes on from there the next time.
    bool takeSome(const Take& take, std::chrono::milliseconds longest);

    // Goes on with the new file when the log was moved away, and from its start when it was cut. For whoever
    // looks for the next record again and again. True when it was so.
    bool renew();

    // Hands every record to `take` as it is written, until it has had enough, or as long as `wanted` says,
    // which is asked some twenty times a second. Renews the log.
    void follow(const Take& take, const std::function<Wanted()>& wanted = {});

private:
    enum class Taken { kAll, kSome, kEnough };

    Taken takeFor(const Take& take, std::chrono::milliseconds longest);
    std::optional<std::string> nextLine();
    bool readBlock();
    void skipHole();
    bool isReplaced() const;
    bool reopen();

    std::string path_;
    std::unique_ptr<common::RegularFile> file_;
    std::string buffered_;
    size_t taken_ = 0;     // bytes at its start
    size_t searched_ = 0;  // so many of its bytes have no line's end that was not taken
    bool isCut_ = false;   // the line's beginning has been thrown away
    size_t readable_ = 0;  // bytes, until next() ends without a record
    bool isAtEnd_ = false; // and not at the end of what it may read at once
};

} // namespace vset

#endif
