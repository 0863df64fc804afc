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

void LogTail::look()
{
    const unsigned long long inode = inodeOfLog();
    if (inode != 0 && (reader_ == nullptr || inode != inode_)) { // the first one, or it was moved away
        try {
            reader_ = std::make_unique<LogReader>(kLogFile);
            inode_ = inode;
        } catch (const ControlError&) {
            reader_.reset(); // tried again at the next look
        }
    }
    while (reader_ != nullptr) {
        const auto next = reader_->next();
        if (!next)
            break;
        records_.push_back(*next);
        ++count_;
        if (records_.size() > kKept)
            records_.pop_front();
        record.tell(*next);
    }
    timer_.start(kInterval, [this] { look(); });
}

} // namespace vset
