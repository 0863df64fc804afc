// norlog.h and trace_logger.h: both logs go to one file of the set, one line for each record.
//
// A line is written with a single call on a file opened for appending: lines of several writers never mix,
// and nothing is held back in the process, which may be killed or end without flushing at any moment. The
// file may be moved or removed while programs run (log-file.h).
//
// Fields, separated by tabs: time (UTC of the set), log id or "trace", priority, tag, process, thread, thread
// name, file, function, line (the last three empty in the platform log), message. A tab, a line end or a
// backslash inside a field is written as \t, \n, \r or \\, any other control character as \xHH.

#include <array>
#include <cerrno>
#include <charconv>
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

// The characters that stand in a field as they are; the others are rare.
constexpr std::array<bool, 256> kIsPlain = [] {
    std::array<bool, 256> plain{};
    for (size_t byte = 0x20; byte < plain.size(); ++byte) {
        plain[byte] = byte != 0x7f && byte != '\\';
    }
    return plain;
}();

bool isPlain(char character)
{
    return kIsPlain[static_cast<unsigned char>(character)];
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
    char text[24];
    line += '\t';
    line.append(text, std::to_chars(text, text + sizeof text, number).ptr);
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
    char fraction[] = "000000Z";
    char* digit = fraction + 6;
    for (long microseconds = time.tv_nsec / 1000; microseconds > 0; microseconds /= 10) {
        *--digit = static_cast<char>('0' + microseconds % 10);
    }
    line += known.text;
    line += fraction;
}

// A message with its values in it; made while errno is the caller's, for "%m".
class Message
{
public:
    __attribute__((format(printf, 2, 0))) Message(const char* format, va_list values)
    {
        const int callersErrno = errno;
        va_list again;
        va_copy(again, values);
        length_ = vsnprintf(usual_, sizeof usual_, format, values);
        if (length_ >= static_cast<int>(sizeof usual_)) {
            long_.resize(static_cast<size_t>(length_) + 1);
            errno = callersErrno;
            vsnprintf(long_.data(), long_.size(), format, again);
        }
        va_end(again);
    }

    bool isPrintable() const { return length_ >= 0; } // else the format cannot be
    size_t length() const { return static_cast<size_t>(length_); }
    const char* text() const { return long_.empty() ? usual_ : long_.c_str(); }

private:
    int length_;
    char usual_[512];
    std::string long_; // if it does not fit there
};

std::string lineOf(const char* buffer, int priority, const char* tag, const Location* place,
                   const Message& message)
{
    const platform::Writer writer = platform::writer();
    char threadName[32] = "";
    prctl(PR_GET_NAME, threadName); // asked anew: a thread may take another name
    std::string line;
    line.reserve(kUsualLine + message.length());
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
    appendField(line, message.text());
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
    va_list values;
    va_start(values, format);
    const Message message(format, values);
    va_end(values);
    if (!message.isPrintable()) {
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
    va_list values;
    va_start(values, format);
    const Message message(format, values);
    va_end(values);
    const Location place = {file, function, line};
    if (message.isPrintable()) {
        platform::appendToLog(lineOf("trace", priority, "", &place, message));
    }
}
