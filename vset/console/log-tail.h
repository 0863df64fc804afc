// The set's log, followed on the main loop.
#ifndef VSET_CONSOLE_LOG_TAIL_H
#define VSET_CONSOLE_LOG_TAIL_H

#include <cstdint>
#include <deque>
#include <memory>

#include "vset/client/platform-log.h"
#include "vset/console/real-time.h"
#include "vset/platformd/event.h"

namespace vset
{

class LogTail
{
public:
    static constexpr size_t kKept = 4000; // records
    // Of a log that is there already, its end of this size is read: a set that has booted a thousand times
    // boots as fast as a new one.
    static constexpr int64_t kLatestBytes = 256 << 10;

    LogTail() = default;

    // Reads the latest of what is there, and goes on from then; connect before.
    void start();

    const std::deque<LogRecord>& latest() const { return records_; }

    // How many records were read; the last of them is the last of latest().
    uint64_t count() const { return count_; }

    Event<const LogRecord&> record;

private:
    void look();
    void reopen(unsigned long long inode);
    void drain();

    std::unique_ptr<LogReader> reader_;
    std::deque<LogRecord> records_;
    uint64_t count_ = 0;
    unsigned long long inode_ = 0;
    bool isMovedAway_ = false; // since the latest look
    RealTimer timer_;
};

} // namespace vset

#endif
