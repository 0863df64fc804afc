#include "log-tail.h"

#include <sys/stat.h>

#include "control-client.h"

namespace vset
{

namespace
{

constexpr int64_t kInterval = 50; // milliseconds of the PC's time

unsigned long long inodeOfLog()
{
    struct stat status {
    };
    return stat(kLogFile, &status) == 0 ? status.st_ino : 0;
}

} // namespace

void LogTail::start()
{
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
    timer_.start(kInterval, [this] { look(); });
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
    while (reader_ != nullptr) {
        const auto next = reader_->next();
        if (!next) {
            return;
        }
        records_.push_back(*next);
        ++count_;
        if (records_.size() > kKept) {
            records_.pop_front();
        }
        record.tell(*next);
    }
}

} // namespace vset
