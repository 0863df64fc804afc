// norlog.h and trace_logger.h: both logs go to one file of the set, one line for each record.
//
// A line is written with a single call on a file opened for appending: lines of several writers never mix,
// and nothing is held back in the process, which may be killed or end without flushing at any moment. The
// file is opened anew for every record, so it may be moved or removed while programs run.
//
// Fields, separated by tabs: time (UTC of the set), log id or "trace", priority, tag, process, thread, thread
// name, file, function, line (the last three empty in the platform log), message. A tab, a line end or a
// backslash inside a field is written as \t, \n, \r or \\, any other control character as \xHH.

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <ctime>
#include <string>

#include <fcntl.h>
#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

#include "exported.h"
#include "norlog.h"
#include "trace_logger.h"

namespace
{

constexpr const char* kLogFile = "/var/log/platform.log";

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

void appendEscaped(std::string& line, const char* text)
{
    for (; *text != '\0'; ++text) {
        const auto byte = static_cast<unsigned char>(*text);
        char hex[8];
        switch (*text) {
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
            if (byte >= 0x20 && byte != 0x7f) {
                line += *text;
            } else {
                snprintf(hex, sizeof hex, "\\x%02X", byte);
                line += hex;
            }
        }
    }
}

void appendField(std::string& line, const char* text)
{
    line += '\t';
    appendEscaped(line, text == nullptr ? "" : text);
}

std::string now()
{
    timespec time{};
    clock_gettime(CLOCK_REALTIME, &time);
    tm parts{};
    gmtime_r(&time.tv_sec, &parts);
    char date[32];
    strftime(date, sizeof date, "%Y-%m-%dT%H:%M:%S", &parts);
    char fraction[16];
    snprintf(fraction, sizeof fraction, ".%06uZ", static_cast<unsigned int>(time.tv_nsec / 1000) % 1'000'000);
    return std::string(date) + fraction;
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
    char threadName[32] = "";
    pthread_getname_np(pthread_self(), threadName, sizeof threadName);
    std::string line = now();
    appendField(line, buffer);
    appendField(line, std::to_string(priority).c_str());
    appendField(line, tag);
    appendField(line, std::to_string(getpid()).c_str());
    appendField(line, std::to_string(gettid()).c_str());
    appendField(line, threadName);
    appendField(line, place == nullptr ? "" : place->file);
    appendField(line, place == nullptr ? "" : place->function);
    appendField(line, place == nullptr ? "" : std::to_string(place->line).c_str());
    appendField(line, message.c_str());
    line += '\n';
    return line;
}

int append(const std::string& line)
{
    const int file = open(kLogFile, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOCTTY, 0666);
    if (file < 0)
        return -1;
    const ssize_t written = write(file, line.data(), line.size());
    close(file);
    return written == static_cast<ssize_t>(line.size()) ? 0 : -1;
}

} // namespace

PLATFORM_EXPORT int __norlog_print(int log_id, int priority, const char* tag, const char* format, ...)
{
    const ErrnoKeeper keeper;
    if (format == nullptr)
        return -1;
    std::string message;
    va_list values;
    va_start(values, format);
    const bool isPrintable = formatMessage(message, format, values);
    va_end(values);
    if (!isPrintable)
        return -1;
    return append(lineOf(std::to_string(log_id).c_str(), priority, tag, nullptr, message));
}

PLATFORM_EXPORT void TraceLogger::record(int priority, const char* file, const char* function, int line,
                                         const char* format, ...)
{
    const ErrnoKeeper keeper;
    if (format == nullptr)
        return;
    std::string message;
    va_list values;
    va_start(values, format);
    const bool isPrintable = formatMessage(message, format, values);
    va_end(values);
    const Location place = {file, function, line};
    if (isPrintable)
        append(lineOf("trace", priority, "", &place, message));
}
