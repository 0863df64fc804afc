#include "vset/console/log-tail.h"

#include <sys/stat.h>

#include "vset/client/control-client.h"

namespace vset
{

namespace
{

constexpr int64_t kLookAtLog = 50; // milliseconds of the PC's time
// The platform has others to serve: what has come faster than that is read at the next looks.
constexpr std::chrono::milliseconds kLongestLook{200};

unsigned long long inodeOfLog()
{
    struct stat status{};
    return stat(kLogFile, &status) == 0 ? status.st_ino : 0;
}

} // namespace

void LogTail::start()
{
    reopen(inodeOfLog());
    if (reader_ != nullptr) {
        reader_->skipToLatest(kLatestBytes);
    }
    look();
}

// A file that was moved away is read for one look more: a program that has not noticed yet writes to it.
void LogTail::look()
{
    drain();
    const unsigned long long inode = inodeOfLog();
    const bool isOther = inode != 0 && (reader_ == nullptr || inode != inode_);
    if (isOther && (reader_ == nullptr || isMovedAway_)) {
        reopen(inode);
        drain();
    }
    isMovedAway_ = isOther && inode != inode_;
    timer_.start(kLookAtLog, [this] { look(); });
}

void LogTail::reopen(unsigned long long inode)
{
    try {
        reader_ = std::make_unique<LogReader>(kLogFile);
        inode_ = inode;
    } catch (const ControlError&) {
        reader_.reset(); // tried again at the next look
    }
}

void LogTail::drain()
{
    if (reader_ == nullptr) {
        return;
    }
    const auto keep = [this](const LogRecord& next) {
        records_.push_back(next);
        ++count_;
        if (records_.size() > kKept) {
            records_.pop_front();
        }
        record.tell(next);
        return true;
    };
    reader_->takeSome(keep, kLongestLook);
}

} // namespace vset
