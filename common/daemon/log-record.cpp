#include "common/daemon/log-record.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <vector>

namespace common
{

namespace
{

constexpr int kSystemLogId = 2;

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

} // namespace

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

std::optional<int64_t> microsecondsOf(const LogRecord& record)
{
    std::tm parts{};
    const char* rest = strptime(record.time.c_str(), "%Y-%m-%dT%H:%M:%S", &parts);
    if (rest == nullptr) {
        return std::nullopt;
    }
    const std::tm written = parts;
    int64_t time = timegm(&parts) * int64_t{1'000'000}; // moves 30 February on to March
    if (parts.tm_mday != written.tm_mday || parts.tm_sec != written.tm_sec) {
        return std::nullopt;
    }
    rest += *rest == '.' ? 1 : 0;
    for (int64_t unit = 100'000; *rest >= '0' && *rest <= '9'; ++rest, unit /= 10) {
        time += (*rest - '0') * unit;
    }
    return std::strcmp(rest, "Z") == 0 ? std::optional(time) : std::nullopt;
}

std::string_view withoutLineEnd(std::string_view text)
{
    while (!text.empty() && text.back() == '\n') {
        text.remove_suffix(1);
    }
    return text;
}

std::string priorityName(int priority)
{
    constexpr int kLowest = 3;
    constexpr std::array<const char*, 4> kNames = {"debug", "info", "warning", "error"};
    const int index = priority - kLowest;
    return index >= 0 && index < static_cast<int>(kNames.size()) ? kNames[static_cast<size_t>(index)]
                                                                 : std::to_string(priority);
}

} // namespace common
