#include "vset/client/platform-log.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <iterator>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>
#include <vector>

#include "vset/client/control-client.h"

namespace vset
{

namespace
{

constexpr int kFollowMilliseconds = 50;

} // namespace

// ---- Reading ----

LogReader::LogReader(const std::string& path) : path_(path)
{
    reopen();
    if (file_ < 0) {
        throw ControlError("cannot read the log " + path + ": " + std::strerror(errno));
    }
}

LogReader::~LogReader()
{
    if (file_ >= 0) {
        close(file_);
    }
}

void LogReader::reopen()
{
    const int next = open(path_.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK);
    if (next < 0) {
        return;
    }
    if (file_ >= 0) {
        close(file_);
    }
    file_ = next;
    buffered_.clear();
    taken_ = 0;
}

void LogReader::skipTo(int64_t start)
{
    struct stat file{};
    if (fstat(file_, &file) == 0 && start <= file.st_size) {
        lseek(file_, start, SEEK_SET);
    }
}

std::optional<std::string> LogReader::nextLine()
{
    while (true) {
        const size_t end = buffered_.find('\n', taken_);
        if (end != std::string::npos) {
            std::string line = buffered_.substr(taken_, end - taken_);
            taken_ = end + 1;
            return line;
        }
        buffered_.erase(0, std::exchange(taken_, 0));
        char block[65536];
        const ssize_t size = read(file_, block, sizeof block);
        if (size <= 0) {
            return std::nullopt;
        }
        buffered_.append(block, static_cast<size_t>(size));
    }
}

std::optional<LogRecord> LogReader::next()
{
    while (const auto line = nextLine()) {
        if (auto record = parseLogLine(*line)) {
            return record;
        }
    }
    return std::nullopt;
}

bool LogReader::isReplaced() const
{
    struct stat ours{};
    struct stat there{};
    if (fstat(file_, &ours) != 0 || stat(path_.c_str(), &there) != 0) {
        return false; // moved away, and nothing new yet
    }
    const bool isCut = lseek(file_, 0, SEEK_CUR) > ours.st_size;
    return isCut || ours.st_ino != there.st_ino || ours.st_dev != there.st_dev;
}

bool LogReader::renew()
{
    const bool isNew = isReplaced();
    if (isNew) {
        reopen();
    }
    return isNew;
}

void LogReader::follow(const std::function<bool(const LogRecord&)>& take, const std::function<bool()>& isOver)
{
    const auto takeAll = [&] {
        while (const auto record = next()) {
            if (!take(*record)) {
                return false;
            }
        }
        return true;
    };
    while (true) {
        const bool isLast = isOver && isOver(); // asked first: what was written until then is still taken
        if (!takeAll()) {
            return;
        }
        if (isReplaced()) {
            // A program that has not noticed yet writes to the old file for some milliseconds.
            poll(nullptr, 0, kFollowMilliseconds);
            if (!takeAll()) {
                return;
            }
            reopen();
            continue;
        }
        if (isLast) {
            return;
        }
        poll(nullptr, 0, kFollowMilliseconds);
    }
}

} // namespace vset
