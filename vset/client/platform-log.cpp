#include "vset/client/platform-log.h"

#include <algorithm>
#include <cerrno>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

#include "vset/client/control-client.h"

namespace vset
{

namespace
{

constexpr std::chrono::milliseconds kBetweenLooks{50};
constexpr std::chrono::milliseconds kLongestLook{500};
constexpr size_t kLongestLine = 1 << 20;
constexpr size_t kMostAtOnce = 16 << 20;

void sleepBetweenLooks()
{
    poll(nullptr, 0, static_cast<int>(kBetweenLooks.count()));
}

} // namespace

// ---- Opening ----

LogReader::LogReader(const std::string& path)
    : path_(path), file_(std::make_unique<common::RegularFile>(path))
{
    if (file_->descriptor() < 0) {
        throw ControlError("the log " + path + " " + file_->problem());
    }
}

// False, and the old file goes on, when there is none that can be read.
bool LogReader::reopen()
{
    auto next = std::make_unique<common::RegularFile>(path_);
    if (next->descriptor() < 0) {
        return false;
    }
    file_ = std::move(next);
    buffered_.clear();
    taken_ = searched_ = 0;
    isCut_ = false;
    return true;
}

void LogReader::skipTo(int64_t start)
{
    struct stat file{};
    if (fstat(file_->descriptor(), &file) == 0 && start <= file.st_size) {
        lseek(file_->descriptor(), start, SEEK_SET);
    }
}

void LogReader::skipToLatest(int64_t bytes)
{
    struct stat file{};
    if (fstat(file_->descriptor(), &file) == 0 && file.st_size > bytes) {
        lseek(file_->descriptor(), file.st_size - bytes - 1, SEEK_SET); // the line before may end just there
        isCut_ = true;
    }
}

bool LogReader::isReplaced() const
{
    struct stat ours{};
    struct stat there{};
    if (fstat(file_->descriptor(), &ours) != 0 || stat(path_.c_str(), &there) != 0) {
        return false; // moved away, and nothing new yet
    }
    const bool isCut = lseek(file_->descriptor(), 0, SEEK_CUR) > ours.st_size;
    return isCut || ours.st_ino != there.st_ino || ours.st_dev != there.st_dev;
}

bool LogReader::renew()
{
    return isReplaced() && reopen();
}

// ---- Reading ----

// A line that is thrown away is, as a rule, none that anybody wrote: ten gigabytes of a file without content
// are not read through.
void LogReader::skipHole()
{
    const int file = file_->descriptor();
    if (lseek(file, lseek(file, 0, SEEK_CUR), SEEK_DATA) < 0 && errno == ENXIO) { // nothing else is left
        lseek(file, 0, SEEK_END);
    }
}

bool LogReader::readBlock()
{
    if (readable_ == 0) {
        return false;
    }
    char block[65536];
    const ssize_t size = read(file_->descriptor(), block, sizeof block);
    isAtEnd_ = size <= 0;
    if (isAtEnd_) {
        return false;
    }
    buffered_.append(block, static_cast<size_t>(size));
    readable_ -= std::min(readable_, static_cast<size_t>(size));
    return true;
}

std::optional<std::string> LogReader::nextLine()
{
    while (true) {
        const size_t end = buffered_.find('\n', searched_);
        if (end != std::string::npos) {
            std::string line = std::exchange(isCut_, false) ? "" : buffered_.substr(taken_, end - taken_);
            taken_ = searched_ = end + 1;
            return line;
        }
        buffered_.erase(0, std::exchange(taken_, 0));
        if (isCut_ || buffered_.size() > kLongestLine) {
            isCut_ = true;
            buffered_.clear();
            skipHole();
        }
        searched_ = buffered_.size();
        if (!readBlock()) {
            return std::nullopt;
        }
    }
}

std::optional<LogRecord> LogReader::next()
{
    readable_ = kMostAtOnce;
    isAtEnd_ = false;
    while (const auto line = nextLine()) {
        if (auto record = parseLogLine(*line)) {
            return record;
        }
    }
    return std::nullopt;
}

LogReader::Taken LogReader::takeFor(const Take& take, std::chrono::milliseconds longest)
{
    const auto start = std::chrono::steady_clock::now();
    do {
        const auto record = next();
        if (record ? !take(*record) : isAtEnd_) {
            return record ? Taken::kEnough : Taken::kAll;
        }
    } while (std::chrono::steady_clock::now() - start < longest);
    return Taken::kSome;
}

bool LogReader::takeSome(const Take& take, std::chrono::milliseconds longest)
{
    return takeFor(take, longest) != Taken::kEnough;
}

bool LogReader::takeAll(const Take& take)
{
    Taken taken = Taken::kSome;
    while (taken == Taken::kSome) {
        taken = takeFor(take, kLongestLook);
    }
    return taken == Taken::kAll;
}

// ---- Following ----

void LogReader::follow(const Take& take, const std::function<Wanted()>& wanted)
{
    while (true) {
        // Asked first: what was written until then is still taken.
        const Wanted now = wanted ? wanted() : Wanted::kMore;
        const Taken taken = takeFor(take, kLongestLook);
        if (taken == Taken::kEnough || now == Wanted::kNoMore) {
            return;
        }
        if (taken == Taken::kSome) {
            continue;
        }
        if (isReplaced()) {
            // A program that has not noticed yet writes to the old file for some milliseconds.
            sleepBetweenLooks();
            if (!takeAll(take)) {
                return;
            }
            if (reopen()) {
                continue;
            }
        }
        if (now == Wanted::kWhatIsThere) {
            return;
        }
        sleepBetweenLooks();
    }
}

} // namespace vset
