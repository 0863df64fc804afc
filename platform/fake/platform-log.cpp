// norlog.h and trace_logger.h.

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <ostream>

#include "norlog.h"
#include "platform/fake/fake-platform.h"
#include "platform/fake/support.h"
#include "trace_logger.h"

using fakeSupport::orEmpty;

namespace
{

// Every record ends with this errno: a caller that relies on a log call to keep `errno` is found out.
constexpr int kErrnoAfterLog = EBADMSG;

__attribute__((format(printf, 1, 0))) std::string formatted(const char* format, va_list arguments)
{
    va_list again;
    va_copy(again, arguments);
    const int reason = errno; // "%m" is evaluated twice
    const int length = vsnprintf(nullptr, 0, format, again);
    va_end(again);
    std::string text(static_cast<size_t>(std::max(length, 0)) + 1, '\0');
    errno = reason;
    vsnprintf(text.data(), text.size(), format, arguments);
    text.pop_back();
    return text;
}

// "file.cpp: function(12) > text" into its parts; a record without that prefix is all text.
void splitPrefix(LogRecord& record)
{
    const size_t end = record.text.find(" > ");
    const size_t colon = record.text.find(": ");
    const size_t open = record.text.rfind('(', end);
    if (end == std::string::npos || colon == std::string::npos || open == std::string::npos || colon > open) {
        return;
    }
    record.prefix = record.text.substr(0, end + 3);
    record.file = record.text.substr(0, colon);
    record.function = record.text.substr(colon + 2, open - colon - 2);
    record.line = atoi(record.text.c_str() + open + 1);
    record.text.erase(0, end + 3);
}

// The trace recorder's copy of what the platform log has just received.
bool isSameMessage(const LogRecord& platform, const LogRecord& trace)
{
    return platform.sink == LogSink::kPlatformOnly && trace.sink == LogSink::kTraceOnly &&
           platform.priority == trace.priority && platform.text == trace.text &&
           platform.thread == trace.thread;
}

const char* name(LogSink sink)
{
    switch (sink) {
    case LogSink::kPlatformOnly:
        return "platform log only";
    case LogSink::kTraceOnly:
        return "trace recorder only";
    case LogSink::kBoth:
        break;
    }
    return "both logs";
}

} // namespace

bool operator==(const LogLine& left, const LogLine& right)
{
    return left.sink == right.sink && left.priority == right.priority && left.text == right.text;
}

std::ostream& operator<<(std::ostream& out, const LogLine& line)
{
    return out << name(line.sink) << ", priority " << line.priority << ": \"" << line.text << '"';
}

std::vector<LogLine> FakePlatform::log() const
{
    // Per thread: the lines of others may stand between the two records of one message.
    std::vector<LogLine> lines;
    std::map<std::thread::id, std::pair<LogRecord, size_t>> unpaired;
    for (const LogRecord& record : logRecords()) {
        const auto last = unpaired.find(record.thread);
        if (last != unpaired.end() && isSameMessage(last->second.first, record)) {
            lines[last->second.second].sink = LogSink::kBoth;
            unpaired.erase(last);
            continue;
        }
        unpaired.insert_or_assign(record.thread, std::pair(record, lines.size()));
        lines.push_back({record.sink, record.priority, record.text});
    }
    return lines;
}

std::vector<LogRecord> FakePlatform::logRecords() const
{
    const std::lock_guard<std::mutex> lock(mutex);
    return state.log;
}

void FakePlatform::clearLog()
{
    const std::lock_guard<std::mutex> lock(mutex);
    state.log.clear();
}

void FakePlatform::onLog(std::function<void(const std::string& text)> action)
{
    const std::lock_guard<std::mutex> lock(mutex);
    state.logAction = std::move(action);
}

void FakePlatform::keepLog(LogRecord record)
{
    std::function<void(const std::string&)> action;
    const std::string text = record.text;
    {
        const std::lock_guard<std::mutex> lock(mutex);
        state.log.push_back(std::move(record));
        action = state.logAction;
    }
    if (action) {
        action(text);
    }
}

int __norlog_print(int log_id, int priority, const char* tag, const char* format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    LogRecord record{LogSink::kPlatformOnly,    log_id, priority, orEmpty(tag), "", "", "", 0, "",
                     std::this_thread::get_id()};
    record.text = formatted(format, arguments);
    va_end(arguments);
    splitPrefix(record);
    fakePlatform().keepLog(std::move(record));
    errno = kErrnoAfterLog;
    return 0;
}

void TraceLogger::record(int priority, const char* file, const char* function, int line, const char* format,
                         ...)
{
    va_list arguments;
    va_start(arguments, format);
    LogRecord record{LogSink::kTraceOnly,       0, priority, "", "", file, function, line, "",
                     std::this_thread::get_id()};
    record.text = formatted(format, arguments);
    va_end(arguments);
    fakePlatform().keepLog(std::move(record));
    errno = kErrnoAfterLog;
}
