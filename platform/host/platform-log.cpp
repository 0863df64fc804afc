// norlog.h and trace_logger.h: both logs go to one file of the set, one line for each record.
//
// A line is written with a single call on a file opened for appending: lines of several writers never mix,
// and nothing is held back in the process, which may be killed or end without flushing at any moment. The
// file may be moved or removed while programs run (log-file.h).
//
// Fields, separated by tabs: time (UTC of the set), log id or "trace", priority, tag, process, thread, thread
// name, file, function, line (the last three empty in the platform log), message. A tab, a line end or a
// backslash inside a field is written as \t, \n, \r or \\, any other control character as \xHH.

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <ctime>
#include <string>
#include <sys/prctl.h>

#include "norlog.h"
#include "platform/host/exported.h"
#include "platform/host/log-file.h"
#include "trace_logger.h"

namespace
{

constexpr size_t kUsualLine = 512; // bytes, for which one allocation is made

// Puts the caller's errno back: a record must change nothing for its writer.
class ErrnoKeeper
{
public:
    ~ErrnoKeeper() { errno = saved_; }

private:
    const int saved_ = errno;
};

struct Location {
    const char* file;
    const char* function;
    int line;
};

bool isPlain(char character)
{
    const auto byte = static_cast<unsigned char>(character);
    return byte >= 0x20 && byte != 0x7f && byte != '\\';
}

void appendEscape(std::string& line, char character)
{
    constexpr const char* kDigits = "0123456789ABCDEF";
    const auto byte = static_cast<unsigned char>(character);
    switch (character) {
    case '\n':
        line += "\\n";
        break;
    case '\t':
        line += "\\t";
        break;
    case '\r':
        line += "\\r";
        break;
    case '\\':
        line += "\\\\";
        break;
    default:
        line += {'\\', 'x', kDigits[byte / 16], kDigits[byte % 16]};
    }
}

void appendEscaped(std::string& line, const char* text)
{
    while (*text != '\0') {
        const char* end = text;
        while (isPlain(*end)) {
            ++end;
        }
        line.append(text, end);
        text = end;
        if (*text != '\0') {
            appendEscape(line, *text++);
        }
    }
}

void appendField(std::string& line, const char* text)
{
    line += '\t';
    appendEscaped(line, text == nullptr ? "" : text);
}

void appendField(std::string& line, long number)
{
    line += '\t';
    line += std::to_string(number);
}

// The date of a second is written once for each thread, not for each record.
void appendNow(std::string& line)
{
    struct Second {
        time_t time = -1;
        char text[32] = "";
    };
    thread_local Second known;
    timespec time{};
    clock_gettime(CLOCK_REALTIME, &time);
    if (time.tv_sec != known.time) {
        tm parts{};
        gmtime_r(&time.tv_sec, &parts);
        strftime(known.text, sizeof known.text, "%Y-%m-%dT%H:%M:%S.", &parts);
        known.time = time.tv_sec;
    }
    const std::string fraction = std::to_string(time.tv_nsec / 1000);
    line += known.text;
    line.append(6 - fraction.size(), '0');
    line += fraction;
    line += 'Z';
}

// The formatted message; errno must still be the caller's, for "%m". False for a format that cannot be
// printed.
__attribute__((format(printf, 2, 0))) bool formatMessage(std::string& message, const char* format,
                                                         va_list values)
{
    const int callersErrno = errno;
    va_list again;
    va_copy(again, values);
    char small[512];
    const int length = vsnprintf(small, sizeof small, format, values);
    if (length >= static_cast<int>(sizeof small)) {
        message.resize(static_cast<size_t>(length) + 1);
        errno = callersErrno;
        vsnprintf(message.data(), message.size(), format, again);
        message.pop_back();
    } else if (length >= 0) {
        message = small;
    }
    va_end(again);
    return length >= 0;
}

std::string lineOf(const char* buffer, int priority, const char* tag, const Location* place,
                   const std::string& message)
{
    const platform::Writer writer = platform::writer();
    char threadName[32] = "";
    prctl(PR_GET_NAME, threadName); // asked anew: a thread may take another name
    std::string line;
    line.reserve(kUsualLine + message.size());
    appendNow(line);
    appendField(line, buffer);
    appendField(line, priority);
    appendField(line, tag);
    appendField(line, writer.process);
    appendField(line, writer.thread);
    appendField(line, threadName);
    appendField(line, place == nullptr ? "" : place->file);
    appendField(line, place == nullptr ? "" : place->function);
    if (place == nullptr) {
        line += '\t';
    } else {
        appendField(line, place->line);
    }
    appendField(line, message.c_str());
    line += '\n';
    return line;
}

} // namespace

PLATFORM_EXPORT int __norlog_print(int log_id, int priority, const char* tag, const char* format, ...)
{
    const ErrnoKeeper keeper;
    if (format == nullptr) {
        return -1;
    }
    std::string message;
    va_list values;
    va_start(values, format);
    const bool isPrintable = formatMessage(message, format, values);
    va_end(values);
    if (!isPrintable) {
        return -1;
    }
    return platform::appendToLog(lineOf(std::to_string(log_id).c_str(), priority, tag, nullptr, message));
}

PLATFORM_EXPORT void TraceLogger::record(int priority, const char* file, const char* function, int line,
                                         const char* format, ...)
{
    const ErrnoKeeper keeper;
    if (format == nullptr) {
        return;
    }
    std::string message;
    va_list values;
    va_start(values, format);
    const bool isPrintable = formatMessage(message, format, values);
    va_end(values);
    const Location place = {file, function, line};
    if (isPrintable) {
        platform::appendToLog(lineOf("trace", priority, "", &place, message));
    }
}
