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

constexpr int kSystemLogId = 2;
constexpr int kFollowMilliseconds = 50;

enum Field {
    Time,
    Buffer,
    Priority,
    Tag,
    Process,
    Thread,
    ThreadName,
    File,
    Function,
    Line,
    Message,
    Fields
};

int hexDigit(char c)
{
    constexpr const char* kDigits = "0123456789ABCDEF";
    const char* const found = c == '\0' ? nullptr : std::strchr(kDigits, c);
    return found == nullptr ? -1 : static_cast<int>(found - kDigits);
}

std::string unescape(const std::string& field)
{
    if (field.find('\\') == std::string::npos) {
        return field; // as nearly all are
    }
    std::string text;
    for (size_t i = 0; i < field.size(); ++i) {
        if (field[i] != '\\' || i + 1 == field.size()) {
            text += field[i];
            continue;
        }
        const char escape = field[++i];
        const bool isHex = escape == 'x' && i + 2 < field.size() && hexDigit(field[i + 1]) >= 0 &&
                           hexDigit(field[i + 2]) >= 0;
        if (isHex) {
            text += static_cast<char>(hexDigit(field[i + 1]) * 16 + hexDigit(field[i + 2]));
            i += 2;
        } else {
            text += escape == 'n' ? '\n' : escape == 't' ? '\t' : escape == 'r' ? '\r' : escape;
        }
    }
    return text;
}

std::vector<std::string> split(const std::string& line)
{
    std::vector<std::string> fields;
    fields.reserve(Fields);
    size_t start = 0;
    for (size_t end = 0; (end = line.find('\t', start)) != std::string::npos; start = end + 1) {
        fields.push_back(line.substr(start, end - start));
    }
    fields.push_back(line.substr(start));
    return fields;
}

// The usual start of a message: "FILE: FUNCTION(LINE) > ".
void takePlaceFromMessage(LogRecord& record)
{
    const size_t colon = record.text.find(": ");
    const size_t open = colon == std::string::npos ? colon : record.text.find('(', colon);
    const size_t close = open == std::string::npos ? open : record.text.find(") > ", open);
    if (close == std::string::npos) {
        return;
    }
    const std::string line = record.text.substr(open + 1, close - open - 1);
    const bool isNumber = !line.empty() && line.size() < 8 &&
                          std::all_of(line.begin(), line.end(), [](char c) { return c >= '0' && c <= '9'; });
    if (!isNumber) {
        return;
    }
    record.file = record.text.substr(0, colon);
    record.function = record.text.substr(colon + 2, open - colon - 2);
    record.line = std::atoi(line.c_str());
    record.message = record.text.substr(close + 4);
}

} // namespace

std::optional<LogRecord> parseLogLine(const std::string& line)
{
    const std::vector<std::string> fields = split(line);
    if (fields.size() != Fields || fields[Time].empty() || fields[Buffer].empty()) {
        return std::nullopt;
    }
    LogRecord record;
    record.time = fields[Time];
    record.priority = std::atoi(fields[Priority].c_str());
    record.tag = unescape(fields[Tag]);
    record.process = std::atoi(fields[Process].c_str());
    record.thread = std::atoi(fields[Thread].c_str());
    record.threadName = unescape(fields[ThreadName]);
    record.text = record.message = unescape(fields[Message]);
    if (fields[Buffer] == "trace") {
        record.buffer = LogBuffer::Trace;
        record.file = unescape(fields[File]);
        record.function = unescape(fields[Function]);
        record.line = std::atoi(fields[Line].c_str());
        return record;
    }
    record.logId = std::atoi(fields[Buffer].c_str());
    record.buffer = record.logId == kSystemLogId ? LogBuffer::System : LogBuffer::Other;
    takePlaceFromMessage(record);
    return record;
}

std::string priorityName(int priority)
{
    constexpr int kLowest = 3;
    constexpr std::array<const char*, 4> kNames = {"debug", "info", "warning", "error"};
    const int index = priority - kLowest;
    return index >= 0 && index < static_cast<int>(kNames.size()) ? kNames[static_cast<size_t>(index)]
                                                                 : std::to_string(priority);
}

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
