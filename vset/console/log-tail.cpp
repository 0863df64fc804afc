#include "vset/console/log-tail.h"

#include <fstream>
#include <string>
#include <sys/stat.h>

#include "vset/client/control-client.h"

namespace vset
{

namespace
{

constexpr int64_t kInterval = 50; // milliseconds of the PC's time

unsigned long long inodeOfLog()
{
    struct stat status{};
    return stat(kLogFile, &status) == 0 ? status.st_ino : 0;
}

// Where the first whole line of the log's end begins.
int64_t startOfLatest()
{
    std::ifstream log(kLogFile, std::ios::binary | std::ios::ate);
    const int64_t size = log.tellg();
    if (size <= LogTail::kLatestBytes) {
        return 0;
    }
    log.seekg(size - LogTail::kLatestBytes);
    std::string cut;
    std::getline(log, cut);
    return log ? static_cast<int64_t>(log.tellg()) : size;
}

} // namespace

void LogTail::start()
{
    reopen(inodeOfLog());
    if (reader_ != nullptr) {
        reader_->skipTo(startOfLatest());
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
